// A request becomes one change of one variable, or a batch of them; what the change comes to becomes
// the answer, in a function that is handed over with it and lives as long as it takes.
#include "configsrv/service/internal/change_requests.h"

#include <algorithm>

#include "appconfig/core/key_notation.h"
#include "appconfig/core/lower_case.h"
#include "configsrv/changes/wire_forms.h"
#include "configsrv/service/internal/results.h"
#include "configsrv/service/internal/variable_lookup.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {
namespace {

using AppConfig::formatKey;
using AppConfig::StateStamp;

std::list<std::string> listOf(const google::protobuf::RepeatedPtrField<std::string>& strings) {
  return {strings.begin(), strings.end()};
}

ChangeOutcome noVariable() { return {{eErrInvalidRequest, "the path names no variable"}}; }

ChangeOutcome outcomeOf(const ChangeBatch::Result& result) {
  return {result, result.ok() && result.changed == 0, result.reasons, result.revision};
}

std::optional<int> roleIf(bool present, CommonIF::eSecurityRole role) {
  return present ? std::optional<int>(fromWire(role)) : std::nullopt;
}

// The variables of a request, those that name none left out but remembered.
struct NamedVariables {
  std::vector<ConfigIF::Inst> insts;
  std::vector<bool> hasKey;
  std::vector<ConfigVar> keys;
};

NamedVariables namedBy(const google::protobuf::RepeatedPtrField<ConfigIF::Inst>& insts) {
  NamedVariables named;
  for (const ConfigIF::Inst& inst : insts) {
    const std::optional<ConfigVar> key = readInst(inst);
    named.insts.push_back(inst);
    named.hasKey.push_back(key.has_value());
    if (key) named.keys.push_back(*key);
  }
  return named;
}

// Of a node of a path, beside its name.
constexpr std::size_t kBytesOfNode = 128;

// What they take in memory until they are answered, about: each is kept as it came and as a key.
std::size_t bytesOf(const NamedVariables& named) {
  std::size_t bytes = 0;
  for (const ConfigIF::Inst& inst : named.insts) {
    const auto nodes = static_cast<std::size_t>(inst.path_size());
    bytes += sizeof inst + nodes * kBytesOfNode + 2 * inst.ByteSizeLong();
  }
  return bytes + named.keys.size() * (sizeof(ConfigVar) + sizeof(eErrorT));
}

ConfigIF::SetAccessLevelsRsp accessAnswer(const NamedVariables& named,
                                          const ChangeBatch::Result& result) {
  ConfigIF::SetAccessLevelsRsp response;
  std::size_t next = 0;
  for (std::size_t i = 0; i < named.insts.size(); ++i) {
    ConfigIF::AccessLevelsRecord& record = *response.add_records();
    *record.mutable_inst() = named.insts[i];
    const eErrorT error = named.hasKey[i] ? result.errors[next++] : eErrInvalidRequest;
    if (error != eErrNone) record.set_error(static_cast<CommonIF::eErrorType>(error));
  }
  const bool allNamed = !named.keys.empty() && named.keys.size() == named.insts.size();
  const bool onlyBadlyNamed = result.ok() && !allNamed;
  setOutcome(*response.mutable_result(), onlyBadlyNamed ? noVariable() : outcomeOf(result));
  return response;
}

// Of the answers to changes those tell how new the state is that a client caches from them.
void setStamp(const StateStamp& stamp, ConfigIF::WriteRsp& response) { fillStamp(stamp, response); }
void setStamp(const StateStamp& stamp, ConfigIF::SetAttributeOptionsRsp& response) {
  fillStamp(stamp, response);
}
template <typename Response>
void setStamp(const StateStamp&, Response&) {}

StoreChange::SetOptions optionsOf(const ConfigIF::SetAttributeOptionsReq& request) {
  StoreChange::SetOptions options;
  options.options.emplace(request.options().begin(), request.options().end());
  if (request.has_default_index()) options.defaultIndex = request.default_index();
  return options;
}

StoreChange::SetAccess accessOf(const ConfigIF::SetAccessLevelsReq& request) {
  return {roleIf(request.has_read_role(), request.read_role()),
          roleIf(request.has_write_role(), request.write_role())};
}

}  // namespace

bool ChangeRequests::handle(const Incoming& incoming) {
  switch (incoming.messageId) {
    case PlatformSchema::kWriteReq:
      return change<ConfigIF::WriteRsp, &ChangeRequests::write>(incoming);
    case PlatformSchema::kValidateReq:
      return frame_.answerLater<ConfigIF::ValidateRsp, &ChangeRequests::validate>(*this, incoming);
    case PlatformSchema::kResetValueReq:
      return change<ConfigIF::ResetValueRsp, &ChangeRequests::resetValue>(incoming);
    case PlatformSchema::kResetNodeValueReq:
      return change<ConfigIF::ResetNodeValueRsp, &ChangeRequests::resetNodeValue>(incoming);
    case PlatformSchema::kResetAttributeReq:
      return change<ConfigIF::ResetAttributeRsp, &ChangeRequests::resetAttribute>(incoming);
    case PlatformSchema::kSetAttributeOptionsReq:
      return change<ConfigIF::SetAttributeOptionsRsp, &ChangeRequests::setOptions>(incoming);
    case PlatformSchema::kSetAccessLevelsReq:
      return change<ConfigIF::SetAccessLevelsRsp, &ChangeRequests::setAccessLevels>(incoming);
    default:
      return false;
  }
}

template <typename Response, auto begin>
bool ChangeRequests::change(const Incoming& incoming) {
  return frame_.answerLater<Response, begin>(
      *this, incoming,
      [this](const Call& call, const auto& request, const ConfigIF::ReturnMessage& result) {
        if (audit_ != nullptr) recordDenied(call, request, {{eErrDenied, result.messages(0)}});
      });
}

template <typename Response>
ChangeDone ChangeRequests::answering(const Call& call) {
  return [this, id = call.id](const ChangeOutcome& outcome) {
    Response response;
    setOutcome(*response.mutable_result(), outcome);
    if (outcome.ok()) setStamp({model_.epoch(), outcome.changedAt}, response);
    frame_.respond(id, response);
  };
}

template <typename Response>
ChangeBatch::Done ChangeRequests::answeringAll(const Call& call) {
  return [this, id = call.id](const ChangeBatch::Result& result) {
    Response response;
    setOutcome(*response.mutable_result(), outcomeOf(result));
    response.set_changed(result.changed);
    frame_.respond(id, response);
  };
}

// Nobody else hears of a failed write that its writer does not wait for.
ChangeDone ChangeRequests::logging(const Call& call, const ConfigVar& key, ChangeDone answer) {
  if (!call.id.oneWay) return answer;
  return [this, line = formatKey(key) + ": a one-way write by " + call.by.clientName,
          answer = std::move(answer)](const ChangeOutcome& outcome) {
    if (!outcome.ok())
      log_.repeatable(LogLevel::Info, "one-way",
                      line + " failed with error " + std::to_string(outcome.code));
    answer(outcome);
  };
}

void ChangeRequests::submitOne(const Call& call, const ConfigIF::Inst& inst, Wanted what,
                               ChangeDone answer) {
  std::optional<ConfigVar> key = readInst(inst);
  if (!key) return answer(noVariable());
  ChangeDone done = logging(call, *key, std::move(answer));
  changes_.submit({call.by, {std::move(*key), std::move(what)}}, std::move(done));
}

// What was never changed and is not this caller's to change needs no error.
void ChangeRequests::submitBelow(const Call& call, const std::string& name, const Wanted& what,
                                 const ChangeBatch::Done& answer) {
  const CoveredVariables covered = model_.below(AppConfig::lowerCase(name));
  const auto nth = [covered, what, role = call.by.role](std::size_t n) {
    const Variable& variable = covered[n];
    const bool isTheirs = role >= variable.writeRole() && !variable.shape().readOnly;
    if (variable.changedAt() == 0 && !isTheirs) return std::optional<StoreChange>();
    return std::optional<StoreChange>({variable.key(), what});
  };
  if (covered.size() > 0 || name.empty())
    return ChangeBatch::run(changes_, slices_, call.by, {covered.size(), nth, 0, false}, answer);
  ChangeBatch::Result nothing;
  nothing.code = eErrNotFound;
  nothing.text = name + ": no variable is named so, and none lies below it";
  answer(nothing);
}

void ChangeRequests::write(const Call& call, const ConfigIF::WriteReq& request) {
  submitOne(call, request.value().inst(), StoreChange::SetValue{listOf(request.value().values())},
            answering<ConfigIF::WriteRsp>(call));
}

void ChangeRequests::validate(const Call& call, const ConfigIF::ValidateReq& request) {
  ChangeDone answer = answering<ConfigIF::ValidateRsp>(call);
  std::optional<ConfigVar> key = readInst(request.value().inst());
  if (!key) return answer(noVariable());
  StoreChange::SetValue what{listOf(request.value().values())};
  changes_.validate({call.by, {std::move(*key), std::move(what)}}, std::move(answer));
}

void ChangeRequests::resetValue(const Call& call, const ConfigIF::ResetValueReq& request) {
  submitOne(call, request.inst(), StoreChange::ResetValue{},
            answering<ConfigIF::ResetValueRsp>(call));
}

void ChangeRequests::resetNodeValue(const Call& call, const ConfigIF::ResetNodeValueReq& request) {
  submitBelow(call, request.name(), StoreChange::ResetValue{},
              answeringAll<ConfigIF::ResetNodeValueRsp>(call));
}

void ChangeRequests::setOptions(const Call& call, const ConfigIF::SetAttributeOptionsReq& request) {
  submitOne(call, request.inst(), optionsOf(request),
            answering<ConfigIF::SetAttributeOptionsRsp>(call));
}

void ChangeRequests::resetAttribute(const Call& call, const ConfigIF::ResetAttributeReq& request) {
  submitBelow(call, request.name(), StoreChange::ResetAttributes{},
              answeringAll<ConfigIF::ResetAttributeRsp>(call));
}

void ChangeRequests::setAccessLevels(const Call& call,
                                     const ConfigIF::SetAccessLevelsReq& request) {
  const StoreChange::SetAccess access = accessOf(request);
  const auto named = std::make_shared<const NamedVariables>(namedBy(request.inst()));
  const auto nth = [named, access](std::size_t n) {
    return std::optional<StoreChange>({named->keys[n], access});
  };
  const std::size_t bytes = bytesOf(*named);
  ChangeBatch::run(changes_, slices_, call.by, {named->keys.size(), nth, bytes, true},
                   [this, id = call.id, named](const ChangeBatch::Result& result) {
                     frame_.respond(id, accessAnswer(*named, result));
                   });
}

// --- What was denied before it became a change ---

void ChangeRequests::recordDenied(const Call& call, const ConfigIF::Inst& inst, Wanted what,
                                  const ChangeOutcome& outcome) {
  const std::optional<ConfigVar> key = readInst(inst);
  if (!key) return;
  audit_->changeEnds(call.by, {*key, std::move(what)}, model_.find(*key), outcome);
}

void ChangeRequests::recordDenied(const Call& call, const ConfigIF::WriteReq& request,
                                  const ChangeOutcome& outcome) {
  recordDenied(call, request.value().inst(),
               StoreChange::SetValue{listOf(request.value().values())}, outcome);
}

void ChangeRequests::recordDenied(const Call& call, const ConfigIF::ResetValueReq& request,
                                  const ChangeOutcome& outcome) {
  recordDenied(call, request.inst(), StoreChange::ResetValue{}, outcome);
}

void ChangeRequests::recordDenied(const Call& call, const ConfigIF::ResetNodeValueReq& request,
                                  const ChangeOutcome& outcome) {
  audit_->refusedBelow(call.by, "reset", request.name(), outcome);
}

void ChangeRequests::recordDenied(const Call& call, const ConfigIF::SetAttributeOptionsReq& request,
                                  const ChangeOutcome& outcome) {
  recordDenied(call, request.inst(), optionsOf(request), outcome);
}

void ChangeRequests::recordDenied(const Call& call, const ConfigIF::SetAccessLevelsReq& request,
                                  const ChangeOutcome& outcome) {
  for (const ConfigIF::Inst& inst : request.inst())
    recordDenied(call, inst, accessOf(request), outcome);
}

void ChangeRequests::recordDenied(const Call& call, const ConfigIF::ResetAttributeReq& request,
                                  const ChangeOutcome& outcome) {
  audit_->refusedBelow(call.by, "reset-attributes", request.name(), outcome);
}

}  // namespace ConfigSrv
