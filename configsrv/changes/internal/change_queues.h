// ChangeQueues: whose turn it is at each variable, and who waits for whom.
//
// Changes of one variable have their turn one after another, in the order in which they came. A
// turn that ends is not handed on at once but by nextTurn(), which the outermost call of Changes
// works off: a thousand changes that end as soon as they have their turn must not nest a thousand
// calls deep.
//
// A change waits for the change that has the turn before it, and for the peer that it asks. A peer
// waits, with the thread that answers questions, for those of its own changes that it requested
// from inside a receiver. Where these close a circle, one of the changes in it has to fail: nobody
// in a circle would ever go on.
//
//   if (queues.takeTurn(change)) begin(change);                // nobody was before it
//   else refusal = queues.wait(change);                        // or it is behind others
//   queues.leave(change);                                      // at its end, wherever it stands
//   while (PendingChange* next = queues.nextTurn()) begin(*next);
//
// Errors:   a refusal to wait says whose limit was passed, or who waits for whom.
// Threads:  one.
// Owns:     nothing: a change is here from requested() to leave().
#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/status.h"
#include "configsrv/changes/change.h"
#include "platform/messaging/serving/shares.h"

namespace ConfigSrv {

class Variable;
struct PendingChange;

class ChangeQueues {
 public:
  // How many may wait at one variable; the service's own user.
  ChangeQueues(PbUtility::ShareLimits waiting, uid_t own) : limits_(waiting), own_(own) {}

  // Remembers who waits for the change, be it a validation, which is in no queue.
  void requested(const PendingChange& change);

  // Whether a change would have its turn at once.
  bool isFree(const Variable& variable) const { return queues_.find(&variable) == queues_.end(); }
  // Takes the turn if it is free.
  bool takeTurn(PendingChange& change);
  // Puts the change at the end of the queue. A failure: it cannot wait there, and does not.
  [[nodiscard]] ChangeOutcome wait(PendingChange& change);
  // The change that has the turn; null when there is none.
  PendingChange* atTurn(const Variable& variable) const;

  // Ends its wait or its turn, and whatever waits for it.
  void leave(const PendingChange& change);
  // Hands on one turn that has ended: the change that has it now, null when there is no more to
  // hand on.
  [[nodiscard]] PendingChange* nextTurn();

  // Whether a change that asks, or stands in a queue, would wait for its own end.
  bool waitsForItself(const PendingChange& change) const;

 private:
  struct Queue {
    // Null from the end of its turn until that is handed on.
    PendingChange* atTurn = nullptr;
    // Nearly always nobody.
    std::vector<PendingChange*> waiting;
  };

  void leaveQueue(const PendingChange& change);
  Base::Status<> roomToWait(const Queue& queue, const PendingChange& change) const;
  void appendAwaited(const PendingChange& change, std::vector<const PendingChange*>& awaited) const;

  const PbUtility::ShareLimits limits_;
  const uid_t own_;
  // Of the variables where somebody has the turn, or it is still to be handed on.
  std::unordered_map<const Variable*, Queue> queues_;
  // Changes that a peer's delivery thread waits for.
  std::unordered_map<PbUtility::PeerId, std::unordered_set<const PendingChange*>> awaitedInside_;
  // Where a turn has ended.
  std::vector<const Variable*> ended_;
};

}  // namespace ConfigSrv
