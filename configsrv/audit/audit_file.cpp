// Before each line, lstat tells whether the name still leads to the open file; if not, the name is
// opened anew. That costs one system call for each line, and whoever rotates the file need not tell
// the service.
//
// Each line is one write. When the disk takes a part of it only, that part is cut off again; where
// even that fails, the next line begins with a line break, so that it stays whole. Descriptors of
// files that were rotated away go into the AuditSync (before_), because their last lines may not
// be on the disk yet.
#include "configsrv/audit/internal/audit_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace ConfigSrv {
namespace {

using Base::failed;
using Base::Status;
using Base::UniqueFd;

Status<> because(int error) { return failed(std::strerror(error)); }

// Whether what was opened is to be written.
Status<> checkFile(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return failed("it is no regular file");
  if (status.st_uid != 0 && status.st_uid != ::geteuid())
    return failed("it belongs to user " + std::to_string(status.st_uid));
  return {};
}

UniqueFd openDirectory(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  return UniqueFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// True when the file cannot be read: a service may be allowed to write it and no more.
bool endsWithLineBreak(const std::string& path, off_t bytes) {
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) return true;
  char last = '\n';
  const ssize_t got = ::pread(fd.get(), &last, 1, bytes - 1);
  return got != 1 || last == '\n';
}

std::string records(std::uint64_t count) {
  return std::to_string(count) + (count == 1 ? " record" : " records");
}

}  // namespace

AuditFile::AuditFile(std::string path, const Log& log, LostLine lostLine)
    : path_(std::move(path)), log_(log), lostLine_(std::move(lostLine)) {}

AuditFile::~AuditFile() {
  if (lost_ > 0) log_.error(path_ + ": " + records(lost_) + " of changes were lost");
}

void AuditFile::open() {
  const Status<> opened = reopen();
  if (!opened.ok()) lose(opened.text, 0);
}

bool AuditFile::isStillThere() const {
  struct stat status {};
  return fd_ && ::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ &&
         status.st_ino == inode_;
}

Status<> AuditFile::reopen() {
  if (unsynced_) before_->add(std::move(fd_));
  unsynced_ = false;
  torn_ = false;
  fd_.reset();
  fd_.reset(::open(path_.c_str(),
                   O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                   0600));
  if (!fd_) return errno == ELOOP ? failed("it is a symbolic link") : because(errno);
  struct stat status {};
  Status<> opened = ::fstat(fd_.get(), &status) == 0 ? checkFile(status) : because(errno);
  device_ = status.st_dev;
  inode_ = status.st_ino;
  if (opened.ok()) {
    before_->add(openDirectory(path_));  // Of a new file, the name has to get to the disk as well.
    torn_ = status.st_size > 0 && !endsWithLineBreak(path_, status.st_size);
    return opened;
  }
  fd_.reset();
  return opened;
}

// When the disk takes only a part of the line, that part is cut off again.
Status<> AuditFile::write(const std::string& line) {
  if (!isStillThere()) {
    Status<> opened = reopen();
    if (!opened.ok()) return opened;
  }
  const std::string text = (torn_ ? "\n" : "") + line + '\n';
  ssize_t wrote = -1;
  do {
    wrote = ::write(fd_.get(), text.data(), text.size());
  } while (wrote < 0 && errno == EINTR);
  if (wrote == static_cast<ssize_t>(text.size())) {
    torn_ = false;
    return {};
  }
  if (wrote < 0) return because(errno);
  const off_t end = ::lseek(fd_.get(), 0, SEEK_CUR);
  if (end < wrote || ::ftruncate(fd_.get(), end - wrote) != 0) torn_ = true;
  return because(ENOSPC);
}

void AuditFile::lose(const std::string& why, std::uint64_t lines) {
  lost_ += lines;
  if (std::exchange(broken_, true)) return;
  log_.error(path_ + ": the audit record cannot be written: " + why +
             "; changes go on and are not recorded");
}

// The line that tells of lost records goes out in one write with the next record. If it went alone
// where only it fits, the next record would be lost again, and such lines would fill the file.
bool AuditFile::append(const std::string& line) {
  const Status<> written = write(lost_ > 0 ? lostLine_(lost_) + '\n' + line : line);
  if (!written.ok()) {
    lose(written.text, 1);
    return false;
  }
  unsynced_ = true;
  if (!std::exchange(broken_, false)) return true;
  log_.warning(path_ + ": the audit record is written again; " + records(lost_) +
               " of changes were lost");
  lost_ = 0;
  return true;
}

Status<> AuditFile::syncNow() {
  unsynced_ = static_cast<bool>(fd_);
  return takeUnsynced()->wait();
}

std::shared_ptr<AuditSync> AuditFile::takeUnsynced() {
  std::shared_ptr<AuditSync> taken = std::exchange(before_, std::make_shared<AuditSync>());
  if (std::exchange(unsynced_, false)) taken->add(UniqueFd(::fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0)));
  return taken;
}

}  // namespace ConfigSrv
