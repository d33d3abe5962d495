// The queue has no timer and no target size: a group is what came in while the disk was busy. So a
// lone writer waits for nobody, and the busier the writers, the larger the groups.
#include "configsrv/store/commit_queue.h"

#include <utility>

namespace ConfigSrv {

CommitQueue::CommitQueue(Store& store, Start start) : store_(store), start_(std::move(start)) {}

void CommitQueue::submit(StoreTransaction transaction, CommitDone done) {
  bool wasBusy = false;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    waiting_.transactions.push_back(std::move(transaction));
    waiting_.completions.push_back({std::move(done), {}, 0});
    wasBusy = std::exchange(busy_, true);
  }
  startIfIdle(wasBusy);
}

void CommitQueue::submitWork(Work work, std::function<void()> done) {
  bool wasBusy = false;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    waiting_.works.emplace_back(
        std::move(work), [done = std::move(done)](const StoreStatus&, std::uint64_t) { done(); });
    wasBusy = std::exchange(busy_, true);
  }
  startIfIdle(wasBusy);
}

void CommitQueue::commit() {
  Group group = takeWaiting();
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

CommitQueue::Group CommitQueue::takeWaiting() {
  const std::lock_guard<std::mutex> guard(mutex_);
  return std::exchange(waiting_, {});
}

std::vector<Completion> CommitQueue::take() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    busy_ = !waiting_.isEmpty();
    if (!busy_) return std::exchange(committed_, {});
  }
  std::vector<Completion> committed = std::exchange(committed_, {});
  start_();
  return committed;
}

}  // namespace ConfigSrv
