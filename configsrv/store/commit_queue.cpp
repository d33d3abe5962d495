// The queue has no timer and no target size: a group is what came in while the disk was busy. So a
// lone writer waits for nobody, and the busier the writers, the larger the groups.
//
// Nearly always all that waits goes into one group, as it is. Only when that is too much is it sorted by
// users, and each group takes one transaction of each user in turn.
//
// Copying the log takes about as long as making a large value durable. Whoever waited while the one was
// done should not wait for the other as well, so that small transactions go in between.
#include "configsrv/store/commit_queue.h"

#include <algorithm>
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

CommitQueue::CommitQueue(Store& store, Start start) : store_(store), start_(std::move(start)) {}

void CommitQueue::submit(uid_t user, StoreTransaction transaction, CommitDone done) {
  const std::size_t bytes = bytesOf(transaction);
  bool wasBusy = false;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    waiting_.push_back({user, std::move(transaction), std::move(done), bytes});
    waitingBytes_ += bytes;
    wasBusy = std::exchange(busy_, true);
  }
  startIfIdle(wasBusy);
}

void CommitQueue::submitWork(Work work, std::function<void()> done) {
  bool wasBusy = false;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    works_.emplace_back(std::move(work),
                        [done = std::move(done)](const StoreStatus&, std::uint64_t) { done(); });
    wasBusy = std::exchange(busy_, true);
  }
  startIfIdle(wasBusy);
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
  Works works;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    come = std::exchange(waiting_, {});
    bytes = std::exchange(waitingBytes_, 0);
    works = std::exchange(works_, {});
  }
  Group group;
  group.smallOnly = smallOnly;
  group.works = std::move(works);
  if (left_.empty() && bytes <= kGroupBytes) {
    for (Waiting& one : come) group.add(std::move(one));
  } else {
    for (Waiting& one : come) left_[one.user].push_back(std::move(one));
    takeTurns(group);
  }
  return group;
}

void CommitQueue::takeTurns(Group& group) {
  for (auto next = nextUser(group); next != left_.end(); next = nextUser(group)) {
    lastUser_ = next->first;
    group.add(std::move(next->second.front()));
    next->second.pop_front();
    if (next->second.empty()) left_.erase(next);
  }
}

std::map<uid_t, std::deque<CommitQueue::Waiting>>::iterator CommitQueue::nextUser(
    const Group& group) {
  const auto hasRoom = [&group](const auto& user) { return group.hasRoomFor(user.second.front()); };
  const auto afterLast = left_.upper_bound(lastUser_);
  // Passing over one whose turn it is, for being large, is for a group of what is small alone.
  const auto seek = [&](auto from, auto to) {
    return group.smallOnly ? std::find_if(from, to, hasRoom) : from;
  };
  auto next = seek(afterLast, left_.end());
  if (next == left_.end()) {
    next = seek(left_.begin(), afterLast);
    if (next == afterLast) return left_.end();
  }
  return hasRoom(*next) ? next : left_.end();
}

std::vector<Completion> CommitQueue::take() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    busy_ = !waiting_.empty() || !works_.empty() || !left_.empty() || store_.isCheckpointDue();
    if (!busy_) return std::exchange(committed_, {});
  }
  std::vector<Completion> committed = std::exchange(committed_, {});
  start_();
  return committed;
}

}  // namespace ConfigSrv
