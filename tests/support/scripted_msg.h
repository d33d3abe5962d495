// The MSG_* functions without a message layer: incoming messages made by a test, replies kept for
// it. Linked instead of platform/messaging's.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/messaging/msg.h"

struct MSG_Message {
  std::uint32_t id = 0;
  std::string payload;
  std::string owner = "ConfigSrvc";
  MSG_Sender sender = 7;
  // Of a reply: its message's type, and the message that it answers.
  std::string type;
  const MSG_Message* incoming = nullptr;
};

namespace TestSupport {

struct SentReply {
  std::string owner;
  MSG_Sender sender;
  std::string type;
  std::string bytes;
  const MSG_Message* incoming;

  template <typename Response>
  Response as() const {
    Response response;
    response.ParseFromString(bytes);
    return response;
  }
};

// Replies sent since the last call, oldest first.
std::vector<SentReply> takeReplies();

// Replies built and not yet sent or disposed of; 0 when nothing leaks.
int openReplies();

}  // namespace TestSupport
