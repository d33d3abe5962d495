#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "platform/messaging/wire/frame.h"
#include "platform/schema/config_if.pb.h"
#include "tests/platform/messaging/raw_client.h"

namespace PbUtility {
namespace {

using TestSupport::RawClient;

// The page's blocks of bytes, by their title.
std::map<std::string, std::string> blocksOfPage() {
  std::ifstream page(APPCONFIG_PROTOCOL_PAGE);
  std::map<std::string, std::string> blocks;
  std::string* block = nullptr;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind("```hex ", 0) == 0) {
      block = &blocks[line.substr(7)];
    } else if (line == "```") {
      block = nullptr;
    } else if (block != nullptr) {
      std::istringstream bytes(line);
      for (std::string byte; bytes >> byte;) {
        block->push_back(static_cast<char>(std::stoi(byte, nullptr, 16)));
      }
    }
  }
  return blocks;
}

// The kinds of the page's table: name by number.
std::map<int, std::string> kindsOfPage() {
  std::ifstream page(APPCONFIG_PROTOCOL_PAGE);
  std::map<int, std::string> kinds;
  bool isInTable = false;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind("| kind | name |", 0) == 0) isInTable = true;
    if (line.empty()) isInTable = false;
    std::istringstream row(line);
    std::string bar;
    int number = 0;
    std::string name;
    if (isInTable && row >> bar >> number >> bar >> name) kinds[number] = name;
  }
  return kinds;
}

FrameHeader header(FrameKind kind, std::uint32_t messageId = 0, std::uint32_t sequence = 0,
                   std::uint64_t revision = 0) {
  FrameHeader made;
  made.kind = kind;
  made.messageId = messageId;
  made.sequence = sequence;
  made.revision = revision;
  return made;
}

void addNode(ConfigIF::Inst& inst, const std::string& name) {
  ConfigIF::Node* node = inst.add_path();
  node->set_name(name);
  node->set_instance(0);
}

// Programs of an earlier release speak by these numbers.
TEST(ProtocolPageTest, EachKindOfFrameHasTheNumberOfThePage) {
  const auto number = [](FrameKind kind) { return static_cast<int>(kind); };
  EXPECT_EQ(kindsOfPage(), (std::map<int, std::string>{{number(FrameKind::Hello), "hello"},
                                                       {number(FrameKind::Welcome), "welcome"},
                                                       {number(FrameKind::Request), "request"},
                                                       {number(FrameKind::Response), "response"},
                                                       {number(FrameKind::OneWay), "one-way"},
                                                       {number(FrameKind::Notice), "notice"},
                                                       {number(FrameKind::Question), "question"},
                                                       {number(FrameKind::Answer), "answer"},
                                                       {number(FrameKind::Done), "done"},
                                                       {number(FrameKind::Refusal), "refusal"}}));
}

TEST(ProtocolPageTest, TheExchangeInBytesIsWhatTheCodeSends) {
  const auto blocks = blocksOfPage();
  ASSERT_EQ(blocks.size(), 4U);

  Hello hello;
  hello.name = "ui";
  for (std::size_t i = 0; i < hello.token.size(); ++i) {
    hello.token[i] = static_cast<unsigned char>(0xA0 + i);
  }
  EXPECT_EQ(blocks.at("hello"), RawClient::frame(header(FrameKind::Hello), encode(hello)));
  EXPECT_EQ(blocks.at("welcome"), RawClient::frame(header(FrameKind::Welcome), encode(Welcome{5})));

  ConfigIF::ReadReq request;
  request.set_client_name("ui");
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  addNode(*request.mutable_inst(), "net");
  addNode(*request.mutable_inst(), "mtu");
  EXPECT_EQ(blocks.at("read request"),
            RawClient::frame(header(FrameKind::Request, 0x1A0110, 1, kRevisionNow),
                             request.SerializeAsString()));

  ConfigIF::ReadRsp response;
  response.mutable_result();
  response.add_values("1500");
  response.set_is_default(true);
  EXPECT_EQ(
      blocks.at("read response"),
      RawClient::frame(header(FrameKind::Response, 0x1A0111, 1, 7), response.SerializeAsString()));
}

}  // namespace
}  // namespace PbUtility
