// ForkLock: a lock of the library that fork waits for, so that no child is made while one of the
// parent's other threads holds it: that thread would be missing in the child, and the lock be held
// for ever.
//
//   std::mutex guard;
//   const AppConfig::ForkLock atFork(AppConfig::ForkLock::kRegistry, {[] { guard.lock(); },
//       [] { guard.unlock(); }, [] { guard.unlock(); }});
//
// Shape    one object of static storage beside each mutex, or beside what knows all mutexes of a
//          sort. `hold` is called before a fork, on the thread that forks; after it `release` in the
//          parent and `enter` in the child, which does what the child has to see done first.
// Order    fork takes the locks in the order of their places and lets go in the opposite one. A
//          thread that holds one of them may therefore only take those of later places.
// Threads  made while the library is loaded, before threads can use what they are about.
#pragma once

#include <cstddef>

namespace AppConfig {

class ForkLock {
 public:
  // What may be taken later stands later.
  enum Place : std::size_t { kFacades, kLinks, kFlights, kCaches, kRegistry, kPlaces };
  struct Actions {
    void (*hold)();
    void (*release)();
    void (*enter)();
  };

  ForkLock(Place place, const Actions& actions);
};

}  // namespace AppConfig
