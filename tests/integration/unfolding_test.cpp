// Frames that are small for what they would unfold to, sent by somebody who has no rights, and what
// they cost: the sender is told the limit, the service's memory stays, and everybody else is served.
#include <fstream>

#include "platform/schema/message_bounds.h"
#include "tests/integration/access_fixture.h"

namespace TestSupport {
namespace {

using PbUtility::FrameHeader;
using PbUtility::FrameKind;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::size_t kMebibyte = std::size_t{1} << 20;
constexpr std::uint32_t kReadReq = 0x1A0110;
constexpr std::uint32_t kBatchReadReq = 0x1A0120;
constexpr std::uint32_t kWriteReq = 0x1A0140;

std::string varint(std::size_t value) {
  std::string bytes;
  for (; value >= 0x80; value >>= 7) bytes += static_cast<char>(value | 0x80);
  return bytes + static_cast<char>(value);
}

// Field 3 with a content that is a row of empty parts, two bytes each, under a number. The payload has
// exactly so many bytes.
std::string emptyParts(char number, std::size_t bytes) {
  std::size_t content = bytes - 2;
  while (1 + varint(content).size() + content > bytes) --content;
  std::string parts(content, '\0');
  for (std::size_t i = 0; i + 1 < content; i += 2) parts[i] = static_cast<char>(number << 3 | 2);
  // An odd one is left: an empty part whose length of none takes two bytes.
  if (content % 2 != 0) parts.replace(content - 3, 3, std::string({parts[0], '\x80', '\0'}));
  return "\x1A" + varint(content) + parts;
}

// The most that the process has had resident.
std::size_t peakBytes(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    std::size_t kilobytes = 0;
    if (word == "VmHWM:" && status >> kilobytes) return kilobytes * 1024;
  }
  return 0;
}

class Attacker {
 public:
  explicit Attacker(const std::string& socket) : client_(socket) {
    client_.send(RawClient::hello("attacker"));
    receive();
  }

  void send(const std::string& bytes) { client_.send(bytes); }
  static std::string frame(std::uint32_t messageId, const std::string& payload) {
    FrameHeader header;
    header.kind = FrameKind::Request;
    header.messageId = messageId;
    return RawClient::frame(header, payload);
  }
  // What comes of a request: the text of the refusal, or the error and the text of the answer.
  template <typename Response>
  std::string told() {
    const std::string payload = receive();
    if (header_.kind == FrameKind::Refusal) {
      PbUtility::Refusal refusal;
      static_cast<void>(decode(payload, refusal));
      return "refused " + std::to_string(refusal.error) + ": " + refusal.text;
    }
    Response response;
    if (header_.kind != FrameKind::Response || !response.ParseFromString(payload)) return "nothing";
    const ConfigIF::ReturnMessage& result = response.result();
    const std::string text = result.messages_size() == 0 ? "" : result.messages(0);
    return "answered " + std::to_string(result.error()) + ": " + text;
  }

 private:
  std::string receive() {
    unsigned char bytes[PbUtility::kFrameHeaderBytes];
    header_ = {};
    if (recv(client_.fd(), bytes, sizeof bytes, MSG_WAITALL) != sizeof bytes) return {};
    if (!decodeHeader(bytes, header_).ok() || header_.payloadBytes == 0) return {};
    std::string payload(header_.payloadBytes, '\0');
    recv(client_.fd(), payload.data(), payload.size(), MSG_WAITALL);
    return payload;
  }

  RawClient client_;
  FrameHeader header_;
};

class UnfoldingTest : public AccessTest {
 protected:
  void SetUp() override {
    AccessTest::SetUp();
    if (!IsSkipped()) bystander_.emplace("bystander", service_.runtimeDir());
  }
  // Others are served while the attacker is in the middle of something.
  void expectServed(int times) {
    for (int i = 0; i < times; ++i) ASSERT_TRUE(bystander_->read("net.mtu").ok());
  }
  // Under a sanitizer or an emulator, memory is theirs.
  void expectPeakWithin(std::size_t before) const {
#if !defined(APPCONFIG_SANITIZE_ADDRESS) && !defined(APPCONFIG_SANITIZE_THREAD) && \
    !defined(APPCONFIG_EMULATED)
    EXPECT_LT(peakBytes(service_.pid()), before + 8 * kMebibyte);
#endif
    EXPECT_GT(before, 0U);
  }

  std::optional<TestClient> bystander_;
};

TEST_F(UnfoldingTest, FramesOfSixteenMegabytesAreRefusedUnreadAndOthersServedMeanwhile) {
  constexpr int kFrames = 8;
  expectServed(1);
  const std::size_t before = peakBytes(service_.pid());
  const Child attacker(kNobody, [&](Child::Parent& test) {
    Attacker attack(service_.socket());
    const std::string batch = Attacker::frame(kBatchReadReq, emptyParts(1, 16 * kMebibyte));
    for (int i = 0; i < kFrames; ++i) {
      attack.send(batch.substr(0, batch.size() / 2));
      test.say("in the middle");
      test.hear();
      attack.send(batch.substr(batch.size() / 2));
      test.say(attack.told<ConfigIF::BatchReadRsp>());
    }
    attack.send(Attacker::frame(kReadReq, emptyParts(1, 16 * kMebibyte)));
    test.say(attack.told<ConfigIF::ReadRsp>());
    test.hear();
  });
  for (int i = 0; i < kFrames; ++i) {
    ASSERT_EQ(attacker.hear(), "in the middle");
    expectServed(20);
    attacker.say("go on");
    EXPECT_THAT(
        attacker.hear(),
        StartsWith("refused 11: BatchReadReq has 16777216 bytes, and 1048576 bytes at most"));
  }
  EXPECT_THAT(attacker.hear(),
              StartsWith("refused 11: ReadReq has 16777216 bytes, and 65536 bytes at most"));
  expectPeakWithin(before);
  expectServed(1);
}

// With somebody watching, for whom requests are looked into once more.
TEST_F(UnfoldingTest, FramesOfAnAllowedLengthThatUnfoldToTooMuchAreAnsweredWithTheLimit) {
  ConfigIF::MonitorRsp watching;
  ASSERT_TRUE(bystander_->request(ConfigIF::MonitorReq(), &watching).ok());
  expectServed(1);
  const std::size_t before = peakBytes(service_.pid());
  using PlatformSchema::MessageLimits;
  const Child attacker(kNobody, [&](Child::Parent& test) {
    Attacker attack(service_.socket());
    const std::string nodes = emptyParts(1, MessageLimits::kBatchPayload);
    for (int i = 0; i < 8; ++i) {
      attack.send(Attacker::frame(kBatchReadReq, nodes));
      test.say(attack.told<ConfigIF::BatchReadRsp>());
    }
    attack.send(Attacker::frame(kReadReq, emptyParts(1, MessageLimits::kOtherPayload)));
    test.say(attack.told<ConfigIF::ReadRsp>());
    attack.send(Attacker::frame(kWriteReq, emptyParts(2, MessageLimits::kValuePayload)));
    test.say(attack.told<ConfigIF::WriteRsp>());
    test.hear();
  });
  for (int i = 0; i < 8; ++i) {
    EXPECT_THAT(attacker.hear(),
                StartsWith("answered 11: a path of BatchReadReq has more than 256 nodes"));
    expectServed(5);
  }
  EXPECT_THAT(attacker.hear(),
              StartsWith("answered 11: a path of ReadReq has more than 256 nodes"));
  EXPECT_THAT(attacker.hear(),
              StartsWith("answered 11: a value of WriteReq has more than 4096 elements"));
  expectPeakWithin(before);
  EXPECT_TRUE(service_.waitForLog("a path of ReadReq has more than 256 nodes"));
}

}  // namespace
}  // namespace TestSupport
