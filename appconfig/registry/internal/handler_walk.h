// HandlerWalk: one message on its way through the handlers that it is for, noted so that whoever ends
// a registration knows which handler is being called, and can wait for its return.
//
//   HandlerWalk walk;               // before the handlers are looked up
//   std::list<ConsumerConfigHandler*> handlers = registrar.getHandlers(...);
//   const bool isCurrent = walk.begin(handlers.front());  // else look it up again
//   handlers.front()->configChanged(...);
//
// Rule:    whoever ends a registration first takes the handler out of the registry and counts that
//          (noteEnd), then looks at the walks (waitForCalls). A walk first notes the handler and then
//          looks at the count. So one of the two sees the other: either the walk does not call, or its
//          call is waited for.
// Cost:    no lock for a message without handlers; otherwise one for each call, and one behind the
//          last.
// Threads: any. One mutex for the process; no handler is called and no other lock is taken while it is
//          held.
// Forking: a child has the walks of the thread that forked, and no others: those are on the stacks of
//          threads that it does not have.
// Owns:    nothing. A walk lives on the stack of the thread that calls the handlers.
#pragma once

#include <cstdint>
#include <thread>

#include "base/mutex.h"

namespace AppConfig {

class HandlerWalk {
 public:
  HandlerWalk();
  ~HandlerWalk();
  HandlerWalk(const HandlerWalk&) = delete;
  HandlerWalk& operator=(const HandlerWalk&) = delete;

  // From now on this handler counts as being called, and the one before no more. False when a
  // registration has ended since the walk was made, perhaps this handler's.
  [[nodiscard]] bool begin(const void* handler);

  // A registration has been taken out of a registry by its owner.
  static void noteEnd();

  // Waits until every call of the handler that had begun has returned. Not for one on this thread,
  // which is further down the stack; and, inside a handler, not for one whose thread waits here too:
  // two that waited for each other would do so for ever.
  static void waitForCalls(const void* handler);

 private:
  friend struct WalksAtFork;

  // Guards the list and, of all walks, what is marked so.
  static Base::Mutex mutex_;
  static HandlerWalk* first_ APPCONFIG_GUARDED_BY(mutex_);
  static std::uint64_t lastCall_ APPCONFIG_GUARDED_BY(mutex_);
  // Made by the first who waits; until then nobody has to be woken. Never destroyed, for threads may
  // wait while the program ends.
  static Base::Condition* returned_ APPCONFIG_GUARDED_BY(mutex_) APPCONFIG_PT_GUARDED_BY(mutex_);

  void joinList(HandlerWalk* before) APPCONFIG_REQUIRES(mutex_);
  void leaveList() APPCONFIG_REQUIRES(mutex_);
  static void wakeWaiting() APPCONFIG_REQUIRES(mutex_);
  static HandlerWalk* ofThisThread() APPCONFIG_REQUIRES(mutex_);
  static bool isCalled(const void* handler, std::uint64_t newest, bool countWaiting)
      APPCONFIG_REQUIRES(mutex_);

  const unsigned endsBefore_;
  const std::thread::id thread_ = std::this_thread::get_id();
  // Null until the first call; the walk is in the list from then on.
  const void* handler_ APPCONFIG_GUARDED_BY(mutex_) = nullptr;
  // Number of the call, counted over all walks.
  std::uint64_t call_ APPCONFIG_GUARDED_BY(mutex_) = 0;
  // Its thread is in waitForCalls.
  bool isWaiting_ APPCONFIG_GUARDED_BY(mutex_) = false;
  HandlerWalk* previous_ APPCONFIG_GUARDED_BY(mutex_) = nullptr;
  HandlerWalk* next_ APPCONFIG_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace AppConfig
