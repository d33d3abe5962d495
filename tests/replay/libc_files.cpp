// Descriptors and processes, in place of libc's. The sockets and files are the system's; what is
// done here is to wait, to remember which program has which descriptor, to cut connections and to
// move bytes in pieces by chance, and to give each program a process number of its own.
#undef _FILE_OFFSET_BITS

#include "tests/replay/libc_files.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <string>

#include "tests/replay/real.h"
#include "tests/replay/scheduler.h"

using Replay::Scheduler;

namespace {

// Of the programs that have connected and are not accepted yet; there is one listening socket.
std::deque<pid_t> arriving;
// The process at the other end.
std::map<int, pid_t> peers;
// Sockets of the simulation, and how long sending may take.
std::map<int, Replay::Time> sockets;
pid_t serving = 0;
std::map<int, pid_t> processes;
std::set<pid_t> living;
pid_t lastProcess = 100;
std::string processDirectory;
int spared = -1;

int owned(Scheduler& scheduler, const char* what, int fd) {
  scheduler.own(fd);
  scheduler.point(what, static_cast<std::uint64_t>(fd));
  return fd;
}

// The number of bytes to move.
std::size_t piece(Scheduler& scheduler, std::size_t size) {
  if (size < 2 || !scheduler.happens(scheduler.chances.pieces)) return size;
  return 1 + scheduler.chance(size - 1);
}

void cutByChance(Scheduler& scheduler, int fd) {
  if (!scheduler.happens(scheduler.chances.cuts)) return;
  if (scheduler.program() == spared || peers[fd] == processes[spared]) return;
  scheduler.note("cut", static_cast<std::uint64_t>(fd));
  scheduler.countCut();
  REPLAY_REAL(shutdown)(fd, SHUT_RDWR);
  scheduler.descriptorsChanged();
}

Replay::Time deadlineAfter(Scheduler& scheduler, int milliseconds) {
  if (milliseconds < 0) return Replay::kNever;
  return scheduler.now() + milliseconds * Replay::kMillisecond;
}

// The state of a simulated process, in the form of proc(5).
std::string redirected(const char* path) {
  pid_t pid = 0;
  if (std::sscanf(path, "/proc/%d/stat", &pid) != 1) return path;
  return processDirectory + "/" + std::to_string(pid);
}

FILE* openStream(const char* path, const char* mode) {
  return REPLAY_REAL(fopen64)(redirected(path).c_str(), mode);
}

}  // namespace

namespace Replay {

void keepProcessesIn(const std::string& directory) { processDirectory = directory; }

pid_t beginProcess(int program) {
  const pid_t pid = ++lastProcess;
  processes[program] = pid;
  living.insert(pid);
  if (FILE* file =
          REPLAY_REAL(fopen64)((processDirectory + "/" + std::to_string(pid)).c_str(), "w")) {
    std::fprintf(file, "%d (replay) S", static_cast<int>(pid));
    for (int field = 4; field < 22; ++field) std::fprintf(file, " 0");
    std::fprintf(file, " %d\n", static_cast<int>(pid));
    std::fclose(file);
  }
  return pid;
}

void endProcess(int program) {
  const pid_t pid = processes[program];
  living.erase(pid);
  REPLAY_REAL(unlink)((processDirectory + "/" + std::to_string(pid)).c_str());
  if (pid == serving) arriving.clear();
}

void spare(int program) { spared = program; }

}  // namespace Replay

extern "C" {

// --- Descriptors come and go ---

int socket(int domain, int type, int protocol) noexcept {
  const int fd = REPLAY_REAL(socket)(domain, type, protocol);
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return fd;
  sockets[fd] = Replay::kNever;
  return owned(*scheduler, "socket", fd);
}

int epoll_create1(int flags) noexcept {
  const int fd = REPLAY_REAL(epoll_create1)(flags);
  Scheduler* const scheduler = Scheduler::here();
  return scheduler == nullptr ? fd : owned(*scheduler, "epoll", fd);
}

int eventfd(unsigned count, int flags) noexcept {
  const int fd = REPLAY_REAL(eventfd)(count, flags);
  Scheduler* const scheduler = Scheduler::here();
  return scheduler == nullptr ? fd : owned(*scheduler, "eventfd", fd);
}

int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  const int fd = REPLAY_REAL(open64)(path, flags, mode);
  Scheduler* const scheduler = Scheduler::here();
  return scheduler == nullptr ? fd : owned(*scheduler, "open", fd);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return ::open64(path, flags, mode);
}

FILE* fopen64(const char* path, const char* mode) { return openStream(path, mode); }
FILE* fopen(const char* path, const char* mode) { return openStream(path, mode); }

int close(int fd) {
  if (Scheduler* const scheduler = Scheduler::here()) {
    scheduler->point("close", static_cast<std::uint64_t>(fd));
    scheduler->disown(fd);
    sockets.erase(fd);
    peers.erase(fd);
  }
  return REPLAY_REAL(close)(fd);
}

// --- Connections ---

int listen(int fd, int backlog) noexcept {
  if (Scheduler* const scheduler = Scheduler::here()) {
    serving = ::getpid();
    arriving.clear();
    scheduler->point("listen");
  }
  return REPLAY_REAL(listen)(fd, backlog);
}

// The backlog is never full here.
int connect(int fd, const sockaddr* address, socklen_t size) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(connect)(fd, address, size);
  scheduler->point("connect", static_cast<std::uint64_t>(fd));
  const int error = REPLAY_REAL(connect)(fd, address, size);
  if (error == 0) {
    arriving.push_back(::getpid());
    peers[fd] = serving;
  }
  scheduler->descriptorsChanged();
  return error;
}

int accept4(int fd, sockaddr* address, socklen_t* size, int flags) {
  const int connection = REPLAY_REAL(accept4)(fd, address, size, flags);
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr || connection < 0) return connection;
  sockets[connection] = Replay::kNever;
  peers[connection] = arriving.front();
  arriving.pop_front();
  return owned(*scheduler, "accept", connection);
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* size) noexcept {
  const int error = REPLAY_REAL(getsockopt)(fd, level, option, value, size);
  if (Scheduler::here() == nullptr || error != 0 || option != SO_PEERCRED) return error;
  static_cast<ucred*>(value)->pid = peers[fd];
  return 0;
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr || option != SO_SNDTIMEO)
    return REPLAY_REAL(setsockopt)(fd, level, option, value, size);
  const auto& timeout = *static_cast<const timeval*>(value);
  sockets[fd] = timeout.tv_sec * Replay::kSecond + timeout.tv_usec * Replay::kMicrosecond;
  return 0;
}

ssize_t recv(int fd, void* to, std::size_t size, int flags) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(recv)(fd, to, size, flags);
  scheduler->point("recv", static_cast<std::uint64_t>(fd));
  cutByChance(*scheduler, fd);
  const ssize_t got = REPLAY_REAL(recv)(fd, to, piece(*scheduler, size), flags);
  if (got > 0) scheduler->noteBytes(to, static_cast<std::size_t>(got));
  scheduler->descriptorsChanged();
  return got;
}

ssize_t send(int fd, const void* from, std::size_t size, int flags) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(send)(fd, from, size, flags);
  const Replay::Time timeout = sockets[fd];
  const Replay::Time deadline = timeout == Replay::kNever ? timeout : scheduler->now() + timeout;
  scheduler->noteBytes(from, size);
  for (;;) {
    scheduler->point("send", size);
    cutByChance(*scheduler, fd);
    const ssize_t sent = REPLAY_REAL(send)(fd, from, piece(*scheduler, size), flags | MSG_DONTWAIT);
    scheduler->descriptorsChanged();
    if (sent >= 0 || errno != EAGAIN || (flags & MSG_DONTWAIT) != 0) return sent;
    if (!scheduler->waitForReady({{fd, POLLOUT, 0}}, deadline)) {
      errno = EAGAIN;
      return -1;
    }
  }
}

int shutdown(int fd, int how) noexcept {
  if (Scheduler* const scheduler = Scheduler::here()) {
    scheduler->point("shutdown", static_cast<std::uint64_t>(fd));
    scheduler->descriptorsChanged();
  }
  return REPLAY_REAL(shutdown)(fd, how);
}

ssize_t write(int fd, const void* from, std::size_t size) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(write)(fd, from, size);
  scheduler->point("write", size);
  scheduler->descriptorsChanged();
  return REPLAY_REAL(write)(fd, from, size);
}

// --- Waiting ---

int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(poll)(descriptors, count, milliseconds);
  scheduler->point("poll", count);
  const Replay::Time deadline = deadlineAfter(*scheduler, milliseconds);
  for (;;) {
    const int ready = REPLAY_REAL(poll)(descriptors, count, 0);
    if (ready != 0 || milliseconds == 0) return ready;
    if (!scheduler->waitForReady({descriptors, descriptors + count}, deadline)) return 0;
  }
}

int epoll_wait(int epoll, epoll_event* events, int most, int milliseconds) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(epoll_wait)(epoll, events, most, milliseconds);
  scheduler->point("epoll_wait", static_cast<std::uint64_t>(epoll));
  const Replay::Time deadline = deadlineAfter(*scheduler, milliseconds);
  for (;;) {
    const int ready = REPLAY_REAL(epoll_wait)(epoll, events, most, 0);
    if (ready != 0 || milliseconds == 0) return ready;
    if (!scheduler->waitForReady({{epoll, POLLIN, 0}}, deadline)) return 0;
  }
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(epoll_ctl)(epoll, operation, fd, event);
  scheduler->point("epoll_ctl", static_cast<std::uint64_t>(fd));
  scheduler->descriptorsChanged();
  return REPLAY_REAL(epoll_ctl)(epoll, operation, fd, event);
}

// --- Processes ---

pid_t getpid() noexcept {
  Scheduler* const scheduler = Scheduler::here();
  return scheduler == nullptr ? REPLAY_REAL(getpid)() : processes[scheduler->program()];
}

int kill(pid_t pid, int signal) noexcept {
  if (Scheduler::here() == nullptr) return REPLAY_REAL(kill)(pid, signal);
  if (living.count(pid) != 0) return 0;
  errno = ESRCH;
  return -1;
}

}  // extern "C"
