// The checks that need no database library: the file's type and size, the marks at its head, and the
// log that SQLite keeps beside a store whose newest commits are not in it yet.
#include "tools/appcfg/store_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/appcfg/new_file.h"

namespace AppCfgTool {
namespace {

// The head of an SQLite database, and the application's number that stands in it.
constexpr char kHead[] = "SQLite format 3";
constexpr char kApplication[] = "ACFG";
constexpr off_t kApplicationAt = 68;

bool standsAt(int fd, off_t offset, const char* text, std::size_t size) {
  char bytes[sizeof kHead];
  return ::pread(fd, bytes, size, offset) == static_cast<ssize_t>(size) &&
         std::memcmp(bytes, text, size) == 0;
}

bool isStore(int fd) {
  return standsAt(fd, 0, kHead, sizeof kHead) &&
         standsAt(fd, kApplicationAt, kApplication, sizeof kApplication - 1);
}

bool hasBytes(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && status.st_size > 0;
}

Outcome noCopy(const std::string& path, const std::string& why, const std::string& advice) {
  return failure(kExitInvalidValue, "cannot use " + path + ": " + why, advice);
}

}  // namespace

Outcome StoreFile::open() {
  fd_.reset(::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd_) return fileFailure("open", path_, errno);
  struct stat status {};
  if (::fstat(fd_.get(), &status) != 0) return fileFailure("open", path_, errno);
  if (!S_ISREG(status.st_mode)) return noCopy(path_, "it is not a regular file", "");
  if (status.st_size == 0) return noCopy(path_, "it is empty", "");
  if (!isStore(fd_.get()))
    return noCopy(path_, "it is no copy of a store", "'appcfg store copy' makes one");
  const std::string log = path_ + "-wal";
  if (!hasBytes(log)) return {};
  return noCopy(path_, "the newest changes are not in it but in " + log,
                "make the copy with 'appcfg store copy'; a service that is not running keeps its "
                "own last one as STORE.snapshot");
}

}  // namespace AppCfgTool
