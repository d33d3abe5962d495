// Requests about callbacks, and submits.
#include "appconfig/core/key_notation.h"
#include "configsrv/service/internal/requests.h"

namespace ConfigSrv {
namespace {

// A type that this schema does not know reads as absent, which stands for another type; its trace
// among the unknown fields gives it away.
template <typename Request>
bool hasUnknownType(const Request& request) {
  return !request.has_type() && !request.unknown_fields().empty();
}

}  // namespace

// The answer goes first, so that a client knows of its registration before it is told anything.
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
  const std::string refusal = with_.subscriptions.add(call.by.peer, registration);
  if (!refusal.empty()) {
    with_.log.warning("a registration of " + call.by.clientName + " refused: " + refusal);
    setError(result, eErrLimit, refusal);
    return respond(call.id, response);
  }
  respond(call.id, response);
  with_.announcer.bringUpToDate(call.by.peer, registration, call.knownRevision);
}

void Requests::unregisterCallback(const Call& call,
                                  const ConfigIF::UnregisterClientCallbackReq& request,
                                  ConfigIF::UnregisterClientCallbackRsp& response) {
  if (hasUnknownType(request))
    return setError(*response.mutable_result(), eErrInvalidRequest, "unknown callback type");
  if (!with_.subscriptions.remove(call.by.peer, request.name(), request.type(),
                                  request.endpoint_name()))
    setError(*response.mutable_result(), eErrNotFound, "there is no such registration");
}

// Carries no role, so there is none to check; it only ever takes what the peer itself has given.
void Requests::unregisterAll(const Incoming& incoming) {
  ConfigIF::UnregisterAllClientCallbacksReq request;
  if (!parse(incoming, request)) return;
  with_.subscriptions.removeAll(incoming.peer.id, request.client_name());
  ConfigIF::UnregisterAllClientCallbacksRsp response;
  response.mutable_result();
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
