// The walks that are calling a handler are in one list, under one mutex, each with its handler. The list
// is short: one walk for each delivery thread that is in a handler.
//
// A walk takes the mutex to note its handler and looks at the count of ended registrations afterwards;
// who ends one counts, and takes the mutex to look at the list afterwards.
#include "appconfig/registry/internal/handler_walk.h"

#include <atomic>

#include "appconfig/core/internal/fork_lock.h"

namespace AppConfig {

namespace {

// Registrations that were ended by their owners so far.
std::atomic<unsigned> ends{0};

}  // namespace

Base::Mutex HandlerWalk::mutex_;
HandlerWalk* HandlerWalk::first_ = nullptr;
std::uint64_t HandlerWalk::lastCall_ = 0;
Base::Condition* HandlerWalk::returned_ = nullptr;

// Before the fork the list is put in order, own walks first; the child then has only to cut it. Those
// who wait on the parent's condition are not in the child, so it gets one of its own.
struct WalksAtFork {
  static inline HandlerWalk* lastOwn APPCONFIG_GUARDED_BY(HandlerWalk::mutex_) = nullptr;

  static void hold() APPCONFIG_ACQUIRE(HandlerWalk::mutex_) {
    HandlerWalk::mutex_.lock();
    lastOwn = nullptr;
    for (HandlerWalk* walk = HandlerWalk::first_; walk != nullptr;) {
      HandlerWalk* const next = walk->next_;
      if (walk->thread_ == std::this_thread::get_id()) moveBehindOwn(*walk);
      walk = next;
    }
  }
  static void release() APPCONFIG_RELEASE(HandlerWalk::mutex_) { HandlerWalk::mutex_.unlock(); }
  static void enter() APPCONFIG_RELEASE(HandlerWalk::mutex_) {
    (lastOwn != nullptr ? lastOwn->next_ : HandlerWalk::first_) = nullptr;
    HandlerWalk::returned_ = nullptr;
    HandlerWalk::mutex_.unlock();
  }

 private:
  static void moveBehindOwn(HandlerWalk& walk) APPCONFIG_REQUIRES(HandlerWalk::mutex_) {
    walk.leaveList();
    walk.joinList(lastOwn);
    lastOwn = &walk;
  }
};

static const ForkLock atFork(ForkLock::Place::Walks,
                             {WalksAtFork::hold, WalksAtFork::release, WalksAtFork::enter});

HandlerWalk::HandlerWalk() : endsBefore_(ends) {}

HandlerWalk::~HandlerWalk() {
  if (handler_ == nullptr) return;
  const Base::MutexLock guard(mutex_);
  leaveList();
  wakeWaiting();
}

void HandlerWalk::joinList(HandlerWalk* before) {
  HandlerWalk*& place = before ? before->next_ : first_;
  previous_ = before;
  next_ = place;
  if (next_) next_->previous_ = this;
  place = this;
}

void HandlerWalk::leaveList() {
  (previous_ ? previous_->next_ : first_) = next_;
  if (next_) next_->previous_ = previous_;
}

void HandlerWalk::wakeWaiting() {
  if (returned_ != nullptr) returned_->notifyAll();
}

bool HandlerWalk::begin(const void* handler) {
  const Base::MutexLock guard(mutex_);
  if (handler_ == nullptr)
    joinList(nullptr);
  else
    wakeWaiting();
  handler_ = handler;
  call_ = ++lastCall_;
  return endsBefore_ == ends;
}

void HandlerWalk::noteEnd() { ++ends; }

// Null when this thread is in no handler.
HandlerWalk* HandlerWalk::ofThisThread() {
  HandlerWalk* walk = first_;
  while (walk != nullptr && walk->thread_ != std::this_thread::get_id()) walk = walk->next_;
  return walk;
}

// A call that is newer than this belongs to another registration of the same handler.
bool HandlerWalk::isCalled(const void* handler, std::uint64_t newest, bool countWaiting) {
  for (const HandlerWalk* walk = first_; walk != nullptr; walk = walk->next_) {
    const bool isMeant = walk->handler_ == handler && walk->call_ <= newest &&
                         walk->thread_ != std::this_thread::get_id();
    if (isMeant && (countWaiting || !walk->isWaiting_)) return true;
  }
  return false;
}

void HandlerWalk::waitForCalls(const void* handler) {
  const Base::MutexLock guard(mutex_);
  const std::uint64_t newest = lastCall_;
  HandlerWalk* const own = ofThisThread();
  if (!isCalled(handler, newest, own == nullptr)) return;
  if (own != nullptr) own->isWaiting_ = true;
  if (returned_ == nullptr) returned_ = new Base::Condition;
  while (isCalled(handler, newest, true)) returned_->wait(guard);
  if (own != nullptr) own->isWaiting_ = false;
}

}  // namespace AppConfig
