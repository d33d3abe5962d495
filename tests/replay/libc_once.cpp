// The guards of variables that are made at their first use, in place of the C++ library's: as in
// pthread_once, who makes one is not interrupted.
#include <dlfcn.h>

#include <cstdint>

#include "tests/replay/scheduler.h"

using Replay::Scheduler;

namespace {

template <typename Function>
Function* realGuard(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

void holdBaton(int more) {
  if (Scheduler* const scheduler = Scheduler::here()) scheduler->holdBaton(more);
}

}  // namespace

namespace __cxxabiv1 {

extern "C" {

int __cxa_guard_acquire(std::int64_t* guard) {
  const int isMine = realGuard<int(std::int64_t*)>("__cxa_guard_acquire")(guard);
  if (isMine != 0) holdBaton(1);
  return isMine;
}

void __cxa_guard_release(std::int64_t* guard) {
  realGuard<void(std::int64_t*)>("__cxa_guard_release")(guard);
  holdBaton(-1);
}

void __cxa_guard_abort(std::int64_t* guard) {
  realGuard<void(std::int64_t*)>("__cxa_guard_abort")(guard);
  holdBaton(-1);
}

}  // extern "C"

}  // namespace __cxxabiv1
