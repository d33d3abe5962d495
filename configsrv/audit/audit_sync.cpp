#include "configsrv/audit/audit_sync.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace ConfigSrv {

void AuditSync::add(Base::UniqueFd fd) {
  if (fd) fds_.push_back(std::move(fd));
}

std::string AuditSync::wait() const {
  std::string problem;
  for (const Base::UniqueFd& fd : fds_) {
    // Some sorts of files cannot be forced to a disk at all; nothing of them can be lost then
    // either.
    if (::fsync(fd.get()) != 0 && errno != EINVAL && errno != EROFS) problem = std::strerror(errno);
  }
  return problem;
}

}  // namespace ConfigSrv
