// FlushQueue: connections to which something was written since the last event, and in which order it
// leaves.
//
// Bytes leave at the end of the event that they are for, several notices to one peer in one go. A few
// peers who are told of a change come first, then those who are answered, then all others. Of more than
// one round has time for, the rest is the crowd, which has its turn in later rounds.
//
// Threads:   one at a time, whichever runs the server's loop.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "platform/messaging/serving/internal/connection.h"

namespace PbUtility {

class FlushQueue {
 public:
  // In one round.
  static constexpr std::size_t kAtOnce = 128;

  // A connection that is in here already is left where it is.
  void add(Connection& connection) {
    if (!std::exchange(connection.willFlush, true)) due_.push_back(&connection);
  }

  bool isEmpty() const { return due_.empty() && isBatchDone(); }
  // Whose bytes leave next; null when nobody is due. What is added meanwhile comes later. Whoever writes
  // them says so with left().
  Connection* next() { return isBatchDone() && due_.size() == 1 ? takeOnly() : nextOfMany(); }
  static void left(Connection& connection) { connection.willFlush = false; }
  // The connection is gone, perhaps while it was due.
  void forget(const Connection& connection) {
    if (connection.willFlush) remove(connection);
  }

  bool hasCrowd() const { return !crowd_.empty(); }
  // Of how many the turn is in this round.
  std::size_t crowdOfRound() const { return std::min(crowd_.size(), kAtOnce); }
  // The key of the one that waits for longest, which may be gone; there has to be one.
  std::uint64_t nextOfCrowd();

 private:
  void remove(const Connection& connection);
  bool isBatchDone() const { return next_ == batch_.size(); }
  // Most events leave one.
  Connection* takeOnly() {
    Connection* const only = due_.front();
    due_.clear();
    return only;
  }
  Connection* nextOfMany();
  void makeBatch();
  void sort();

  std::vector<Connection*> due_;
  // Being handed out, from next_ on.
  std::vector<Connection*> batch_;
  std::size_t next_ = 0;
  // Of many who are told at once, those whom it is not due yet.
  std::deque<std::uint64_t> crowd_;
};

}  // namespace PbUtility
