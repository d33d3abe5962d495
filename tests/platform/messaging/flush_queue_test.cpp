#include "platform/messaging/serving/internal/flush_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "platform/messaging/serving/internal/connection.h"
#include "platform/messaging/serving/internal/peer_table.h"

namespace PbUtility {
namespace {

class FlushQueueTest : public ::testing::Test {
 protected:
  // A connection of a peer of its own, or of one that is there already.
  Connection& connection(ConnectionUse use) { return connection(use, peers.emplace_back()); }
  Connection& connection(ConnectionUse use, PeerState& peer) {
    Connection& added = connections.emplace_back(connections.size() + 1, Base::UniqueFd(), ucred{});
    added.use = use;
    added.peer = &peer;
    return added;
  }
  Connection& told() { return connection(ConnectionUse::Delivery); }
  Connection& answered() { return connection(ConnectionUse::Requests); }

  // Flushes all who are due; their keys, in order.
  std::vector<std::uint64_t> flushAll() {
    std::vector<std::uint64_t> keys;
    while (Connection* next = queue.next()) {
      FlushQueue::left(*next);
      keys.push_back(next->key);
    }
    return keys;
  }

  std::deque<PeerState> peers;
  std::deque<Connection> connections;
  FlushQueue queue;
};

using Keys = std::vector<std::uint64_t>;

TEST_F(FlushQueueTest, WhoIsAddedTwiceIsFlushedOnceAndCanBeAddedAgain) {
  Connection& one = told();
  queue.add(one);
  queue.add(one);
  EXPECT_FALSE(queue.isEmpty());
  EXPECT_EQ(flushAll(), Keys{1});
  EXPECT_TRUE(queue.isEmpty());
  queue.add(one);
  EXPECT_EQ(flushAll(), Keys{1});
}

TEST_F(FlushQueueTest, AFewWhoAreToldComeBeforeAnswersAndTheOthersAfterThem) {
  queue.add(answered());
  for (int i = 0; i < 10; ++i) queue.add(told());
  EXPECT_EQ(flushAll(), (Keys{2, 3, 4, 5, 6, 7, 8, 9, 1, 10, 11}));
}

TEST_F(FlushQueueTest, AWriterIsAnsweredBeforeItIsToldItself) {
  PeerState& writer = peers.emplace_back();
  queue.add(connection(ConnectionUse::Delivery, writer));
  queue.add(connection(ConnectionUse::Requests, writer));
  EXPECT_EQ(flushAll(), (Keys{2, 1}));
}

TEST_F(FlushQueueTest, WhoIsAddedWhileOthersAreFlushedComesAfterThem) {
  queue.add(told());
  queue.add(told());
  EXPECT_EQ(queue.next()->key, 1U);
  queue.add(told());
  EXPECT_EQ(flushAll(), (Keys{2, 3}));
}

TEST_F(FlushQueueTest, OfACrowdOnlyOneRoundIsDueAndTheRestWaits) {
  for (std::size_t i = 0; i < FlushQueue::kAtOnce + 2; ++i) queue.add(told());
  EXPECT_EQ(flushAll().size(), FlushQueue::kAtOnce);
  EXPECT_TRUE(queue.isEmpty());
  ASSERT_TRUE(queue.hasCrowd());
  EXPECT_EQ(queue.crowdOfRound(), 2U);
  EXPECT_EQ(queue.nextOfCrowd(), FlushQueue::kAtOnce + 1);
  EXPECT_EQ(queue.nextOfCrowd(), FlushQueue::kAtOnce + 2);
  EXPECT_FALSE(queue.hasCrowd());
}

TEST_F(FlushQueueTest, WhoIsGoneIsNotFlushed) {
  Connection& gone = told();
  queue.add(gone);
  queue.add(told());
  queue.forget(gone);
  EXPECT_EQ(flushAll(), Keys{2});
}

}  // namespace
}  // namespace PbUtility
