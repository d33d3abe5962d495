// What a server keeps for its clients: whose share it is, and who has to go when it is too much.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <thread>
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

using testing::HasSubstr;
using TestSupport::canBecomeOthers;
using TestSupport::Child;
using TestSupport::eventually;
using TestSupport::kOneUser;
using TestSupport::RawClient;
using TestSupport::Serving;

class ServerSharesTest : public ::testing::Test {
 protected:
  static constexpr std::size_t kMiB = std::size_t{1} << 20;

  // Half of a frame of so many bytes.
  static std::string halfOf(std::size_t bytes) {
    FrameHeader header;
    header.kind = FrameKind::Request;
    header.messageId = 0x1A0140;
    const std::string frame = RawClient::frame(header, std::string(bytes, 'x'));
    return frame.substr(0, frame.size() / 2);
  }

  ServerSharesTest() {
    options.runtimeDir = dir.path();
    options.name = "ConfigSrvc";
    EXPECT_EQ(chmod(dir.path().c_str(), 0711), 0);
  }

  std::string socketFile() const { return dir.file("ConfigSrvc"); }

  static std::size_t linesAbout(const Serving& serving, const std::string& text) {
    std::size_t count = 0;
    for (const std::string& line : serving.log()) count += line.find(text) != std::string::npos;
    return count;
  }

  // Delivery connections that have greeted, each a peer of its own.
  std::vector<std::unique_ptr<RawClient>> listeners(const Serving& serving, std::size_t count) {
    std::vector<std::unique_ptr<RawClient>> clients;
    for (std::size_t i = 0; i < count; ++i) {
      clients.push_back(std::make_unique<RawClient>(socketFile()));
      Hello hello;
      hello.name = "listener";
      hello.token = {static_cast<unsigned char>(i % 256), static_cast<unsigned char>(i / 256)};
      hello.use = ConnectionUse::Delivery;
      FrameHeader header;
      header.kind = FrameKind::Hello;
      EXPECT_TRUE(clients.back()->send(RawClient::frame(header, encode(hello))));
      EXPECT_FALSE(clients.back()->receive().empty());
    }
    EXPECT_TRUE(eventually([&] { return serving.readyPeer() >= count; }));
    return clients;
  }

  TestSupport::TempDir dir;
  ServerOptions options;
};

TEST_F(ServerSharesTest, AUserWhoseHalfFramesAreTooMuchLosesAConnectionAndOthersDoNot) {
  if (!canBecomeOthers()) GTEST_SKIP() << "only root can send clients of another user";
  options.bufferedBytes.perUser = kMiB;
  const Child greedy(kOneUser, [this](Child::Parent& test) {
    test.hear();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (unsigned char i = 1; i <= 4; ++i) {
      clients.push_back(std::make_unique<RawClient>(socketFile()));
      clients.back()->send(RawClient::hello("greedy", i));
      clients.back()->receive();
      clients.back()->send(halfOf(600'000));
    }
    test.say("sent");
    test.hear();
  });
  Serving serving(options);
  RawClient modest(socketFile());
  ASSERT_TRUE(modest.send(RawClient::hello("modest", 100)));
  ASSERT_FALSE(modest.receive().empty());
  ASSERT_TRUE(modest.send(halfOf(kMiB)));
  greedy.say("go");
  ASSERT_EQ(greedy.hear(), "sent");
  ASSERT_TRUE(eventually([&] { return linesAbout(serving, "\"greedy\"") > 0; }));
  EXPECT_THAT(
      serving.log()[0],
      HasSubstr("no more than 1048576 bytes of unread answers, unread notices and unfinished "
                "frames for one user, and user 61001 has its share"));
  EXPECT_EQ(linesAbout(serving, "\"modest\""), 0U);
  EXPECT_LE(linesAbout(serving, "\"greedy\""), 3U);
}

TEST_F(ServerSharesTest, ALongNoticeForManyCountsBeforeItIsOnItsWayToAll) {
  options.bufferedBytes.perProcess = 4 * kMiB;
  Serving serving(options);
  const auto clients = listeners(serving, 10);
  ConfigIF::ConfigChangedNtfy notice;
  notice.mutable_value()->add_values(std::string(kMiB, 'x'));
  std::size_t closed = 0;
  serving.onServer([&](Server& server) {
    for (PeerId peer = 1; peer <= 10; ++peer) server.notify(peer, notice, 1, "key");
    closed = serving.log().size();
  });
  EXPECT_GE(closed, 5U);
  EXPECT_LE(closed, 7U);
}

TEST_F(ServerSharesTest, TheNoticeThatPassesALimitIsCountedAtOnce) {
  options.bufferedBytes.perProcess = kMiB;
  Serving serving(options);
  const auto clients = listeners(serving, 1);
  ConfigIF::ConfigChangedNtfy notice;
  notice.mutable_value()->add_values(std::string(2 * kMiB, 'x'));
  std::size_t closed = 0;
  serving.onServer([&](Server& server) {
    server.notify(1, notice, 1, "key");
    closed = serving.log().size();
  });
  EXPECT_EQ(closed, 1U);
}

TEST_F(ServerSharesTest, ACrowdIsToldOfEverythingInItsOrder) {
  constexpr std::size_t kCrowd = 200;
  Serving serving(options);
  const auto clients = listeners(serving, kCrowd);
  ConfigIF::ConfigChangedNtfy notice;
  serving.onServer([&](Server& server) {
    for (std::uint64_t revision = 1; revision <= 3; ++revision) {
      for (PeerId peer = 1; peer <= kCrowd; ++peer) server.notify(peer, notice, revision, "");
    }
  });
  for (const auto& each : clients) {
    std::string bytes;
    while (bytes.size() < 3 * kFrameHeaderBytes) bytes += each->receive();
    for (std::uint64_t revision = 1; revision <= 3; ++revision) {
      FrameHeader header;
      const char* frame = bytes.data() + (revision - 1) * kFrameHeaderBytes;
      ASSERT_TRUE(decodeHeader(reinterpret_cast<const unsigned char*>(frame), header).ok());
      EXPECT_EQ(header.revision, revision);
    }
  }
  EXPECT_TRUE(serving.log().empty());
}

TEST_F(ServerSharesTest, OfManyThatLeaveAtOnceEachIsGoneAndMakesRoom) {
  constexpr std::size_t kCrowd = 250;
  Serving serving(options);
  for (std::size_t round = 1; round <= 2; ++round) {
    listeners(serving, kCrowd).clear();
    ASSERT_TRUE(eventually([&] { return serving.gone().size() == round * kCrowd; }));
  }
}

// Peers of one process, which share its open questions.
class QuestionSharesTest : public ServerSharesTest {
 protected:
  QuestionSharesTest() { options.openQuestions.perProcess = 3; }

  static std::uint32_t ask(Serving& serving, PeerId peer) {
    return serving.ask(peer, ConfigIF::DynamicValidateReq());
  }
};

TEST_F(QuestionSharesTest, PastTheShareOfAProcessNoneOfItsPeersIsAsked) {
  Serving serving(options);
  const auto clients = listeners(serving, 2);
  EXPECT_NE(ask(serving, 1), 0U);
  EXPECT_NE(ask(serving, 2), 0U);
  EXPECT_NE(ask(serving, 1), 0U);
  EXPECT_EQ(ask(serving, 2), 0U);
  ASSERT_EQ(serving.log().size(), 1U);
  EXPECT_THAT(serving.log()[0],
              HasSubstr("is asked nothing more: no more than 3 open questions for "
                        "one process, and process " +
                        std::to_string(getpid()) + " has its share"));
}

TEST_F(QuestionSharesTest, AQuestionThatIsDoneWithMakesRoom) {
  Serving serving(options);
  const auto clients = listeners(serving, 1);
  const std::uint32_t first = ask(serving, 1);
  ask(serving, 1);
  ask(serving, 1);
  ASSERT_EQ(ask(serving, 1), 0U);
  FrameHeader done;
  done.kind = FrameKind::Done;
  done.sequence = first;
  ASSERT_TRUE(clients[0]->send(RawClient::frame(done, "")));
  ASSERT_TRUE(eventually([&] { return !serving.questions().empty(); }));
  EXPECT_NE(ask(serving, 1), 0U);
  EXPECT_EQ(ask(serving, 1), 0U);
}

TEST_F(QuestionSharesTest, SoDoesTheEndOfWhoWasAsked) {
  Serving serving(options);
  auto clients = listeners(serving, 2);
  for (int i = 0; i < 3; ++i) EXPECT_NE(ask(serving, 1), 0U);
  ASSERT_EQ(ask(serving, 2), 0U);
  clients[0]->close();
  ASSERT_TRUE(eventually([&] { return serving.gone().size() == 1; }));
  EXPECT_NE(ask(serving, 2), 0U);
}

}  // namespace
}  // namespace PbUtility
