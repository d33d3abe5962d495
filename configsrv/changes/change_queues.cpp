// A circle is found by walking along "waits for" from the change that closes it, back to that
// change. Changes close one in two ways: when they join a queue and when they ask a provider, so
// both look before they do it. Waiting changes do not wait for those directly before them but all
// for the one that has the turn: it alone can go on.
//
// A set of several changes at once would stand in several queues; each of them is a queue for
// itself, and only placeOf() takes it that a change has one.
#include "configsrv/changes/internal/change_queues.h"

#include <algorithm>
#include <utility>

#include "configsrv/changes/internal/change_check.h"
#include "configsrv/changes/internal/pending_change.h"

namespace ConfigSrv {
namespace {

using PbUtility::Shares;

const Variable* placeOf(const PendingChange& change) { return change.parts.front().variable; }

// A provider that writes the variable it is being asked about, from whatever thread, could only be
// served after its own answer.
bool isAskedAbout(const PendingChange* atTurn, PbUtility::PeerId requester) {
  return atTurn != nullptr && atTurn->round.isAsking() && atTurn->round.asked.peer == requester;
}

bool asksOrIsAboutTo(const PendingChange& change) {
  return change.state == ChangeState::Validating || change.state == ChangeState::OnChange;
}

}  // namespace

void ChangeQueues::requested(const PendingChange& change) {
  if (change.by.insideReceiver) awaitedInside_[change.by.peer].insert(&change);
}

bool ChangeQueues::takeTurn(PendingChange& change) {
  const auto [place, isNew] = queues_.try_emplace(placeOf(change));
  if (isNew) place->second.atTurn = &change;
  return isNew;
}

ChangeOutcome ChangeQueues::wait(PendingChange& change) {
  Queue& queue = queues_[placeOf(change)];
  if (isAskedAbout(queue.atTurn, change.by.peer))
    return failure(change.key(), eErrConflict,
                   "this process is being asked about a change of it right now");
  const Base::Status<> room = roomToWait(queue, change);
  if (!room.ok()) return failure(change.key(), eErrLimit, room.text);
  if (waitsForItself(change))
    return failure(change.key(), eErrConflict, "the change before it waits for this process");
  queue.waiting.push_back(&change);
  return {};
}

// Counted only where so many wait that somebody may have their share: all but rarely one change is
// alone.
Base::Status<> ChangeQueues::roomToWait(const Queue& queue, const PendingChange& change) const {
  const std::size_t least =
      std::min({limits_.all, limits_.ordinary, limits_.perUser, limits_.perProcess});
  if (queue.waiting.size() < least) return {};
  Shares waiting("changes that wait for their turn at one variable", limits_, own_);
  for (const PendingChange* other : queue.waiting) waiting.add(other->by.owner);
  Base::Status<> room = waiting.room(change.by.owner);
  if (!room.ok()) room.text += ": write less often";
  return room;
}

PendingChange* ChangeQueues::atTurn(const Variable& variable) const {
  const auto place = queues_.find(&variable);
  return place == queues_.end() ? nullptr : place->second.atTurn;
}

void ChangeQueues::leave(const PendingChange& change) {
  if (!change.validateOnly) leaveQueue(change);
  if (!change.by.insideReceiver) return;
  const auto inside = awaitedInside_.find(change.by.peer);
  inside->second.erase(&change);
  if (inside->second.empty()) awaitedInside_.erase(inside);
}

// One that was refused stands in no queue.
void ChangeQueues::leaveQueue(const PendingChange& change) {
  const auto place = queues_.find(placeOf(change));
  if (place == queues_.end()) return;
  Queue& queue = place->second;
  if (queue.atTurn == &change) {
    queue.atTurn = nullptr;
    ended_.push_back(place->first);
    return;
  }
  queue.waiting.erase(std::remove(queue.waiting.begin(), queue.waiting.end(), &change),
                      queue.waiting.end());
}

PendingChange* ChangeQueues::nextTurn() {
  while (!ended_.empty()) {
    const auto place = queues_.find(ended_.back());
    ended_.pop_back();
    Queue& queue = place->second;
    if (!queue.waiting.empty()) {
      queue.atTurn = queue.waiting.front();
      queue.waiting.erase(queue.waiting.begin());
      return queue.atTurn;
    }
    queues_.erase(place);
  }
  return nullptr;
}

bool ChangeQueues::waitsForItself(const PendingChange& change) const {
  std::vector<const PendingChange*> toVisit;
  std::unordered_set<const PendingChange*> visited;
  appendAwaited(change, toVisit);
  while (!toVisit.empty()) {
    const PendingChange* next = toVisit.back();
    toVisit.pop_back();
    if (next == &change) return true;
    if (visited.insert(next).second) appendAwaited(*next, toVisit);
  }
  return false;
}

// The changes that this one waits for: the one that has the turn before it, or what the peer that it
// asks waits for.
void ChangeQueues::appendAwaited(const PendingChange& change,
                                 std::vector<const PendingChange*>& awaited) const {
  if (change.state == ChangeState::Waiting && !change.validateOnly) {
    const PendingChange* before = atTurn(*placeOf(change));
    if (before != nullptr && before != &change) awaited.push_back(before);
    return;
  }
  if (!asksOrIsAboutTo(change)) return;
  const auto inside = awaitedInside_.find(change.round.asked.peer);
  if (inside == awaitedInside_.end()) return;
  awaited.insert(awaited.end(), inside->second.begin(), inside->second.end());
}

}  // namespace ConfigSrv
