// Either side says what it has to say once: the service in a datagram for each notice, the manager in
// variables of the environment. These are for this process alone, so they are taken away at once, for a
// child must not believe that it was meant.
#include "configsrv/configsrvd/notify_manager.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/unique_fd.h"

namespace {

using Base::failed;
using Base::Status;

constexpr int kFirstPassedSocket = 3;

Status<> cannot(const char* what) {
  return failed(std::string("cannot ") + what + " the service manager: " + std::strerror(errno));
}

// A name that begins with "@" is one of the abstract namespace: its first byte is zero.
socklen_t fillAddress(const std::string& name, sockaddr_un& address) {
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  if (name[0] == '@') address.sun_path[0] = '\0';
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

bool isMine(const char* pid) { return pid != nullptr && pid == std::to_string(getpid()); }

}  // namespace

Base::Status<> notifyManager(const std::string& state) {
  const char* variable = std::getenv("NOTIFY_SOCKET");
  const std::string name = variable == nullptr ? "" : variable;
  if (name.empty()) return {};
  sockaddr_un address{};
  if ((name[0] != '/' && name[0] != '@') || name.size() >= sizeof address.sun_path)
    return failed("NOTIFY_SOCKET is no usable address");
  const socklen_t size = fillAddress(name, address);
  const Base::UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd) return cannot("reach");
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const ssize_t sent = sendto(fd.get(), state.data(), state.size(), MSG_NOSIGNAL, generic, size);
  return sent < 0 ? cannot("notify") : Status<>();
}

Base::Status<> takeListeningSocket(int& socket) {
  socket = -1;
  const char* count = std::getenv("LISTEN_FDS");
  const bool isForUs = count != nullptr && isMine(std::getenv("LISTEN_PID"));
  const std::string sockets = isForUs ? count : "0";
  for (const char* name : {"LISTEN_FDS", "LISTEN_PID", "LISTEN_FDNAMES"}) unsetenv(name);
  if (sockets == "0") return {};
  if (sockets != "1")
    return failed("the service manager passed " + sockets + " sockets instead of one");
  if (fcntl(kFirstPassedSocket, F_SETFD, FD_CLOEXEC) != 0) return cannot("take the socket of");
  socket = kFirstPassedSocket;
  return {};
}
