// The queue has no timer and no target size: a group is what came in while the disk was busy. So a
// lone writer waits for nobody, and the busier the writers, the larger the groups.
//
// Nearly always all that waits goes into one group, as it is. Only when that is too much is it sorted by
// users, and each group takes one transaction of each user in turn.
//
// What is large and has to wait stays among what is left, passed over by turns; when nothing else is
// left, take() asks for a goOn() at the time at which the first of it is due.
//
// Copying the log takes about as long as making a large value durable. Whoever waited while the one was
// done should not wait for the other as well, so that small transactions go in between.
#include "configsrv/store/commit_queue.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace ConfigSrv {
namespace {

template <typename Strings>
std::size_t bytesOfAll(const Strings& strings) {
  std::size_t bytes = 0;
  for (const std::string& string : strings) bytes += string.size();
  return bytes;
}

std::size_t bytesOf(const StoreTransaction& transaction) {
  std::size_t bytes = 0;
  for (const StoreChange& change : transaction) {
    bytes += CommitQueue::kChangeBytes;
    const auto* value = std::get_if<StoreChange::SetValue>(&change.what);
    if (value != nullptr) bytes += bytesOfAll(value->value);
    const auto* options = std::get_if<StoreChange::SetOptions>(&change.what);
    if (options != nullptr && options->options) bytes += bytesOfAll(*options->options);
  }
  return bytes;
}

}  // namespace

CommitQueue::CommitQueue(Store& store, Start start)
    : CommitQueue(store, std::move(start), Pace()) {}

CommitQueue::CommitQueue(Store& store, Start start, Pace pace)
    : store_(store), start_(std::move(start)), pace_(std::move(pace)) {}

void CommitQueue::submit(uid_t user, StoreTransaction transaction, CommitDone done) {
  const std::size_t bytes = bytesOf(transaction);
  bool wasBusy = false;
  {
    const Base::MutexLock guard(mutex_);
    waiting_.push_back({user, std::move(transaction), std::move(done), bytes});
    waitingBytes_ += bytes;
    wasBusy = std::exchange(busy_, true);
  }
  startIfIdle(wasBusy);
}

void CommitQueue::submitWork(Work work, std::function<void()> done) {
  bool wasBusy = false;
  {
    const Base::MutexLock guard(mutex_);
    works_.emplace_back(std::move(work),
                        [done = std::move(done)](const StoreStatus&, std::uint64_t) { done(); });
    wasBusy = std::exchange(busy_, true);
  }
  startIfIdle(wasBusy);
}

void CommitQueue::goOn() {
  bool wasBusy = false;
  {
    const Base::MutexLock guard(mutex_);
    isToGoOn_ = false;
    wasBusy = std::exchange(busy_, true);
  }
  startIfIdle(wasBusy);
}

void CommitQueue::hurry() {
  bool isAnyWaiting = false;
  {
    const Base::MutexLock guard(mutex_);
    hurries_ = true;
    isAnyWaiting = isToGoOn_;
  }
  if (isAnyWaiting) goOn();
}

void CommitQueue::commit() {
  const bool isDue = store_.isCheckpointDue();
  Group group;
  if (!isDue || !checkpointIsNext_) group = nextGroup(isDue);
  checkpointIsNext_ = isDue && !group.isEmpty();
  if (group.isEmpty() && isDue) store_.checkpoint();
  if (group.isEmpty()) return;
  const CommitResult result = store_.commit(group.transactions);
  for (std::size_t i = 0; i < group.completions.size(); ++i) {
    group.completions[i].status = result.status;
    if (result.status.ok()) group.completions[i].revision = result.revisions[i];
  }
  for (auto& [work, done] : group.works) {
    work(store_);
    group.completions.push_back({std::move(done), {}, 0});
  }
  committed_ = std::move(group.completions);
}

void CommitQueue::Group::add(Waiting one) {
  bytes += one.bytes;
  transactions.push_back(std::move(one.transaction));
  completions.push_back({std::move(one.done), {}, 0});
}

CommitQueue::Group CommitQueue::nextGroup(bool smallOnly) {
  std::vector<Waiting> come;
  std::size_t bytes = 0;
  Group group;
  {
    const Base::MutexLock guard(mutex_);
    come = std::exchange(waiting_, {});
    bytes = std::exchange(waitingBytes_, 0);
    group.works = std::exchange(works_, {});
    waitsForNobody_ = hurries_ || !pace_.later;
  }
  group.smallOnly = smallOnly;
  const Clock::time_point now = pace_.now();
  if (left_.empty() && bytes <= kGroupBytes) {
    for (Waiting& one : come) addTo(group, std::move(one), now);
  } else {
    for (Waiting& one : come) left_[one.user].push_back(std::move(one));
    takeTurns(group, now);
  }
  return group;
}

void CommitQueue::takeTurns(Group& group, Clock::time_point now) {
  for (auto next = nextUser(group, now); next != left_.end(); next = nextUser(group, now)) {
    lastUser_ = next->first;
    addTo(group, std::move(next->second.front()), now);
    next->second.pop_front();
    if (next->second.empty()) left_.erase(next);
  }
}

void CommitQueue::addTo(Group& group, Waiting one, Clock::time_point now) {
  if (isLarge(one)) {
    lastLarge_ = now;
  } else {
    if (active_.user != one.user) activeBefore_ = active_;
    active_ = {one.user, now};
  }
  group.add(std::move(one));
}

// Who has to wait is passed over. So is, in a group of what is small alone, whoever has something large;
// in any other group, its end is where one does not fit any more.
CommitQueue::Left::iterator CommitQueue::nextUser(const Group& group, Clock::time_point now) {
  const auto isNext = [&](const Left::value_type& user) {
    const Waiting& front = user.second.front();
    if (dueAt(front, now) > now) return false;
    return !group.smallOnly || group.hasRoomFor(front);
  };
  const auto afterLast = left_.upper_bound(lastUser_);
  auto next = std::find_if(afterLast, left_.end(), isNext);
  if (next == left_.end()) {
    next = std::find_if(left_.begin(), afterLast, isNext);
    if (next == afterLast) return left_.end();
  }
  return group.hasRoomFor(next->second.front()) ? next : left_.end();
}

CommitQueue::Clock::time_point CommitQueue::dueAt(const Waiting& one, Clock::time_point now) const {
  const bool isOrdinary = one.user != 0 && one.user != pace_.own;
  if (waitsForNobody_ || !isOrdinary || !isLarge(one)) return now;
  Clock::time_point quiet = Clock::time_point::min();
  for (const Active& other : {active_, activeBefore_})
    if (other.user != one.user) quiet = std::max(quiet, other.at + kQuiet);
  return std::min(quiet, lastLarge_ + kLargeEvery);
}

CommitQueue::Clock::time_point CommitQueue::nextDue(Clock::time_point now) const {
  Clock::time_point next = Clock::time_point::max();
  for (const auto& [user, waiting] : left_) next = std::min(next, dueAt(waiting.front(), now));
  return next;
}

std::vector<Completion> CommitQueue::take() {
  std::vector<Completion> committed = std::exchange(committed_, {});
  bool more = store_.isCheckpointDue();
  std::optional<Clock::duration> wait;
  {
    const Base::MutexLock guard(mutex_);
    more = more || !waiting_.empty() || !works_.empty();
    if (!more && !left_.empty()) {
      waitsForNobody_ = hurries_ || !pace_.later;
      const Clock::time_point now = pace_.now();
      const Clock::time_point due = nextDue(now);
      more = due <= now;
      if (!more && !std::exchange(isToGoOn_, true)) wait = due - now;
    }
    busy_ = more;
  }
  if (wait) pace_.later(std::chrono::ceil<std::chrono::milliseconds>(*wait));
  if (more) start_();
  return committed;
}

}  // namespace ConfigSrv
