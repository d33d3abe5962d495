#include "configsrv/service/internal/slices.h"

#include <utility>

namespace ConfigSrv {

void Slices::add(uid_t user, Slice slice) {
  waiting_[user].push_back(std::move(slice));
  schedule();
}

void Slices::schedule() {
  if (waiting_.empty() || std::exchange(isScheduled_, true)) return;
  later_([this] {
    isScheduled_ = false;
    runOne();
    schedule();
  });
}

void Slices::runOne() {
  auto next = waiting_.upper_bound(lastUser_);
  if (next == waiting_.end()) next = waiting_.begin();
  if (next == waiting_.end()) return;
  const uid_t user = lastUser_ = next->first;
  const Slice slice = std::move(next->second.front());
  next->second.pop_front();
  if (next->second.empty()) waiting_.erase(next);
  if (slice()) waiting_[user].push_back(slice);
}

}  // namespace ConfigSrv
