#include "tests/history/stamped_endpoint.h"

#include <string_view>
#include <vector>

#include "platform/schema/config_if.pb.h"

namespace History {
namespace {

thread_local Answer lastAnswerOfThread;
thread_local Incoming incomingOfThread;

template <typename Message>
const Message& as(const google::protobuf::MessageLite& message) {
  return static_cast<const Message&>(message);
}

template <typename Response>
Answer answerIn(const Response& response, bool isDefault) {
  const bool refused = response.result().error() != CommonIF::ERROR_NONE;
  return {true, refused, {response.epoch(), response.changed_at(), isDefault}};
}

// These tell the revision alone, and none when there was nothing to reset.
template <typename Response>
Answer resetIn(const Response& response) {
  const bool refused = response.result().error() != CommonIF::ERROR_NONE;
  return {true, refused, {0, response.result().revision(), true}};
}

void remember(const google::protobuf::MessageLite& response) {
  const std::string name = response.GetTypeName();
  if (name == "ConfigIF.ReadRsp") {
    const auto& read = as<ConfigIF::ReadRsp>(response);
    lastAnswerOfThread = answerIn(read, read.is_default());
  }
  if (name == "ConfigIF.WriteRsp")
    lastAnswerOfThread = answerIn(as<ConfigIF::WriteRsp>(response), false);
  if (name == "ConfigIF.SetAttributeOptionsRsp")
    lastAnswerOfThread = answerIn(as<ConfigIF::SetAttributeOptionsRsp>(response), false);
  if (name == "ConfigIF.GetAttributeOptionsRsp")
    lastAnswerOfThread = answerIn(as<ConfigIF::GetAttributeOptionsRsp>(response), false);
  if (name == "ConfigIF.ResetValueRsp")
    lastAnswerOfThread = resetIn(as<ConfigIF::ResetValueRsp>(response));
  if (name == "ConfigIF.ResetAttributeRsp")
    lastAnswerOfThread = resetIn(as<ConfigIF::ResetAttributeRsp>(response));
}

// Empty for what tells nobody of values or options.
std::string registeredName(const google::protobuf::MessageLite& request) {
  if (request.GetTypeName() != "ConfigIF.RegisterClientCallbackReq") return {};
  const auto& registration = as<ConfigIF::RegisterClientCallbackReq>(request);
  switch (registration.type()) {
    case ConfigIF::CALLBACK_ON_CHANGE:
    case ConfigIF::CALLBACK_DYNAMIC_VALIDATE:
    case ConfigIF::CALLBACK_VALUE_CHANGED:
      return registration.name();
    case ConfigIF::CALLBACK_OPTIONS_CHANGED:
      return registration.name() + "#options";
    default:
      return {};
  }
}

template <typename Notice>
Stamped stampedIn(const MSG_Message* message) {
  Notice notice;
  if (!notice.ParseFromArray(MSG_GetPayload(message), MSG_GetPayloadBytes(message))) return {};
  Stamped stamped{notice.epoch(), notice.changed_at(), false};
  if constexpr (std::is_same_v<Notice, ConfigIF::ConfigChangedNtfy>)
    stamped.isDefault = notice.is_default();
  return stamped;
}

Incoming incomingIn(const MSG_Message* message) {
  constexpr std::uint32_t kConfigChanged = 0x1A0143;
  constexpr std::uint32_t kOptionsChanged = 0x1A0253;
  const std::uint32_t id = MSG_GetMessageId(message);
  Incoming incoming{MSG_GetSender(message), {}};
  if (id == kConfigChanged) incoming.stamped = stampedIn<ConfigIF::ConfigChangedNtfy>(message);
  if (id == kOptionsChanged) incoming.stamped = stampedIn<ConfigIF::OptionsChangedNtfy>(message);
  return incoming;
}

}  // namespace

StampedEndpoint::StampedEndpoint(const std::string& name, const PbUtility::EndpointOptions& options,
                                 std::function<void(std::int64_t, const std::string&)> onRegistered)
    : onRegistered_(std::move(onRegistered)), endpoint_(name, options) {}

void StampedEndpoint::forgetAnswer() { lastAnswerOfThread = {}; }
const Answer& StampedEndpoint::lastAnswer() { return lastAnswerOfThread; }
const Incoming& StampedEndpoint::incoming() { return incomingOfThread; }

bool StampedEndpoint::waitUntilConnected(std::chrono::milliseconds atMost) {
  return endpoint_.waitUntilConnected("ConfigSrvc", atMost);
}

void StampedEndpoint::addRemoteEndpoint(const std::string& endpointName, int instance) {
  endpoint_.addRemoteEndpoint(endpointName, instance);
}

void StampedEndpoint::receive(void* userData, const MSG_Message* message) {
  const auto* const inner = static_cast<const MSG_Callback*>(userData);
  incomingOfThread = incomingIn(message);
  inner->receiver(inner->userData, message);
}

void StampedEndpoint::addHandlers(const MSG_Callback* table) {
  std::vector<MSG_Callback> outer;
  for (; table->receiver != nullptr; ++table) {
    wrapped_.push_back(*table);
    outer.push_back({&receive, &wrapped_.back(), table->firstId, table->lastId, table->reserved});
  }
  outer.push_back({});
  endpoint_.addHandlers(outer.data());
}

std::string StampedEndpoint::localEndpoint() const { return endpoint_.localEndpoint(); }

int StampedEndpoint::send(const google::protobuf::MessageLite& request,
                          const std::string& endpointName, unsigned int* sequence) {
  return endpoint_.send(request, endpointName, sequence);
}

int StampedEndpoint::sendWaitResponse(const google::protobuf::MessageLite& request,
                                      google::protobuf::MessageLite* response,
                                      const std::string& endpointName) {
  const std::int64_t began = now();
  const int status = endpoint_.sendWaitResponse(request, response, endpointName);
  if (status == PbUtility::kCallOk) remember(*response);
  const std::string name = registeredName(request);
  if (!name.empty()) onRegistered_(began, name);
  return status;
}

}  // namespace History
