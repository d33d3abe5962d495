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
  static void holdForFork();
  static void releaseInParent();
  static void closeAllInChild();

 private:
  // Holds the mutex, and closes what was there.
  class Change {
   public:
    explicit Change(PrivateFd& owner);
    ~Change();
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;
  };
  void keep(int fd);
  void close();

  int fd_ = -1;
  PrivateFd* previous_ = nullptr;
  PrivateFd* next_ = nullptr;
};

}  // namespace PbUtility
