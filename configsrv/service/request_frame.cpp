// What does not depend on the kind of a request. The templates of the header make the messages, which
// live as long as the call, and leave everything else to the functions here.
#include "configsrv/service/internal/request_frame.h"

#include <memory>

#include "configsrv/changes/wire_forms.h"
#include "configsrv/service/internal/results.h"
#include "platform/schema/message_bounds.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {
namespace {

std::uint32_t code(eErrorT error) { return static_cast<std::uint32_t>(error); }

}  // namespace

bool RequestFrame::parse(const Incoming& incoming, google::protobuf::MessageLite& request,
                         google::protobuf::MessageLite& response, ConfigIF::ReturnMessage& result) {
  using PlatformSchema::Reading;
  const Base::Status<Reading> read =
      PlatformSchema::readMessage(incoming.messageId, incoming.payload, request);
  if (read.ok()) return true;
  if (read.code == Reading::TooMuch) {
    logRefusal(incoming, read.text);
    setError(result, eErrLimit, read.text);
    respond(incoming.id, response);
    return false;
  }
  refuse(incoming, eErrInvalidRequest, read.text);
  return false;
}

bool RequestFrame::admit(const Incoming& incoming, const std::string& clientName,
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
  if (access_.mayClaim(peer.uid, peer.gid, role)) return true;
  const std::string text = access_.denial(peer.uid, peer.gid, role);
  log_.repeatable(
      LogLevel::Warning, "denied",
      "client \"" + peer.name + "\" (pid " + std::to_string(peer.pid) + ") denied: " + text);
  setError(result, eErrDenied, text);
  return false;
}

void RequestFrame::keepCaller(const Incoming& incoming, Call& call) const {
  if (recordsChanges_) call.by.caller = std::make_shared<const PbUtility::Peer>(incoming.peer);
}

void RequestFrame::respond(const PbUtility::RequestId& id,
                           const google::protobuf::MessageLite& response) {
  server_.respond(id, response, model_.revision());
}

void RequestFrame::logRefusal(const Incoming& incoming, const std::string& text) {
  log_.repeatable(LogLevel::Warning, "refused", "client \"" + incoming.peer.name + "\": " + text);
}

void RequestFrame::refuse(const Incoming& incoming, eErrorT error, const std::string& text) {
  logRefusal(incoming, text);
  server_.refuse(incoming.id, code(error), text);
}

}  // namespace ConfigSrv
