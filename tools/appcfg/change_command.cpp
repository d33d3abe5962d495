// The end of the program is waited for with a pidfd beside the stop signals; where the kernel has none,
// it is looked for every now and then. A SIGCHLD would not do: the endpoint's threads, which do not
// block it, could be the ones to get it.
#include "tools/appcfg/change_command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <system_error>
#include <utility>

#include "appconfig/core/key_notation.h"
#include "base/unique_fd.h"

extern char** environ;

namespace AppCfgTool {
namespace {

// How often an end is looked for without a pidfd.
constexpr int kLookEveryMs = 20;

bool isSame(const ConfigVar& a, const ConfigVar& b) {
  const std::less<ConfigVar> less;
  return !less(a, b) && !less(b, a);
}

bool fitsEnvironment(const std::string& text) {
  return text.size() <= ChangeCommand::kLongestValue && text.find('\0') == std::string::npos;
}

std::vector<std::string> environmentFor(const ConfigVar& var,
                                        const std::vector<std::string>& value) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const bool isOurs = std::strncmp(*entry, "APPCFG_KEY=", 11) == 0 ||
                        std::strncmp(*entry, "APPCFG_VALUE=", 13) == 0 ||
                        std::strncmp(*entry, "APPCFG_ELEMENTS=", 16) == 0;
    if (!isOurs) environment.emplace_back(*entry);
  }
  std::string joined;
  for (const std::string& element : value) {
    if (&element != &value.front()) joined += '\n';
    joined += element;
  }
  environment.push_back("APPCFG_KEY=" + AppConfig::formatKey(var));
  environment.push_back("APPCFG_ELEMENTS=" + std::to_string(value.size()));
  if (fitsEnvironment(joined)) environment.push_back("APPCFG_VALUE=" + joined);
  return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

// How the child differs from this process: nothing to read, and the signals as they usually are.
class Manner {
 public:
  Manner() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawnattr_init(&attributes_);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes_, &none);
    sigset_t usual;
    sigemptyset(&usual);
    sigaddset(&usual, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes_, &usual);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~Manner() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  Manner(const Manner&) = delete;
  Manner& operator=(const Manner&) = delete;

  const posix_spawn_file_actions_t* actions() const { return &actions_; }
  const posix_spawnattr_t* attributes() const { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

}  // namespace

ChangeCommand::ChangeCommand(Output& output, std::vector<std::string> words)
    : output_(output), words_(std::move(words)) {}

// A change that waits keeps its place, so that a variable that never rests is not put off for ever.
void ChangeCommand::add(const ConfigVar& var, const std::vector<std::string>& value) {
  const auto same = std::find_if(waiting_.begin(), waiting_.end(),
                                 [&var](const Waiting& change) { return isSame(change.var, var); });
  if (same == waiting_.end()) {
    waiting_.push_back({var, value});
  } else {
    same->value = value;
  }
}

Outcome ChangeCommand::start(const Waiting& change, pid_t& pid) {
  const Manner manner;
  std::vector<std::string> environment = environmentFor(change.var, change.value);
  const int error =
      ::posix_spawnp(&pid, words_.front().c_str(), manner.actions(), manner.attributes(),
                     pointersTo(words_).data(), pointersTo(environment).data());
  if (error == 0) return {};
  return failure(kExitFailed,
                 "cannot run " + words_.front() + ": " + std::generic_category().message(error));
}

void ChangeCommand::tellEnd(const std::string& key, int status) {
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
  const std::string how = WIFEXITED(status)
                              ? "ended with " + std::to_string(WEXITSTATUS(status))
                              : "was ended by signal " + std::to_string(WTERMSIG(status));
  output_.note(words_.front() + ' ' + how + ", for " + key);
}

Outcome ChangeCommand::runNext(int stopFd) {
  const Waiting change = std::move(waiting_.front());
  waiting_.pop_front();
  pid_t pid = -1;
  Outcome started = start(change, pid);
  if (!started.ok()) return started;
  const Base::UniqueFd end(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  for (;;) {
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) == pid) {
      tellEnd(AppConfig::formatKey(change.var), status);
      return {};
    }
    pollfd fds[] = {{stopFd, POLLIN, 0}, {end.get(), POLLIN, 0}};
    if (::poll(fds, std::size(fds), end ? -1 : kLookEveryMs) > 0 && fds[0].revents != 0) {
      ::kill(pid, SIGTERM);
      return answerNo();
    }
  }
}

}  // namespace AppCfgTool
