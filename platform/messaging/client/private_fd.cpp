#include "platform/messaging/client/internal/private_fd.h"

#include <unistd.h>

namespace PbUtility {

Base::Mutex PrivateFd::openMutex_;
PrivateFd* PrivateFd::firstOpen_ = nullptr;

PrivateFd::Change::Change(PrivateFd& owner) {
  openMutex_.lock();
  owner.close();
}

PrivateFd::Change::~Change() { openMutex_.unlock(); }

void PrivateFd::keep(int fd) {
  if (fd < 0) return;
  fd_ = fd;
  previous_ = nullptr;
  next_ = firstOpen_;
  if (next_ != nullptr) next_->previous_ = this;
  firstOpen_ = this;
}

void PrivateFd::close() {
  if (fd_ < 0) return;
  (previous_ != nullptr ? previous_->next_ : firstOpen_) = next_;
  if (next_ != nullptr) next_->previous_ = previous_;
  // EINTR from close leaves the descriptor closed on Linux: trying again could close another's.
  ::close(fd_);
  fd_ = -1;
}

void PrivateFd::holdForFork() { openMutex_.lock(); }

void PrivateFd::releaseInParent() { openMutex_.unlock(); }

void PrivateFd::closeAllInChild() {
  while (firstOpen_ != nullptr) firstOpen_->close();
  openMutex_.unlock();
}

}  // namespace PbUtility
