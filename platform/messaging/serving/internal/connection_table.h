// ConnectionTable: the connections of a server, from the moment they are taken in until they are gone,
// and what they cost.
//
// Connections, and the bytes they make the server keep, are shared out among users and processes
// (shares.h); who asks for more is told why, or loses the connection that holds most.
//
// Closing one only marks it: whoever is called by the server may answer, notify and ask at any point,
// and no connection vanishes under the code that called it. The server takes the dead out in between,
// when nobody has one in hands.
//
// Threads:   one at a time, whichever runs the server's loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>

#include "base/status.h"
#include "base/unique_fd.h"
#include "platform/messaging/serving/internal/buffers.h"
#include "platform/messaging/serving/internal/connection.h"
#include "platform/messaging/serving/internal/event_loop.h"
#include "platform/messaging/serving/internal/listener.h"
#include "platform/messaging/serving/server_handler.h"
#include "platform/messaging/serving/server_options.h"
#include "platform/messaging/serving/shares.h"

namespace PbUtility {

class ConnectionTable {
 public:
  // The loop's keys of the socket that listens, and of connections: this one and greater ones.
  static constexpr std::uint64_t kListenerKey = EventLoop::kFirstKey;
  static constexpr std::uint64_t kFirstConnectionKey = kListenerKey + 1;

  ConnectionTable(const ServerOptions& options, ServerHandler& handler, EventLoop& loop);

  // Takes the socket; then has the loop watch it.
  Base::Status<> listen();
  bool watchListener();
  // Takes in some of those that wait at the socket; the loop tells again of the rest.
  void acceptSome();

  // Null when it is gone, or about to be. Who asked is looked for again when it is answered, so that the
  // one found last is mostly the next.
  Connection* find(std::uint64_t key) {
    if (latest_ == nullptr || latest_->key != key) {
      const auto found = connections_.find(key);
      if (found == connections_.end()) return nullptr;
      latest_ = found->second.get();
    }
    return latest_->dead ? nullptr : latest_;
  }

  // It has said who it is.
  void greeted(Connection& connection) { loop_.cancel(connection.greetingTimer); }

  void close(Connection& connection);
  // With a line for the handler.
  void close(Connection& connection, Fault kind, const std::string& why);
  bool hasDead() const { return !dead_.empty(); }
  // Takes out the one that is dead for longest; there has to be one.
  std::unique_ptr<Connection> takeDead();

  // To be called when it may keep more or less than before.
  void countBuffered(Connection& connection) {
    buffers_.set(connection.buffered, connection.dead ? 0 : connection.memoryBytes());
  }
  // Closes whom the bytes that are kept make it close.
  void keepWithinBuffers() {
    if (buffers_.isPast()) closePast();
  }
  // Whether the connection may make the server keep so many bytes more; else it is closed. What is long
  // and does not fit is not worth making.
  bool fits(Connection& connection, std::size_t bytes);

 private:
  void begin(Base::UniqueFd fd);
  void refuse(int fd, const ucred& who, const std::string& text);
  void closePast();
  void closePast(Connection& connection, const std::string& limit);

  const ServerOptions& options_;
  ServerHandler& handler_;
  EventLoop& loop_;
  Listener listener_;
  Shares shares_;
  Buffers buffers_;
  std::uint64_t nextKey_ = kFirstConnectionKey;
  std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> connections_;
  // Found last; null when it is gone.
  Connection* latest_ = nullptr;
  std::deque<std::uint64_t> dead_;
};

}  // namespace PbUtility
