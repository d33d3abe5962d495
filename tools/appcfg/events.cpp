// One poll() over everything that a waiting verb cares about: stop signals by way of a signalfd, the
// reader of standard output, the queue of changes, and the deadline as the timeout. When several
// happen at once, the end comes before the changes.
#include "tools/appcfg/events.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace AppCfgTool {
namespace {

using std::chrono::milliseconds;

sigset_t stopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// Rounded up: a deadline that is 0.4 ms away must not become a busy loop.
int pollTimeout(const Deadline& deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<milliseconds>(*deadline - std::chrono::steady_clock::now());
  constexpr milliseconds kLongest = std::chrono::hours(1);
  return static_cast<int>(std::clamp(left, milliseconds(0), kLongest).count());
}

bool isPast(const Deadline& deadline) {
  return deadline && std::chrono::steady_clock::now() >= *deadline;
}

}  // namespace

StopSignals::StopSignals() {
  const sigset_t set = stopSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  fd_.reset(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd_) pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

StopSignals::~StopSignals() {
  if (!fd_) return;
  // What is pending has been seen as an event; unblocking it would kill the process after all.
  signalfd_siginfo info;
  while (::read(fd_.get(), &info, sizeof info) > 0) {
  }
  fd_.reset();
  const sigset_t set = stopSet();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

Event waitForEvent(const Waited& waited) {
  pollfd fds[] = {{waited.stopFd, POLLIN, 0}, {waited.outFd, 0, 0}, {waited.changesFd, POLLIN, 0}};
  for (;;) {
    const int ready = ::poll(fds, std::size(fds), pollTimeout(waited.deadline));
    if (ready < 0 && errno != EINTR) return Event::Stop;
    if (ready > 0 && fds[0].revents != 0) return Event::Stop;
    if (ready > 0 && fds[1].revents != 0) return Event::ReaderGone;
    if (ready > 0 && fds[2].revents != 0) return Event::Changes;
    if (isPast(waited.deadline)) return Event::Deadline;
  }
}

}  // namespace AppCfgTool
