// Receivers are C functions: they see a message as an opaque MSG_Message, and answer by building another
// and handing it to MSG_SendMsg, which knows neither socket nor remote. It finds the dispatch that its
// thread is in (`current`) and adds the reply to that one's frames.
#include "platform/messaging/client/internal/dispatch.h"

#include <google/protobuf/message_lite.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "platform/messaging/wire/internal/frame_bytes.h"
#include "platform/schema/message_bounds.h"
#include "platform/schema/message_ids.h"

// One type for both directions: receivers see incoming messages and hand back replies.
struct MSG_Message {
  PbUtility::FrameHeader header;
  std::string_view payload;
  const std::string* ownerName = nullptr;
  MSG_Sender sender = 0;
  // Payload of a reply; `payload` shows it.
  std::string replyBytes;
};

namespace PbUtility {
namespace {

// The dispatch that this thread is in; null outside of receivers.
struct Current {
  const MSG_Message* message;
  std::string replies;
};
thread_local Current* current = nullptr;

bool takes(const MSG_Callback& record, std::uint32_t messageId) {
  return record.receiver != nullptr && messageId >= record.firstId && messageId <= record.lastId;
}

}  // namespace

bool isInsideReceiver() { return current != nullptr; }

void forgetDispatch() { current = nullptr; }

std::string dispatch(const IncomingMessage& incoming, const std::vector<MSG_Callback>& receivers) {
  MSG_Message message;
  message.header = incoming.header;
  message.payload = incoming.payload;
  message.ownerName = incoming.ownerName;
  message.sender = incoming.sender;
  Current own{&message, {}};
  current = &own;
  for (const MSG_Callback& record : receivers) {
    if (takes(record, incoming.header.messageId)) record.receiver(record.userData, &message);
  }
  current = nullptr;
  if (incoming.header.kind != FrameKind::Question) return {};
  FrameHeader done;
  done.kind = FrameKind::Done;
  done.sequence = incoming.header.sequence;
  appendFrame(done, {}, own.replies);
  return std::move(own.replies);
}

}  // namespace PbUtility

const void* MSG_GetPayload(const MSG_Message* message) {
  return message->payload.empty() ? "" : message->payload.data();
}

int MSG_GetPayloadBytes(const MSG_Message* message) {
  return static_cast<int>(message->payload.size());
}

std::uint32_t MSG_GetMessageId(const MSG_Message* message) { return message->header.messageId; }

void MSG_GetOwnerName(const MSG_Message* message, char* buffer, int size) {
  if (size <= 0) return;
  const std::size_t length =
      std::min(message->ownerName->size(), static_cast<std::size_t>(size) - 1);
  std::memcpy(buffer, message->ownerName->data(), length);
  buffer[length] = '\0';
}

MSG_Sender MSG_GetSender(const MSG_Message* message) { return message->sender; }

MSG_Message* msgUtil_buildMsgWithHeader(const google::protobuf::MessageLite& response,
                                        const MSG_Message* incoming, const void* /*context*/) {
  const std::uint32_t messageId = PlatformSchema::messageIdOf(response);
  if (messageId == PlatformSchema::kNoMessageId || incoming == nullptr) return nullptr;
  auto reply = std::make_unique<MSG_Message>();
  if (!response.SerializeToString(&reply->replyBytes)) return nullptr;
  if (reply->replyBytes.size() > PlatformSchema::maxPayloadBytes(messageId)) return nullptr;
  reply->payload = reply->replyBytes;
  reply->header.kind = PbUtility::FrameKind::Answer;
  reply->header.messageId = messageId;
  reply->header.sequence = incoming->header.sequence;
  reply->sender = incoming->sender;
  return reply.release();
}

int MSG_SendMsg(const char* /*ownerName*/, MSG_Sender sender, MSG_Message* reply) {
  const std::unique_ptr<MSG_Message> owned(reply);
  if (!owned) return -1;
  PbUtility::Current* const dispatch = PbUtility::current;
  // Once the receivers have returned, the service has been told that no answer comes any more; and
  // an answer to another question than the one being dispatched belongs to nobody.
  if (dispatch == nullptr || dispatch->message->sender != sender ||
      dispatch->message->header.sequence != owned->header.sequence) {
    return -1;
  }
  if (dispatch->message->header.kind != PbUtility::FrameKind::Question) return -1;
  PbUtility::appendFrame(owned->header, owned->payload, dispatch->replies);
  return 0;
}
