// A move is: finish the new file and sync it, rename it, sync the directory. Setting aside renames
// the main file before its companions: if power fails in between, the next start finds companions
// without a main file and sets those aside too, so a stranger's log is never replayed into a
// restored file.
#include "configsrv/store/internal/store_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <functional>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "configsrv/store/store.h"

namespace ConfigSrv {
namespace {

namespace fs = std::filesystem;

const char* const kCompanions[] = {"-wal", "-shm", "-journal"};

StoreStatus systemFailure(const std::string& doing, const std::string& path, int error) {
  StoreCode code = StoreCode::kUnusable;
  std::string advice = "check the path";
  if (error == ENOSPC || error == EDQUOT || error == EFBIG) {
    code = StoreCode::kDiskFull;
    advice = "free some space";
  } else if (error == EIO) {
    code = StoreCode::kIo;
    advice = "check the disk";
  } else if (error == EACCES || error == EPERM) {
    advice = "give the user of this process the right to write there";
  } else if (error == EROFS) {
    advice = "choose a path on a file system that is mounted for writing";
  }
  return {code, "cannot " + doing + " " + path + ": " + std::generic_category().message(error) +
                    "; " + advice};
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }

 private:
  int fd_;
};

int openAgain(const std::string& path, int flags, mode_t mode = 0) {
  int fd = -1;
  do {
    fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

StoreStatus syncPath(const std::string& path, int flags) {
  const Descriptor fd(openAgain(path, flags));
  if (!fd.isOpen() || ::fsync(fd.get()) != 0) return systemFailure("sync", path, errno);
  return {};
}

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

StoreStatus copyBytes(const std::string& from, int in, const std::string& to, int out) {
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t got = ::read(in, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return systemFailure("read", from, errno);
    if (got == 0) return {};
    if (!writeAll(out, buffer.data(), static_cast<std::size_t>(got))) {
      return systemFailure("write", to, errno);
    }
  }
}

std::string utcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  ::gmtime_r(&now, &parts);
  std::array<char, 32> text{};
  const std::size_t size = std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &parts);
  return std::string(text.data(), size);
}

// Whether a file with something in it is there.
bool hasContent(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && status.st_size > 0;
}

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

// The files of one name: the main file and its companions.
std::vector<std::string> family(const std::string& path) {
  std::vector<std::string> paths = {path};
  for (const char* companion : kCompanions) paths.push_back(path + companion);
  return paths;
}

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

// The main file's name for a companion's, any other as it is.
std::string stem(const std::string& path) {
  for (const std::string end : kCompanions) {
    if (path.size() > end.size() && path.compare(path.size() - end.size(), end.size(), end) == 0) {
      return path.substr(0, path.size() - end.size());
    }
  }
  return path;
}

}  // namespace

FileLock::FileLock(FileLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

FileLock::~FileLock() {
  if (fd_ >= 0) ::close(fd_);
}

StoreStatus FileLock::take(const std::string& lockFile, const std::string& store) {
  fd_ = openAgain(lockFile, O_RDWR | O_CREAT, 0600);
  if (fd_ < 0) return systemFailure("open the lock file", lockFile, errno);
  if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) return {};
  if (errno != EWOULDBLOCK) return systemFailure("lock", lockFile, errno);
  return {StoreCode::kInUse, "the store " + store +
                                 " is in use by another service: end that one (fuser " + lockFile +
                                 " names it), or give this one a file of its own"};
}

std::string StoreFiles::directory() const {
  const fs::path parent = fs::path(file_).parent_path();
  return parent.empty() ? "." : parent.string();
}

StoreStatus StoreFiles::makeDirectory() const {
  fs::path path;
  for (const fs::path& part : fs::path(directory())) {
    path /= part;
    if (::mkdir(path.c_str(), 0700) == 0) continue;
    const int error = errno;
    // On a read-only file system even a directory that is there may answer EROFS.
    std::error_code ignored;
    if (!fs::is_directory(path, ignored)) {
      return systemFailure("make the directory", path.string(), error == EEXIST ? ENOTDIR : error);
    }
  }
  return {};
}

StoreStatus StoreFiles::inspect(Presence* presence) const {
  struct stat status {};
  const int result = ::stat(file_.c_str(), &status);
  if (result != 0 && errno != ENOENT) return systemFailure("open the store", file_, errno);
  if (result == 0 && !S_ISREG(status.st_mode)) {
    return {StoreCode::kUnusable,
            "cannot open the store " + file_ +
                ": it is not a regular file; give the store a path of its own"};
  }
  if (result != 0 || status.st_size == 0) {
    const bool leftOver = hasSnapshot() || hasContent(file_ + "-wal");
    *presence = leftOver ? Presence::kMainGone : Presence::kNothing;
    return {};
  }
  *presence = Presence::kThere;
  const Descriptor fd(openAgain(file_, O_RDWR));
  return fd.isOpen() ? StoreStatus() : systemFailure("open the store", file_, errno);
}

bool StoreFiles::hasSnapshot() const { return hasContent(snapshotFile()); }

StoreStatus StoreFiles::create(const std::string& path) const {
  discard(path);
  const Descriptor fd(openAgain(path, O_RDWR | O_CREAT | O_EXCL, 0600));
  if (!fd.isOpen()) return systemFailure("create", path, errno);
  return syncDirectory();
}

StoreStatus StoreFiles::setAside(std::string* name) const {
  *name = unusedAsideName(file_);
  StoreStatus status = renameAside(file_, *name);
  if (status.ok()) forgetOldest(file_, *name);
  return status;
}

StoreStatus StoreFiles::setSnapshotAside(std::string* name) const {
  *name = unusedAsideName(snapshotFile());
  StoreStatus status = renameAside(snapshotFile(), *name);
  if (status.ok()) forgetOldest(snapshotFile(), *name);
  return status;
}

StoreStatus StoreFiles::renameAside(const std::string& path, const std::string& name) const {
  const std::vector<std::string> from = family(path);
  const std::vector<std::string> to = family(name);
  for (std::size_t i = 0; i < from.size(); ++i) {
    if (::rename(from[i].c_str(), to[i].c_str()) != 0 && errno != ENOENT) {
      return systemFailure("rename to " + to[i] + " the damaged", from[i], errno);
    }
  }
  return syncDirectory();
}

std::string StoreFiles::unusedAsideName(const std::string& path) const {
  const std::string base = path + ".damaged-" + utcNow();
  std::string name = base;
  const auto taken = [](const std::string& candidate) {
    const std::vector<std::string> paths = family(candidate);
    return std::any_of(paths.begin(), paths.end(), exists);
  };
  for (int i = 2; taken(name); ++i) name = base + "." + std::to_string(i);
  return name;
}

// A clock that starts anew with each boot misorders the names; the newest stays all the same.
void StoreFiles::forgetOldest(const std::string& path, const std::string& newest) const {
  std::set<std::string, std::greater<>> names;
  std::error_code error;
  for (fs::directory_iterator entry(directory(), error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = (fs::path(path).parent_path() / entry->path().filename()).string();
    if (startsWith(name, path + ".damaged-")) names.insert(stem(name));
  }
  names.erase(newest);
  int kept = 1;
  for (const std::string& name : names) {
    if (++kept > Store::kMaxSetAside) discard(name);
  }
}

StoreStatus StoreFiles::copySnapshotTo(const std::string& path) const {
  const Descriptor in(openAgain(snapshotFile(), O_RDONLY));
  if (!in.isOpen()) return systemFailure("open the snapshot", snapshotFile(), errno);
  StoreStatus created = create(path);
  if (!created.ok()) return created;
  const Descriptor out(openAgain(path, O_WRONLY));
  if (!out.isOpen()) return systemFailure("open", path, errno);
  return copyBytes(snapshotFile(), in.get(), path, out.get());
}

StoreStatus StoreFiles::install(const std::string& from, const std::string& to) const {
  StoreStatus synced = syncPath(from, O_RDONLY);
  if (!synced.ok()) return synced;
  if (::rename(from.c_str(), to.c_str()) != 0) return systemFailure("put in place", to, errno);
  return syncDirectory();
}

void StoreFiles::discard(const std::string& path) const {
  for (const std::string& part : family(path)) ::unlink(part.c_str());
}

StoreStatus StoreFiles::syncDirectory() const {
  return syncPath(directory(), O_RDONLY | O_DIRECTORY);
}

}  // namespace ConfigSrv
