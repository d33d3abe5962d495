// One set of handlers for all locks, because the order in which the files of a library are
// initialised, and with it that of several sets, is nobody's to choose.
#include "appconfig/core/internal/fork_lock.h"

#include <pthread.h>

namespace AppConfig {

namespace {

ForkLock::Actions locks[ForkLock::kPlaces] = {};

void hold() {
  for (const ForkLock::Actions& lock : locks) {
    if (lock.hold != nullptr) lock.hold();
  }
}

void runBackwards(void (*ForkLock::Actions::*action)()) {
  for (std::size_t place = ForkLock::kPlaces; place-- > 0;) {
    if (locks[place].hold != nullptr) (locks[place].*action)();
  }
}

void release() { runBackwards(&ForkLock::Actions::release); }
void enter() { runBackwards(&ForkLock::Actions::enter); }

}  // namespace

ForkLock::ForkLock(Place place, const Actions& actions) {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  locks[static_cast<std::size_t>(place)] = actions;
  pthread_once(&once, [] { pthread_atfork(hold, release, enter); });
}

}  // namespace AppConfig
