// A payload is walked through by the shape of its message (unfolding.h), and parsed only when what it
// would become is within the limits. Short payloads cannot become much, and are parsed at once.
#include "platform/schema/message_bounds.h"

#include <google/protobuf/message_lite.h>

#include "platform/schema/internal/unfolding.h"
#include "platform/schema/message_ids.h"

namespace PlatformSchema {
namespace {

std::string moreThan(std::size_t most, const char* what) {
  return " more than " + std::to_string(most) + ' ' + what + ", which is the limit: ";
}

std::string problemOf(Counted past, const std::string& name, std::size_t memory) {
  switch (past) {
    case Counted::Nodes:
      return "a path of " + name + " has" + moreThan(MessageLimits::kNodes, "nodes") +
             "a group and a name are one node each";
    case Counted::Entries:
      return name + " is about" + moreThan(MessageLimits::kEntries, "variables") +
             "ask for them in several requests";
    case Counted::Elements:
      return "a value of " + name + " has" + moreThan(MessageLimits::kElements, "elements") +
             "use several variables";
    case Counted::Options:
      return name + " has" + moreThan(MessageLimits::kOptions, "options") + "use a pattern";
    case Counted::Messages:
      return "the result of " + name + " has" + moreThan(MessageLimits::kMessages, "messages") +
             "sum them up";
    case Counted::Nothing:
      break;
  }
  return name + " would unfold to" + moreThan(memory, "bytes") + "send fewer parts at once";
}

Base::Status<Reading> noMessage(std::uint32_t messageId) {
  return {Reading::NoMessage, "the payload is no " + messageName(messageId)};
}

Base::Status<Reading> parse(std::uint32_t messageId, std::string_view payload,
                            google::protobuf::MessageLite& message) {
  if (message.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) return {};
  return noMessage(messageId);
}

// Of the messages that clients send, those that may be longer than the others.
struct Longer {
  std::uint32_t messageId;
  std::size_t bytes;
};
constexpr Longer kLonger[] = {
    {kOnChangeRsp, MessageLimits::kBatchPayload},             // OnChangeRsp
    {kBatchReadReq, MessageLimits::kBatchPayload},            // BatchReadReq
    {kWriteReq, MessageLimits::kValuePayload},                // WriteReq
    {kDynamicValidateRsp, MessageLimits::kBatchPayload},      // DynamicValidateRsp
    {kValidateReq, MessageLimits::kValuePayload},             // ValidateReq
    {kSetAttributeOptionsReq, MessageLimits::kValuePayload},  // SetAttributeOptionsReq
    {kSetAccessLevelsReq, MessageLimits::kBatchPayload},      // SetAccessLevelsReq
    {kBatchGetValueOptionsAccessReq,
     MessageLimits::kBatchPayload},  // BatchGetValueOptionsAccessReq
};

}  // namespace

std::size_t maxPayloadBytes(std::uint32_t messageId) {
  for (const Longer& longer : kLonger) {
    if (longer.messageId == messageId) return longer.bytes;
  }
  return MessageLimits::kOtherPayload;
}

Base::Status<> checkPayloadBytes(std::uint32_t messageId, std::size_t payloadBytes) {
  if (payloadBytes <= MessageLimits::kOtherPayload) return {};
  const std::size_t most = maxPayloadBytes(messageId);
  if (payloadBytes <= most) return {};
  return Base::failed(messageName(messageId) + " has " + std::to_string(payloadBytes) +
                      " bytes, and " + std::to_string(most) +
                      " bytes at most are allowed: send less at once");
}

Base::Status<Reading> readMessage(std::uint32_t messageId, std::string_view payload,
                                  google::protobuf::MessageLite& message) {
  if (payload.size() < kNotLookedAt) return parse(messageId, payload, message);
  const Shape* shape = shapeOf(messageId);
  if (shape == nullptr) return noMessage(messageId);
  const std::size_t memory = mostMemory(*shape, payload.size());
  const Unfolding found = unfolding(*shape, payload, memory);
  if (found.result == Unfolding::Result::Broken) return noMessage(messageId);
  if (found.result == Unfolding::Result::Bounded) return parse(messageId, payload, message);
  return {Reading::TooMuch, problemOf(found.past, messageName(messageId), memory)};
}

}  // namespace PlatformSchema
