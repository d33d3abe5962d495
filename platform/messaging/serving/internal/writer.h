// Writer: what leaves a server for its clients, and when.
//
// Mostly at the end of the event that it is for, in the order of FlushQueue. Long notices leave at once
// as far as the socket takes them. Who does not read is closed when too much waits for it.
//
// Threads:   one at a time, whichever runs the server's loop.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/messaging/serving/internal/connection.h"
#include "platform/messaging/serving/internal/connection_table.h"
#include "platform/messaging/serving/internal/event_loop.h"
#include "platform/messaging/serving/internal/flush_queue.h"
#include "platform/messaging/serving/server_options.h"

namespace PbUtility {

class Writer {
 public:
  // Notices and questions that wait for the end of the event, and count for nobody until then.
  static constexpr std::size_t kUncountedBytes = std::size_t{4} * 1024;

  // `letGoOn` is called for a connection that something waits for, whenever some of its bytes have left.
  Writer(const ServerOptions& options, ConnectionTable& connections, EventLoop& loop,
         std::function<void(Connection&)> letGoOn);
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  // More bytes wait for the client than it is left to pile up: its requests wait.
  bool isFull(const Connection& connection) const {
    return connection.outbox.waitingBytes() > options_.roomBytes;
  }

  // What was added to the outbox leaves now, or at the end of the event.
  void flush(Connection& connection);
  void flushLater(Connection& connection) { queue_.add(connection); }
  void sendRefusal(Connection& connection, std::uint32_t sequence, std::uint32_t error,
                   const std::string& text);
  // A notice or question; of notices with one non-empty key the newest alone waits.
  void sendLater(Connection& connection, std::string frame, std::string_view key);

  // At the end of an event. Most leave one connection to flush, and most calls find none.
  void flushAll() {
    if (!queue_.isEmpty()) flushDue();
    connections_.keepWithinBuffers();
  }
  // Some of those for whom there was no time at the end of their event.
  bool hasCrowd() const { return queue_.hasCrowd(); }
  void flushCrowd();

  // The connection is gone.
  void forget(Connection& connection) { queue_.forget(connection); }

 private:
  // There has to be somebody who is due.
  void flushDue();
  void flushOne(Connection& connection);
  void writeAhead(Connection& connection);
  void checkBacklog(Connection& connection);

  const ServerOptions& options_;
  ConnectionTable& connections_;
  EventLoop& loop_;
  const std::function<void(Connection&)> letGoOn_;
  FlushQueue queue_;
};

}  // namespace PbUtility
