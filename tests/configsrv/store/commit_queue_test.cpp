#include "configsrv/store/commit_queue.h"

#include <atomic>
#include <chrono>
#include <memory>

#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

using Batch = std::vector<Completion>;

// What the queue delivered, and a gate at which its thread can be held while it delivers.
class Deliveries {
 public:
  void take(Batch batch) {
    std::unique_lock<std::mutex> guard(mutex_);
    batches_.push_back(std::move(batch));
    changed_.notify_all();
    changed_.wait(guard, [this] { return !held_; });
  }
  void hold() {
    const std::lock_guard<std::mutex> guard(mutex_);
    held_ = true;
  }
  void release() {
    const std::lock_guard<std::mutex> guard(mutex_);
    held_ = false;
    changed_.notify_all();
  }
  bool waitForBatches(std::size_t count) {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, std::chrono::seconds(30),
                             [&] { return batches_.size() >= count; });
  }
  // Only while the queue's thread is held or stopped.
  std::vector<Batch>& batches() { return batches_; }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool held_ = false;
  std::vector<Batch> batches_;
};

class CommitQueueTest : public StoreFixture {
 protected:
  void start() {
    queue_ = std::make_unique<CommitQueue>(
        store(), [this](Batch batch) { deliveries_.take(std::move(batch)); });
  }
  void submit(const std::string& name, const std::string& value) {
    EXPECT_TRUE(queue_->submit({setting(name, value)}, CommitDone()));
  }
  // Holds the queue's thread in the delivery of a first transaction of its own.
  void startHeld() {
    deliveries_.hold();
    start();
    submit("first", "1");
    EXPECT_TRUE(deliveries_.waitForBatches(1));
  }

  Deliveries deliveries_;
  std::unique_ptr<CommitQueue> queue_;
};

TEST_F(CommitQueueTest, ATransactionIsDeliveredWithItsRevisionAndIsInTheStore) {
  open();
  start();
  std::uint64_t told = 0;
  EXPECT_TRUE(
      queue_->submit({setting("a", "1")}, [&](const StoreStatus& status, std::uint64_t revision) {
        if (status.ok()) told = revision;
      }));
  ASSERT_TRUE(deliveries_.waitForBatches(1));
  queue_->stop();
  Completion& completion = deliveries_.batches().at(0).at(0);
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
    EXPECT_TRUE(
        queue_->submit({setting("a", std::to_string(i))},
                       [&order, i](const StoreStatus&, std::uint64_t) { order.push_back(i); }));
  }
  deliveries_.release();
  ASSERT_TRUE(deliveries_.waitForBatches(2));
  queue_->stop();
  ASSERT_EQ(deliveries_.batches().size(), 2U);
  Batch& batch = deliveries_.batches()[1];
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
  submit("b", std::string(options.maxBytes, 'x'));
  deliveries_.release();
  ASSERT_TRUE(deliveries_.waitForBatches(2));
  submit("c", "3");
  ASSERT_TRUE(deliveries_.waitForBatches(3));
  queue_->stop();
  for (const Completion& completion : deliveries_.batches()[1]) {
    EXPECT_EQ(completion.status.code, StoreCode::kDiskFull);
    EXPECT_EQ(completion.revision, 0U);
  }
  EXPECT_EQ(deliveries_.batches()[1].size(), 2U);
  EXPECT_EQ(deliveries_.batches()[2].at(0).revision, 2U);
  open();
  EXPECT_EQ(value("a"), "-");
  EXPECT_EQ(value("c"), "3");
}

TEST_F(CommitQueueTest, StopCommitsAndDeliversWhatWasSubmitted) {
  open();
  startHeld();
  for (int i = 0; i < 5; ++i) submit("v" + std::to_string(i), "x");
  std::thread stopping([this] { queue_->stop(); });
  deliveries_.release();
  stopping.join();
  std::size_t delivered = 0;
  for (const Batch& batch : deliveries_.batches()) delivered += batch.size();
  EXPECT_EQ(delivered, 6U);
  open();
  EXPECT_EQ(variables().size(), 6U);
}

TEST_F(CommitQueueTest, NothingIsTakenAfterStop) {
  open();
  start();
  queue_->stop();
  EXPECT_FALSE(queue_->submit({setting("a", "1")}, CommitDone()));
  queue_->stop();
  EXPECT_TRUE(deliveries_.batches().empty());
  EXPECT_EQ(store().revision(), 0U);
}

TEST_F(CommitQueueTest, DestructionStops) {
  open();
  start();
  submit("a", "1");
  queue_.reset();
  EXPECT_EQ(deliveries_.batches().size(), 1U);
  EXPECT_EQ(store().revision(), 1U);
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
        EXPECT_TRUE(queue_->submit({setting("t" + std::to_string(t), std::to_string(i))},
                                   [&](const StoreStatus&, std::uint64_t) { ++done; }));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  queue_->stop();
  std::uint64_t expected = 0;
  for (Batch& batch : deliveries_.batches()) {
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
