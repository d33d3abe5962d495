// The calls by which threads meet, in place of libc's. A program's own functions come before those
// of the libraries that it uses, so that these are called from everywhere: the service, the client
// library's copies, SQLite, protobuf and the C++ library.
//
// Each call is a point at which another thread may go on, before the call has done anything. What
// it has done is seen by others from the thread's next call on.
//
// A mutex is still libc's, so that recursive ones are; only waiting for it is done here. A
// condition variable is an address. Threads that are not of the simulation get what libc has.
#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <ctime>

#include "tests/replay/real.h"
#include "tests/replay/scheduler.h"
#include "tests/replay/shared_memory.h"

using Replay::Scheduler;

namespace {

int lockMutex(Scheduler& scheduler, pthread_mutex_t* mutex) {
  for (;;) {
    const int error = REPLAY_REAL(pthread_mutex_trylock)(mutex);
    if (error == 0 && Replay::isShared(mutex)) scheduler.holdShared(1);
    if (error != EBUSY) return error;
    scheduler.waitFor(mutex, Replay::kNever);
  }
}

int unlockMutex(Scheduler& scheduler, pthread_mutex_t* mutex) {
  if (Replay::isShared(mutex)) scheduler.holdShared(-1);
  const int error = REPLAY_REAL(pthread_mutex_unlock)(mutex);
  scheduler.wake(mutex, true);
  return error;
}

Replay::Time timeOf(const timespec& when) { return when.tv_sec * Replay::kSecond + when.tv_nsec; }

int waitForCondition(Scheduler& scheduler, pthread_cond_t* condition, pthread_mutex_t* mutex,
                     Replay::Time deadline) {
  scheduler.point("wait");
  unlockMutex(scheduler, mutex);
  const bool inTime = scheduler.waitFor(condition, deadline);
  lockMutex(scheduler, mutex);
  return inTime ? 0 : ETIMEDOUT;
}

}  // namespace

extern "C" {

int pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(pthread_create)(id, attributes, start, argument);
  return scheduler->makeThread(id, start, argument);
}

int pthread_join(pthread_t id, void** result) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(pthread_join)(id, result);
  return scheduler->joinThread(id, result);
}

int pthread_detach(pthread_t id) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(pthread_detach)(id);
  scheduler->detachThread(id);
  return 0;
}

int pthread_mutex_lock(pthread_mutex_t* mutex) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(pthread_mutex_lock)(mutex);
  scheduler->point("lock");
  return lockMutex(*scheduler, mutex);
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(pthread_mutex_trylock)(mutex);
  scheduler->point("trylock");
  const int error = REPLAY_REAL(pthread_mutex_trylock)(mutex);
  if (error == 0 && Replay::isShared(mutex)) scheduler->holdShared(1);
  return error;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(pthread_mutex_unlock)(mutex);
  scheduler->point("unlock");
  return unlockMutex(*scheduler, mutex);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(pthread_cond_wait)(condition, mutex);
  return waitForCondition(*scheduler, condition, mutex, Replay::kNever);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                           const timespec* deadline) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(pthread_cond_timedwait)(condition, mutex, deadline);
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const Replay::Time left = timeOf(*deadline) - timeOf(now);
  return waitForCondition(*scheduler, condition, mutex, scheduler->now() + left);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr)
    return REPLAY_REAL(pthread_cond_clockwait)(condition, mutex, clock, deadline);
  timespec now{};
  ::clock_gettime(clock, &now);
  const Replay::Time left = timeOf(*deadline) - timeOf(now);
  return waitForCondition(*scheduler, condition, mutex, scheduler->now() + left);
}

int pthread_cond_signal(pthread_cond_t* condition) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(pthread_cond_signal)(condition);
  scheduler->point("signal");
  scheduler->wake(condition, false);
  return 0;
}

int pthread_cond_broadcast(pthread_cond_t* condition) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(pthread_cond_broadcast)(condition);
  scheduler->point("broadcast");
  scheduler->wake(condition, true);
  return 0;
}

// What is done once is done in one go: who comes meanwhile would wait in the kernel for a thread
// that does not run.
int pthread_once(pthread_once_t* control, void (*routine)()) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler != nullptr) scheduler->holdBaton(1);
  const int error = REPLAY_REAL(pthread_once)(control, routine);
  if (scheduler != nullptr) scheduler->holdBaton(-1);
  return error;
}

int sched_yield() {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(sched_yield)();
  scheduler->point("yield");
  scheduler->sleepUntil(scheduler->now());
  return 0;
}

}  // extern "C"
