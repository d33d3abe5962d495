// A key is bytes of messages: first the client's name, as the request that withdraws all of a client's
// registrations would say it, then what tells one registration of that client from another. So all keys
// of a client begin alike, and are found together.
#include "platform/schema/registration_key.h"

#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_bounds.h"
#include "platform/schema/message_ids.h"

namespace PlatformSchema {
namespace {

std::string clientPart(const std::string& clientName) {
  ConfigIF::UnregisterAllClientCallbacksReq part;
  part.set_client_name(clientName);
  return part.SerializeAsString();
}

template <typename Request>
std::string keyOf(std::uint32_t messageId, std::string_view payload) {
  Request request;
  if (!readMessage(messageId, payload, request).ok()) return {};
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
  if (!readMessage(kMonitorReq, payload, request).ok()) return {};
  return clientPart(request.client_name()) + "monitor";
}

std::string textOf(const ConfigIF::ReturnMessage& result) {
  if (result.messages_size() == 0) return "a limit of the service is reached";
  std::string text = result.messages(0);
  for (int i = 1; i < result.messages_size(); ++i) text += "; " + result.messages(i);
  return text;
}

// Most answers are empty, which is success.
template <typename Response>
std::optional<std::string> refusalIn(std::uint32_t messageId, std::string_view payload) {
  Response response;
  if (payload.empty() || !readMessage(messageId, payload, response).ok()) return std::nullopt;
  if (response.result().error() != CommonIF::ERROR_LIMIT) return std::nullopt;
  return textOf(response.result());
}

}  // namespace

std::string registrationKey(std::uint32_t messageId, std::string_view payload) {
  if (messageId == kMonitorReq) return keyOfMonitor(payload);
  if (isRepeatedOnReconnect(messageId))
    return keyOf<ConfigIF::RegisterClientCallbackReq>(messageId, payload);
  if (withdrawsOneRepeated(messageId))
    return keyOf<ConfigIF::UnregisterClientCallbackReq>(messageId, payload);
  if (!withdrawsAllRepeated(messageId)) return {};
  ConfigIF::UnregisterAllClientCallbacksReq request;
  if (!readMessage(messageId, payload, request).ok()) return {};
  return clientPart(request.client_name());
}

std::vector<std::string> coveringKeys(std::uint32_t messageId, std::string_view payload) {
  const std::string own = registrationKey(messageId, payload);
  if (own.empty() || !isRepeatedOnReconnect(messageId)) return {};
  std::vector<std::string> keys{own};
  ConfigIF::RegisterClientCallbackReq request;
  if (messageId == kMonitorReq || !readMessage(messageId, payload, request).ok()) return keys;
  std::string name = request.name();
  while (!name.empty()) {
    const std::size_t dot = name.rfind('.');
    name.resize(dot == std::string::npos ? 0 : dot);
    request.set_name(name);
    keys.push_back(registrationKey(messageId, request.SerializeAsString()));
  }
  return keys;
}

bool isToldOnChange(std::uint32_t messageId, std::string_view payload) {
  if (messageId == kMonitorReq || !isRepeatedOnReconnect(messageId)) return false;
  ConfigIF::RegisterClientCallbackReq request;
  return readMessage(messageId, payload, request).ok() &&
         request.type() == ConfigIF::CALLBACK_ON_CHANGE;
}

std::optional<std::string> refusalForRoom(std::uint32_t responseId, std::string_view payload) {
  if (responseId == kRegisterClientCallbackRsp)
    return refusalIn<ConfigIF::RegisterClientCallbackRsp>(responseId, payload);
  if (responseId == kMonitorRsp) return refusalIn<ConfigIF::MonitorRsp>(responseId, payload);
  return std::nullopt;
}

}  // namespace PlatformSchema
