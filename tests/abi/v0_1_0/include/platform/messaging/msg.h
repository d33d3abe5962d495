// MSG_*: incoming messages and replies, as the library's receivers see them.
//
// An endpoint delivers each incoming message by calling every receiver whose MSG_Callback record
// takes the message's id, one after another, on the endpoint's delivery thread. A message lives
// until the receiver returns. A receiver may call anything, other requests included.
//
// A device with a message layer of its own provides these functions itself, all of them: those of a
// program that links the shared library take the place of the library's.
#pragma once

#include <cstdint>

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

// A message that came in, or a reply on its way out. Opaque.
struct MSG_Message;

// Who sent a message: names one connection of this process for as long as it lasts; never reused.
using MSG_Sender = std::uint64_t;

// One receiver. Five words of the machine's size; a table ends with a record of zeros.
struct MSG_Callback {
  void (*receiver)(void* userData, const MSG_Message* message);
  void* userData;
  std::uintptr_t firstId;
  std::uintptr_t lastId;
  std::uintptr_t reserved;
};

// Visible outside of the shared library that this folder becomes a part of, and replaceable there.
#pragma GCC visibility push(default)

// Payload of an incoming message and its length in bytes; never null.
const void* MSG_GetPayload(const MSG_Message* message);
int MSG_GetPayloadBytes(const MSG_Message* message);

// Id of a message, as in the table of receivers.
std::uint32_t MSG_GetMessageId(const MSG_Message* message);

// Name of the endpoint that the message came from, cut to size - 1 bytes and ended by a zero byte.
void MSG_GetOwnerName(const MSG_Message* message, char* buffer, int size);

// Connection that the message came over: where MSG_SendMsg sends a reply.
MSG_Sender MSG_GetSender(const MSG_Message* message);

// A reply to an incoming message, owned by the caller until MSG_SendMsg takes it. The context is
// reserved and null. Null when the response is no message of the protocol or is too large to send.
MSG_Message* msgUtil_buildMsgWithHeader(const google::protobuf::MessageLite& response,
                                        const MSG_Message* incoming, const void* context);

// Sends a reply and disposes of it, sent or not. 0 when it was handed over; non-zero when the
// connection is gone (the service then asks again or fails the change) or the reply is null.
int MSG_SendMsg(const char* ownerName, MSG_Sender sender, MSG_Message* reply);

#pragma GCC visibility pop
