// A request is sent through the endpoint, which says how the exchange went; the answer's own error
// says what the service thought of it. Both become an Outcome here, with texts from one table, so
// that every verb explains the same failure in the same words.
#include "tools/appcfg/session.h"

#include <memory>
#include <utility>

#include "appconfig/core/key_notation.h"
#include "appconfig/core/role_names.h"
#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/read_inst.h"
#include "platform/messaging/wire/runtime_dir.h"
#include "tools/appcfg/places.h"

namespace AppCfgTool {
namespace {

struct ErrorText {
  CommonIF::eErrorType error;
  const char* what;
  // %K stands for the subject, %R for the role.
  const char* advice;
};

constexpr ErrorText kErrorTexts[] = {
    {CommonIF::ERROR_FAILED, "the service reports a failure", ""},
    {CommonIF::ERROR_NOT_FOUND, "there is no such variable or name",
     "'appcfg list' shows those that exist"},
    {CommonIF::ERROR_DENIED, "the role %R may not do this, or you may not claim it",
     "'appcfg access get %K' shows the roles it needs; choose one with --role"},
    {CommonIF::ERROR_INVALID_VALUE, "the value is not allowed",
     "'appcfg describe %K' shows what is"},
    {CommonIF::ERROR_VETOED, "a provider refuses the value", "choose another value"},
    {CommonIF::ERROR_READ_ONLY, "the variable cannot be written while the device runs", ""},
    {CommonIF::ERROR_UNAVAILABLE, "a provider that has to agree is not there",
     "try again once its application runs"},
    {CommonIF::ERROR_TIMED_OUT, "a provider that has to agree did not answer in time",
     "try again, or look at its application"},
    {CommonIF::ERROR_CONFLICT, "another change of it is on its way", "try again"},
    {CommonIF::ERROR_INVALID_REQUEST, "the service does not understand the request",
     "check the key, the role and the values"},
    {CommonIF::ERROR_LIMIT, "a limit of the service is reached", ""},
    {CommonIF::ERROR_STORAGE, "the store could not keep the change; nothing was changed",
     "look for a full or failing disk"},
    {CommonIF::ERROR_NOT_SUPPORTED, "the service is too old for this request",
     "'appcfg status' shows its version"},
};

void replaceAll(std::string& text, const std::string& what, const std::string& by) {
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at)) {
    text.replace(at, what.size(), by);
    at += by.size();
  }
}

const ErrorText& textOf(CommonIF::eErrorType error) {
  for (const ErrorText& text : kErrorTexts) {
    if (text.error == error) return text;
  }
  return kErrorTexts[0];
}

std::string cannot(const Purpose& purpose) {
  const std::string what = purpose.subject.empty() ? "" : ' ' + purpose.subject;
  return "cannot " + purpose.action + what + ": ";
}

std::string serviceNameFor(const std::string& prefix) {
  if (prefix.empty()) return "ConfigSrvc";
  return prefix + (prefix.back() == '/' ? "" : "/") + "ConfigSrvc";
}

}  // namespace

Session::Session(const Settings& settings)
    : settings_(settings),
      serviceName_(serviceNameFor(settings.servicePrefix)),
      places_(placesToLook(settings)),
      runtimeDir_(placeOf(places_, serviceName_)),
      roleName_(AppConfig::roleName(settings.role)),
      role_(AppConfig::PlatformCfgService::enumTranslate(settings.role)) {
  openEndpoint();
}

void Session::openEndpoint() {
  PbUtility::EndpointOptions options;
  options.runtimeDir = runtimeDir_;
  if (settings_.timeout) options.deadline = *settings_.timeout;
  endpoint_ = std::make_unique<PbUtility::Endpoint>(client_, options);
}

void Session::lookAgain() {
  if (answered_) return;
  std::string place = placeOf(places_, serviceName_);
  if (place == runtimeDir_) return;
  runtimeDir_ = std::move(place);
  openEndpoint();
}

Outcome Session::checkName(const Purpose& purpose) const {
  std::string path;
  const Base::Status<> named = PbUtility::socketPath(runtimeDir_, serviceName_, path);
  if (named.ok()) return {};
  return usageMistake(cannot(purpose) + named.text,
                      "name the service with --service, its directory with --runtime-dir or "
                      "APPCONFIG_RUNTIME_DIR");
}

Outcome Session::exchange(const Purpose& purpose, const google::protobuf::MessageLite& request,
                          google::protobuf::MessageLite& response) {
  Outcome named = checkName(purpose);
  if (!named.ok()) return named;
  const int status = endpoint_->sendWaitResponse(request, &response, serviceName_);
  if (status != PbUtility::kCallOk)
    return callFailure(purpose, static_cast<PbUtility::CallStatus>(status));
  answered_ = true;
  return {};
}

Outcome Session::callFailure(const Purpose& purpose, PbUtility::CallStatus status) const {
  Outcome outcome =
      failure(exitCodeOf(status), cannot(purpose) + reasonOf(status), adviceFor(status));
  outcome.subject = purpose.subject;
  return outcome;
}

std::string Session::adviceFor(PbUtility::CallStatus status) const {
  switch (status) {
    case PbUtility::kCallNoService:
      return "start configsrvd, or name the directory of its socket with --runtime-dir or "
             "APPCONFIG_RUNTIME_DIR";
    case PbUtility::kCallForbidden:
      return "ask as a user who may open it, or have its directory opened to this one";
    case PbUtility::kCallUntrusted:
      return "give the service a directory that only root, or its own user, may write, and name it "
             "with --runtime-dir or APPCONFIG_RUNTIME_DIR";
    case PbUtility::kCallServiceDied:
    case PbUtility::kCallTimedOut:
      return "whether the service acted on the request is not known: look before trying again";
    default:
      return {};
  }
}

std::string Session::pathIn(const std::string& place) const {
  std::string path;
  static_cast<void>(PbUtility::socketPath(place, serviceName_, path));
  return path;
}

// The places beside the one that was asked, for who thinks of a service there.
std::string Session::whereElse() const {
  std::string text;
  for (const std::string& place : places_) {
    if (place == runtimeDir_) continue;
    const bool isThere = holdsSocket(place, serviceName_);
    text += (isThere ? "; not asked: " : "; not there either: ") + pathIn(place);
  }
  return text;
}

std::string Session::reasonOf(PbUtility::CallStatus status) const {
  std::string reason = PbUtility::describe(status);
  const std::string details = endpoint_->lastRefusal();
  reason += details.empty() ? " (" + pathIn(runtimeDir_) + ')' : ": " + details;
  return status == PbUtility::kCallNoService ? reason + whereElse() : reason;
}

Outcome Session::verdict(const Purpose& purpose, const ConfigIF::ReturnMessage& result) const {
  if (result.error() == CommonIF::ERROR_NONE) return {};
  const ErrorText& text = textOf(result.error());
  Outcome outcome = failure(exitCodeOf(result.error()), cannot(purpose) + text.what, text.advice);
  replaceAll(outcome.text, "%R", roleName_);
  // Advice about a variable needs one: a listing or a reset may be about a group.
  ConfigVar var("", 0, "", 0);
  const bool isKey = AppConfig::parseKey(purpose.subject, var).ok();
  if (!isKey && outcome.advice.find("%K") != std::string::npos) outcome.advice.clear();
  replaceAll(outcome.advice, "%K", purpose.subject);
  outcome.reasons = stringsOf(result.messages());
  outcome.subject = purpose.subject;
  return outcome;
}

Outcome readKey(const Settings& settings, const std::string& text, ConfigVar& var) {
  const Base::Status<> read = AppConfig::parseKey(text, var);
  if (!read.ok()) return usageMistake(read.text);
  if (settings.nameSpace && text.find(':') == std::string::npos) {
    var = ConfigVar(*settings.nameSpace, var.group(), var.groupInstance(), var.name(),
                    var.nameInstance());
  }
  return {};
}

ConfigVar keyOf(const ConfigIF::Inst& inst) {
  return AppConfig::readInst(inst).value_or(ConfigVar("", 0, "", 0));
}

std::vector<std::string> stringsOf(const google::protobuf::RepeatedPtrField<std::string>& strings) {
  return {strings.begin(), strings.end()};
}

}  // namespace AppCfgTool
