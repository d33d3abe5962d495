// AuditSync: lines of the audit record that stand in its file and are not on the disk yet.
//
// Made in the loop and waited for elsewhere, for a disk takes its time: it holds descriptors of its
// own, so that the file may be rotated meanwhile.
//
// Threads:  one at a time.
// Owns:     its descriptors.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/status.h"
#include "base/unique_fd.h"

namespace ConfigSrv {

class AuditSync {
 public:
  AuditSync() = default;
  AuditSync(const AuditSync&) = delete;
  AuditSync& operator=(const AuditSync&) = delete;

  // The newest change among the lines; 0 when they tell of no change.
  std::uint64_t revision = 0;

  // One that owns nothing is ignored.
  void add(Base::UniqueFd fd);
  // Waits until all is on the disk; a failure tells the system's reason.
  Base::Status<> wait() const;

 private:
  std::vector<Base::UniqueFd> fds_;
};

}  // namespace ConfigSrv
