// Requests: what the service answers to each request of the protocol.
//
// A frame that is the same for all (RequestFrame), and a family of handlers for each sort of request.
// A request is offered to one family after the other, and is the first one's that knows its message id.
// Answers that need nobody else are given at once; changes, validations and what takes the store as a
// whole answer when they have ended.
//
// Errors:   see RequestFrame; what is no family's is refused with eErrNotSupported.
// Access:   before a request is looked at, its role is held against what the kernel says of the peer.
// Threads:  one at a time, whichever runs the server's loop.
// Owns:     the frame and the families. All of RequestContext outlives it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "configsrv/service/internal/callback_requests.h"
#include "configsrv/service/internal/change_requests.h"
#include "configsrv/service/internal/monitor_requests.h"
#include "configsrv/service/internal/read_requests.h"
#include "configsrv/service/internal/request_frame.h"
#include "configsrv/service/internal/slices.h"
#include "configsrv/service/internal/store_requests.h"
#include "configsrv/service/internal/tool_requests.h"
#include "configsrv/service/service.h"

namespace ConfigSrv {

// All that the families are made of.
struct RequestContext {
  const ServiceOptions& options;
  const Log& log;
  const Standing& standing;
  const AccessPolicy& access;
  const Model& model;
  Subscriptions& subscriptions;
  Announcer& announcer;
  Changes& changes;
  Monitor& monitor;
  // The way of all answers, past the monitor.
  MonitorTap& tap;
  PbUtility::Server& server;
  ProviderMemory& providers;
  // Null: nothing is recorded.
  AuditTrail* audit;
  const Store& store;
  // See StoreRequests::Parts.
  std::function<void(CommitQueue::Work work, std::function<void()> done)> withStore;
  std::function<void()> restart;
};

class Requests {
 public:
  explicit Requests(const RequestContext& with);
  Requests(const Requests&) = delete;
  Requests& operator=(const Requests&) = delete;

  void handle(const Incoming& incoming);

  // The revision that a notice to the peer may carry: see OwedNotices.
  std::uint64_t carried(PbUtility::PeerId peer, std::uint64_t revision) const {
    return callbacks_.carried(peer, revision);
  }

 private:
  Slices slices_;
  RequestFrame frame_;
  ReadRequests reads_;
  ChangeRequests changes_;
  CallbackRequests callbacks_;
  ToolRequests tools_;
  MonitorRequests monitors_;
  StoreRequests stores_;
};

}  // namespace ConfigSrv
