#include "platform/messaging/serving/internal/event_loop.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

namespace PbUtility {
namespace {

// Notes what is ready, and ends the loop when the last of its pipes is.
class EventLoopTest : public ::testing::Test, protected LoopClient {
 protected:
  static constexpr std::uint64_t kFirst = EventLoop::kFirstKey;
  static constexpr std::uint64_t kLast = kFirst + 1;

  EventLoopTest() {
    EXPECT_TRUE(loop_.open());
    for (Pipe* pipe : {&first_, &last_}) {
      int ends[2];
      EXPECT_EQ(::pipe(ends), 0);
      pipe->read.reset(ends[0]);
      pipe->write.reset(ends[1]);
      EXPECT_EQ(::write(ends[1], "x", 1), 1);
    }
  }

  void beginRound(bool) override { ++rounds_; }
  void endRound() override {}
  bool settle() override { return false; }
  bool hasWaiting() const override { return false; }
  void onReady(std::uint64_t key, std::uint32_t events) override {
    ready_.push_back(key);
    events_ = events;
    if (key == kLast) loop_.stop();
  }

  struct Pipe {
    Base::UniqueFd read;
    Base::UniqueFd write;
  };

  EventLoop loop_{*this};
  Pipe first_;
  Pipe last_;
  std::vector<std::uint64_t> ready_;
  std::uint32_t events_ = 0;
  int rounds_ = 0;
};

TEST_F(EventLoopTest, SaysWhichDescriptorIsReadyAndForWhat) {
  EXPECT_TRUE(loop_.watch(last_.read.get(), kLast, EPOLLIN));
  loop_.run();
  EXPECT_EQ(ready_, std::vector<std::uint64_t>{kLast});
  EXPECT_EQ(events_, static_cast<std::uint32_t>(EPOLLIN));
}

TEST_F(EventLoopTest, SaysNothingMoreOfADescriptorWhoseWatchHasEnded) {
  EXPECT_TRUE(loop_.watch(first_.read.get(), kFirst, EPOLLIN));
  loop_.endWatch(first_.read.get());
  EXPECT_TRUE(loop_.watch(last_.read.get(), kLast, EPOLLIN));
  loop_.run();
  EXPECT_EQ(ready_, std::vector<std::uint64_t>{kLast});
}

TEST_F(EventLoopTest, SaysOfADescriptorWhoseWatchWasChangedOnlyWhatIsWatchedNow) {
  EXPECT_TRUE(loop_.watch(first_.read.get(), kFirst, EPOLLIN));
  loop_.changeWatch(first_.read.get(), kFirst, 0);
  EXPECT_TRUE(loop_.watch(last_.read.get(), kLast, EPOLLIN));
  loop_.run();
  EXPECT_EQ(ready_, std::vector<std::uint64_t>{kLast});
}

TEST_F(EventLoopTest, ATimerWakesTheLoopOnce) {
  using std::chrono::milliseconds;
  loop_.post([this] {
    loop_.after(milliseconds(1),
                [this] { loop_.after(milliseconds(20), [this] { loop_.stop(); }); });
  });
  loop_.run();
  EXPECT_EQ(rounds_, 2);
}

}  // namespace
}  // namespace PbUtility
