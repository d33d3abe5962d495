// AuditFile: lines at the end of a file, each whole and in one write, or counted as lost.
//
// Shape:    made with mode 0600. What somebody left without a line break at the end gets one. A
//           line that the disk did not take as a whole is taken back.
// Rotation: when another file has the name, or none, the next line goes to the name and not to the
//           file that was: whoever rotates it need only rename it.
// Faults:   a file that cannot be written stops nobody. The log says so once, and once more, with
//           the number of lines that were lost, when it can be written again; the file then begins
//           anew with a line that lostLine makes. A symbolic link, what is no regular file, and a
//           file of another user are not written.
// Threads:  one.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/status.h"
#include "base/unique_fd.h"
#include "configsrv/audit/audit_sync.h"
#include "configsrv/log/log.h"

namespace ConfigSrv {

class AuditFile {
 public:
  using LostLine = std::function<std::string(std::uint64_t lost)>;

  // The log outlives this object.
  AuditFile(std::string path, const Log& log, LostLine lostLine);
  // Says how many lines were lost, if any, and not made up for.
  ~AuditFile();
  AuditFile(const AuditFile&) = delete;
  AuditFile& operator=(const AuditFile&) = delete;

  // Opens the file before there is anything to write, so that a mistake shows at the start.
  void open();
  // The line has no line break. True when it stands in the file.
  bool append(const std::string& line);
  // All that was appended since the last call.
  std::shared_ptr<AuditSync> takeUnsynced();

  // Waits until the whole file is on the disk, whoever wrote it.
  Base::Status<> syncNow();

  std::uint64_t lost() const { return lost_; }

 private:
  bool isStillThere() const;
  Base::Status<> reopen();
  Base::Status<> write(const std::string& line);
  void lose(const std::string& why, std::uint64_t lines);

  const std::string path_;
  const Log& log_;
  const LostLine lostLine_;
  Base::UniqueFd fd_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  // True when half a line stands at the end of the file and could not be cut off.
  bool torn_ = false;
  bool broken_ = false;
  // Whether something was appended to this file since the last takeUnsynced(), and the descriptors
  // of the files that had the name before it.
  bool unsynced_ = false;
  std::shared_ptr<AuditSync> before_ = std::make_shared<AuditSync>();
  std::uint64_t lost_ = 0;
};

}  // namespace ConfigSrv
