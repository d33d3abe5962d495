#include "configsrv/service/internal/requests.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "appconfig/core/key_notation.h"
#include "appconfig/core/role_names.h"
#include "configsrv/changes/wire_forms.h"
#include "platform/schema/message_bounds.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {
namespace {

using AppConfig::formatKey;
using AppConfig::roleName;

std::uint32_t code(eErrorT error) { return static_cast<std::uint32_t>(error); }

}  // namespace

void setError(ConfigIF::ReturnMessage& result, eErrorT error, const std::string& text) {
  result.set_error(static_cast<CommonIF::eErrorType>(error));
  result.add_messages(text);
}

void setOutcome(ConfigIF::ReturnMessage& result, const ChangeOutcome& outcome) {
  if (outcome.error != eErrNone) result.set_error(static_cast<CommonIF::eErrorType>(outcome.error));
  if (outcome.unchanged) result.set_flag(true);
  for (const std::string& message : outcome.messages) result.add_messages(message);
  if (outcome.revision != 0) result.set_revision(outcome.revision);
}

std::string lowerCase(const std::string& name) {
  std::string result = name;
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  std::transform(result.begin(), result.end(), result.begin(), lower);
  return result;
}

Requests::Requests(RequestContext context)
    : with_(std::move(context)),
      slices_([&server = with_.server](uid_t user, std::function<void()> task) {
        server.later(user, std::move(task));
      }) {}

// --- The frame around every request ---

bool Requests::parse(const Incoming& incoming, google::protobuf::MessageLite& request,
                     google::protobuf::MessageLite& response, ConfigIF::ReturnMessage& result) {
  using PlatformSchema::Reading;
  std::string problem;
  const Reading reading =
      PlatformSchema::readMessage(incoming.messageId, incoming.payload, request, problem);
  if (reading == Reading::Done) return true;
  if (reading == Reading::TooMuch) {
    logRefusal(incoming, problem);
    setError(result, eErrLimit, problem);
    respond(incoming.id, response);
    return false;
  }
  refuse(incoming, eErrInvalidRequest,
         "the payload is no " + PlatformSchema::messageName(incoming.messageId));
  return false;
}

bool Requests::admit(const Incoming& incoming, const std::string& clientName,
                     CommonIF::eSecurityRole wireRole, Call& call,
                     ConfigIF::ReturnMessage& result) {
  const PbUtility::Peer& peer = incoming.peer;
  const AppConfig::SecurityRole role = fromWire(wireRole);
  const bool waits = incoming.insideReceiver && !incoming.id.oneWay;
  call = {incoming.id,
          {peer.id, clientName.substr(0, kMaxClientName), role, waits},
          incoming.revision,
          incoming.overDelivery};
  call.by.owner = {peer.uid, peer.pid};
  if (with_.access.mayClaim(peer.uid, peer.gid, role)) return true;
  const std::string text = with_.access.denial(peer.uid, peer.gid, role);
  with_.log.repeatable(
      LogLevel::Warning, "denied",
      "client \"" + peer.name + "\" (pid " + std::to_string(peer.pid) + ") denied: " + text);
  setError(result, eErrDenied, text);
  return false;
}

void Requests::respond(const PbUtility::RequestId& id,
                       const google::protobuf::MessageLite& response) {
  if (with_.monitor.isActive()) with_.monitor.responseLeaves(id, response);
  with_.server.respond(id, response, with_.model.revision());
}

void Requests::logRefusal(const Incoming& incoming, const std::string& text) {
  with_.log.repeatable(LogLevel::Warning, "refused",
                       "client \"" + incoming.peer.name + "\": " + text);
}

void Requests::refuse(const Incoming& incoming, eErrorT error, const std::string& text) {
  logRefusal(incoming, text);
  if (with_.monitor.isActive()) with_.monitor.requestRefused(incoming.id, code(error), text);
  with_.server.refuse(incoming.id, code(error), text);
}

template <typename Request, typename Response,
          void (Requests::*answer)(const Requests::Call&, const Request&, Response&)>
void Requests::answerNow(const Incoming& incoming) {
  Request request;
  Response response;
  Call call;
  if (!parse(incoming, request, response, *response.mutable_result())) return;
  if (admit(incoming, request.client_name(), request.role(), call, *response.mutable_result()))
    (this->*answer)(call, request, response);
  respond(incoming.id, response);
}

template <typename Request, typename Response,
          void (Requests::*answer)(const Requests::Call&, const Request&)>
void Requests::answerLater(const Incoming& incoming) {
  Request request;
  Response response;
  Call call;
  if (!parse(incoming, request, response, *response.mutable_result())) return;
  const bool admitted =
      admit(incoming, request.client_name(), request.role(), call, *response.mutable_result());
  if (with_.audit != nullptr)
    call.by.caller = std::make_shared<const PbUtility::Peer>(incoming.peer);
  if (admitted) return (this->*answer)(call, request);
  if (with_.audit != nullptr) {
    const ConfigIF::ReturnMessage& result = response.result();
    recordDenied(call, request, {eErrDenied, false, {result.messages(0)}, 0});
  }
  respond(incoming.id, response);
}

Requests::Handler Requests::handlerOf(std::uint32_t messageId) {
  struct Entry {
    std::uint32_t messageId;
    Handler handler;
  };
#define NOW(id, name, member) \
  { id, &Requests::answerNow<ConfigIF::name##Req, ConfigIF::name##Rsp, &Requests::member> }
#define LATER(id, name, member) \
  { id, &Requests::answerLater<ConfigIF::name##Req, ConfigIF::name##Rsp, &Requests::member> }
  // Ascending.
  static constexpr std::array<Entry, 25> kEntries = {{
      NOW(0x1A0110, Read, read),
      NOW(0x1A0120, BatchRead, batchRead),
      LATER(0x1A0140, Write, write),
      LATER(0x1A0160, Validate, validate),
      LATER(0x1A0170, ResetValue, resetValue),
      LATER(0x1A0180, ResetNodeValue, resetNodeValue),
      NOW(0x1A0190, ReadAttributes, readAttributes),
      LATER(0x1A01A0, ResetAttribute, resetAttribute),
      LATER(0x1A0210, RegisterClientCallback, registerCallback),
      NOW(0x1A0220, UnregisterClientCallback, unregisterCallback),
      {0x1A0230, &Requests::unregisterAll},
      NOW(0x1A0240, GetAttributeOptions, getOptions),
      LATER(0x1A0250, SetAttributeOptions, setOptions),
      NOW(0x1A0260, GetDefaultOptions, getDefaultOptions),
      NOW(0x1A0270, Submit, submit),
      NOW(0x1A0320, GetAccessLevels, getAccessLevels),
      LATER(0x1A0330, SetAccessLevels, setAccessLevels),
      NOW(0x1A0340, GetValueOptionsAccess, getRecord),
      NOW(0x1A0350, BatchGetValueOptionsAccess, getRecords),
      NOW(0x1A0400, List, list),
      NOW(0x1A0410, Status, status),
      NOW(0x1A0420, Clients, clients),
      NOW(0x1A0430, Monitor, monitor),
      LATER(0x1A0440, StoreSnapshot, storeSnapshot),
      LATER(0x1A0450, StoreRestore, storeRestore),
  }};
#undef NOW
#undef LATER
  const auto found =
      std::lower_bound(kEntries.begin(), kEntries.end(), messageId,
                       [](const Entry& entry, std::uint32_t id) { return entry.messageId < id; });
  return found == kEntries.end() || found->messageId != messageId ? nullptr : found->handler;
}

void Requests::handle(const Incoming& incoming) {
  if (with_.monitor.isActive()) with_.monitor.requestCame(incoming);
  const Handler handler = handlerOf(incoming.messageId);
  if (handler != nullptr) return (this->*handler)(incoming);
  const std::string text =
      PlatformSchema::messageName(incoming.messageId) + " is no request that this service answers";
  refuse(incoming, eErrNotSupported, text);
}

// --- Finding variables ---

const Variable* Requests::find(const ConfigIF::Inst& inst, ConfigIF::ReturnMessage& result) const {
  const std::optional<ConfigVar> key = readInst(inst);
  if (!key) {
    setError(result, eErrInvalidRequest, "the path names no variable");
    return nullptr;
  }
  const Variable* variable = with_.model.find(*key);
  if (variable == nullptr) setError(result, eErrNotFound, formatKey(*key) + ": no such variable");
  return variable;
}

const Variable* Requests::findReadable(const Call& call, const ConfigIF::Inst& inst,
                                       ConfigIF::ReturnMessage& result) const {
  const Variable* variable = find(inst, result);
  return variable != nullptr && mayRead(call, *variable, result) ? variable : nullptr;
}

bool Requests::mayRead(const Call& call, const Variable& variable,
                       ConfigIF::ReturnMessage& result) const {
  if (call.by.role >= variable.readRole()) return true;
  setError(result, eErrDenied,
           formatKey(variable.key()) + ": reading needs the role " +
               std::string(roleName(variable.readRole())) + ", not " +
               std::string(roleName(call.by.role)));
  return false;
}

// Of several instances and namespaces any will do: they share their definition.
const Variable* Requests::findByDottedName(const std::string& name) const {
  return with_.model.named(lowerCase(name));
}

}  // namespace ConfigSrv
