#include "configsrv/providers/provider_wait.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <utility>

#include "platform/schema/config_if.pb.h"
#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kGrace{2000};

// The memory expects providers of the service before; time passes by hand.
class ProviderWaitTest : public testing::Test {
 protected:
  ~ProviderWaitTest() override { end(); }

  void expect(pid_t pid) {
    ProviderMemory before(file_, log_);
    before.open();
    before.registered({7, "provider", getuid(), getgid(), pid},
                      {"net", ConfigIF::CALLBACK_ON_CHANGE, "link", "client", {}});
  }
  pid_t sleeper() {
    sleeper_ = fork();
    if (sleeper_ == 0) {
      for (;;) pause();
    }
    return sleeper_;
  }
  void end() {
    if (sleeper_ <= 0) return;
    kill(sleeper_, SIGKILL);
    waitpid(std::exchange(sleeper_, -1), nullptr, 0);
  }
  void begin() {
    memory_.open();
    wait_.begin(kGrace);
  }
  // All timers of this delay that run now.
  void pass(milliseconds delay) {
    const auto due = timers_.extract(delay);
    if (!due.empty()) due.mapped()();
  }

  TestSupport::TempDir directory_;
  const std::string file_ = directory_.file("ConfigSrvc.providers");
  const Log log_{LogLevel::Info, [](LogLevel, const std::string&) {}};
  ProviderMemory memory_{file_, log_};
  std::map<milliseconds, std::function<void()>> timers_;
  int fewer_ = 0;
  pid_t sleeper_ = -1;
  ProviderWait wait_{
      memory_,
      [this](milliseconds delay, std::function<void()> task) { timers_[delay] = std::move(task); },
      [this] { ++fewer_; }};
};

TEST_F(ProviderWaitTest, WhoExpectsNobodySetsNoTimer) {
  begin();
  EXPECT_TRUE(timers_.empty());
}

TEST_F(ProviderWaitTest, AProviderThatLivesIsWaitedForUntilTheGraceIsOver) {
  expect(getpid());
  begin();
  for (int i = 0; i < 3; ++i) pass(ProviderWait::kCheck);
  EXPECT_EQ(fewer_, 0);
  EXPECT_TRUE(memory_.expectsAny());
  pass(kGrace);
  EXPECT_EQ(fewer_, 1);
  EXPECT_FALSE(memory_.expectsAny());
  pass(ProviderWait::kCheck);
  EXPECT_EQ(fewer_, 1);
  EXPECT_TRUE(timers_.empty()) << "nobody is left to look for";
}

TEST_F(ProviderWaitTest, AProviderWhoseProcessEndsIsNotWaitedForAnyLonger) {
  expect(sleeper());
  begin();
  pass(ProviderWait::kCheck);
  EXPECT_EQ(fewer_, 0);
  end();
  pass(ProviderWait::kCheck);
  EXPECT_EQ(fewer_, 1);
  EXPECT_FALSE(memory_.expectsAny());
}

}  // namespace
}  // namespace ConfigSrv
