#include "configsrv/store/commit_queue.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

using Batch = std::vector<Completion>;

// Does what the queue asks for, on threads of its own, and keeps what it gave. The thread can be
// held between a commit and the taking of it.
class CommitQueueTest : public StoreFixture {
 protected:
  ~CommitQueueTest() override { finish(); }

  void start() {
    queue_ = std::make_unique<CommitQueue>(store(), [this] {
      const std::lock_guard<std::mutex> guard(mutex_);
      ++starts_;
      workers_.emplace_back([this] { work(); });
    });
  }
  void work() {
    queue_->commit();
    {
      std::unique_lock<std::mutex> guard(mutex_);
      ++commits_;
      changed_.notify_all();
      changed_.wait(guard, [this] { return !held_; });
    }
    const std::lock_guard<std::mutex> inOrder(batchesMutex_);
    batches_.push_back(queue_->take());
  }
  void submit(const std::string& name, const std::string& value) { submitFor(0, name, value); }
  // Notes the order in which the completions are to be called.
  void submitFor(uid_t user, const std::string& name, const std::string& value) {
    queue_->submit(user, {setting(name, value)},
                   [this, name](const StoreStatus&, std::uint64_t) { called_.push_back(name); });
  }
  // The names of a batch, in its order.
  std::vector<std::string> namesOf(const Batch& batch) {
    called_.clear();
    for (const Completion& completion : batch)
      completion.done(completion.status, completion.revision);
    return called_;
  }
  // Holds the thread after the commit of a first transaction.
  void startHeld() {
    held_ = true;
    start();
    submit("first", "1");
    std::unique_lock<std::mutex> guard(mutex_);
    EXPECT_TRUE(
        changed_.wait_for(guard, std::chrono::seconds(30), [this] { return commits_ == 1; }));
  }
  void release() {
    const std::lock_guard<std::mutex> guard(mutex_);
    held_ = false;
    changed_.notify_all();
  }
  // Waits until what was submitted is delivered.
  void finish() {
    for (;;) {
      std::unique_lock<std::mutex> guard(mutex_);
      if (workers_.empty()) return;
      std::thread worker = std::move(workers_.front());
      workers_.pop_front();
      guard.unlock();
      worker.join();
    }
  }

  std::unique_ptr<CommitQueue> queue_;
  std::vector<Batch> batches_;  // After finish() there are no more.
  int starts_ = 0;
  std::vector<std::string> called_;

 private:
  std::mutex batchesMutex_;
  std::mutex mutex_;  // All below.
  std::condition_variable changed_;
  bool held_ = false;
  int commits_ = 0;
  std::deque<std::thread> workers_;
};

TEST_F(CommitQueueTest, ATransactionIsDeliveredWithItsRevisionAndIsInTheStore) {
  open();
  start();
  std::uint64_t told = 0;
  queue_->submit(0, {setting("a", "1")}, [&](const StoreStatus& status, std::uint64_t revision) {
    if (status.ok()) told = revision;
  });
  finish();
  Completion& completion = batches_.at(0).at(0);
  EXPECT_TRUE(completion.status.ok());
  EXPECT_EQ(completion.revision, 1U);
  EXPECT_EQ(told, 0U);  // Calling it is the receiver's business.
  completion.done(completion.status, completion.revision);
  EXPECT_EQ(told, 1U);
  open();
  EXPECT_EQ(value("a"), "1");
}

TEST_F(CommitQueueTest, WhatIsSubmittedDuringACommitIsOneBatchInOrder) {
  open();
  startHeld();
  std::vector<int> order;
  for (int i = 0; i < 16; ++i) {
    queue_->submit(0, {setting("a", std::to_string(i))},
                   [&order, i](const StoreStatus&, std::uint64_t) { order.push_back(i); });
  }
  release();
  finish();
  ASSERT_EQ(batches_.size(), 2U);
  Batch& batch = batches_[1];
  ASSERT_EQ(batch.size(), 16U);
  for (std::size_t i = 0; i < batch.size(); ++i) {
    EXPECT_EQ(batch[i].revision, i + 2);
    batch[i].done(batch[i].status, batch[i].revision);
    EXPECT_EQ(order.back(), static_cast<int>(i));
  }
  open();
  EXPECT_EQ(value("a"), "15");
  EXPECT_EQ(store().revision(), 17U);
}

TEST_F(CommitQueueTest, AGroupFailsAsAWholeAndTheNextOneSucceeds) {
  StoreOptions options{file_};
  options.maxBytes = std::uint64_t{256} << 10;
  opened_ = Store::open(options);
  ASSERT_NE(opened_.store, nullptr) << opened_.status.text;
  startHeld();
  submit("a", "2");
  submit("b", std::string(std::size_t{255} << 10, 'x'));
  release();
  finish();
  submit("c", "3");
  finish();
  for (const Completion& completion : batches_[1]) {
    EXPECT_EQ(completion.status.code, StoreCode::kDiskFull);
    EXPECT_EQ(completion.revision, 0U);
  }
  EXPECT_EQ(batches_[1].size(), 2U);
  EXPECT_EQ(batches_[2].at(0).revision, 2U);
  open();
  EXPECT_EQ(value("a"), "-");
  EXPECT_EQ(value("c"), "3");
}

TEST_F(CommitQueueTest, ABusyQueueIsStartedAgainOnlyForWhatCameMeanwhile) {
  open();
  startHeld();
  submit("a", "1");
  submit("b", "1");
  EXPECT_EQ(starts_, 1);
  release();
  finish();
  EXPECT_EQ(starts_, 2);
  submit("c", "1");
  finish();
  EXPECT_EQ(starts_, 3);
  EXPECT_EQ(store().revision(), 4U);
}

// A small write of another user's goes with the next group, whatever waits before it.
TEST_F(CommitQueueTest, MegabytesOfOneUserDoNotGoBeforeAnothersFewBytes) {
  const std::string large(CommitQueue::kGroupBytes / 2, 'x');
  open();
  startHeld();
  for (const char* name : {"a1", "a2", "a3", "a4"}) submitFor(1000, name, large);
  submitFor(1001, "b1", "1");
  submitFor(1001, "b2", "1");
  release();
  finish();
  ASSERT_EQ(batches_.size(), 5U);
  EXPECT_THAT(namesOf(batches_[1]), testing::ElementsAre("a1", "b1"));
  EXPECT_THAT(namesOf(batches_[2]), testing::ElementsAre("a2", "b2"));
  EXPECT_THAT(namesOf(batches_[3]), testing::ElementsAre("a3"));
  EXPECT_THAT(namesOf(batches_[4]), testing::ElementsAre("a4"));
  EXPECT_EQ(store().revision(), 7U);
}

// Copying the log takes about as long as a large commit, and nobody should wait for both.
TEST_F(CommitQueueTest, WhatIsSmallGoesBetweenALargeCommitAndTheCopyingOfTheLog) {
  const std::string large(2 * CommitQueue::kGroupBytes, 'x');
  StoreOptions options{file_};
  options.logPages = 20;
  opened_ = Store::open(options);
  ASSERT_NE(opened_.store, nullptr) << opened_.status.text;
  startHeld();
  for (const char* name : {"a1", "a2"}) submitFor(1000, name, large);
  submitFor(999, "b1", "1");
  submitFor(1001, "c1", "1");
  submitFor(1001, "c2", large);
  submitFor(1001, "c3", "1");
  release();
  finish();
  ASSERT_EQ(batches_.size(), 10U);
  EXPECT_THAT(namesOf(batches_[1]), testing::ElementsAre("b1"));
  EXPECT_THAT(namesOf(batches_[2]), testing::ElementsAre("a1"));
  EXPECT_THAT(namesOf(batches_[3]), testing::ElementsAre("c1"));
  EXPECT_THAT(namesOf(batches_[4]), testing::IsEmpty()) << "the copying";
  EXPECT_THAT(namesOf(batches_[5]), testing::ElementsAre("a2"));
  EXPECT_THAT(namesOf(batches_[6]), testing::IsEmpty()) << "nothing small was in the way";
  EXPECT_THAT(namesOf(batches_[7]), testing::ElementsAre("c2"));
  EXPECT_THAT(namesOf(batches_[8]), testing::ElementsAre("c3"));
  EXPECT_THAT(namesOf(batches_[9]), testing::IsEmpty());
  EXPECT_EQ(store().revision(), 7U);
}

// Who keeps the queue full must not keep other work from being done.
TEST_F(CommitQueueTest, OtherWorkWaitsForOneGroupAndNoMore) {
  const std::string large(CommitQueue::kGroupBytes, 'x');
  open();
  startHeld();
  for (const char* name : {"a1", "a2", "a3"}) submitFor(1000, name, large);
  std::uint64_t seen = 0;
  bool done = false;
  queue_->submitWork([&seen](Store& store) { seen = store.revision(); }, [&done] { done = true; });
  release();
  finish();
  EXPECT_EQ(seen, 2U) << "behind the first of the three";
  ASSERT_EQ(batches_[1].size(), 2U);
  EXPECT_FALSE(done);
  batches_[1].back().done({}, 0);
  EXPECT_TRUE(done);
  EXPECT_EQ(store().revision(), 4U);
}

TEST_F(CommitQueueTest, OtherWorkNeedsNoCommit) {
  open();
  start();
  bool done = false;
  queue_->submitWork([](Store& store) { EXPECT_TRUE(store.snapshot().ok()); },
                     [&done] { done = true; });
  finish();
  ASSERT_EQ(batches_.size(), 1U);
  batches_[0].at(0).done({}, 0);
  EXPECT_TRUE(done);
}

TEST_F(CommitQueueTest, ATransactionLargerThanAGroupGoesAlone) {
  open();
  startHeld();
  submitFor(0, "large", std::string(2 * CommitQueue::kGroupBytes, 'x'));
  submitFor(0, "small", "1");
  release();
  finish();
  ASSERT_EQ(batches_.size(), 3U);
  EXPECT_THAT(namesOf(batches_[1]), testing::ElementsAre("large"));
  EXPECT_THAT(namesOf(batches_[2]), testing::ElementsAre("small"));
}

TEST_F(CommitQueueTest, AGroupHasAnEndAlsoForManySmallOnes) {
  constexpr std::size_t kMost = CommitQueue::kGroupBytes / (CommitQueue::kChangeBytes + 1);
  open();
  startHeld();
  for (std::size_t i = 0; i <= kMost; ++i) submitFor(0, "a", "1");
  release();
  finish();
  ASSERT_EQ(batches_.size(), 3U);
  EXPECT_EQ(batches_[1].size(), kMost);
  EXPECT_EQ(batches_[2].size(), 1U);
}

// The queue on one thread and with a clock of its own: what it starts is done at once, what it wants
// later is noted.
class PacedCommitQueueTest : public StoreFixture {
 protected:
  using Clock = CommitQueue::Clock;
  static constexpr uid_t kOwn = 997;

  PacedCommitQueueTest() {
    open();
    now_ = Clock::time_point(std::chrono::hours(1));
    CommitQueue::Pace pace{[this](std::chrono::milliseconds wait) { wanted_.push_back(wait); },
                           kOwn, [] { return now_; }};
    queue_ = std::make_unique<CommitQueue>(
        store(), [this] { ++started_; }, std::move(pace));
  }

  void submit(uid_t user, const std::string& name, std::size_t bytes) {
    queue_->submit(user, {setting(name, std::string(bytes, 'x'))},
                   [this, name](const StoreStatus& status, std::uint64_t) {
                     done_.push_back(status.ok() ? name : "failed " + name);
                   });
  }
  void submitSmall(uid_t user, const std::string& name) { submit(user, name, 1); }
  void submitLarge(uid_t user, const std::string& name) { submit(user, name, kLarge); }
  // What is done until the queue has nothing more to do now.
  std::vector<std::string> work() {
    done_.clear();
    for (; started_ > 0; --started_) {
      queue_->commit();
      for (Completion& completion : queue_->take())
        completion.done(completion.status, completion.revision);
    }
    return done_;
  }
  std::vector<std::string> goOn(std::chrono::milliseconds later) {
    now_ += later;
    wanted_.clear();
    queue_->goOn();
    return work();
  }

  static constexpr std::size_t kLarge = CommitQueue::kGroupBytes + 1;
  static inline Clock::time_point now_;
  std::unique_ptr<CommitQueue> queue_;
  int started_ = 0;
  std::vector<std::chrono::milliseconds> wanted_;
  std::vector<std::string> done_;
};

TEST_F(PacedCommitQueueTest, WhatIsLargeGoesAtOnceWhileNobodyElseWrites) {
  submitSmall(1000, "a");
  for (const char* name : {"b", "c", "d"}) submitLarge(1000, name);
  EXPECT_THAT(work(), testing::ElementsAre("a", "b", "c", "d"));
  EXPECT_THAT(wanted_, testing::IsEmpty());
}

TEST_F(PacedCommitQueueTest, WhatIsLargeWaitsUntilOthersAreQuiet) {
  submitLarge(1000, "first");
  EXPECT_THAT(work(), testing::ElementsAre("first"));
  submitSmall(1001, "small");
  submitLarge(1000, "large");
  submitSmall(1000, "behind it");
  EXPECT_THAT(work(), testing::ElementsAre("small"));
  EXPECT_THAT(wanted_, testing::ElementsAre(CommitQueue::kQuiet));
  submitSmall(1001, "another");
  EXPECT_THAT(work(), testing::ElementsAre("another"));
  EXPECT_THAT(goOn(CommitQueue::kQuiet - std::chrono::milliseconds(1)), testing::IsEmpty());
  EXPECT_THAT(wanted_, testing::ElementsAre(std::chrono::milliseconds(1)));
  EXPECT_THAT(goOn(std::chrono::milliseconds(1)), testing::ElementsAre("large", "behind it"));
  EXPECT_THAT(wanted_, testing::IsEmpty());
}

TEST_F(PacedCommitQueueTest, WhatIsLargeGoesOnceInAWhileThoughOthersAreNeverQuiet) {
  std::vector<std::string> large;
  for (int i = 0; i < 4; ++i) submitLarge(1000, "large");
  constexpr std::chrono::milliseconds kStep{5};
  for (auto time = kStep; time <= 2 * CommitQueue::kLargeEvery; time += kStep) {
    submitSmall(1001, "small");
    for (const std::string& name : goOn(kStep))
      if (name == "large") large.push_back(name);
  }
  EXPECT_EQ(large.size(), 2U) << "one at the start of each stretch of time";
}

TEST_F(PacedCommitQueueTest, RootAndTheServicesOwnUserWaitForNobody) {
  submitLarge(1000, "first");
  submitSmall(1001, "small");
  EXPECT_EQ(work().size(), 2U);
  submitLarge(0, "of root");
  submitLarge(kOwn, "of the service");
  submitLarge(1000, "of a user");
  EXPECT_THAT(work(), testing::ElementsAre("of root", "of the service"));
}

TEST_F(PacedCommitQueueTest, AtTheEndNothingWaits) {
  submitLarge(1000, "first");
  submitSmall(1001, "small");
  submitLarge(1000, "second");
  submitLarge(1000, "third");
  EXPECT_THAT(work(), testing::ElementsAre("first", "small"));
  queue_->hurry();
  EXPECT_THAT(work(), testing::ElementsAre("second", "third"));
}

TEST_F(CommitQueueTest, ManyThreadsGetOneDeliveryEachAndRevisionsWithoutGaps) {
  constexpr int kThreads = 8;
  constexpr int kEach = 50;
  constexpr int kAll = kThreads * kEach;
  open();
  std::atomic<int> done{0};
  start();
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        queue_->submit(0, {setting("t" + std::to_string(t), std::to_string(i))},
                       [&](const StoreStatus&, std::uint64_t) { ++done; });
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  finish();
  std::uint64_t expected = 0;
  for (Batch& batch : batches_) {
    for (Completion& completion : batch) {
      EXPECT_EQ(completion.revision, ++expected);
      completion.done(completion.status, completion.revision);
    }
  }
  EXPECT_EQ(done, kAll);
  open();
  EXPECT_EQ(store().revision(), std::uint64_t{kAll});
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(value("t" + std::to_string(t)), std::to_string(kEach - 1));
  }
}

}  // namespace
}  // namespace ConfigSrv
