// What a hostile user can make the real service keep for it: unread answers, and frames that it does
// not end. The user loses connections of its own; nobody else loses one, and the memory comes back.
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <vector>

#include "platform/messaging/wire/internal/frame_bytes.h"
#include "tests/integration/access_fixture.h"
#include "tests/support/load.h"

namespace TestSupport {
namespace BufferAttack {
namespace {

using PbUtility::ConnectionUse;
using PbUtility::FrameHeader;
using PbUtility::FrameKind;

#if defined(APPCONFIG_SANITIZE_ADDRESS) || defined(APPCONFIG_SANITIZE_THREAD)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
constexpr std::size_t kMiB = std::size_t{1} << 20;
constexpr std::size_t kValueBytes = kMiB - 1024;
constexpr std::size_t kConnections = 200;
// So many of the attacker's have to go at least: a dozen that hold a megabyte each are past the user's
// share.
constexpr std::size_t kThrownOut = kConnections - 20;
constexpr std::size_t kMayGrow = 14 * kMiB;

std::string frameOf(const google::protobuf::MessageLite& message, FrameKind kind) {
  FrameHeader header;
  header.kind = kind;
  std::string bytes;
  PbUtility::encodeFrame(header, message, bytes);
  return bytes;
}

ConfigIF::ReadReq readOfLong() {
  ConfigIF::ReadReq request;
  request.mutable_inst()->add_path()->set_name("load.g0");
  request.mutable_inst()->add_path()->set_name("v0");
  return request;
}

ConfigIF::WriteReq writeOfLong() {
  ConfigIF::WriteReq request;
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  *request.mutable_value()->mutable_inst() = readOfLong().inst();
  request.mutable_value()->add_values(std::string(kValueBytes, 'x'));
  return request;
}

std::string hello(std::size_t number) {
  PbUtility::Hello hello;
  hello.name = "attacker";
  std::memcpy(hello.token.data(), &number, sizeof number);
  FrameHeader header;
  header.kind = FrameKind::Hello;
  std::string bytes;
  PbUtility::appendFrame(header, encode(hello), bytes);
  return bytes;
}

// Sends what the socket takes.
void sendSome(const RawClient& client, const std::string& bytes) {
  static_cast<void>(!::send(client.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
}

std::size_t thrownOut(const std::vector<std::unique_ptr<RawClient>>& clients) {
  std::size_t count = 0;
  for (const auto& each : clients) {
    pollfd one{each->fd(), 0, 0};
    ::poll(&one, 1, 0);
    count += (one.revents & POLLHUP) != 0;
  }
  return count;
}

// The most that the process has had resident so far.
std::size_t peakBytes(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  std::string word;
  std::size_t kibibytes = 0;
  while (status >> word && word != "VmHWM:") continue;
  status >> kibibytes;
  return kibibytes * 1024;
}

class BufferAttackTest : public AccessTest {
 protected:
  // What each connection sends behind its greeting, a part at a time as the service takes it.
  void expectWithstood(const std::string& bytes) {
    LoadConnection ofRoot(service_.socket(), "root", 1, ConnectionUse::Requests);
    ofRoot.add(writeOfLong());
    expectAnswer(ofRoot);
    const Child other(kOneUser, [this](Child::Parent& test) {
      TestClient client("other", service_.runtimeDir());
      for (;;) {
        test.hear();
        test.say(told(client.read("test.marker")));
      }
    });
    other.say("go");
    ASSERT_EQ(other.hear(), "ok");
    const std::size_t before = residentBytes(service_.pid());
    const std::size_t peakBefore = peakBytes(service_.pid());
    {
      const Child attacker(kNobody, [&](Child::Parent& test) { attack(test, bytes); });
      ASSERT_EQ(attacker.hear(), "thrown out") << service_.log();
      other.say("go");
      EXPECT_EQ(other.hear(), "ok");
      ofRoot.add(readOfLong());
      expectAnswer(ofRoot);
      std::printf("%zu KiB before, %zu KiB in the attack, %zu KiB at most\n", before / 1024,
                  residentBytes(service_.pid()) / 1024, peakBytes(service_.pid()) / 1024);
      if (!kSanitized) {
        EXPECT_LT(residentBytes(service_.pid()), before + kMayGrow);
        EXPECT_LT(peakBytes(service_.pid()), std::max(peakBefore, before + kMayGrow));
      }
    }
    EXPECT_GT(service_.linesWith("for one user, and user 65534 has its share"), 0);
    EXPECT_EQ(service_.linesWith("closed the connection of client \"root\""), 0);
    EXPECT_EQ(service_.linesWith("closed the connection of client \"other\""), 0);
    if (!kSanitized) {
      EXPECT_TRUE(eventually([&] { return residentBytes(service_.pid()) < before + before / 5; }));
    }
  }

  static void expectAnswer(LoadConnection& connection) {
    FrameHeader header;
    std::string payload;
    ASSERT_TRUE(connection.send());
    ASSERT_TRUE(connection.receive(header, payload));
    EXPECT_EQ(header.kind, FrameKind::Response);
  }

  void attack(Child::Parent& test, const std::string& bytes) const {
    std::vector<std::unique_ptr<RawClient>> clients;
    std::vector<std::size_t> sent(kConnections, 0);
    for (std::size_t i = 0; i < kConnections; ++i) {
      clients.push_back(std::make_unique<RawClient>(service_.socket()));
      sendSome(*clients.back(), hello(i + 1));
    }
    const bool out = eventually([&] {
      for (std::size_t i = 0; i < kConnections; ++i) {
        const ssize_t now = ::send(clients[i]->fd(), bytes.data() + sent[i], bytes.size() - sent[i],
                                   MSG_NOSIGNAL | MSG_DONTWAIT);
        if (now > 0) sent[i] += static_cast<std::size_t>(now);
      }
      return thrownOut(clients) >= kThrownOut;
    });
    test.say(out ? "thrown out" : std::to_string(thrownOut(clients)) + " of them");
    test.hear();
  }

  BufferAttackTest() { service_.redefine(kGuarded + loadDefinitions(1)); }
};

TEST_F(BufferAttackTest, AnswersThatAUserDoesNotReadCostItConnectionsAndOthersNothing) {
  std::string reads;
  for (int i = 0; i < 8; ++i) reads += frameOf(readOfLong(), FrameKind::Request);
  expectWithstood(reads);
}

TEST_F(BufferAttackTest, SoDoFramesThatItDoesNotEnd) {
  const std::string write = frameOf(writeOfLong(), FrameKind::Request);
  expectWithstood(write.substr(0, write.size() - 1));
}

}  // namespace
}  // namespace BufferAttack
}  // namespace TestSupport
