#include "configsrv/audit/audit_sync.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace ConfigSrv {

void AuditSync::add(Base::UniqueFd fd) {
  if (fd) fds_.push_back(std::move(fd));
}

Base::Status<> AuditSync::wait() const {
  Base::Status<> synced;
  for (const Base::UniqueFd& fd : fds_) {
    // Some sorts of files cannot be forced to a disk at all; nothing of them can be lost then
    // either.
    if (::fsync(fd.get()) != 0 && errno != EINVAL && errno != EROFS)
      synced = Base::failed(std::strerror(errno));
  }
  return synced;
}

}  // namespace ConfigSrv
