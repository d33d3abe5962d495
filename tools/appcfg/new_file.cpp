// A name that nobody has is taken at once, so that two that want it cannot both have it, and is
// given back when the contents do not come. File systems of memory sticks know no links, so a file
// that is written under another name cannot be given a new name without the risk of replacing one.
#include "tools/appcfg/new_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "base/unique_fd.h"

namespace AppCfgTool {
namespace {

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

const char* adviceFor(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
      return "do it as root, or as the user that the service runs as";
    case EEXIST:
      return "choose another name, or replace it with --force";
    case ENOENT:
    case ENOTDIR:
      return "check the path";
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return "free some space";
    default:
      return "";
  }
}

int syncDirectory(const std::string& directory) {
  const Base::UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return errno;
  // A file system that cannot sync a directory says EINVAL, and has no more to offer.
  return ::fsync(fd.get()) == 0 || errno == EINVAL ? 0 : errno;
}

}  // namespace

Outcome fileFailure(const std::string& doing, const std::string& path, int error) {
  const bool denied = error == EACCES || error == EPERM;
  return failure(denied ? kExitDenied : kExitFailed,
                 "cannot " + doing + ' ' + path + ": " + std::generic_category().message(error),
                 adviceFor(error));
}

NewFile::NewFile(std::string path, Existing existing)
    : path_(std::move(path)), written_(existing == Existing::Keep ? path_ : path_ + ".new") {}

NewFile::~NewFile() {
  if (fd_) ::unlink(written_.c_str());
}

Outcome NewFile::open() {
  if (written_ != path_) ::unlink(written_.c_str());
  fd_.reset(::open(written_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  return fd_ ? Outcome() : fileFailure("make", written_, errno);
}

Outcome NewFile::write(const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t wrote = ::write(fd_.get(), bytes, size);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) return fileFailure("write", written_, errno);
    bytes += wrote;
    size -= static_cast<std::size_t>(wrote);
  }
  return {};
}

Outcome NewFile::take(int from, const std::string& fromPath) {
  std::string piece(65536, '\0');
  for (;;) {
    const ssize_t got = ::pread(from, piece.data(), piece.size(), static_cast<off_t>(bytes_));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return fileFailure("read", fromPath, errno);
    if (got == 0) return {};
    Outcome written = write(piece.data(), static_cast<std::size_t>(got));
    if (!written.ok()) return written;
    bytes_ += static_cast<std::uint64_t>(got);
  }
}

Outcome NewFile::giveTo(uid_t uid, gid_t gid) {
  if (::geteuid() != 0 || ::fchown(fd_.get(), uid, gid) == 0) return {};
  return fileFailure("give to user " + std::to_string(uid), written_, errno);
}

Outcome NewFile::finish() {
  if (::fsync(fd_.get()) != 0) return fileFailure("write", written_, errno);
  if (written_ != path_ && std::rename(written_.c_str(), path_.c_str()) != 0)
    return fileFailure("replace", path_, errno);
  fd_.reset();
  const int error = syncDirectory(directoryOf(path_));
  return error == 0 ? Outcome() : fileFailure("sync the directory of", path_, error);
}

}  // namespace AppCfgTool
