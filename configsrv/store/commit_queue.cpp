// The queue has no timer and no target size: a group is what came in while the disk was busy. So a
// lone writer waits for nobody, and the busier the writers, the larger the groups.
#include "configsrv/store/commit_queue.h"

#include <utility>

namespace ConfigSrv {

CommitQueue::CommitQueue(Store& store, Deliver deliver)
    : store_(store), deliver_(std::move(deliver)), thread_([this] { run(); }) {}

CommitQueue::~CommitQueue() { stop(); }

bool CommitQueue::submit(StoreTransaction transaction, CommitDone done) {
  bool wakeUp = false;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (stopping_) return false;
    waiting_.transactions.push_back(std::move(transaction));
    waiting_.completions.push_back({std::move(done), {}, 0});
    // Taken from it by the first of several: the thread needs no second call to get up.
    wakeUp = std::exchange(idle_, false);
  }
  if (wakeUp) wake_.notify_one();
  return true;
}

void CommitQueue::stop() {
  const std::lock_guard<std::mutex> stopGuard(stopMutex_);
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
    idle_ = false;
  }
  wake_.notify_one();
  if (thread_.joinable()) thread_.join();
}

void CommitQueue::run() {
  Group group;
  while (waitForWork(&group)) commitGroup(std::exchange(group, {}));
}

// False when there is nothing left to do, for good.
bool CommitQueue::waitForWork(Group* group) {
  std::unique_lock<std::mutex> guard(mutex_);
  while (waiting_.transactions.empty() && !stopping_) {
    idle_ = true;
    wake_.wait(guard);
  }
  idle_ = false;
  std::swap(*group, waiting_);
  return !group->transactions.empty();
}

void CommitQueue::commitGroup(Group group) {
  CommitResult result = store_.commit(group.transactions);
  for (std::size_t i = 0; i < group.completions.size(); ++i) {
    group.completions[i].status = result.status;
    if (result.status.ok()) group.completions[i].revision = result.revisions[i];
  }
  deliver_(std::move(group.completions));
}

}  // namespace ConfigSrv
