// The MSG_* functions over messages that are plain structures. Replies are kept in one list under
// a mutex, for handlers answer from any thread; those that were built and not sent are counted,
// because that is a leak.
#include "tests/support/scripted_msg.h"

#include <google/protobuf/message_lite.h>

#include <algorithm>
#include <mutex>
#include <utility>

namespace {

std::mutex repliesMutex;
std::vector<TestSupport::SentReply> replies;
int repliesBuilt = 0;

}  // namespace

const void* MSG_GetPayload(const MSG_Message* message) { return message->payload.data(); }

int MSG_GetPayloadBytes(const MSG_Message* message) {
  return static_cast<int>(message->payload.size());
}

std::uint32_t MSG_GetMessageId(const MSG_Message* message) { return message->id; }

void MSG_GetOwnerName(const MSG_Message* message, char* buffer, int size) {
  const std::size_t room = static_cast<std::size_t>(size) - 1;
  const std::size_t length = message->owner.copy(buffer, room);
  buffer[length] = '\0';
}

MSG_Sender MSG_GetSender(const MSG_Message* message) { return message->sender; }

MSG_Message* msgUtil_buildMsgWithHeader(const google::protobuf::MessageLite& response,
                                        const MSG_Message* incoming, const void* /*context*/) {
  const std::lock_guard<std::mutex> guard(repliesMutex);
  ++repliesBuilt;
  auto* const reply = new MSG_Message;
  reply->payload = response.SerializeAsString();
  reply->type = response.GetTypeName();
  reply->incoming = incoming;
  return reply;
}

int MSG_SendMsg(const char* ownerName, MSG_Sender sender, MSG_Message* reply) {
  if (!reply) return -1;
  const std::lock_guard<std::mutex> guard(repliesMutex);
  --repliesBuilt;
  replies.push_back({ownerName, sender, reply->type, reply->payload, reply->incoming});
  delete reply;
  return 0;
}

namespace TestSupport {

std::vector<SentReply> takeReplies() {
  const std::lock_guard<std::mutex> guard(repliesMutex);
  return std::exchange(replies, {});
}

int openReplies() {
  const std::lock_guard<std::mutex> guard(repliesMutex);
  return repliesBuilt;
}

}  // namespace TestSupport
