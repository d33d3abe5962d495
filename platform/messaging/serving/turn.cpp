#include "platform/messaging/serving/internal/turn.h"

#include <utility>

namespace PbUtility {

void Turn::lock() {
  turn_.lock();
  holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

bool Turn::tryLock() {
  if (!turn_.tryLock()) return false;
  holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  return true;
}

// Looks again after giving the turn back: who posted in between found it taken, and went away. Both
// sides exchange hasPosted_, so one comes after the other: either the post is seen here, or the turn
// is free by the time that the poster tries for it.
void Turn::unlock() {
  do {
    if (hasPosted_.load(std::memory_order_relaxed) != 0) runPosted();
    beforeUnlock_();
    holder_.store(std::thread::id(), std::memory_order_relaxed);
    turn_.unlock();
  } while (hasPosted_.fetch_or(0) != 0 && tryLock());
}

void Turn::post(std::function<void()> task) {
  {
    const Base::MutexLock guard(mutex_);
    posted_.push_back(std::move(task));
    hasPosted_.exchange(1);
  }
  if (holder_.load(std::memory_order_relaxed) == std::this_thread::get_id()) return;
  if (tryLock()) unlock();
}

void Turn::runPosted() {
  while (hasPosted_.load(std::memory_order_relaxed) != 0) {
    std::vector<std::function<void()>> tasks;
    {
      const Base::MutexLock guard(mutex_);
      tasks.swap(posted_);
      hasPosted_.store(0, std::memory_order_relaxed);
    }
    for (const auto& task : tasks) task();
  }
}

}  // namespace PbUtility
