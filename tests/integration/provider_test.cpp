// Providers: what they are asked, and what happens when they refuse, die, sleep or write
// themselves.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <future>
#include <mutex>

#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;

// Opened once; everybody who waits goes on. What a thread did before opening it, a thread that
// waited sees.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> guard(mutex_);
    open_ = true;
    opened_.notify_all();
  }
  bool wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    return opened_.wait_for(lock, kPatience, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

class ProviderTest : public IntegrationTest {
 protected:
  Gate asked_;
  Gate released_;
  // What the provider has to say of itself; read after asked_.
  std::vector<std::string> questions_;
  Outcome read_;
  Outcome written_;
  // After what its thread uses.
  TestClient provider_{"provider", service_.runtimeDir()};
};

TEST_F(ProviderTest, AProviderIsAskedAndToldAndTheValueIsCommitted) {
  provider_.provide("net", [&](const ProviderQuestion& question) {
    questions_.push_back((question.onChange ? "change " : "may ") + question.key + " = " +
                         question.values.at(0) + " by " + question.clientName + " as " +
                         std::to_string(question.role));
    if (question.onChange) asked_.open();
    return consent();
  });
  EXPECT_TRUE(client_.write("net.mtu", "1400").ok());
  ASSERT_TRUE(asked_.wait());
  EXPECT_THAT(questions_, ElementsAre("may net.mtu = 1400 by client as 20",
                                      "change net.mtu = 1400 by client as 20"));
}

TEST_F(ProviderTest, AVetoReachesTheWriterWithItsReason) {
  provider_.provide("net.mtu",
                    [](const ProviderQuestion&) { return veto("the cable is too old"); });
  const Outcome outcome = client_.write("net.mtu", "1400");
  EXPECT_EQ(outcome.error, CommonIF::ERROR_VETOED);
  EXPECT_EQ(outcome.text, "the cable is too old\n");
  EXPECT_TRUE(client_.read("net.mtu").isDefault);
  EXPECT_EQ(client_.validate("net.mtu", "1400").error, CommonIF::ERROR_VETOED);
}

TEST_F(ProviderTest, AnErrorOnChangeFailsTheWriteAndTheProviderIsToldTheOldValue) {
  provider_.provide("net.mtu", [](const ProviderQuestion& question) {
    return question.onChange ? veto("cannot") : consent();
  });
  EXPECT_EQ(client_.write("net.mtu", "1400").error, CommonIF::ERROR_VETOED);
  EXPECT_TRUE(provider_.waitForNotice("value net.mtu = 1500"));
}

TEST_F(ProviderTest, OtherVariablesAreNotHeldUpByASlowProvider) {
  provider_.provide("net.mtu", [&](const ProviderQuestion&) {
    asked_.open();
    released_.wait();
    return consent();
  });
  auto slow = std::async(std::launch::async, [&] { return client_.write("net.mtu", "1400"); });
  ASSERT_TRUE(asked_.wait());
  EXPECT_TRUE(other_.write("net.name", "x").ok());
  EXPECT_TRUE(other_.read("net.mtu").isDefault);
  released_.open();
  EXPECT_TRUE(slow.get().ok());
}

// A provider in a process of its own, so that it can be killed while it is being asked.
class ProviderProcess {
 public:
  explicit ProviderProcess(const std::string& runtimeDir) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_ = fork();
    if (pid_ == 0) provideForEver(runtimeDir, ends[1]);
    close(ends[1]);
    fd_ = ends[0];
    waitForByte();  // registered
  }
  ~ProviderProcess() {
    die();
    close(fd_);
  }
  void waitForByte() const {
    char byte = 0;
    EXPECT_EQ(read(fd_, &byte, 1), 1);
  }
  void die() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  [[noreturn]] static void provideForEver(const std::string& runtimeDir, int fd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    TestClient provider("dying provider", runtimeDir);
    const auto tell = [fd] {
      if (write(fd, "x", 1) != 1) _exit(1);
    };
    provider.provide("net.mtu", [&](const ProviderQuestion&) {
      tell();
      for (;;) pause();
      return consent();
    });
    tell();
    for (;;) pause();
  }

  pid_t pid_ = -1;
  int fd_ = -1;
};

TEST_F(ProviderTest, AProviderThatDiesWhileAskedFailsTheWriteLongBeforeItsDeadline) {
  ProviderProcess provider(service_.runtimeDir());
  auto written = std::async(std::launch::async, [&] { return client_.write("net.mtu", "1400"); });
  provider.waitForByte();  // is being asked
  const auto before = steady_clock::now();
  provider.die();
  const Outcome outcome = written.get();
  EXPECT_LT(steady_clock::now() - before, milliseconds(1500));
  EXPECT_EQ(outcome.error, CommonIF::ERROR_UNAVAILABLE);
  EXPECT_THAT(outcome.text, HasSubstr("dying provider"));
  EXPECT_THAT(outcome.text, HasSubstr("net.mtu"));
  EXPECT_TRUE(client_.write("net.mtu", "1400").ok());
}

TEST_F(ProviderTest, AProviderThatRegistersAgainWhileItIsToldOnChangeEndsWithTheNewValue) {
  provider_.provide("net.mtu", [&](const ProviderQuestion& question) {
    if (question.onChange && question.values.at(0) == "1400") {
      asked_.open();
      released_.wait();
    }
    return consent();
  });
  // What this thread knows from now on, and registers with.
  EXPECT_TRUE(provider_.read("net.name").ok());
  const auto write = [this](const std::string& value) {
    return std::async(std::launch::async,
                      [this, value] { return client_.write("net.mtu", value); });
  };
  EXPECT_TRUE(write("1300").get().ok());
  auto written = write("1400");
  ASSERT_TRUE(asked_.wait());
  EXPECT_TRUE(provider_.registerFor(ConfigIF::CALLBACK_DYNAMIC_VALIDATE, "net.mtu").ok());
  released_.open();
  EXPECT_TRUE(written.get().ok());
  EXPECT_TRUE(provider_.waitForNotice("value net.mtu = 1300"));
  EXPECT_TRUE(provider_.waitForNotice("value net.mtu = 1400"));
}

class DeadlineTest : public testing::Test {
 protected:
  DeadlineTest() { service_.start(); }
  ServiceProcess service_{kDefinitions, {"--provider-deadline", "100"}};
  TestClient client_{"client", service_.runtimeDir()};
  Gate released_;
  TestClient provider_{"provider", service_.runtimeDir()};
};

TEST_F(DeadlineTest, AProviderThatDoesNotAnswerInTimeFailsTheWriteAndIsToldTheOldValue) {
  provider_.provide("net.mtu", [&](const ProviderQuestion& question) {
    if (question.onChange) released_.wait();
    return consent();
  });
  const Outcome outcome = client_.write("net.mtu", "1400");
  EXPECT_EQ(outcome.error, CommonIF::ERROR_TIMED_OUT);
  EXPECT_THAT(outcome.text, HasSubstr("provider did not answer within 100 ms"));
  released_.open();
  EXPECT_TRUE(provider_.waitForNotice("value net.mtu = 1500"));
  EXPECT_TRUE(client_.read("net.mtu").isDefault);
}

TEST_F(ProviderTest, AProviderThatWritesTheVariableItIsAskedAboutGetsAConflictAtOnce) {
  provider_.provide("net.mtu", [&](const ProviderQuestion& question) {
    if (question.onChange) return consent();
    written_ = provider_.write("net.mtu", "1300");
    asked_.open();
    return consent();
  });
  EXPECT_TRUE(client_.write("net.mtu", "1400").ok());
  ASSERT_TRUE(asked_.wait());
  EXPECT_EQ(written_.error, CommonIF::ERROR_CONFLICT);
  EXPECT_THAT(client_.read("net.mtu").values, ElementsAre("1400"));
}

TEST_F(ProviderTest, AProviderThatWritesFromItsHandlerWhatItProvidesGetsAConflictAtOnce) {
  provider_.provide("net", [&](const ProviderQuestion& question) {
    if (question.onChange) return consent();
    written_ = provider_.write("net.name", "x");
    asked_.open();
    return consent();
  });
  EXPECT_TRUE(client_.write("net.mtu", "1400").ok());
  ASSERT_TRUE(asked_.wait());
  EXPECT_EQ(written_.error, CommonIF::ERROR_CONFLICT);
}

TEST_F(ProviderTest, AProviderMayReadAndWriteOtherVariablesFromItsHandler) {
  provider_.provide("net.mtu", [&](const ProviderQuestion& question) {
    if (question.onChange) return consent();
    read_ = provider_.read("net.mtu");
    written_ = provider_.write("net.name", "x");
    asked_.open();
    return consent();
  });
  EXPECT_TRUE(client_.write("net.mtu", "1400").ok());
  ASSERT_TRUE(asked_.wait());
  EXPECT_THAT(read_.values, ElementsAre("1500"));
  EXPECT_TRUE(written_.ok());
}

TEST_F(ProviderTest, AProviderMayWriteItsOwnVariableFromOutside) {
  provider_.provide("net.mtu", [](const ProviderQuestion&) { return consent(); });
  EXPECT_TRUE(provider_.write("net.mtu", "1400").ok());
}

TEST_F(ProviderTest, AStopWhileAProviderIsAskedFailsTheWriteAndEndsTheService) {
  provider_.provide("net.mtu", [&](const ProviderQuestion&) {
    asked_.open();
    released_.wait();
    return consent();
  });
  auto written = std::async(std::launch::async, [&] { return client_.write("net.mtu", "1400"); });
  ASSERT_TRUE(asked_.wait());
  EXPECT_EQ(service_.terminate(), 0);
  EXPECT_EQ(written.get().error, CommonIF::ERROR_UNAVAILABLE);
  released_.open();
}

}  // namespace
}  // namespace TestSupport
