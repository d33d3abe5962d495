#include "platform/schema/registration_key.h"

#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"

namespace PlatformSchema {
namespace {

using google::protobuf::MessageLite;

constexpr std::uint32_t kMonitor = 0x1A0430;

bool parse(MessageLite& message, std::string_view payload) {
  return message.ParseFromArray(payload.data(), static_cast<int>(payload.size()));
}

std::string clientPart(const std::string& clientName) {
  ConfigIF::UnregisterAllClientCallbacksReq part;
  part.set_client_name(clientName);
  return part.SerializeAsString();
}

template <typename Request>
std::string keyOf(std::string_view payload) {
  Request request;
  if (!parse(request, payload)) return {};
  Request rest;
  // Present also when empty: the two kinds of request differ in that.
  rest.set_name(request.name());
  rest.set_type(request.type());
  rest.set_endpoint_name(request.endpoint_name());
  return clientPart(request.client_name()) + rest.SerializeAsString();
}

// One endpoint monitors once: a newer request, one to stop included, takes the place of the former.
std::string keyOfMonitor(std::string_view payload) {
  ConfigIF::MonitorReq request;
  return parse(request, payload) ? clientPart(request.client_name()) + "monitor" : std::string();
}

}  // namespace

std::string registrationKey(std::uint32_t messageId, std::string_view payload) {
  if (messageId == kMonitor) return keyOfMonitor(payload);
  if (isRepeatedOnReconnect(messageId)) return keyOf<ConfigIF::RegisterClientCallbackReq>(payload);
  if (withdrawsOneRepeated(messageId)) return keyOf<ConfigIF::UnregisterClientCallbackReq>(payload);
  if (!withdrawsAllRepeated(messageId)) return {};
  ConfigIF::UnregisterAllClientCallbacksReq request;
  return parse(request, payload) ? clientPart(request.client_name()) : std::string();
}

bool isToldOnChange(std::uint32_t messageId, std::string_view payload) {
  if (messageId == kMonitor || !isRepeatedOnReconnect(messageId)) return false;
  ConfigIF::RegisterClientCallbackReq request;
  return parse(request, payload) && request.type() == ConfigIF::CALLBACK_ON_CHANGE;
}

}  // namespace PlatformSchema
