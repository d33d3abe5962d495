#include "configsrv/audit/audit_sync.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ConfigSrv {

AuditSync::~AuditSync() {
  for (const int fd : fds_) ::close(fd);
}

void AuditSync::add(int fd) {
  if (fd >= 0) fds_.push_back(fd);
}

std::string AuditSync::wait() const {
  std::string problem;
  for (const int fd : fds_) {
    // Some sorts of files cannot be forced to a disk at all; nothing of them can be lost then
    // either.
    if (::fsync(fd) != 0 && errno != EINVAL && errno != EROFS) problem = std::strerror(errno);
  }
  return problem;
}

}  // namespace ConfigSrv
