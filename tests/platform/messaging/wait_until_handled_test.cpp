// Endpoint::waitUntilHandled: what it waits for, and what it does not wait for.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "platform/messaging/endpoint.h"
#include "platform/messaging/msg.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"
#include "tests/support/threads.h"

namespace PbUtility {
namespace {

using std::chrono::milliseconds;
using TestSupport::eventually;
using TestSupport::kPatience;
using TestSupport::Serving;

const std::string kService = "ConfigSrvc";

class WaitUntilHandledTest : public ::testing::Test {
 protected:
  WaitUntilHandledTest() {
    const MSG_Callback table[] = {{&receive, this, 0x1A0143, 0x1A0143, 0},
                                  {nullptr, nullptr, 0, 0, 0}};
    endpoint_.addHandlers(table);
  }
  // The delivery thread must not call what is gone.
  ~WaitUntilHandledTest() override { goesOn_ = true; }

  void connect() { ASSERT_TRUE(endpoint_.waitUntilConnected(kService, kPatience)); }

  // When it returns the notices are in this process's socket: the service writes them before it looks
  // for another request.
  void notify(int notices) {
    serving_->onServer([&](Server& server) {
      ConfigIF::ConfigChangedNtfy notice;
      notice.set_callback_identity(std::string(1000, 'x'));
      for (int i = 0; i < notices; ++i) server.notify(serving_->readyPeer(), notice, 8, "");
    });
    ConfigIF::ReadRsp response;
    EXPECT_EQ(endpoint_.sendWaitResponse(ConfigIF::ReadReq(), &response, kService), kCallOk);
  }

  // The receiver waits inside its first message.
  void block() { goesOn_ = false; }
  void unblock() { goesOn_ = true; }

  EndpointOptions options() const {
    EndpointOptions made;
    made.runtimeDir = dir_.path();
    return made;
  }

  TestSupport::TempDir dir_;
  std::unique_ptr<Serving> serving_ = std::make_unique<Serving>(dir_.path());
  std::atomic<int> begun_{0};
  std::atomic<int> handled_{0};
  std::atomic<bool> goesOn_{true};
  std::function<void()> then_;
  Endpoint endpoint_{"ui", options()};

 private:
  static void receive(void* userData, const MSG_Message*) {
    auto& self = *static_cast<WaitUntilHandledTest*>(userData);
    ++self.begun_;
    EXPECT_TRUE(eventually([&] { return self.goesOn_.load(); }));
    if (self.then_) self.then_();
    ++self.handled_;
  }
};

// More than the delivery thread reads in one go.
TEST_F(WaitUntilHandledTest, AllThatHasComeIsHandledThen) {
  constexpr int kNotices = 100;
  then_ = [] { std::this_thread::sleep_for(milliseconds(1)); };
  connect();
  block();
  notify(1);
  ASSERT_TRUE(eventually([&] { return begun_ == 1; }));
  notify(kNotices);
  unblock();
  EXPECT_TRUE(endpoint_.waitUntilHandled(kPatience));
  EXPECT_EQ(handled_, kNotices + 1);
}

TEST_F(WaitUntilHandledTest, TheDeadlineEndsItWhileAReceiverRuns) {
  connect();
  block();
  notify(1);
  ASSERT_TRUE(eventually([&] { return begun_ == 1; }));
  EXPECT_FALSE(endpoint_.waitUntilHandled(milliseconds(20)));
  unblock();
  EXPECT_TRUE(endpoint_.waitUntilHandled(kPatience));
  EXPECT_EQ(handled_, 1);
}

TEST_F(WaitUntilHandledTest, TheDeliveryThreadIsToldAtOnceThatItCannotWaitForItself) {
  std::atomic<bool> result{true};
  then_ = [&] { result = endpoint_.waitUntilHandled(std::chrono::hours(1)); };
  connect();
  notify(1);
  EXPECT_TRUE(endpoint_.waitUntilHandled(kPatience));
  EXPECT_EQ(handled_, 1);
  EXPECT_FALSE(result);
}

TEST_F(WaitUntilHandledTest, NothingIsWaitedForWhereNothingIsDelivered) {
  EXPECT_TRUE(endpoint_.waitUntilHandled(milliseconds(0)));
}

TEST_F(WaitUntilHandledTest, AServiceThatIsAwayHasSentNothing) {
  connect();
  serving_.reset();
  EXPECT_TRUE(endpoint_.waitUntilHandled(kPatience));
}

TEST_F(WaitUntilHandledTest, ItEndsAlthoughTheServiceGoesOnSending) {
  connect();
  std::atomic<bool> isOver{false};
  TestSupport::Threads busy;
  busy.run([&] {
    while (!isOver) notify(10);
  });
  for (int round = 0; round < 100; ++round) EXPECT_TRUE(endpoint_.waitUntilHandled(kPatience));
  isOver = true;
}

TEST_F(WaitUntilHandledTest, SeveralMayWaitAtOnce) {
  connect();
  block();
  notify(1);
  ASSERT_TRUE(eventually([&] { return begun_ == 1; }));
  std::atomic<int> done{0};
  TestSupport::Threads waiting;
  for (int i = 0; i < 4; ++i) {
    waiting.run([&] {
      EXPECT_TRUE(endpoint_.waitUntilHandled(kPatience));
      EXPECT_EQ(handled_, 1);
      ++done;
    });
  }
  unblock();
  waiting.join();
  EXPECT_EQ(done, 4);
}

TEST_F(WaitUntilHandledTest, AChildWaitsForItsOwnMessagesAlone) {
  connect();
  block();
  notify(1);
  ASSERT_TRUE(eventually([&] { return begun_ == 1; }));
  const pid_t child = ::fork();
  if (child == 0) ::_exit(endpoint_.waitUntilHandled(kPatience) ? 42 : 1);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 42);
  unblock();
}

}  // namespace
}  // namespace PbUtility
