// Turn: the right to touch a server's state, which one thread has at a time, and the tasks that
// other threads leave for whoever has it.
//
// A task runs at once, on the thread that posts it, when nobody has the turn: waking another thread
// for it would cost more than the task. Otherwise whoever has the turn runs it before it gives the
// turn back. So no post is ever lost, and none waits for a thread that sleeps.
//
// Threads:  any. lock() waits; tryLock() and post() do not, and post() may be called by the thread that
//           has the turn.
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "base/mutex.h"

namespace PbUtility {

class APPCONFIG_LOCK Turn {
 public:
  // `beforeUnlock` runs each time the turn is about to be given back, by whoever has it.
  explicit Turn(std::function<void()> beforeUnlock) : beforeUnlock_(std::move(beforeUnlock)) {}
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  void lock() APPCONFIG_ACQUIRE();
  bool tryLock() APPCONFIG_TRY_ACQUIRE(true);
  void unlock() APPCONFIG_RELEASE();
  // For what is called by tasks and by what they call: whoever runs these has the turn.
  void assertHeld() const APPCONFIG_ASSERTS() {}
  void post(std::function<void()> task);

 private:
  void runPosted() APPCONFIG_REQUIRES(this);

  const std::function<void()> beforeUnlock_;
  Base::Mutex turn_;
  // Only compared with the asking thread's own id, so it need not be exact for other threads.
  std::atomic<std::thread::id> holder_{};

  Base::Mutex mutex_;  // Taken last.
  std::vector<std::function<void()>> posted_ APPCONFIG_GUARDED_BY(mutex_);
  std::atomic<int> hasPosted_{0};
};

}  // namespace PbUtility
