// Processes and pipes of a run. A child dies with its parent, so that a run that is broken off
// leaves nothing behind; a signal is a byte in a pipe, and waiting for it has an end.
#include "bench/processes/processes.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace Bench {
namespace {

constexpr int kPatienceMilliseconds = 10'000;

// A run that lacks its processes or its pipes has nothing to go on with.
[[noreturn]] void giveUp(const char* what) {
  std::perror(what);
  std::_Exit(1);
}

}  // namespace

Child::Child(const std::function<int()>& body) : pid_(::fork()) {
  if (pid_ < 0) giveUp("fork");
  if (pid_ > 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // _Exit: the parent's objects are the parent's to destroy.
  std::_Exit(body());
}

Child::~Child() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  join();
}

bool Child::join() {
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

Signal::Signal() {
  if (::pipe(ends_) != 0) giveUp("pipe");
}

Signal::~Signal() {
  ::close(ends_[0]);
  ::close(ends_[1]);
}

void Signal::raise(int times) {
  const char byte = 0;
  for (; times > 0; --times) {
    if (::write(ends_[1], &byte, 1) != 1) giveUp("write to a pipe");
  }
}

bool Signal::await(int times) {
  for (; times > 0; --times) {
    if (!awaitOnce(kPatienceMilliseconds)) return false;
  }
  return true;
}

bool Signal::awaitForever() { return awaitOnce(-1); }

bool Signal::awaitOnce(int patienceMilliseconds) {
  pollfd entry{ends_[0], POLLIN, 0};
  char byte = 0;
  return ::poll(&entry, 1, patienceMilliseconds) == 1 && ::read(ends_[0], &byte, 1) == 1;
}

TempDir::TempDir(const std::string& parent) : path_(parent + "/appconfig-bench-XXXXXX") {
  if (::mkdtemp(path_.data()) == nullptr) giveUp(path_.c_str());
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace Bench
