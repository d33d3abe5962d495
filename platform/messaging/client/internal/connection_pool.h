// ConnectionPool: the connections over which an endpoint sends requests to one remote.
//
// A request runs on its caller's thread: it takes a connection, writes one frame, reads one frame,
// and gives the connection back. Connections are made when all are busy, up to a limit.
//
// Order:    requests that nobody answers must not overtake each other, nor be overtaken by their own
//           thread's next request. So a thread whose last one-way request has not been followed by
//           an answer on its connection goes on with that very connection.
// Limit:    requests made inside receivers have a connection of their own, beyond it: all others may be
//           waiting for an answer that the service has only once the receiver has returned.
// Threads:  any.
#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "base/status.h"
#include "platform/messaging/client/internal/stream.h"
#include "platform/messaging/endpoint.h"

namespace PbUtility {

// What one exchange needs to know of its caller, and what it learns.
struct Exchange {
  std::uint32_t messageId = 0;
  bool oneWay = false;
  bool insideReceiver = false;
  Clock::time_point deadline;
  // Revision for the header when the connection's epoch is `knownEpoch`; else kRevisionNone is
  // sent.
  std::uint64_t revision = kRevisionNow;
  std::uint64_t knownEpoch = 0;

  std::uint32_t sequence = 0;
  std::uint64_t epoch = 0;
  std::uint64_t answerRevision = 0;
  // A connection was made for this: the service is there.
  bool opened = false;
};

// With the text that lastRefusal tells.
using CallOutcome = Base::Status<CallStatus>;

class ConnectionPool {
 public:
  ConnectionPool(std::string path, Hello hello, unsigned maxConnections);

  // One request and, unless it is one-way, its response, which is parsed into `response`.
  CallOutcome call(const google::protobuf::MessageLite& request,
                   google::protobuf::MessageLite* response, Exchange& exchange);

 private:
  // Who has a connection, and who may have it next.
  struct Use {
    bool busy = false;
    bool forReceivers = false;
    // Thread whose one-way request may still be unread by the service; none: default id.
    std::thread::id oneWayBy;
  };
  class Connection;
  // The one way to it, so that nobody gets there without the mutex.
  Use& useOf(Connection& connection) APPCONFIG_REQUIRES(mutex_);
  // All but its use is its caller's alone.
  class Connection {
   public:
    Stream stream;
    std::string outgoing;
    std::uint32_t lastSequence = 0;
    std::uint64_t epoch = 0;

   private:
    friend Use& ConnectionPool::useOf(Connection& connection);
    Use use_;
  };
  using Position = std::list<Connection>::iterator;
  class Lease;

  CallOutcome take(Exchange& exchange, Position& connection);
  bool findIdle(bool insideReceiver, Position& connection, bool& mustWait)
      APPCONFIG_REQUIRES(mutex_);
  bool isFull() APPCONFIG_REQUIRES(mutex_);
  void giveBack(Position connection, bool usable, std::thread::id oneWayBy);
  void closeIdle();
  CallOutcome open(Connection& connection, Exchange& exchange);
  CallOutcome sendRequest(Connection& connection, const google::protobuf::MessageLite& request,
                          Exchange& exchange, bool& stale);
  CallOutcome receiveResponse(Connection& connection, google::protobuf::MessageLite& response,
                              Exchange& exchange);
  CallOutcome welcome(Connection& connection, Exchange& exchange);

  const std::string path_;
  const Hello hello_;
  const unsigned maxConnections_;
  // Nothing is taken while it is held, and no input or output happens.
  Base::Mutex mutex_;
  Base::Condition freed_;
  std::list<Connection> connections_ APPCONFIG_GUARDED_BY(mutex_);
};

inline ConnectionPool::Use& ConnectionPool::useOf(Connection& connection) {
  return connection.use_;
}

}  // namespace PbUtility
