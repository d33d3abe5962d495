// PrivateFd: a file descriptor that belongs to this process alone: a child after fork has it closed.
//
// A child that kept its parent's connections would keep them open after the parent's death, and the
// service would wait for a provider that is long gone. So every descriptor of the client side is
// noted here, and the child closes what was noted before anything else of it runs.
//
// Threads:  one mutex for all of them, held while a descriptor is made or closed, so that none is
//           open and not noted when another thread forks. Taken last: nothing else is taken while it
//           is held, and what open does must not wait.
#pragma once

#include "base/mutex.h"

namespace PbUtility {

class PrivateFd {
 public:
  PrivateFd() = default;
  ~PrivateFd() { reset(); }
  PrivateFd(const PrivateFd&) = delete;
  PrivateFd& operator=(const PrivateFd&) = delete;

  // Both close what is held already. `open` makes the descriptor; negative is a failure, whose
  // errno stays.
  template <typename Open>
  void make(Open open) {
    const Change change(*this);
    keep(open());
  }
  void reset() {
    if (fd_ < 0) return;
    const Change change(*this);
  }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

  // Around fork: what no other thread may be changing while it happens.
  static void holdForFork() APPCONFIG_ACQUIRE(openMutex_);
  static void releaseInParent() APPCONFIG_RELEASE(openMutex_);
  static void closeAllInChild() APPCONFIG_RELEASE(openMutex_);

 private:
  // Holds the mutex, and closes what was there.
  class APPCONFIG_LOCK_HOLDER Change {
   public:
    explicit Change(PrivateFd& owner) APPCONFIG_ACQUIRE(openMutex_);
    ~Change() APPCONFIG_RELEASE();
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;
  };
  void keep(int fd) APPCONFIG_REQUIRES(openMutex_);
  void close() APPCONFIG_REQUIRES(openMutex_);

  // Never destroyed: threads that outlive main may still open and close.
  static Base::Mutex openMutex_;
  static PrivateFd* firstOpen_ APPCONFIG_GUARDED_BY(openMutex_);

  // Changed with the mutex, and by its owner alone, which reads it without.
  int fd_ = -1;
  PrivateFd* previous_ APPCONFIG_GUARDED_BY(openMutex_) = nullptr;
  PrivateFd* next_ APPCONFIG_GUARDED_BY(openMutex_) = nullptr;
};

}  // namespace PbUtility
