// Children of a program that uses the library on several threads: each can do everything, tells
// nobody that it is its parent, and keeps nothing of its parent's open.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <set>
#include <thread>

#include "tests/integration/application.h"
#include "tests/integration/fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/watchdog.h"

#ifdef APPCONFIG_SANITIZE_ADDRESS
namespace {
const pid_t firstProcess = ::getpid();
}
// What the parent's other threads held at the fork is out of reach in a child, where these threads are
// not: that is no leak of the child's. The program itself is checked.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() {  // NOLINT
  return ::getpid() == firstProcess ? 0 : 1;
}
#endif

namespace TestSupport {
namespace {

using AppConfig::AppCfgManager;
using std::chrono::milliseconds;

// Under load, so many times that a lock held by another thread at the moment of a fork is met many
// times over; and as often as the slowest build gets done in time.
constexpr int kForks = 240;
constexpr int kLoadThreads = 4;

std::size_t openSockets() {
  std::size_t count = 0;
  DIR* directory = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(directory)) {
    struct stat status {};
    const std::string path = std::string("/proc/self/fd/") + entry->d_name;
    if (::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) ++count;
  }
  ::closedir(directory);
  return count;
}

// Sockets that this program was started with.
const std::size_t socketsOfOthers = openSockets();

// Takes no lock: what a handler holds at the moment of a fork stays locked in the child.
class CountingConsumer final : public ConsumerConfigHandler {
 public:
  void configChanged(const std::string&, int, const std::string&, int,
                     const std::list<std::string>&, const std::string&) override {
    ++told_;
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }
  int told() const { return told_; }

 private:
  std::atomic<int> told_{0};
};

// What a child does with the facade that it has of its parent. The number of the first step that
// went wrong; 0: all is well.
int exerciseInChild(AppCfgManager* config, NotingConsumer& consumer, int round) {
  const std::string name = "child" + std::to_string(round % 2);
  if (openSockets() != socketsOfOthers) return 1;
  config->removeVars("net");
  if (config->getConfigVar("net", 0, "constant", 0) != "constant") return 2;
  registerHandler("net", name, &consumer, config);
  ConfigResult result;
  const std::string value = "by " + std::to_string(::getpid());
  if (!config->setConfigVar("net", 0, name, 0, value, &result)) return 3;
  if (!consumer.waitFor("value net." + name + " = " + value)) return 4;
  if (config->getConfigVar("net", 0, name, 0) != value) return 5;
  unregisterHandler("net", name, &consumer, config);
  unregisterAllHandlers(config);
  return 0;
}

const char* const kForkDefinitions = R"(
[variable."net.constant"]
type = "string"
default = "constant"

[variable."net.load"]
instances = { from = 0, to = 7 }
type = "string"
default = ""

[variable."net.child0"]
type = "string"
default = ""

[variable."net.child1"]
type = "string"
default = ""
)";

class ForkTest : public testing::Test {
 protected:
  ForkTest() {
    service_.start();
    config_->setPbInterface(&endpoint_);
  }

  // One turn of a thread that makes the library take every lock it has.
  void work(int thread, int turn) {
    const std::string text = std::to_string(turn);
    ConfigResult result;
    EXPECT_TRUE(config_->setConfigVar("net", 0, "load", thread, text, &result));
    config_->removeVars("net");
    EXPECT_EQ(config_->getConfigVar("net", 0, "constant", 0), "constant");
    registerHandler("net", "load", &loadConsumer_, config_);
    config_->setConfigVar("net", 0, "load", thread, "one way " + text);
    config_->getConfigValue("net", 0, "load", thread);
    unregisterHandler("net", "load", &loadConsumer_, config_);
    // An endpoint and a facade that come and go.
    PbUtility::Endpoint brief("brief", inDirectory(service_.runtimeDir()));
    EXPECT_TRUE(brief.waitUntilConnected(TestClient::kService, kPatience));
    AppCfgManager made(config_->getPlatformCfgService());
  }

  ServiceProcess service_{kForkDefinitions};
  NotingConsumer keptConsumer_;
  CountingConsumer loadConsumer_;
  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  AppCfgManager* config_ = AppCfgManager::getInstance();
};

TEST_F(ForkTest, ChildrenOfABusyProgramDoEverythingAndTheProgramGoesOn) {
#if defined(APPCONFIG_SANITIZE_ADDRESS) || defined(APPCONFIG_SANITIZE_THREAD)
  GTEST_SKIP() << "the sanitizers leave locks of their own taken in a child of busy threads";
#endif
  std::atomic<bool> stop{false};
  std::vector<std::thread> load;
  for (int thread = 0; thread < kLoadThreads; ++thread) {
    load.emplace_back([this, thread, &stop] {
      for (int turn = 0; !stop; ++turn) work(thread, turn);
    });
  }
  for (int round = 0; round < kForks; ++round) {
    ChildProcess child([&](ChildProcess::Side&) {
      NotingConsumer consumer;
      return exerciseInChild(config_, consumer, round);
    });
    ASSERT_EQ(child.waitForEnd(), 0) << "in round " << round;
  }
  stop = true;
  for (std::thread& thread : load) thread.join();
  EXPECT_GT(loadConsumer_.told(), 0);
  ConfigResult result;
  EXPECT_TRUE(config_->setConfigVar("net", 0, "load", 7, "last", &result));
  EXPECT_EQ(config_->getConfigVar("net", 0, "load", 7), "last");
}

TEST_F(ForkTest, AChildIsToldOfWhatItsParentRegisteredForAndTheParentStillIs) {
  registerHandler("net", "child0", &keptConsumer_, config_);
  ChildProcess child([this](ChildProcess::Side& self) {
    // The first call makes the child a client of its own.
    if (config_->getConfigVar("net", 0, "constant", 0) != "constant") return 1;
    if (!endpoint_.waitUntilConnected(TestClient::kService, kPatience)) return 2;
    self.tell();
    return keptConsumer_.waitFor("value net.child0 = x") ? 0 : 3;
  });
  ASSERT_TRUE(child.waitUntilTold());
  TestClient other("other", service_.runtimeDir());
  EXPECT_TRUE(other.write("net.child0", "x").ok());
  EXPECT_EQ(child.waitForEnd(), 0);
  EXPECT_TRUE(keptConsumer_.waitFor("value net.child0 = x"));
}

TEST_F(ForkTest, AChildThatWithdrawsEverythingTakesNothingFromItsParent) {
  registerHandler("net", "child0", &keptConsumer_, config_);
  ChildProcess child([this](ChildProcess::Side&) {
    config_->getConfigVar("net", 0, "constant", 0);
    unregisterAllHandlers(config_);
    // Followed by an answer, so that it has arrived.
    config_->removeVars("net");
    return config_->getConfigVar("net", 0, "constant", 0) == "constant" ? 0 : 1;
  });
  EXPECT_EQ(child.waitForEnd(), 0);
  TestClient other("other", service_.runtimeDir());
  EXPECT_TRUE(other.write("net.child0", "x").ok());
  EXPECT_TRUE(keptConsumer_.waitFor("value net.child0 = x"));
}

// The child has the parent's memory: what the parent cached it has cached, and is told what changes.
TEST_F(ForkTest, WhatAChildInheritedInItsCacheIsKeptCurrentFromItsFirstCall) {
  EXPECT_EQ(config_->getConfigVar("net", 0, "child0", 0), "");
  TestClient other("other", service_.runtimeDir());
  ASSERT_TRUE(other.write("net.child0", "before").ok());
  ASSERT_TRUE(eventually([&] { return config_->getConfigVar("net", 0, "child0", 0) == "before"; }));
  ChildProcess child([this](ChildProcess::Side& self) {
    self.tell();
    // Changed while the child was no client at all.
    const bool told = eventually([&] {
      config_->getConfigValue("net", 0, "constant", 0);
      return config_->getConfigVar("net", 0, "child0", 0) == "after";
    });
    return told ? 0 : 1;
  });
  ASSERT_TRUE(child.waitUntilTold());
  ASSERT_TRUE(other.write("net.child0", "after").ok());
  EXPECT_EQ(child.waitForEnd(), 0);
}

TEST_F(ForkTest, AGrandchildDoesEverythingToo) {
  EXPECT_EQ(config_->getConfigVar("net", 0, "constant", 0), "constant");
  ChildProcess child([this](ChildProcess::Side&) {
    NotingConsumer consumer;
    if (const int wrong = exerciseInChild(config_, consumer, 0)) return wrong;
    const pid_t grandchild = ::fork();
    if (grandchild == 0) {
      NotingConsumer own;
      ::_exit(exerciseInChild(config_, own, 1));
    }
    int status = 0;
    ::waitpid(grandchild, &status, 0);
    return WIFEXITED(status) ? 10 * WEXITSTATUS(status) : 99;
  });
  EXPECT_EQ(child.waitForEnd(), 0);
}

// A handler that forks: in the child it is on a thread that the library thinks is its own.
class Forking final : public ConsumerConfigHandler {
 public:
  explicit Forking(std::function<void()> inChild) : inChild_(std::move(inChild)) {}
  void configChanged(const std::string&, int, const std::string&, int,
                     const std::list<std::string>&, const std::string&) override {
    // A child has this handler too, and is told what holds: one that forked again would have another
    // process write what it writes.
    if (::getpid() != maker_) return;
    const pid_t child = ::fork();
    if (child == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      return inChild_();
    }
    pid = child;
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }
  std::atomic<pid_t> pid{0};

  int waitForEnd() {
    EXPECT_TRUE(eventually([this] { return pid != 0; }));
    int status = 0;
    EXPECT_TRUE(eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  const std::function<void()> inChild_;
  const pid_t maker_ = ::getpid();
};

TEST_F(ForkTest, AChildOfAHandlerDoesEverything) {
  Forking forking([this] {
    NotingConsumer consumer;
    ::_exit(exerciseInChild(config_, consumer, 1));
  });
  registerHandler("net", "child0", &forking, config_);
  ConfigResult result;
  EXPECT_TRUE(config_->setConfigVar("net", 0, "child0", 0, "go", &result));
  EXPECT_EQ(forking.waitForEnd(), 0);
  unregisterHandler("net", "child0", &forking, config_);
}

TEST_F(ForkTest, AChildThatReturnsFromTheHandlerItWasMadeInEndsAndAnswersNothing) {
  class ForkingProvider final : public ProviderConfigHandler {
   public:
    bool dynamicValidate(const std::string&, int, const std::string&, int,
                         const std::list<std::string>&, AppConfig::SecurityRole,
                         ConfigResult* result) override {
      child = ::fork();
      if (child != 0) return true;
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      result->addResultMessage("from the child");
      return result->fillConfigResult(false, eErrVetoed, false);
    }
    bool onChange(const std::string&, int, const std::string&, int, const std::list<std::string>&,
                  AppConfig::SecurityRole, ConfigResult*) override {
      // By now the child has had its turn.
      int status = -1;
      EXPECT_TRUE(eventually([&] { return ::waitpid(child, &status, WNOHANG) == child; }));
      childStatus = status;
      return true;
    }
    pid_t child = -1;
    std::atomic<int> childStatus{-1};
  };
  ForkingProvider provider;
  registerHandler("net", "child0", &provider, config_);
  ConfigResult result;
  EXPECT_TRUE(config_->setConfigVar("net", 0, "child0", 0, "go", &result));
  EXPECT_EQ(result.error(), eErrNone);
  EXPECT_EQ(provider.childStatus, 0);
  unregisterHandler("net", "child0", &provider, config_);
}

// A child that never uses the library must not keep its parent looking alive.
TEST(ForkedProviderTest, AProviderThatDiesIsMissedAtOnceThoughItsChildLivesOn) {
  ServiceProcess service(kForkDefinitions, {"--provider-deadline", "3600000"});
  service.start();
  std::atomic<pid_t>* const lingering = static_cast<std::atomic<pid_t>*>(
      ::mmap(nullptr, sizeof(std::atomic<pid_t>), PROT_READ | PROT_WRITE,
             MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ChildProcess provider([&](ChildProcess::Side& self) {
    TestClient client("provider", service.runtimeDir());
    client.provide("net.child0", [&](const ProviderQuestion&) {
      self.tell();
      for (;;) ::pause();
      return consent();
    });
    const pid_t child = ::fork();
    if (child == 0) {
      // Nobody else ends it when this test is ended early.
      ::alarm(120);
      for (;;) ::pause();
    }
    *lingering = child;
    self.tell();
    for (;;) ::pause();
    return 0;
  });
  ASSERT_TRUE(provider.waitUntilTold());
  TestClient writer("writer", service.runtimeDir(), std::chrono::hours(1));
  auto written = std::async(std::launch::async, [&] { return writer.write("net.child0", "x"); });
  ASSERT_TRUE(provider.waitUntilTold());
  provider.kill(SIGKILL);
  const bool ended = written.wait_for(kPatience) == std::future_status::ready;
  EXPECT_TRUE(ended);
  ::kill(*lingering, SIGKILL);
  EXPECT_EQ(written.get().error, CommonIF::ERROR_UNAVAILABLE);
}

}  // namespace
}  // namespace TestSupport
