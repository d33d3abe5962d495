#include "platform/messaging/client/internal/private_fd.h"

#include <unistd.h>

#include <mutex>

namespace PbUtility {
namespace {

// Never destroyed: threads that outlive main may still open and close.
std::mutex openMutex;
PrivateFd* firstOpen = nullptr;

}  // namespace

PrivateFd::Change::Change(PrivateFd& owner) {
  openMutex.lock();
  owner.close();
}

PrivateFd::Change::~Change() { openMutex.unlock(); }

void PrivateFd::keep(int fd) {
  if (fd < 0) return;
  fd_ = fd;
  previous_ = nullptr;
  next_ = firstOpen;
  if (next_ != nullptr) next_->previous_ = this;
  firstOpen = this;
}

void PrivateFd::close() {
  if (fd_ < 0) return;
  (previous_ != nullptr ? previous_->next_ : firstOpen) = next_;
  if (next_ != nullptr) next_->previous_ = previous_;
  // EINTR from close leaves the descriptor closed on Linux: trying again could close another's.
  ::close(fd_);
  fd_ = -1;
}

void PrivateFd::holdForFork() { openMutex.lock(); }

void PrivateFd::releaseInParent() { openMutex.unlock(); }

void PrivateFd::closeAllInChild() {
  while (firstOpen != nullptr) firstOpen->close();
  openMutex.unlock();
}

}  // namespace PbUtility
