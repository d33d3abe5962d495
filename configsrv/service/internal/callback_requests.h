// CallbackRequests: who wants to be told, or asked, about which variables; and submits, which are told.
//
// Slices:   a name may cover every variable that there is, so a registration is held against them, and
//           told what it has missed of them, some at a time.
// Threads:  one. Owns nothing: what it is made of outlives it, and it outlives the slices.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "configsrv/access/access_policy.h"
#include "configsrv/changes/announcer.h"
#include "configsrv/changes/changes.h"
#include "configsrv/log/log.h"
#include "configsrv/model/model.h"
#include "configsrv/providers/provider_memory.h"
#include "configsrv/service/internal/owed_notices.h"
#include "configsrv/service/internal/request_frame.h"
#include "configsrv/service/internal/slices.h"
#include "configsrv/service/internal/variable_lookup.h"
#include "configsrv/subscriptions/subscriptions.h"
#include "platform/messaging/serving/server.h"

namespace ConfigSrv {

class CallbackRequests {
 public:
  // Variables that a registration is held against, or told of, before the others have their turn.
  static constexpr std::size_t kVariablesAtOnce = 256;

  struct Parts {
    const Log& log;
    const AccessPolicy& access;
    const Model& model;
    Subscriptions& subscriptions;
    Announcer& announcer;
    Changes& changes;
    ProviderMemory& providers;
    // For who a peer is, and for its room.
    PbUtility::Server& server;
    Slices& slices;
  };
  CallbackRequests(RequestFrame& frame, const Parts& with)
      : frame_(frame), with_(with), lookup_(with.model) {}

  // False, and nothing was done, when the request is none of these.
  bool handle(const Incoming& incoming);

  // The revision that a notice to the peer may carry: see OwedNotices.
  std::uint64_t carried(PbUtility::PeerId peer, std::uint64_t revision) const {
    return owed_->carried(peer, revision);
  }

 private:
  // A registration on its way, from the request to the last notice that is owed to it.
  struct Registering;
  using RegisteringPtr = std::shared_ptr<Registering>;
  // Returns whether there is more to do.
  using Step = bool (CallbackRequests::*)(const RegisteringPtr&);

  bool isProvider(const ConfigIF::RegisterClientCallbackReq& request) const;
  void registerCallback(const Call&, const ConfigIF::RegisterClientCallbackReq&);
  void refuseRegistration(const Registering& registering, eErrorT error, const std::string& text);
  void refuseProvider(const Call& call, const Registration& registration);
  void runInSlices(const RegisteringPtr& registering, Step step);
  // Whether the caller may be asked about anything that the name covers now.
  bool findProvided(const RegisteringPtr& registering);
  void takeRegistration(const RegisteringPtr& registering);
  void answerRegistration(const Registering& registering);
  // Tells a registration what it has missed of a variable.
  void bringUpToDate(const Call&, const Registration&, const Variable&);
  // Tells it what it has missed of all that it covers.
  bool catchUp(const RegisteringPtr& registering);
  void unregisterCallback(const Call&, const ConfigIF::UnregisterClientCallbackReq&,
                          ConfigIF::UnregisterClientCallbackRsp&);
  bool unregisterAll(const Incoming& incoming);
  void submit(const Call&, const ConfigIF::SubmitReq&, ConfigIF::SubmitRsp&);

  RequestFrame& frame_;
  const Parts with_;
  const VariableLookup lookup_;
  // Also each registration's that is owed notices.
  const std::shared_ptr<OwedNotices> owed_ = std::make_shared<OwedNotices>();
};

}  // namespace ConfigSrv
