// Requests about callbacks, and submits.
#include <algorithm>

#include "appconfig/core/key_notation.h"
#include "configsrv/service/internal/requests.h"
#include "platform/messaging/frame.h"

namespace ConfigSrv {
namespace {

// A type that this schema does not know reads as absent, which stands for another type; its trace
// among the unknown fields gives it away.
template <typename Request>
bool hasUnknownType(const Request& request) {
  return !request.has_type() && !request.unknown_fields().empty();
}

}  // namespace

struct Requests::CatchUp {
  Call call;
  Registration registration;
  std::vector<const Variable*> covered;
  std::size_t next = 0;
  // A provider that changes may wait for.
  bool isBack = false;
};

// Over a connection for requests the answer goes first, so that a client knows of its registration
// before it is told anything.
//
// Over the delivery connection, where registrations are repeated, it goes last: whoever repeats many
// may be owed more than may wait for a reader, so each is told no faster than its client reads, and
// the next is not taken before. The client counts itself up to date once it is told anything newer
// than the answer, so all that was owed has to be queued before.
void Requests::registerCallback(const Call& call,
                                const ConfigIF::RegisterClientCallbackReq& request) {
  ConfigIF::RegisterClientCallbackRsp response;
  ConfigIF::ReturnMessage& result = *response.mutable_result();
  if (hasUnknownType(request)) {
    setError(result, eErrInvalidRequest, "unknown callback type");
    return respond(call.id, response);
  }
  const Registration registration{request.name(), request.type(), request.endpoint_name(),
                                  request.client_name(), call.by.role};
  const bool provides = isProvider(request);
  if (provides && !mayProvideAny(call, registration.name)) {
    refuseProvider(call, registration);
    setError(result, eErrDenied,
             registration.name +
                 ": the role is too low to provide it, which takes the right to "
                 "read it and a user who may write it");
    return respond(call.id, response);
  }
  const std::string refusal = with_.subscriptions.add(call.by.peer, call.by.owner, registration);
  if (!refusal.empty()) {
    with_.log.repeatable(LogLevel::Warning, "registration",
                         "a registration of " + call.by.clientName + " refused: " + refusal);
    setError(result, eErrLimit, refusal);
    return respond(call.id, response);
  }
  const PbUtility::Peer* peer = with_.server.peer(call.by.peer);
  const bool isBack =
      provides && peer != nullptr && with_.providers.registered(*peer, registration);
  if (call.overDelivery && call.knownRevision != PbUtility::kRevisionNow) {
    return catchUp(std::make_shared<CatchUp>(
        CatchUp{call, registration, with_.model.covered(lowerCase(registration.name)), 0, isBack}));
  }
  respond(call.id, response);
  if (isBack) with_.changes.providersCame();
  if (call.knownRevision == PbUtility::kRevisionNow) return;
  for (const Variable* variable : with_.model.covered(lowerCase(registration.name)))
    bringUpToDate(call, registration, *variable);
}

void Requests::bringUpToDate(const Call& call, const Registration& registration,
                             const Variable& variable) {
  with_.announcer.bringUpToDate(call.by.peer, registration, variable, call.knownRevision);
  with_.changes.broughtUpToDate(call.by.peer, variable);
}

bool Requests::isProvider(const ConfigIF::RegisterClientCallbackReq& request) const {
  return request.type() == ConfigIF::CALLBACK_ON_CHANGE ||
         request.type() == ConfigIF::CALLBACK_DYNAMIC_VALIDATE;
}

// A name that nothing has is anybody's: it stands for what definitions may bring later.
bool Requests::mayProvideAny(const Call& call, const std::string& name) const {
  const PbUtility::Peer* peer = with_.server.peer(call.by.peer);
  if (peer == nullptr) return false;
  const AppConfig::SecurityRole highest = with_.access.highestRole(peer->uid, peer->gid);
  const std::vector<const Variable*> covered = with_.model.covered(lowerCase(name));
  return covered.empty() ||
         std::any_of(covered.begin(), covered.end(), [&](const Variable* variable) {
           return call.by.role >= variable->readRole() && highest >= variable->writeRole();
         });
}

// A provider that was one before the restart is not waited for either.
void Requests::refuseProvider(const Call& call, const Registration& registration) {
  const PbUtility::Peer* peer = with_.server.peer(call.by.peer);
  if (peer == nullptr) return;
  with_.log.warning("client \"" + peer->name + "\" (pid " + std::to_string(peer->pid) + ", uid " +
                    std::to_string(peer->uid) + ") denied: it may not provide \"" +
                    registration.name + "\"");
  if (with_.providers.refused(*peer, registration)) with_.changes.providersCame();
}

void Requests::catchUp(const std::shared_ptr<CatchUp>& catchUp) {
  const Call& call = catchUp->call;
  while (catchUp->next < catchUp->covered.size()) {
    if (!with_.server.hasRoom(call.id)) {
      return with_.server.whenRoom(call.id, [this, catchUp] { this->catchUp(catchUp); });
    }
    bringUpToDate(call, catchUp->registration, *catchUp->covered[catchUp->next++]);
  }
  ConfigIF::RegisterClientCallbackRsp response;
  response.mutable_result();
  respond(call.id, response);
  if (catchUp->isBack) with_.changes.providersCame();
}

void Requests::unregisterCallback(const Call& call,
                                  const ConfigIF::UnregisterClientCallbackReq& request,
                                  ConfigIF::UnregisterClientCallbackRsp& response) {
  if (hasUnknownType(request))
    return setError(*response.mutable_result(), eErrInvalidRequest, "unknown callback type");
  if (!with_.subscriptions.remove(call.by.peer, request.name(), request.type(),
                                  request.endpoint_name()))
    return setError(*response.mutable_result(), eErrNotFound, "there is no such registration");
  with_.providers.withdrawn(call.by.peer, with_.subscriptions);
}

// Carries no role, so there is none to check; it only ever takes what the peer itself has given.
void Requests::unregisterAll(const Incoming& incoming) {
  ConfigIF::UnregisterAllClientCallbacksReq request;
  ConfigIF::UnregisterAllClientCallbacksRsp response;
  if (!parse(incoming, request, response, *response.mutable_result())) return;
  with_.subscriptions.removeAll(incoming.peer.id, request.client_name());
  with_.providers.withdrawn(incoming.peer.id, with_.subscriptions);
  respond(incoming.id, response);
}

void Requests::submit(const Call& call, const ConfigIF::SubmitReq& request,
                      ConfigIF::SubmitRsp& response) {
  const Variable* variable = find(request.inst(), *response.mutable_result());
  if (variable == nullptr) return;
  if (call.by.role < variable->writeRole())
    return setError(*response.mutable_result(), eErrDenied,
                    AppConfig::formatKey(variable->key()) + ": the role is too low to submit it");
  with_.announcer.submitted(*variable, request.type());
}

}  // namespace ConfigSrv
