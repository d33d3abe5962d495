// A client as an application is one, the facade over an endpoint, and the sizes of its frames: the
// floors send as many bytes as the requests have.
#include "bench/processes/client.h"

#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "bench/processes/definitions.h"
#include "platform/messaging/frame.h"
#include "platform/schema/config_if.pb.h"

namespace Bench {
namespace {

using AppConfig::AppCfgManager;
using AppConfig::ProtobufMessageHelper;
using google::protobuf::MessageLite;

constexpr char kService[] = "ConfigSrvc";
constexpr char kName[] = "bench-client";
constexpr auto kRole = CommonIF::SECURITY_ROLE_USER;

PbUtility::EndpointOptions optionsOf(const std::string& runtimeDir, unsigned maxConnections) {
  PbUtility::EndpointOptions options;
  options.runtimeDir = runtimeDir;
  options.maxConnections = maxConnections;
  return options;
}

std::size_t frameBytes(const MessageLite& message) {
  return PbUtility::kFrameHeaderBytes + message.ByteSizeLong();
}

template <typename Response>
MessageBytes bytesOf(PbUtility::Endpoint& endpoint, const MessageLite& request) {
  Response response;
  if (endpoint.sendWaitResponse(request, &response, kService) != 0) return {};
  return {frameBytes(request), frameBytes(response)};
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

MessageBytes Client::readBytes() {
  return bytesOf<ConfigIF::ReadRsp>(endpoint_,
                                    ProtobufMessageHelper::getReadRequest(kName, kRole, textVar()));
}

MessageBytes Client::validateBytes() {
  const std::list<std::string> value = {kText};
  return bytesOf<ConfigIF::ValidateRsp>(
      endpoint_, ProtobufMessageHelper::getValidateRequest(kName, kRole, textVar(), value));
}

MessageBytes Client::writeBytes() {
  const std::list<std::string> value = {kText};
  return bytesOf<ConfigIF::WriteRsp>(
      endpoint_, ProtobufMessageHelper::getWriteRequest(kName, kRole, textVar(), value));
}

std::size_t noticeBytes() {
  ConfigIF::ConfigChangedNtfy notice;
  notice.set_callback_identity("PlatCfgSvc0-12345-0");
  notice.set_is_default(false);
  const std::list<std::string> value = {"12345"};
  *notice.mutable_value() =
      ProtobufMessageHelper::getWriteRequest(kName, kRole, writtenVar(0), value).value();
  return frameBytes(notice);
}

}  // namespace Bench
