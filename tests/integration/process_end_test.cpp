// How a program that uses the library ends, or becomes another: whenever it does, and from wherever,
// it ends as it said, without a crash, an abort or a wait for something that does not come.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "tests/integration/application.h"
#include "tests/integration/fixture.h"
#include "tests/support/child_process.h"

namespace TestSupport {
namespace {

using AppConfig::AppCfgManager;

constexpr int kCode = 7;
// Each end is met at many points of a delivery.
constexpr int kRounds = 10;

// Does one thing when it is told, on the delivery thread.
class Doing final : public ConsumerConfigHandler {
 public:
  explicit Doing(std::function<void()> task) : task_(std::move(task)) {}
  void configChanged(const std::string&, int, const std::string&, int,
                     const std::list<std::string>&, const std::string&) override {
    told = true;
    task_();
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }
  std::atomic<bool> told{false};

 private:
  const std::function<void()> task_;
};

class ProcessEndTest : public IntegrationTest {
 protected:
  // Runs the program while somebody writes without pause, and tells how it ended.
  void expectEnd(const std::function<void()>& program, int code) {
    for (int round = 0; round < kRounds; ++round) {
      std::atomic<bool> over{false};
      ChildProcess child([&program](ChildProcess::Side&) {
        program();
        return 1;  // a program here ends itself
      });
      std::thread writer([this, &over] {
        for (int value = 0; !over; ++value) writer_.write("net.name", std::to_string(value));
      });
      EXPECT_EQ(child.waitForEnd(), code) << "in round " << round;
      over = true;
      writer.join();
    }
  }

  // Made in the child: this program has no endpoint of the library's own before.
  static AppCfgManager* attach(PbUtility::Endpoint& endpoint) {
    AppCfgManager* const config = AppCfgManager::getInstance();
    config->setPbInterface(&endpoint);
    return config;
  }
  PbUtility::EndpointOptions here() const { return inDirectory(service_.runtimeDir()); }

  static void waitUntilTold(const Doing& consumer) {
    if (!eventually([&consumer] { return consumer.told.load(); })) ::_exit(3);
  }

  // Not IntegrationTest's: those are made before the children, who would only close them.
  TestClient writer_{"writer", service_.runtimeDir()};
};

TEST_F(ProcessEndTest, MainReturnsWhileNoticesAreDelivered) {
  expectEnd(
      [this] {
        static Doing consumer([] {});
        static PbUtility::Endpoint endpoint("ending", here());
        attach(endpoint);
        registerHandler("net", "name", &consumer);
        waitUntilTold(consumer);
        std::exit(kCode);
      },
      kCode);
}

TEST_F(ProcessEndTest, AnEndpointThatIsNeverDestroyedDeliversToTheVeryEnd) {
  expectEnd(
      [this] {
        auto& consumer = *new Doing([] {});
        attach(*new PbUtility::Endpoint("ending", here()));
        registerHandler("net", "name", &consumer);
        waitUntilTold(consumer);
        std::exit(kCode);
      },
      kCode);
}

TEST_F(ProcessEndTest, OtherThreadsGoOnCallingWhileTheProgramEnds) {
  expectEnd(
      [this] {
        AppCfgManager* const config = attach(*new PbUtility::Endpoint("ending", here()));
        std::atomic<int>& reads = *new std::atomic<int>{0};
        for (int thread = 0; thread < 3; ++thread) {
          std::thread([config, &reads] {
            for (;; ++reads) {
              config->removeVars("net");
              config->getConfigVar("net", 0, "name", 0);
            }
          }).detach();
        }
        if (!eventually([&reads] { return reads > 10; })) ::_exit(3);
        std::exit(kCode);
      },
      kCode);
}

TEST_F(ProcessEndTest, AHandlerEndsTheProgram) {
  expectEnd(
      [this] {
        // No other thread may be calling by then: the endpoint is about to be destroyed.
        static std::atomic<bool> registered{false};
        static Doing consumer([] {
          if (registered) std::exit(kCode);
        });
        static PbUtility::Endpoint endpoint("ending", here());
        attach(endpoint);
        registerHandler("net", "name", &consumer);
        registered = true;
        for (;;) ::pause();
      },
      kCode);
}

TEST_F(ProcessEndTest, AnotherThreadEndsTheProgramWhileAHandlerRuns) {
  expectEnd(
      [this] {
        static std::atomic<AppCfgManager*> config{nullptr};
        static Doing consumer([] {
          config.load()->removeVars("net");
          config.load()->getConfigVar("net", 0, "mtu", 0);
        });
        static PbUtility::Endpoint endpoint("ending", here());
        config = attach(endpoint);
        registerHandler("net", "name", &consumer);
        waitUntilTold(consumer);
        std::thread([] { std::exit(kCode); }).join();
      },
      kCode);
}

TEST_F(ProcessEndTest, AQuickExitFromMain) {
  expectEnd(
      [this] {
        static Doing consumer([] {});
        static PbUtility::Endpoint endpoint("ending", here());
        attach(endpoint);
        registerHandler("net", "name", &consumer);
        waitUntilTold(consumer);
        std::quick_exit(kCode);
      },
      kCode);
}

TEST_F(ProcessEndTest, AQuickExitFromAHandler) {
  expectEnd(
      [this] {
        static Doing consumer([] { std::quick_exit(kCode); });
        static PbUtility::Endpoint endpoint("ending", here());
        attach(endpoint);
        registerHandler("net", "name", &consumer);
        for (;;) ::pause();
      },
      kCode);
}

TEST_F(ProcessEndTest, WhatRunsAfterMainMayStillCall) {
  expectEnd(
      [this] {
        static AppCfgManager* config = nullptr;
        std::atexit([] {
          config->removeVars("net");
          ::_exit(config->getConfigVar("net", 0, "mtu", 0) == "1500" ? kCode : 4);
        });
        config = attach(*new PbUtility::Endpoint("ending", here()));
        std::exit(5);
      },
      kCode);
}

TEST_F(ProcessEndTest, AnEndpointDestroyedInsideAHandlerEndsOnceTheHandlerReturns) {
  std::atomic<bool> told{false};
  PbUtility::Endpoint* endpoint = nullptr;
  Doing consumer([&] {
    delete endpoint;
    told = true;
  });
  endpoint = new PbUtility::Endpoint("leaving", here());
  attach(*endpoint);
  registerHandler("net", "name", &consumer);
  ASSERT_TRUE(client_.write("net.name", "x").ok());
  EXPECT_TRUE(eventually([&] { return told.load(); }));
  // Its connections go with it.
  EXPECT_TRUE(eventually([&] {
    ConfigIF::ClientsRsp clients;
    client_.request(ConfigIF::ClientsReq(), &clients);
    for (const ConfigIF::ClientRecord& client : clients.records()) {
      if (client.name() == "leaving") return false;
    }
    return true;
  }));
}

// The descriptors that a program has after it was started from this one.
class SpawnTest : public ProcessEndTest {
 protected:
  enum class How { Fork, Vfork, Spawn };

  static std::string descriptorsOfProgram(How how) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    char* const arguments[] = {const_cast<char*>("ls"), const_cast<char*>("/proc/self/fd"),
                               nullptr};
    const pid_t pid =
        how == How::Spawn ? spawn(ends[1], arguments) : becomeInChild(how, ends[1], arguments);
    EXPECT_GT(pid, 0);
    ::close(ends[1]);
    std::string text;
    char bytes[256];
    for (ssize_t got = 0; (got = ::read(ends[0], bytes, sizeof bytes)) > 0;) {
      text.append(bytes, static_cast<std::size_t>(got));
    }
    ::close(ends[0]);
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    return text;
  }

 private:
  static pid_t spawn(int output, char* const* arguments) {
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t pid = -1;
    EXPECT_EQ(::posix_spawnp(&pid, "ls", &actions, nullptr, arguments, environ), 0);
    ::posix_spawn_file_actions_destroy(&actions);
    return pid;
  }
  static pid_t becomeInChild(How how, int output, char* const* arguments) {
    const pid_t pid = how == How::Fork ? ::fork() : ::vfork();
    if (pid != 0) return pid;
    ::dup2(output, STDOUT_FILENO);
    ::execvp("ls", arguments);
    ::_exit(1);
  }
};

TEST_F(SpawnTest, AProgramStartedFromHereInheritsNoDescriptorHoweverItIsStarted) {
  const std::string before = descriptorsOfProgram(How::Spawn);
  Doing consumer([] {});
  PbUtility::Endpoint endpoint("starting", here());
  AppCfgManager* const config = attach(endpoint);
  registerHandler("net", "name", &consumer);
  ASSERT_TRUE(endpoint.waitUntilConnected(TestClient::kService, kPatience));
  for (const How how : {How::Fork, How::Vfork, How::Spawn}) {
    EXPECT_EQ(descriptorsOfProgram(how), before);
    // And this program goes on.
    config->removeVars("net");
    EXPECT_EQ(config->getConfigVar("net", 0, "mtu", 0), "1500");
  }
  ASSERT_TRUE(client_.write("net.name", "x").ok());
  EXPECT_TRUE(eventually([&] { return consumer.told.load(); }));
}

}  // namespace
}  // namespace TestSupport
