#include "tests/tools/appcfg/appcfg_run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "tests/support/eventually.h"

extern char** environ;

namespace TestSupport {
namespace {

std::vector<std::string> environmentWith(const std::string& runtimeDir) {
  std::vector<std::string> environment = {"APPCONFIG_RUNTIME_DIR=" + runtimeDir};
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, "APPCONFIG_RUNTIME_DIR=", 22) != 0) environment.emplace_back(*entry);
  }
  return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

// posix_spawn rather than fork: the test may have threads.
pid_t start(const std::string& runtimeDir, const Words& words, int in, int out, int err) {
  std::vector<std::string> arguments = {APPCFG_PROGRAM};
  arguments.insert(arguments.end(), words.begin(), words.end());
  std::vector<std::string> environment = environmentWith(runtimeDir);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  pid_t pid = -1;
  EXPECT_EQ(::posix_spawn(&pid, APPCFG_PROGRAM, &actions, nullptr, pointersTo(arguments).data(),
                          pointersTo(environment).data()),
            0);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

int memoryFile(const std::string& holds = "") {
  const int file = ::memfd_create("appcfg-stream", MFD_CLOEXEC);
  const auto size = static_cast<ssize_t>(holds.size());
  EXPECT_EQ(::pwrite(file, holds.data(), holds.size(), 0), size);
  return file;
}

std::string contents(int file) {
  std::string all;
  char buffer[4096];
  off_t at = 0;
  for (ssize_t got; (got = ::pread(file, buffer, sizeof buffer, at)) > 0; at += got) {
    all.append(buffer, static_cast<std::size_t>(got));
  }
  return all;
}

int codeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

// A program that hangs fails its test rather than the run of all tests.
int waitFor(pid_t pid) {
  int status = 0;
  if (!eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; })) {
    ADD_FAILURE() << "appcfg does not end";
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  }
  return codeOf(status);
}

}  // namespace

std::string Appcfg::program() { return APPCFG_PROGRAM; }

Ended Appcfg::operator()(const Words& words, const std::string& input) const {
  const int in = memoryFile(input);
  const int out = memoryFile();
  const int err = memoryFile();
  Ended run;
  run.code = waitFor(start(runtimeDir_, words, in, out, err));
  run.out = contents(out);
  run.err = contents(err);
  ::close(in);
  ::close(out);
  ::close(err);
  return run;
}

// The terminal's other end tells its end by an error.
std::string readTerminal(int terminal) {
  std::string all;
  char buffer[4096];
  for (ssize_t got; (got = ::read(terminal, buffer, sizeof buffer)) > 0;)
    all.append(buffer, static_cast<std::size_t>(got));
  return all;
}

Ended Appcfg::atTerminal(const Words& words, unsigned short columns) const {
  int terminal = -1;
  int shown = -1;
  const winsize size{24, columns, 0, 0};
  termios lines{};
  // No line break is turned into two characters.
  EXPECT_EQ(::openpty(&terminal, &shown, nullptr, nullptr, &size), 0);
  EXPECT_EQ(::tcgetattr(shown, &lines), 0);
  lines.c_oflag &= ~static_cast<tcflag_t>(OPOST);
  EXPECT_EQ(::tcsetattr(shown, TCSANOW, &lines), 0);
  ::fcntl(terminal, F_SETFD, FD_CLOEXEC);
  const int in = memoryFile();
  const pid_t pid = start(runtimeDir_, words, in, shown, shown);
  ::close(shown);
  Ended run;
  run.out = readTerminal(terminal);
  run.code = waitFor(pid);
  ::close(in);
  ::close(terminal);
  return run;
}

RunningAppcfg::RunningAppcfg(const std::string& runtimeDir, const Words& words)
    : err_(memoryFile()) {
  int pipe[2] = {-1, -1};
  EXPECT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  out_ = pipe[0];
  const int in = memoryFile();
  pid_ = start(runtimeDir, words, in, pipe[1], err_);
  ::close(in);
  ::close(pipe[1]);
}

RunningAppcfg::~RunningAppcfg() {
  if (pid_ > 0) stop(SIGKILL);
  closeOut();
  ::close(err_);
}

std::optional<std::string> RunningAppcfg::line() {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    const std::size_t end = read_.find('\n');
    if (end != std::string::npos) {
      std::string found = read_.substr(0, end);
      read_.erase(0, end + 1);
      return found;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd wait{out_, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&wait, 1, static_cast<int>(left.count())) <= 0) return {};
    char buffer[4096];
    const ssize_t got = ::read(out_, buffer, sizeof buffer);
    if (got <= 0) return {};
    read_.append(buffer, static_cast<std::size_t>(got));
  }
}

std::string RunningAppcfg::err() const { return contents(err_); }

bool RunningAppcfg::waitForErr(const std::string& text) const {
  return eventually([&] { return err().find(text) != std::string::npos; });
}

void RunningAppcfg::closeOut() {
  if (out_ >= 0) ::close(out_);
  out_ = -1;
}

int RunningAppcfg::wait() {
  const int code = waitFor(pid_);
  pid_ = -1;
  return code;
}

int RunningAppcfg::stop(int signal) {
  ::kill(pid_, signal);
  return wait();
}

}  // namespace TestSupport
