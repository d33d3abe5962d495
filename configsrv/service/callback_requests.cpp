// A registration goes through up to three steps, each in slices where it covers many variables: may
// it provide any of them (findProvided); taken and answered (takeRegistration); told what it has missed
// (catchUp). What it needs meanwhile is one object, Registering, that the steps hand on.
#include "configsrv/service/internal/callback_requests.h"

#include <algorithm>

#include "appconfig/core/key_notation.h"
#include "appconfig/core/lower_case.h"
#include "configsrv/service/internal/results.h"
#include "platform/messaging/wire/frame.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {
namespace {

// A type that this schema does not know reads as absent, which stands for another type; its trace
// among the unknown fields gives it away.
template <typename Request>
bool hasUnknownType(const Request& request) {
  return !request.has_type() && !request.unknown_fields().empty();
}

}  // namespace

bool CallbackRequests::handle(const Incoming& incoming) {
  switch (incoming.messageId) {
    case PlatformSchema::kRegisterClientCallbackReq:
      return frame_
          .answerLater<ConfigIF::RegisterClientCallbackRsp, &CallbackRequests::registerCallback>(
              *this, incoming);
    case PlatformSchema::kUnregisterClientCallbackReq:
      return frame_.answerNow<&CallbackRequests::unregisterCallback>(*this, incoming);
    case PlatformSchema::kUnregisterAllClientCallbacksReq:
      return unregisterAll(incoming);
    case PlatformSchema::kSubmitReq:
      return frame_.answerNow<&CallbackRequests::submit>(*this, incoming);
    default:
      return false;
  }
}

struct CallbackRequests::Registering {
  Registering(Subscriptions& where, Call from, Registration wanted, CoveredVariables variables)
      : subscriptions(where),
        call(std::move(from)),
        registration(std::move(wanted)),
        covered(variables) {}
  ~Registering() {
    subscriptions.release(call.by.owner, reserved);
    if (owed != nullptr) owed->end(call.by.peer, answeredAt);
  }
  Registering(const Registering&) = delete;
  Registering& operator=(const Registering&) = delete;

  // What it takes as long as it waits for its next slice, about.
  std::size_t bytes() const {
    return 2 * sizeof *this + registration.name.size() + registration.identity.size() +
           registration.clientName.size() + call.by.clientName.size();
  }

  Subscriptions& subscriptions;
  const Call call;
  const Registration registration;
  const CoveredVariables covered;
  bool provides = false;
  // Of the variables, the next one to look at.
  std::size_t next = 0;
  std::size_t reserved = 0;
  // A provider that changes may wait for.
  bool isBack = false;
  // Not null when it was answered before it was told everything.
  std::shared_ptr<OwedNotices> owed;
  std::uint64_t answeredAt = 0;
};

// A name may cover every variable that there is, so all of this goes in slices: first, of a provider,
// whether it may be asked about any of them; then, what has to be told.
//
// Over a connection for requests the answer goes first, so that a client knows of its registration
// before it is told anything. What is told after the first slice is owed: see OwedNotices.
//
// Over the delivery connection, where registrations are repeated, it goes last: whoever repeats many
// may be owed more than may wait for a reader, so each is told no faster than its client reads, and
// while it does not, no further request of that connection is taken. The client counts itself up to date
// once it is told anything newer than the answer, so all that was owed has to be queued before. Changes
// between two slices are told as they come: their notices are older than the answer, and say nothing
// of this registration.
//
// A variable that changes between two slices was told of then, or is told with its newest state by
// a slice that comes later.
void CallbackRequests::registerCallback(const Call& call,
                                        const ConfigIF::RegisterClientCallbackReq& request) {
  const auto registering = std::make_shared<Registering>(
      with_.subscriptions, call,
      Registration{request.name(), request.type(), request.endpoint_name(), request.client_name(),
                   call.by.role},
      with_.model.below(AppConfig::lowerCase(request.name())));
  if (hasUnknownType(request))
    return refuseRegistration(*registering, eErrInvalidRequest, "unknown callback type");
  registering->provides = isProvider(request);
  const bool walks = registering->provides || call.knownRevision != PbUtility::kRevisionNow;
  if (walks && registering->covered.size() > kVariablesAtOnce) {
    const Base::Status<> room = with_.subscriptions.reserve(call.by.owner, registering->bytes());
    if (!room.ok()) return refuseRegistration(*registering, eErrLimit, room.text);
    registering->reserved = registering->bytes();
  }
  if (!registering->provides) return takeRegistration(registering);
  runInSlices(registering, &CallbackRequests::findProvided);
}

void CallbackRequests::runInSlices(const RegisteringPtr& registering, Step step) {
  if (!(this->*step)(registering)) return;
  with_.slices.add(registering->call.by.owner.uid,
                   [this, registering, step] { return (this->*step)(registering); });
}

void CallbackRequests::refuseRegistration(const Registering& registering, eErrorT error,
                                          const std::string& text) {
  if (error == eErrLimit)
    with_.log.repeatable(
        LogLevel::Warning, "registration",
        "a registration of " + registering.call.by.clientName + " refused: " + text);
  ConfigIF::RegisterClientCallbackRsp response;
  setError(*response.mutable_result(), error, text);
  frame_.respond(registering.call.id, response);
}

bool CallbackRequests::isProvider(const ConfigIF::RegisterClientCallbackReq& request) const {
  return request.type() == ConfigIF::CALLBACK_ON_CHANGE ||
         request.type() == ConfigIF::CALLBACK_DYNAMIC_VALIDATE;
}

// A name that nothing has is anybody's: it stands for what definitions may bring later.
bool CallbackRequests::findProvided(const RegisteringPtr& registering) {
  const Call& call = registering->call;
  const PbUtility::Peer* peer = with_.server.peer(call.by.peer);
  if (peer == nullptr) return false;
  const AppConfig::SecurityRole highest = with_.access.highestRole(peer->uid, peer->gid);
  const CoveredVariables& covered = registering->covered;
  const std::size_t end = std::min(registering->next + kVariablesAtOnce, covered.size());
  bool mayProvide = covered.size() == 0;
  for (; registering->next < end && !mayProvide; ++registering->next) {
    const Variable& variable = covered[registering->next];
    mayProvide = call.by.role >= variable.readRole() && highest >= variable.writeRole();
  }
  if (mayProvide) {
    takeRegistration(registering);
  } else if (registering->next == covered.size()) {
    refuseProvider(call, registering->registration);
    refuseRegistration(*registering, eErrDenied,
                       registering->registration.name +
                           ": the role is too low to provide it, which takes the right to "
                           "read it and a user who may write it");
  }
  return !mayProvide && registering->next < covered.size();
}

// A provider that was one before the restart is not waited for either.
void CallbackRequests::refuseProvider(const Call& call, const Registration& registration) {
  const PbUtility::Peer* peer = with_.server.peer(call.by.peer);
  if (peer == nullptr) return;
  with_.log.warning("client \"" + peer->name + "\" (pid " + std::to_string(peer->pid) + ", uid " +
                    std::to_string(peer->uid) + ") denied: it may not provide \"" +
                    registration.name + "\"");
  if (with_.providers.refused(*peer, registration)) with_.changes.providersCame();
}

void CallbackRequests::takeRegistration(const RegisteringPtr& registering) {
  const Call& call = registering->call;
  const Registration& registration = registering->registration;
  const Base::Status<> added = with_.subscriptions.add(call.by.peer, call.by.owner, registration);
  if (!added.ok()) return refuseRegistration(*registering, eErrLimit, added.text);
  const PbUtility::Peer* peer = with_.server.peer(call.by.peer);
  registering->isBack =
      registering->provides && peer != nullptr && with_.providers.registered(*peer, registration);
  registering->next = 0;
  const bool knowsAll = call.knownRevision == PbUtility::kRevisionNow;
  if (call.overDelivery && !knowsAll) return runInSlices(registering, &CallbackRequests::catchUp);
  registering->answeredAt = with_.model.revision();
  answerRegistration(*registering);
  if (knowsAll) return;
  if (registering->covered.size() > kVariablesAtOnce) {
    registering->owed = owed_;
    owed_->begin(call.by.peer, registering->answeredAt);
  }
  runInSlices(registering, &CallbackRequests::catchUp);
}

void CallbackRequests::answerRegistration(const Registering& registering) {
  ConfigIF::RegisterClientCallbackRsp response;
  response.mutable_result();
  frame_.respond(registering.call.id, response);
  if (registering.isBack) with_.changes.providersCame();
}

void CallbackRequests::bringUpToDate(const Call& call, const Registration& registration,
                                     const Variable& variable) {
  with_.announcer.bringUpToDate(call.by.peer, registration, variable, call.knownRevision);
  with_.changes.broughtUpToDate(call.by.peer, variable);
}

// Whoever is gone, or has withdrawn the registration meanwhile, is told no more.
bool CallbackRequests::catchUp(const RegisteringPtr& registering) {
  const Call& call = registering->call;
  const CoveredVariables& covered = registering->covered;
  const bool answersLast = call.overDelivery;
  const bool isThere = with_.subscriptions.contains(call.by.peer, registering->registration);
  const std::size_t end =
      isThere ? std::min(registering->next + kVariablesAtOnce, covered.size()) : covered.size();
  for (; isThere && registering->next < end; ++registering->next) {
    if (answersLast && !with_.server.hasRoom(call.id)) {
      with_.server.whenRoom(
          call.id, [this, registering] { runInSlices(registering, &CallbackRequests::catchUp); });
      return false;
    }
    bringUpToDate(call, registering->registration, covered[registering->next]);
  }
  if (end < covered.size()) return true;
  if (answersLast) answerRegistration(*registering);
  return false;
}

void CallbackRequests::unregisterCallback(const Call& call,
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
bool CallbackRequests::unregisterAll(const Incoming& incoming) {
  ConfigIF::UnregisterAllClientCallbacksReq request;
  ConfigIF::UnregisterAllClientCallbacksRsp response;
  if (!frame_.parse(incoming, request, response, *response.mutable_result())) return true;
  with_.subscriptions.removeAll(incoming.peer.id, request.client_name());
  with_.providers.withdrawn(incoming.peer.id, with_.subscriptions);
  frame_.respond(incoming.id, response);
  return true;
}

void CallbackRequests::submit(const Call& call, const ConfigIF::SubmitReq& request,
                              ConfigIF::SubmitRsp& response) {
  const Variable* variable = lookup_.find(request.inst(), *response.mutable_result());
  if (variable == nullptr) return;
  if (call.by.role < variable->writeRole())
    return setError(*response.mutable_result(), eErrDenied,
                    AppConfig::formatKey(variable->key()) + ": the role is too low to submit it");
  with_.announcer.submitted(*variable, request.type());
}

}  // namespace ConfigSrv
