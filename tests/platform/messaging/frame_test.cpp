#include "platform/messaging/wire/frame.h"

#include <gtest/gtest.h>

#include <random>

namespace PbUtility {
namespace {

std::string bytesOf(const FrameHeader& header) {
  std::string bytes(kFrameHeaderBytes, '\0');
  encodeHeader(header, reinterpret_cast<unsigned char*>(bytes.data()));
  return bytes;
}

std::string problemOf(const std::string& bytes) {
  FrameHeader header;
  return decodeHeader(reinterpret_cast<const unsigned char*>(bytes.data()), header).text;
}

TEST(FrameTest, AHeaderStandsLittleEndianAtItsDocumentedOffsets) {
  FrameHeader header;
  header.kind = FrameKind::Request;
  header.flags = kFlagInsideReceiver;
  header.messageId = 0x1A0110;
  header.sequence = 0x01020304;
  header.payloadBytes = 0x0A0B;
  header.revision = 0x1122334455667788;
  const std::string expected(
      "\x01\x03\x01\x00\x10\x01\x1A\x00\x04\x03\x02\x01\x0B\x0A\x00\x00"
      "\x88\x77\x66\x55\x44\x33\x22\x11",
      kFrameHeaderBytes);
  EXPECT_EQ(bytesOf(header), expected);
}

TEST(FrameTest, AHeaderComesBackAsItWasWritten) {
  FrameHeader header;
  header.kind = FrameKind::Done;
  header.messageId = 0xFFFFFFFF;
  header.sequence = 42;
  header.payloadBytes = kMaxPayloadBytes;
  header.revision = kRevisionNow;
  const std::string bytes = bytesOf(header);
  FrameHeader decoded;
  ASSERT_TRUE(decodeHeader(reinterpret_cast<const unsigned char*>(bytes.data()), decoded).ok());
  EXPECT_EQ(bytesOf(decoded), bytes);
}

TEST(FrameTest, AHeaderOfAnotherVersionIsRefusedWithBothVersions) {
  std::string bytes = bytesOf({});
  bytes[0] = 9;
  EXPECT_EQ(problemOf(bytes), "frame version 9, this side speaks 1");
}

TEST(FrameTest, AnUnknownKindOrFlagIsRefused) {
  for (const int kind : {0, 11, 255}) {
    std::string bytes = bytesOf({});
    bytes[1] = static_cast<char>(kind);
    EXPECT_EQ(problemOf(bytes), "unknown frame kind " + std::to_string(kind));
  }
  std::string bytes = bytesOf({});
  bytes[2] = 2;
  EXPECT_EQ(problemOf(bytes), "unknown frame flags 2");
}

TEST(FrameTest, AClaimOfFourGibibytesIsRefused) {
  FrameHeader header;
  header.payloadBytes = 0xFFFFFFFF;
  EXPECT_NE(problemOf(bytesOf(header)).find("4294967295"), std::string::npos);
  header.payloadBytes = kMaxPayloadBytes + 1;
  EXPECT_NE(problemOf(bytesOf(header)), "");
}

TEST(FrameTest, AHelloComesBackAsItWasWritten) {
  Hello hello;
  hello.use = ConnectionUse::Delivery;
  hello.token.fill(0xA5);
  hello.name = "thermostat-ui";
  Hello decoded;
  ASSERT_TRUE(decode(encode(hello), decoded).ok());
  EXPECT_EQ(decoded.use, hello.use);
  EXPECT_EQ(decoded.token, hello.token);
  EXPECT_EQ(decoded.name, hello.name);
}

TEST(FrameTest, AHelloCutAtAnyByteOrWithBytesTooManyIsRefused) {
  Hello hello;
  hello.name = "ui";
  const std::string whole = encode(hello);
  Hello decoded;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_FALSE(decode(whole.substr(0, length), decoded).ok()) << length;
  }
  EXPECT_FALSE(decode(whole + "x", decoded).ok());
}

TEST(FrameTest, ANameThatIsEmptyTooLongOrWouldForgeALogLineIsRefused) {
  Hello hello;
  Hello decoded;
  EXPECT_FALSE(decode(encode(hello), decoded).ok());
  hello.name = std::string(kMaxEndpointNameBytes + 1, 'a');
  EXPECT_FALSE(decode(encode(hello), decoded).ok());
  hello.name = "ui\nERROR";
  EXPECT_FALSE(decode(encode(hello), decoded).ok());
  hello.name = std::string(kMaxEndpointNameBytes, 'a');
  EXPECT_TRUE(decode(encode(hello), decoded).ok());
}

TEST(FrameTest, WelcomeAndRefusalComeBackAsTheyWereWritten) {
  Welcome welcome;
  ASSERT_TRUE(decode(encode(Welcome{0x0102030405060708}), welcome).ok());
  EXPECT_EQ(welcome.epoch, 0x0102030405060708U);
  EXPECT_FALSE(decode("short", welcome).ok());
  Refusal refusal;
  ASSERT_TRUE(decode(encode(Refusal{13, "too old"}), refusal).ok());
  EXPECT_EQ(refusal.error, 13U);
  EXPECT_EQ(refusal.text, "too old");
  EXPECT_FALSE(decode("abc", refusal).ok());
}

TEST(FrameTest, RandomBytesAreDecodedOrRefusedAndNeverReadPastTheirEnd) {
  std::mt19937 random(1);
  for (int i = 0; i < 20000; ++i) {
    // Exactly as long as it says, on the heap, so that a sanitizer sees a byte too many.
    std::vector<char> bytes(random() % 64);
    for (char& byte : bytes) byte = static_cast<char>(random() % 4);
    const std::string_view text(bytes.data(), bytes.size());
    Hello hello;
    if (decode(text, hello).ok()) {
      EXPECT_EQ(encode(hello), text);
    }
    Refusal refusal;
    if (decode(text, refusal).ok()) {
      EXPECT_EQ(encode(refusal), text);
    }
    if (bytes.size() >= kFrameHeaderBytes) {
      FrameHeader header;
      const auto* raw = reinterpret_cast<const unsigned char*>(bytes.data());
      if (decodeHeader(raw, header).ok()) {
        EXPECT_LE(header.payloadBytes, kMaxPayloadBytes);
      }
    }
  }
}

}  // namespace
}  // namespace PbUtility
