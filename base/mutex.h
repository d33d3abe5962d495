// Mutex, MutexLock, Condition: the standard library's, with what they guard said to the compiler.
//
// Clang checks under -Wthread-safety that a member marked APPCONFIG_GUARDED_BY(mutex_) is touched only
// where that mutex is held, and that a function marked APPCONFIG_REQUIRES(mutex_) is called only there
// (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html). GCC sees plain classes. The standard types
// themselves carry no such marks with libstdc++, which is all that these are for. Constructors and
// destructors are not checked: nobody else has the object then.
//
// Cost:     none beyond the standard types'; a MutexLock is a std::lock_guard.
// Threads:  as the standard types: lock and wait from any.
//
//   Mutex mutex_;
//   Condition came_;
//   std::vector<int> waiting_ APPCONFIG_GUARDED_BY(mutex_);
//
//   const MutexLock lock(mutex_);
//   while (waiting_.empty()) came_.wait(lock);  // A loop: the compiler cannot look into a predicate.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define APPCONFIG_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define APPCONFIG_THREAD_ANNOTATION(x)
#endif

// A member that may be touched only while the mutex is held.
#define APPCONFIG_GUARDED_BY(mutex) APPCONFIG_THREAD_ANNOTATION(guarded_by(mutex))
// A pointer to what may be touched only while the mutex is held.
#define APPCONFIG_PT_GUARDED_BY(mutex) APPCONFIG_THREAD_ANNOTATION(pt_guarded_by(mutex))
// A function that is called with the mutex held, and leaves it held.
#define APPCONFIG_REQUIRES(...) APPCONFIG_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// A function that must not be called with the mutex held, for it takes it.
#define APPCONFIG_EXCLUDES(...) APPCONFIG_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// A function that takes the mutex and leaves it held, or is called with it held and lets go of it.
#define APPCONFIG_ACQUIRE(...) APPCONFIG_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define APPCONFIG_RELEASE(...) APPCONFIG_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define APPCONFIG_TRY_ACQUIRE(...) APPCONFIG_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// A function that does nothing but tell the compiler that the mutex is held, where it cannot see so.
#define APPCONFIG_ASSERTS(...) APPCONFIG_THREAD_ANNOTATION(assert_capability(__VA_ARGS__))
// For the few functions whose locking follows no block, such as those around a fork; each says why.
#define APPCONFIG_NO_THREAD_CHECK APPCONFIG_THREAD_ANNOTATION(no_thread_safety_analysis)
// A class that is a lock, and one whose objects hold one as long as they live.
#define APPCONFIG_LOCK APPCONFIG_THREAD_ANNOTATION(capability("mutex"))
#define APPCONFIG_LOCK_HOLDER APPCONFIG_THREAD_ANNOTATION(scoped_lockable)

namespace Base {

class APPCONFIG_LOCK Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() APPCONFIG_ACQUIRE() { mutex_.lock(); }
  void unlock() APPCONFIG_RELEASE() { mutex_.unlock(); }
  bool tryLock() APPCONFIG_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

// Holds a mutex for a block.
class APPCONFIG_LOCK_HOLDER MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) APPCONFIG_ACQUIRE(mutex) : mutex_(mutex.mutex_) {
    mutex_.lock();
  }
  ~MutexLock() APPCONFIG_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  friend class Condition;
  std::mutex& mutex_;
};

// Wakes who waits for what a mutex guards. The lock is held again when a wait returns.
class Condition {
 public:
  void wait(const MutexLock& lock) {
    std::unique_lock<std::mutex> held(lock.mutex_, std::adopt_lock);
    condition_.wait(held);
    held.release();
  }
  // False when the time came first. Either way the caller looks at what it waits for.
  template <typename Clock, typename Duration>
  bool waitUntil(const MutexLock& lock, const std::chrono::time_point<Clock, Duration>& time) {
    std::unique_lock<std::mutex> held(lock.mutex_, std::adopt_lock);
    const std::cv_status status = condition_.wait_until(held, time);
    held.release();
    return status == std::cv_status::no_timeout;
  }
  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace Base
