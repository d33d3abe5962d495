// ForkLock: a lock of the library that fork waits for, so that no child is made while one of the
// parent's other threads holds it: that thread would be missing in the child, and the lock be held
// for ever.
//
//   std::mutex guard;
//   const AppConfig::ForkLock atFork(AppConfig::ForkLock::Place::Registry, {[] { guard.lock(); },
//       [] { guard.unlock(); }, [] { guard.unlock(); }});
//
// Shape:   one object of static storage beside each mutex, or beside what knows all mutexes of a
//          sort. `hold` is called before a fork, on the thread that forks; after it `release` in
//          the parent and `enter` in the child, which does what the child has to see done first.
// Order:   fork takes the locks in the order of their places and lets go in the opposite one. A
//          thread that holds one of them may therefore only take those of later places.
// Threads: made while the library is loaded, before any thread can use what they lock.
#pragma once

#include <cstddef>

namespace AppConfig {

class ForkLock {
 public:
  // What may be taken later stands later.
  enum class Place : std::size_t { Facades, Links, Flights, Caches, Registry, Walks };
  static constexpr std::size_t kPlaces = static_cast<std::size_t>(Place::Walks) + 1;
  struct Actions {
    void (*hold)();
    void (*release)();
    void (*enter)();
  };

  ForkLock(Place place, const Actions& actions);
};

}  // namespace AppConfig
