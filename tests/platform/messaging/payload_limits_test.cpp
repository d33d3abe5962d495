// How long a message may be: said before it is sent, and refused as soon as its header has come.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "platform/messaging/endpoint.h"
#include "platform/messaging/wire/frame.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_bounds.h"
#include "tests/platform/messaging/raw_client.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"

namespace PbUtility {
namespace {

using PlatformSchema::MessageLimits;
using TestSupport::eventually;
using TestSupport::RawClient;
using TestSupport::Serving;

constexpr std::uint32_t kReadReq = 0x1A0110;
constexpr std::uint32_t kWriteReq = 0x1A0140;
constexpr std::uint32_t kValidateRsp = 0x1A0151;
constexpr std::size_t kMost = MessageLimits::kOtherPayload;
const std::string kTooLongRead = "ReadReq has 65537 bytes, and 65536 bytes at most are allowed: ";

class PayloadLimitsTest : public testing::Test {
 protected:
  std::string socketFile() const { return dir_.file("ConfigSrvc"); }

  EndpointOptions endpointOptions() const {
    EndpointOptions options;
    options.runtimeDir = dir_.path();
    return options;
  }

  static std::string frame(FrameKind kind, std::uint32_t messageId, std::uint32_t sequence,
                           const std::string& payload) {
    FrameHeader header;
    header.kind = kind;
    header.messageId = messageId;
    header.sequence = sequence;
    return RawClient::frame(header, payload);
  }
  static std::string readOf(std::uint32_t sequence) {
    ConfigIF::ReadReq request;
    request.set_client_name("answered");
    return frame(FrameKind::Request, kReadReq, sequence, request.SerializeAsString());
  }

  struct Received {
    FrameHeader header;
    std::string payload;
  };
  static Received receive(RawClient& client) {
    Received received;
    unsigned char bytes[kFrameHeaderBytes];
    if (recv(client.fd(), bytes, sizeof bytes, MSG_WAITALL) != sizeof bytes) return received;
    EXPECT_TRUE(decodeHeader(bytes, received.header).ok());
    if (received.header.payloadBytes == 0) return received;
    received.payload.resize(received.header.payloadBytes);
    EXPECT_EQ(recv(client.fd(), received.payload.data(), received.payload.size(), MSG_WAITALL),
              static_cast<ssize_t>(received.payload.size()));
    return received;
  }
  static void expectAnswered(RawClient& client, std::uint32_t sequence) {
    const Received answer = receive(client);
    EXPECT_EQ(answer.header.kind, FrameKind::Response);
    EXPECT_EQ(answer.header.sequence, sequence);
  }
  static std::size_t linesWith(const Serving& serving, const std::string& text) {
    std::size_t count = 0;
    for (const std::string& line : serving.log()) count += line.find(text) != std::string::npos;
    return count;
  }

  TestSupport::TempDir dir_;
};

TEST_F(PayloadLimitsTest, ARequestThatIsTooLongIsRefusedAtItsHeaderAndTheNextOneAnswered) {
  Serving serving(dir_.path());
  RawClient client(socketFile());
  const std::string payload(kMost + 1, 'x');
  ASSERT_TRUE(client.send(RawClient::hello("long")));
  ASSERT_EQ(receive(client).header.kind, FrameKind::Welcome);
  const std::string whole = frame(FrameKind::Request, kReadReq, 5, payload);
  ASSERT_TRUE(client.send(whole.substr(0, kFrameHeaderBytes)));
  const Received refused = receive(client);
  EXPECT_EQ(refused.header.kind, FrameKind::Refusal);
  EXPECT_EQ(refused.header.sequence, 5U);
  Refusal refusal;
  ASSERT_TRUE(decode(refused.payload, refusal).ok());
  EXPECT_EQ(refusal.error, kRefusedByLimit);
  EXPECT_EQ(refusal.text.rfind(kTooLongRead, 0), 0U) << refusal.text;
  ASSERT_TRUE(client.send(whole.substr(kFrameHeaderBytes) + readOf(6)));
  expectAnswered(client, 6);
  EXPECT_EQ(serving.requests().size(), 1U);
  EXPECT_EQ(linesWith(serving, "dropped a frame of client \"long\""), 1U);
}

TEST_F(PayloadLimitsTest, ARequestOfTheLongestLengthIsTaken) {
  Serving serving(dir_.path());
  serving.onRequestDo = [](Server& server, const Serving::Request& request) {
    server.respond(request.id, ConfigIF::WriteRsp(), 1);
  };
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(
      RawClient::hello("long") + frame(FrameKind::Request, kReadReq, 1, std::string(kMost, 'x')) +
      frame(FrameKind::Request, kWriteReq, 2, std::string(MessageLimits::kValuePayload, 'x'))));
  ASSERT_EQ(receive(client).header.kind, FrameKind::Welcome);
  expectAnswered(client, 1);
  expectAnswered(client, 2);
  EXPECT_EQ(serving.requests()[0].payload.size(), kMost);
  EXPECT_EQ(serving.requests()[1].payload.size(), MessageLimits::kValuePayload);
}

TEST_F(PayloadLimitsTest, AOneWayRequestThatIsTooLongIsDroppedWithALine) {
  Serving serving(dir_.path());
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("long") +
                          frame(FrameKind::OneWay, kReadReq, 1, std::string(kMost + 1, 'x')) +
                          readOf(2)));
  ASSERT_EQ(receive(client).header.kind, FrameKind::Welcome);
  expectAnswered(client, 2);
  EXPECT_EQ(serving.requests().size(), 1U);
  EXPECT_EQ(linesWith(serving, kTooLongRead), 1U);
}

// The server may keep less than this frame is long, and closes whoever makes it keep more.
TEST_F(PayloadLimitsTest, OfAFrameThatIsTooLongNothingIsKept) {
  ServerOptions options;
  options.runtimeDir = dir_.path();
  options.name = "ConfigSrvc";
  constexpr std::size_t kKept = std::size_t{256} * 1024;
  options.bufferedBytes = {kKept, kKept, kKept, kKept};
  Serving serving(options);
  RawClient client(socketFile());
  const std::string payload(std::size_t{4} << 20, 'x');
  ASSERT_TRUE(client.send(RawClient::hello("long") +
                          frame(FrameKind::Request, kReadReq, 1, payload) + readOf(2)));
  ASSERT_EQ(receive(client).header.kind, FrameKind::Welcome);
  EXPECT_EQ(receive(client).header.kind, FrameKind::Refusal);
  expectAnswered(client, 2);
}

TEST_F(PayloadLimitsTest, AnAnswerThatIsTooLongIsNoneAndTheQuestionEnds) {
  Serving serving(dir_.path());
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("wordy", 1, ConnectionUse::Delivery)));
  ASSERT_TRUE(eventually([&] { return serving.readyPeer() != 0; }));
  const std::uint32_t number = serving.ask(serving.readyPeer(), ConfigIF::DynamicValidateReq());
  const std::string payload(MessageLimits::kBatchPayload + 1, 'x');
  ASSERT_TRUE(client.send(frame(FrameKind::Answer, kValidateRsp, number, payload) +
                          frame(FrameKind::Done, 0, number, "")));
  ASSERT_TRUE(
      eventually([&] { return !serving.questions().empty() && serving.questions()[0].done; }));
  EXPECT_EQ(serving.questions()[0].answers, std::vector<std::string>{""});
  EXPECT_EQ(linesWith(serving, "DynamicValidateRsp has 1048577 bytes"), 1U);
}

TEST_F(PayloadLimitsTest, WhatNoClientSendsEndsTheConnectionAtItsHeader) {
  Serving serving(dir_.path());
  RawClient client(socketFile());
  const std::string notice = frame(FrameKind::Notice, 0x1A0143, 1, std::string(kMost + 1, 'x'));
  ASSERT_TRUE(client.send(RawClient::hello("odd") + notice.substr(0, kFrameHeaderBytes)));
  EXPECT_TRUE(client.isClosedByService());
}

TEST_F(PayloadLimitsTest, TheEndpointSaysHowLongARequestMayBeAndSendsNothing) {
  Serving serving(dir_.path());
  Endpoint endpoint("ui", endpointOptions());
  ConfigIF::ReadReq request;
  request.set_client_name(std::string(kMost + 1 - 4, 'x'));
  ASSERT_EQ(request.ByteSizeLong(), kMost + 1);
  ConfigIF::ReadRsp response;
  EXPECT_EQ(endpoint.sendWaitResponse(request, &response, "ConfigSrvc"), kCallBadRequest);
  EXPECT_EQ(endpoint.lastRefusal(), kTooLongRead + "send less at once");
  EXPECT_EQ(endpoint.send(request, "ConfigSrvc", nullptr), kCallBadRequest);
  request.mutable_client_name()->pop_back();
  EXPECT_EQ(endpoint.sendWaitResponse(request, &response, "ConfigSrvc"), kCallOk);
  EXPECT_EQ(serving.requests().size(), 1U);
}

TEST_F(PayloadLimitsTest, AnAnswerThatWouldUnfoldToTooMuchIsBrokenAndSaysSo) {
  Serving serving(dir_.path());
  serving.onRequestDo = [](Server& server, const Serving::Request& request) {
    ConfigIF::ReadRsp response;
    for (std::size_t i = 0; i <= MessageLimits::kElements; ++i) response.add_values("");
    server.respond(request.id, response, 1);
  };
  Endpoint endpoint("ui", endpointOptions());
  ConfigIF::ReadRsp response;
  EXPECT_EQ(endpoint.sendWaitResponse(ConfigIF::ReadReq(), &response, "ConfigSrvc"),
            kCallBrokenAnswer);
  EXPECT_EQ(endpoint.lastRefusal(),
            "a value of ReadRsp has more than 4096 elements, which is the limit: use several "
            "variables");
}

}  // namespace
}  // namespace PbUtility
