// A client as an application is one, the facade over an endpoint, and the sizes of its frames: the
// floors send as many bytes as the requests have.
#include "bench/processes/client.h"

#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "bench/processes/definitions.h"
#include "platform/messaging/wire/frame.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"

namespace Bench {
namespace {

using AppConfig::AppCfgManager;
using AppConfig::ProtobufMessageHelper;
using google::protobuf::MessageLite;

constexpr char kService[] = "ConfigSrvc";
constexpr char kName[] = "bench-client";
constexpr char kIdentity[] = "PlatCfgSvc0-12345-0";
constexpr auto kRole = CommonIF::SECURITY_ROLE_USER;

PbUtility::EndpointOptions optionsOf(const std::string& runtimeDir, unsigned maxConnections) {
  PbUtility::EndpointOptions options;
  options.runtimeDir = runtimeDir;
  options.maxConnections = maxConnections;
  return options;
}

std::string frameOf(PbUtility::FrameKind kind, const MessageLite& message) {
  PbUtility::FrameHeader header;
  header.kind = kind;
  header.messageId = PlatformSchema::messageIdOf(message);
  header.payloadBytes = static_cast<std::uint32_t>(message.ByteSizeLong());
  PbUtility::FrameHeaderBytes bytes{};
  PbUtility::encodeHeader(header, bytes.data());
  return std::string(bytes.begin(), bytes.end()) + message.SerializeAsString();
}

ConfigIF::RegisterClientCallbackReq registration(const ConfigVar& var) {
  return ProtobufMessageHelper::getRegClientCallbackRequest(
      kName, kRole, var.dottedName(), ConfigIF::CALLBACK_VALUE_CHANGED, kIdentity);
}

template <typename Response>
Exchange exchangeOf(PbUtility::Endpoint& endpoint, const MessageLite& request) {
  Response response;
  if (endpoint.sendWaitResponse(request, &response, kService) != 0) return {};
  return {frameOf(PbUtility::FrameKind::Request, request),
          frameOf(PbUtility::FrameKind::Response, response)};
}

}  // namespace

Client::Client(const std::string& runtimeDir, unsigned maxConnections)
    : endpoint_(kName, optionsOf(runtimeDir, maxConnections)),
      config_(*AppCfgManager::getInstance()) {
  config_.setPbInterface(&endpoint_);
}

bool Client::waitUntilConnected() {
  return endpoint_.waitUntilConnected(kService, std::chrono::seconds(10));
}

std::string Client::readAtService(const ConfigVar& var) {
  bool isDefault = false;
  const std::list<std::string> value =
      config_.getPlatformCfgService()->getConfigVar(var, isDefault);
  return value.empty() ? std::string() : value.front();
}

bool Client::write(const ConfigVar& var, int number) {
  ConfigResult result;
  return config_.setConfigVar(var, number, &result);
}

Exchange Client::readExchange() {
  return exchangeOf<ConfigIF::ReadRsp>(
      endpoint_, ProtobufMessageHelper::getReadRequest(kName, kRole, textVar()));
}

Exchange Client::validateExchange() {
  const std::list<std::string> value = {kText};
  return exchangeOf<ConfigIF::ValidateRsp>(
      endpoint_, ProtobufMessageHelper::getValidateRequest(kName, kRole, textVar(), value));
}

Exchange Client::writeExchange() {
  const std::list<std::string> value = {kText};
  return exchangeOf<ConfigIF::WriteRsp>(
      endpoint_, ProtobufMessageHelper::getWriteRequest(kName, kRole, textVar(), value));
}

Exchange Client::registerExchange() {
  return exchangeOf<ConfigIF::RegisterClientCallbackRsp>(endpoint_, registration(textVar()));
}

MessageBytes sizesOf(const Exchange& exchange) {
  return {exchange.request.size(), exchange.response.size()};
}

std::string registrationFrame(const ConfigVar& var) {
  return frameOf(PbUtility::FrameKind::Request, registration(var));
}

std::size_t noticeBytes() {
  ConfigIF::ConfigChangedNtfy notice;
  notice.set_callback_identity(kIdentity);
  notice.set_is_default(false);
  const std::list<std::string> value = {"12345"};
  *notice.mutable_value() =
      ProtobufMessageHelper::getWriteRequest(kName, kRole, writtenVar(0), value).value();
  return PbUtility::kFrameHeaderBytes + notice.ByteSizeLong();
}

}  // namespace Bench
