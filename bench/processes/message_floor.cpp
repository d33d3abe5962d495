// The floor of every exchange: as many bytes there and back between two processes over a socket
// pair, with nothing done to them. What the message layer costs is what comes on top.
#include "bench/processes/message_floor.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace Bench {
namespace {

constexpr std::size_t kBufferBytes = 64 * 1024;

// One for each thread; its contents have no meaning.
char* buffer() {
  thread_local char bytes[kBufferBytes] = {};
  return bytes;
}

// Frames of this floor are far smaller than the buffer and each waits for its answer, so one read
// takes all that is there.
bool answer(int socket, const MessageBytes& bytes) {
  const ssize_t count = ::recv(socket, buffer(), kBufferBytes, 0);
  if (count <= 0) return false;
  const auto received = static_cast<std::size_t>(count);
  if (received < bytes.request && !receiveBytes(socket, bytes.request - received)) return false;
  return sendBytes(socket, bytes.response);
}

}  // namespace

SocketPair::SocketPair() {
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) == 0) return;
  std::perror("socketpair");
  std::_Exit(1);
}

SocketPair::~SocketPair() {
  closeHere();
  closeThere();
}

void SocketPair::closeHere() {
  if (ends_[0] >= 0) ::close(ends_[0]);
  ends_[0] = -1;
}

void SocketPair::closeThere() {
  if (ends_[1] >= 0) ::close(ends_[1]);
  ends_[1] = -1;
}

bool sendBytes(int socket, std::size_t count) {
  while (count > 0) {
    const ssize_t sent = ::send(socket, buffer(), std::min(count, kBufferBytes), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    count -= static_cast<std::size_t>(sent);
  }
  return true;
}

bool receiveBytes(int socket, std::size_t count) {
  while (count > 0) {
    const ssize_t received = ::recv(socket, buffer(), std::min(count, kBufferBytes), 0);
    if (received <= 0) return false;
    count -= static_cast<std::size_t>(received);
  }
  return true;
}

int echo(int socket, const MessageBytes& bytes) {
  while (receiveBytes(socket, bytes.request) && sendBytes(socket, bytes.response)) {
  }
  return 0;
}

int echoMany(const std::vector<int>& sockets, const MessageBytes& bytes) {
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  for (const int socket : sockets) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = socket;
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &event);
  }
  std::size_t open = sockets.size();
  epoll_event events[64];
  while (open > 0) {
    const int count = ::epoll_wait(epoll, events, 64, -1);
    for (int i = 0; i < count; ++i) {
      const int socket = events[i].data.fd;
      if (answer(socket, bytes)) continue;
      ::epoll_ctl(epoll, EPOLL_CTL_DEL, socket, nullptr);
      --open;
    }
  }
  ::close(epoll);
  return 0;
}

}  // namespace Bench
