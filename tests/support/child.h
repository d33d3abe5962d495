// Child: a process of its own, perhaps another user's, with which a test talks in lines.
//
//   Child stranger(kNobody, [&](Child::Parent& test) {
//     test.hear();                       // "go"
//     test.say(attack() ? "in" : "out");
//   });
//   stranger.say("go");
//   EXPECT_EQ(stranger.hear(), "out");
//
// The child is killed with the object, and with the test. Its own expectations are not seen: it
// says what it found, and the test judges.
#pragma once

#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>

#include "tests/support/eventually.h"

namespace TestSupport {

// The user and group that own nothing.
constexpr uid_t kNobody = 65534;
// Two users that no device has.
constexpr uid_t kOneUser = 61001;
constexpr uid_t kOtherUser = 61002;

// Only root can become somebody else.
inline bool canBecomeOthers() { return geteuid() == 0; }

class Child {
 public:
  // One end of the talk. A line has no line break.
  class Parent {
   public:
    explicit Parent(int fd) : fd_(fd) {}
    void say(const std::string& line) const {
      const std::string text = line + '\n';
      if (::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        _exit(1);
    }
    std::string hear() const {
      std::string line;
      char c = 0;
      while (::recv(fd_, &c, 1, 0) == 1 && c != '\n') line += c;
      return line;
    }

   private:
    int fd_;
  };

  explicit Child(const std::function<void(Parent&)>& run) : Child(std::nullopt, run) {}
  Child(std::optional<uid_t> user, const std::function<void(Parent&)>& run) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      close(ends[0]);
      live(user, run, ends[1], parent);
    }
    close(ends[1]);
    fd_ = ends[0];
  }
  ~Child() {
    kill();
    close(fd_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  void say(const std::string& line) const { Parent(fd_).say(line); }
  // The child's next line; empty when it has ended or says nothing for long.
  std::string hear() const {
    std::string line;
    for (;;) {
      pollfd readable{fd_, POLLIN, 0};
      char c = 0;
      if (poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) <= 0)
        return "(nothing)";
      if (::recv(fd_, &c, 1, 0) != 1 || c == '\n') return line;
      line += c;
    }
  }
  void signal(int number) const { EXPECT_EQ(::kill(pid_, number), 0); }
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  [[noreturn]] static void live(std::optional<uid_t> user, const std::function<void(Parent&)>& run,
                                int fd, pid_t parent) {
    const gid_t group = user.value_or(0);
    if (user && (setgroups(0, nullptr) != 0 || setgid(group) != 0 || setuid(*user) != 0)) _exit(2);
    // Becoming somebody else clears this, so it comes behind.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(3);
    Parent test(fd);
    run(test);
    _exit(0);
  }

  pid_t pid_ = -1;
  int fd_ = -1;
};

}  // namespace TestSupport
