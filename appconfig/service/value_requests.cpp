// Reads, writes, validates and resets one variable's value at the service.
//
// Whether something covers the variable is noted before the request is sent. A registration that
// another thread made while the answer was on its way covers what that thread has read, not what is
// in this answer; so the answer is followed by one of its own.
//
// The writes differ in when they register for changes. The one-way write does it before it sends,
// for nobody will tell whether the write arrived; the other once the service has said yes, and
// before its caller hears of that.

#include <utility>

#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/messaging/pb_utils.h"
#include "platform/schema/config_if.pb.h"

namespace AppConfig {

namespace {

ConfigResult outcomeOf(const ConfigIF::ReturnMessage& message) {
  ConfigResult outcome;
  ProtobufMessageHelper::fillReturnMessage(outcome, message);
  return outcome;
}

// Hands the outcome to the caller, who may have passed null, and tells whether it is success.
bool report(ConfigResult outcome, ConfigResult* result) {
  const bool accepted = outcome.error() == eErrNone;
  if (result) *result = std::move(outcome);
  return accepted;
}

}  // namespace

std::list<std::string> PlatformCfgService::getConfigVar(const ConfigVar& var, bool& isDefault) {
  StateStamp unused;
  return getConfigVar(var, isDefault, unused);
}

std::list<std::string> PlatformCfgService::getConfigVar(const ConfigVar& var, bool& isDefault,
                                                        StateStamp& stamp) {
  ReadEnd end;
  std::list<std::string> value = getConfigVar(var, end, stamp);
  if (end.hasValue()) isDefault = end.isDefault;
  return value;
}

std::list<std::string> PlatformCfgService::getConfigVar(const ConfigVar& var, ReadEnd& end,
                                                        StateStamp& stamp) {
  PbUtility::PbUtils* const pb = pb_;
  if (!pb) return {};
  const ConfigVar key = keyForRequest(var);
  const Coverage coverage = coverageOf(key, eValueChanged);
  ConfigIF::ReadRsp response;
  end.isAsked = true;
  end.callStatus = pb->sendWaitResponse(
      ProtobufMessageHelper::getReadRequest(getSelfFQName(), securityRole_, key), &response,
      getConfigFQName());
  if (end.callStatus != 0) return {};
  const ConfigIF::ReturnMessage& result = response.result();
  if (result.error() != CommonIF::ERROR_NONE) {
    end.error = outcomeOf(result).error();
    if (result.messages_size() > 0) end.message = result.messages(0);
    return {};
  }
  std::list<std::string> value(response.values().begin(), response.values().end());
  end.isDefault = response.is_default();
  end.tellsDefault = response.has_is_default();
  stamp = stampIn(response);
  registerAfterAnswer(key, eValueChanged, coverage);
  return value;
}

// The writes own the value they send, so that a caller may change its list while one waits.
// NOLINTBEGIN(performance-unnecessary-value-param)
bool PlatformCfgService::setConfigVar(const ConfigVar& var, std::list<std::string> value) {
  if (!pb_) return false;
  const ConfigVar key = keyForRequest(var);
  registerHandlerProactively(key, eValueChanged);
  return tell(ProtobufMessageHelper::getWriteRequest(getSelfFQName(), securityRole_, key, value));
}

bool PlatformCfgService::setConfigVar(const ConfigVar& var, std::list<std::string> value,
                                      ConfigResult* result) {
  StateStamp unused;
  return setConfigVar(var, value, result, unused);
}
// NOLINTEND(performance-unnecessary-value-param)

bool PlatformCfgService::setConfigVar(const ConfigVar& var, const std::list<std::string>& value,
                                      ConfigResult* result, StateStamp& stamp) {
  if (!pb_) return false;
  const ConfigVar key = keyForRequest(var);
  const Coverage coverage = coverageOf(key, eValueChanged);
  ConfigIF::WriteRsp response;
  if (!ask(ProtobufMessageHelper::getWriteRequest(getSelfFQName(), securityRole_, key, value),
           &response))
    return false;
  ConfigResult outcome = outcomeOf(response.result());
  stamp = stampIn(response);
  if (outcome.error() == eErrNone) registerAfterAnswer(key, eValueChanged, coverage);
  return report(std::move(outcome), result);
}

bool PlatformCfgService::isValid(const ConfigVar& var, const std::list<std::string>& value,
                                 ConfigResult* result) {
  if (!pb_) return false;
  ConfigIF::ValidateRsp response;
  if (!ask(ProtobufMessageHelper::getValidateRequest(getSelfFQName(), securityRole_,
                                                     keyForRequest(var), value),
           &response))
    return false;
  return report(outcomeOf(response.result()), result);
}

bool PlatformCfgService::isValid(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance,
                                 const std::list<std::string>& value, ConfigResult* result) {
  return isValid(ConfigVar(group, groupInstance, name, nameInstance), value, result);
}

// The key keeps its own namespace, also on a link that has one: services take a reset for the
// namespace that it names.
bool PlatformCfgService::resetValue(const ConfigVar& var) {
  if (!pb_) return false;
  ConfigIF::ResetValueRsp response;
  return ask(ProtobufMessageHelper::getResetValueRequest(getSelfFQName(), securityRole_, var),
             &response) &&
         response.result().error() == CommonIF::ERROR_NONE;
}

}  // namespace AppConfig
