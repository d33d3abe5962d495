// Whose turn it is in a server's loop. The loop is held in the handler of a first request until all
// that is to compete has been sent; then the order in which the rest is handled is what a test judges.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "platform/messaging/serving/server.h"
#include "platform/schema/config_if.pb.h"
#include "tests/platform/messaging/raw_client.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"

namespace PbUtility {
namespace {

using TestSupport::canBecomeOthers;
using TestSupport::Child;
using TestSupport::eventually;
using TestSupport::kOneUser;
using TestSupport::kOtherUser;
using TestSupport::RawClient;
using TestSupport::Serving;

class ServerFairnessTest : public ::testing::Test {
 protected:
  static constexpr std::uint32_t kRead = 0x1A0110;
  static constexpr std::uint32_t kHold = 0x1A0160;

  static std::string requests(int count, std::uint32_t messageId = kRead) {
    FrameHeader header;
    header.kind = FrameKind::Request;
    header.messageId = messageId;
    std::string bytes;
    for (int i = 0; i < count; ++i) bytes += RawClient::frame(header, "");
    return bytes;
  }

  ServerFairnessTest() {
    options.runtimeDir = dir.path();
    options.name = "ConfigSrvc";
    // Frames alone end a turn, unless the test is about time.
    options.turnTime = std::chrono::hours(1);
    EXPECT_EQ(chmod(dir.path().c_str(), 0711), 0);
  }
  void SetUp() override {
    if (!canBecomeOthers()) GTEST_SKIP() << "only root can send clients of another user";
  }

  // A process of another user, with so many connections that have greeted once "go" is said, and
  // with so many requests sent over each once it is said again. To be made before the server.
  std::unique_ptr<Child> client(uid_t user, int connections, int requestsEach) const {
    const std::string socket = dir.file("ConfigSrvc");
    return std::make_unique<Child>(user, [=](Child::Parent& test) {
      test.hear();
      std::vector<std::unique_ptr<RawClient>> clients;
      for (int i = 0; i < connections; ++i) {
        clients.push_back(std::make_unique<RawClient>(socket));
        // Each connection is a peer of its own.
        const uid_t token = (user - kOneUser + 1) * 100 + static_cast<uid_t>(i);
        clients.back()->send(
            RawClient::hello("client-" + std::to_string(user), static_cast<unsigned char>(token)));
        if (clients.back()->receive().empty()) return test.say("refused");
      }
      test.say("greeted");
      test.hear();
      for (const auto& each : clients) each->send(requests(requestsEach));
      test.say("sent");
      test.hear();
    });
  }
  // One that comes, greets and asks once it is told to, and waits for nothing.
  std::unique_ptr<Child> newcomer(uid_t user) const {
    const std::string socket = dir.file("ConfigSrvc");
    return std::make_unique<Child>(user, [=](Child::Parent& test) {
      test.hear();
      RawClient client(socket);
      client.send(RawClient::hello("newcomer", 99) + requests(1));
      test.say("sent");
      test.hear();
    });
  }
  static void letGreet(const Child& child) {
    child.say("go");
    ASSERT_EQ(child.hear(), "greeted");
  }
  static void letSend(const Child& child) {
    child.say("go");
    ASSERT_EQ(child.hear(), "sent");
  }

  void serve() {
    serving = std::make_unique<Serving>(options);
    serving->onServer([this](Server&) {
      serving->onRequestDo = [this](Server& server, const Serving::Request& request) {
        if (request.messageId == kHold) holdLoop(server);
        server.respond(request.id, ConfigIF::ReadRsp(), 1);
      };
    });
  }
  // Sends the request in whose handler the loop stands until release().
  void hold() {
    holder = std::make_unique<RawClient>(dir.file("ConfigSrvc"));
    ASSERT_TRUE(holder->send(RawClient::hello("holder", 255)));
    ASSERT_FALSE(holder->receive().empty());
    ASSERT_TRUE(holder->send(requests(1, kHold)));
    ASSERT_TRUE(eventually([this] { return !serving->requests().empty(); }));
  }
  void holdLoop(Server& server) {
    if (onHold) onHold(server);
    released.get_future().wait();
  }
  void release() { released.set_value(); }

  // The users whose requests were handled, in their order, less the one that held the loop.
  std::vector<uid_t> usersServed(std::size_t count) {
    EXPECT_TRUE(eventually([&] { return serving->requests().size() > count; }));
    std::vector<uid_t> users;
    for (const Serving::Request& request : serving->requests()) users.push_back(request.peer.uid);
    users.erase(users.begin());
    return users;
  }

  static std::ptrdiff_t firstOf(const std::vector<uid_t>& served, uid_t user) {
    return std::find(served.begin(), served.end(), user) - served.begin();
  }

  TestSupport::TempDir dir;
  ServerOptions options;
  std::unique_ptr<Serving> serving;
  std::unique_ptr<RawClient> holder;
  std::function<void(Server&)> onHold;
  std::promise<void> released;
};

TEST_F(ServerFairnessTest, AUserWithOneConnectionWaitsForOneTurnOfAUserWithFifty) {
  const auto many = client(kOneUser, 50, 40);
  const auto one = client(kOtherUser, 1, 1);
  serve();
  letGreet(*many);
  letGreet(*one);
  hold();
  letSend(*many);
  letSend(*one);
  release();
  const std::vector<uid_t> served = usersServed(50 * 40 + 1);
  EXPECT_LE(firstOf(served, kOtherUser), static_cast<std::ptrdiff_t>(options.framesPerTurn));
  EXPECT_EQ(std::count(served.begin(), served.end(), kOneUser), 50 * 40);
}

TEST_F(ServerFairnessTest, WhoComesNewIsTakenInAndServedWithinAFewTurns) {
  const auto many = client(kOneUser, 50, 40);
  const auto one = newcomer(kOtherUser);
  serve();
  letGreet(*many);
  hold();
  letSend(*many);
  letSend(*one);
  release();
  const std::vector<uid_t> served = usersServed(50 * 40 + 1);
  EXPECT_LE(firstOf(served, kOtherUser), static_cast<std::ptrdiff_t>(3 * options.framesPerTurn));
}

TEST_F(ServerFairnessTest, ATurnEndsWithItsTimeToo) {
  options.turnTime = std::chrono::microseconds(0);
  const auto many = client(kOneUser, 5, 100);
  const auto few = client(kOtherUser, 1, 10);
  serve();
  letGreet(*many);
  letGreet(*few);
  hold();
  letSend(*many);
  letSend(*few);
  release();
  const std::vector<uid_t> served = usersServed(5 * 100 + 10);
  // With no time at all a turn is one frame, so that the two take turns until one has no more.
  const auto last = std::find(served.rbegin(), served.rend(), kOtherUser);
  EXPECT_LE(served.rend() - last, 2 * 10 + 1);
}

TEST_F(ServerFairnessTest, ATurnHasAllOfItsFramesHoweverManyConnectionsTheyComeFrom) {
  options.framesPerTurn = 4;
  const auto many = client(kOneUser, 8, 1);
  const auto one = client(kOtherUser, 1, 1);
  serve();
  letGreet(*many);
  letGreet(*one);
  hold();
  letSend(*many);
  letSend(*one);
  release();
  EXPECT_EQ(firstOf(usersServed(8 + 1), kOtherUser), 4);
}

TEST_F(ServerFairnessTest, WithinAUserItsConnectionsTakeTurns) {
  const auto many = client(kOneUser, 4, 100);
  serve();
  letGreet(*many);
  hold();
  letSend(*many);
  release();
  usersServed(4 * 100);
  std::vector<std::uint64_t> first;
  for (std::size_t i = 1; i <= 4 * options.framesPerTurn; i += options.framesPerTurn)
    first.push_back(serving->requests()[i].id.connection);
  std::sort(first.begin(), first.end());
  EXPECT_EQ(std::unique(first.begin(), first.end()), first.end());
}

TEST_F(ServerFairnessTest, WorkInSlicesIsATurnOfItsUserAndHoldsUpNobodyElse) {
  const auto other = client(kOtherUser, 1, 3);
  std::size_t slices = 0;
  std::size_t slicesBeforeLast = 0;
  std::function<void(Server&)> slice = [&](Server& server) {
    if (serving->requests().size() < 4) slicesBeforeLast = slices + 1;
    if (++slices < 1000) server.later(kOneUser, [&] { slice(server); });
  };
  onHold = [&](Server& server) { server.later(kOneUser, [&] { slice(server); }); };
  serve();
  letGreet(*other);
  hold();
  letSend(*other);
  release();
  usersServed(3);
  EXPECT_TRUE(eventually([&] {
    std::size_t done = 0;
    serving->onServer([&](Server&) { done = slices; });
    return done == 1000;
  }));
  EXPECT_LE(slicesBeforeLast, 4U);
}

TEST_F(ServerFairnessTest, ATaskThatIsPutOffWhileTheLoopWaitsRunsToo) {
  serve();
  std::promise<void> ran;
  serving->onServer([&](Server& server) {
    server.later(kOneUser, [&] { server.later(kOtherUser, [&] { ran.set_value(); }); });
  });
  EXPECT_EQ(ran.get_future().wait_for(TestSupport::kPatience), std::future_status::ready);
}

TEST_F(ServerFairnessTest, WhatATaskAnswersIsSentBeforeTheNextUserHasATurn) {
  const auto other = client(kOtherUser, 1, 1);
  serve();
  std::promise<bool> isThere;
  serving->onServer([&](Server&) {
    serving->onRequestDo = [&](Server& server, const Serving::Request& request) {
      char byte = 0;
      if (request.messageId != kHold)
        return isThere.set_value(::recv(holder->fd(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1);
      server.later(kOneUser,
                   [&server, id = request.id] { server.respond(id, ConfigIF::ReadRsp(), 1); });
      holdLoop(server);
    };
  });
  letGreet(*other);
  hold();
  letSend(*other);
  release();
  EXPECT_TRUE(isThere.get_future().get());
}

TEST_F(ServerFairnessTest, TheNextSliceWaitsForTheRequestsOfTheSameUserAsWell) {
  const auto same = client(kOneUser, 1, 3);
  std::vector<std::size_t> requestsBefore;
  const auto take = [&] { requestsBefore.push_back(serving->requests().size() - 1); };
  onHold = [&](Server& server) {
    server.later(kOneUser, [&] {
      take();
      server.later(kOneUser, take);
    });
  };
  serve();
  letGreet(*same);
  hold();
  letSend(*same);
  release();
  usersServed(3);
  EXPECT_TRUE(eventually([&] {
    std::size_t ran = 0;
    serving->onServer([&](Server&) { ran = requestsBefore.size(); });
    return ran == 2;
  }));
  EXPECT_EQ(requestsBefore, (std::vector<std::size_t>{0, 3}));
}

}  // namespace
}  // namespace PbUtility
