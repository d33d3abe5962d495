// Starts configsrvd by fork and exec, with its output in a pipe and its log in a file of the
// fixture's directory. It serves when it has said so; every wait has a deadline.
#include "tests/support/service_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace TestSupport {
namespace {

using Clock = std::chrono::steady_clock;

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& string : strings) pointers.push_back(string.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Between fork and exec: only what a signal handler might call.
[[noreturn]] void becomeService(char** argv, int output, int log, int socket, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(126);  // The test died before prctl.
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  dup2(output, STDOUT_FILENO);
  dup2(log, STDERR_FILENO);
  if (socket >= 0) dup2(socket, 3);
  execv(argv[0], argv);
  _exit(127);
}

}  // namespace

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.flush();
  ASSERT_TRUE(file.good()) << path;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

ServiceProcess::ServiceProcess(const std::string& definitions, std::vector<std::string> arguments)
    : arguments_(std::move(arguments)) {
  std::filesystem::create_directory(directory_.file("definitions.d"));
  redefine(definitions);
}

ServiceProcess::~ServiceProcess() { kill(); }

void ServiceProcess::redefine(const std::string& definitions) {
  writeFile(directory_.file("definitions.d/test.toml"), definitions);
}

void ServiceProcess::serveBeside(const ServiceProcess& other, const std::string& prefix) {
  runtimeDir_ = other.runtimeDir();
  arguments_.insert(arguments_.end(), {"--prefix", prefix});
}

std::vector<std::string> ServiceProcess::commandLine() const {
  std::vector<std::string> line = {
      CONFIGSRVD_PROGRAM, "--definitions", directory_.file("definitions.d"), "--store", storeFile(),
      "--runtime-dir",    runtimeDir()};
  line.insert(line.end(), arguments_.begin(), arguments_.end());
  if (listeningSocket_ < 0) return line;
  // Only the process itself knows its number, which it has to find in its environment.
  std::vector<std::string> shell = {"/bin/sh", "-c",
                                    "LISTEN_FDS=1 LISTEN_PID=$$ exec \"$0\" \"$@\""};
  shell.insert(shell.end(), line.begin(), line.end());
  return shell;
}

void ServiceProcess::spawn() {
  std::vector<std::string> line = commandLine();
  const std::vector<char*> argv = pointersTo(line);
  int output[2];
  ASSERT_EQ(pipe2(output, O_CLOEXEC), 0);
  const int log =
      open(directory_.file("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  ASSERT_GE(log, 0);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0)
    becomeService(const_cast<char**>(argv.data()), output[1], log, listeningSocket_, parent);
  close(log);
  close(output[1]);
  if (output_ >= 0) close(output_);
  output_ = output[0];
  ASSERT_GT(pid_, 0);
}

void ServiceProcess::start() {
  spawn();
  ASSERT_TRUE(waitForReadyLine()) << "the service did not start:\n" << log();
}

int ServiceProcess::startAndWait() {
  spawn();
  return waitForEnd();
}

void ServiceProcess::startAndKillWhen(const std::function<bool()>& condition) {
  spawn();
  EXPECT_TRUE(eventually(condition)) << log();
  kill();
}

bool ServiceProcess::waitForReadyLine() const {
  std::string text;
  const Clock::time_point deadline = Clock::now() + kPatience;
  while (text.find('\n') == std::string::npos) {
    pollfd readable{output_, POLLIN, 0};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) <= 0) return false;
    char bytes[256];
    const ssize_t got = read(output_, bytes, sizeof bytes);
    if (got <= 0) return false;
    text.append(bytes, static_cast<std::size_t>(got));
  }
  return text.rfind("ready: ", 0) == 0;
}

int ServiceProcess::waitForEnd() {
  const Clock::time_point deadline = Clock::now() + kPatience;
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (Clock::now() > deadline) {
      ADD_FAILURE() << "the service does not end:\n" << log();
      ::kill(pid_, SIGKILL);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void ServiceProcess::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitForEnd();
  }
  if (output_ >= 0) close(output_);
  output_ = -1;
}

int ServiceProcess::terminate() {
  if (pid_ <= 0) {
    ADD_FAILURE() << "no service to end";
    return -1;
  }
  ::kill(pid_, SIGTERM);
  return waitForEnd();
}

int ServiceProcess::linesWith(const std::string& text) const {
  std::istringstream lines(log());
  int count = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find(text) != std::string::npos) ++count;
  }
  return count;
}

bool ServiceProcess::waitForLog(const std::string& text) const {
  const Clock::time_point deadline = Clock::now() + kPatience;
  while (linesWith(text) == 0) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace TestSupport
