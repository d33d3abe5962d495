// A name belongs to whoever holds the lock on its lock file. So the order is: directories, lock, then
// the socket file, which may be removed and made anew because the lock says that nobody serves at it.
// The lock file itself is never removed: another server may have opened it already and be waiting to
// lock it.
#include "platform/messaging/serving/internal/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "platform/messaging/wire/runtime_dir.h"

namespace PbUtility {
namespace {

using Base::failed;
using Base::Status;

// Everybody may connect; what they may do is decided by who the kernel says they are.
constexpr mode_t kSocketMode = 0666;
constexpr mode_t kDirectoryMode = 0755;

Status<> because(const std::string& what) { return failed(what + ": " + std::strerror(errno)); }

// Makes every directory above the path that is missing.
Status<> makeDirectories(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    if (::mkdir(directory.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
      return because("cannot make the directory " + directory);
    }
  }
  return {};
}

}  // namespace

Listener::~Listener() {
  // Only the holder of the lock may remove the socket: it is its own.
  if (lock_ && !path_.empty()) ::unlink(path_.c_str());
}

Status<> Listener::lock() {
  const std::string lockPath = path_ + ".lock";
  lock_.reset(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock_) return because("cannot open the lock file " + lockPath);
  if (::flock(lock_.get(), LOCK_EX | LOCK_NB) == 0) return {};
  const bool taken = errno == EWOULDBLOCK;
  Status<> problem = because("cannot lock " + lockPath);
  lock_.reset();
  if (!taken) return problem;
  return failed("another service already serves " + path_ +
                ": stop it, or choose another --runtime-dir");
}

Status<> Listener::bindAndListen() {
  struct stat status {};
  if (::lstat(path_.c_str(), &status) == 0) {
    if (!S_ISSOCK(status.st_mode))
      return failed(path_ + " is in the way and is no socket: remove it");
    if (::unlink(path_.c_str()) != 0) return because("cannot remove the old socket " + path_);
  }
  socket_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket_) return because("cannot make a socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.data(), path_.size());
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  if (::bind(socket_.get(), generic, sizeof address) != 0) return because("cannot bind " + path_);
  if (::chmod(path_.c_str(), kSocketMode) != 0) return because("cannot set the mode of " + path_);
  if (::listen(socket_.get(), kBacklog) != 0) return because("cannot listen at " + path_);
  return {};
}

Status<> Listener::open(const std::string& runtimeDir, const std::string& name) {
  Status<> opened = socketPath(runtimeDir, name, path_);
  if (opened.ok()) opened = makeDirectories(path_);
  if (opened.ok()) opened = lock();
  if (opened.ok()) opened = bindAndListen();
  if (opened.ok()) spare_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return opened;
}

Status<> Listener::adopt(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
    return because("cannot use the listening socket " + std::to_string(fd));
  }
  int listening = 0;
  socklen_t size = sizeof listening;
  if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || listening == 0) {
    return failed("descriptor " + std::to_string(fd) + " is no listening socket");
  }
  socket_.reset(fd);
  spare_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return {};
}

Base::UniqueFd Listener::accept(bool& exhausted) {
  exhausted = false;
  if (!spare_) spare_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  for (;;) {
    Base::UniqueFd connection(
        ::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection) return connection;
    if (errno == EINTR || errno == ECONNABORTED) continue;
    if ((errno != EMFILE && errno != ENFILE) || !spare_) return {};
    exhausted = true;
    spare_.reset();
    return Base::UniqueFd(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  }
}

}  // namespace PbUtility
