// Each function is one call of the system, repeated where a signal ended it, and its errno. A store's
// durability hangs on what is synced when: a file's contents by fsync of the file, its name by fsync of
// the directory that has it.
#include "configsrv/store/internal/file_system.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace ConfigSrv {
namespace {

namespace fs = std::filesystem;

using Base::UniqueFd;

UniqueFd openAgain(const std::string& path, int flags, mode_t mode = 0) {
  int fd = -1;
  do {
    fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return UniqueFd(fd);
}

int errnoOf(int result) { return result == 0 ? 0 : errno; }

int syncPath(const std::string& path, int flags) {
  const UniqueFd fd = openAgain(path, flags);
  return fd ? errnoOf(::fsync(fd.get())) : errno;
}

int writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    if (written == 0) return EIO;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return 0;
}

int readAll(int fd, std::uint64_t offset, std::size_t size, std::string* bytes) {
  bytes->resize(size);
  std::size_t have = 0;
  while (have < size) {
    const ssize_t got =
        ::pread(fd, bytes->data() + have, size - have, static_cast<off_t>(offset + have));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    have += static_cast<std::size_t>(got);
  }
  bytes->resize(have);
  return 0;
}

class PosixFileSystem final : public FileSystem {
 public:
  int facts(const std::string& path, FileFacts* facts) override {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return errno;
    facts->isRegular = S_ISREG(status.st_mode);
    facts->isDirectory = S_ISDIR(status.st_mode);
    facts->bytes = static_cast<std::uint64_t>(status.st_size);
    return 0;
  }

  int makeDirectory(const std::string& path) override {
    return errnoOf(::mkdir(path.c_str(), 0700));
  }

  int list(const std::string& directory, std::vector<std::string>* names) override {
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
      names->push_back(entry->path().filename().string());
    }
    return error.value();
  }

  int lock(const std::string& path, FileLock* lock) override {
    UniqueFd fd = openAgain(path, O_RDWR | O_CREAT, 0600);
    if (!fd) return errno;
    const int error = errnoOf(::flock(fd.get(), LOCK_EX | LOCK_NB));
    *lock = FileLock(std::move(fd));
    return error;
  }

  int probe(const std::string& path) override {
    const UniqueFd fd = openAgain(path, O_RDWR);
    return fd ? 0 : errno;
  }

  int create(const std::string& path) override {
    const UniqueFd fd = openAgain(path, O_RDWR | O_CREAT | O_EXCL, 0600);
    return fd ? 0 : errno;
  }

  int remove(const std::string& path) override { return errnoOf(::unlink(path.c_str())); }

  int rename(const std::string& from, const std::string& to) override {
    return errnoOf(::rename(from.c_str(), to.c_str()));
  }

  int read(const std::string& path, std::uint64_t offset, std::size_t size,
           std::string* bytes) override {
    const UniqueFd fd = openAgain(path, O_RDONLY);
    return fd ? readAll(fd.get(), offset, size, bytes) : errno;
  }

  int append(const std::string& path, const std::string& bytes) override {
    const UniqueFd fd = openAgain(path, O_WRONLY | O_APPEND);
    return fd ? writeAll(fd.get(), bytes.data(), bytes.size()) : errno;
  }

  int sync(const std::string& path) override { return syncPath(path, O_RDONLY); }
  int syncDirectory(const std::string& path) override {
    return syncPath(path, O_RDONLY | O_DIRECTORY);
  }
};

}  // namespace

FileSystem& posixFileSystem() {
  static PosixFileSystem system;
  return system;
}

}  // namespace ConfigSrv
