#include "tools/appcfg/change_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace AppCfgTool {
namespace {

bool isSame(const ConfigVar& a, const ConfigVar& b) {
  const std::less<ConfigVar> less;
  return !less(a, b) && !less(b, a);
}

}  // namespace

ChangeQueue::ChangeQueue(std::int32_t nameSpace)
    : nameSpace_(nameSpace), wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

std::deque<Change> ChangeQueue::take() {
  std::uint64_t wakeUps = 0;
  // Emptied before the queue is, so that a change that comes in between wakes again.
  static_cast<void>(!::read(wakeFd_.get(), &wakeUps, sizeof wakeUps));
  const Base::MutexLock guard(mutex_);
  return std::exchange(changes_, {});
}

void ChangeQueue::configChanged(const std::string& group, int groupInstance,
                                const std::string& name, int nameInstance,
                                const std::list<std::string>& value,
                                const std::string& /*identity*/) {
  Change change{ConfigVar(nameSpace_, group, groupInstance, name, nameInstance),
                {value.begin(), value.end()}};
  {
    const Base::MutexLock guard(mutex_);
    makeRoomFor(change.var);
    changes_.push_back(std::move(change));
  }
  const std::uint64_t one = 1;
  // It fails only when the counter is full, and then the reader wakes anyway.
  static_cast<void>(!::write(wakeFd_.get(), &one, sizeof one));
}

void ChangeQueue::makeRoomFor(const ConfigVar& var) {
  if (changes_.size() < kMaxWaiting) return;
  const auto older = std::find_if(changes_.begin(), changes_.end(),
                                  [&var](const Change& change) { return isSame(change.var, var); });
  if (older != changes_.end()) changes_.erase(older);
}

}  // namespace AppCfgTool
