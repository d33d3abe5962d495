// ToolRequests: the requests that tools make: listings, and the state of the service.
//
// Threads:  one. Owns nothing: what it is made of outlives it.
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

#include "configsrv/changes/announcer.h"
#include "configsrv/changes/changes.h"
#include "configsrv/in_force/in_force.h"
#include "configsrv/model/model.h"
#include "configsrv/service/internal/read_requests.h"
#include "configsrv/service/internal/request_frame.h"
#include "configsrv/service/service.h"
#include "configsrv/store/store.h"
#include "configsrv/subscriptions/subscriptions.h"
#include "platform/messaging/serving/server.h"

namespace ConfigSrv {

class ToolRequests {
 public:
  // Records of one page of a listing, however many are asked for.
  static constexpr std::size_t kMaxListed = 1024;
  // Mistakes in files that the state of the service tells: the log has all of them.
  static constexpr std::size_t kMaxMistakesTold = 20;

  // All of it is there to be counted, but for the model, which is listed.
  struct Parts {
    const ServiceOptions& options;
    const Standing& standing;
    const Model& model;
    const Subscriptions& subscriptions;
    const Announcer& announcer;
    const Changes& changes;
    const ReadRequests& reads;
    const PbUtility::Server& server;
    // For its counters alone; all else of it is another thread's.
    const Store& store;
  };
  ToolRequests(RequestFrame& frame, const Parts& with) : frame_(frame), with_(with) {}

  // False, and nothing was done, when the request is none of these.
  bool handle(const Incoming& incoming);

 private:
  void list(const Call&, const ConfigIF::ListReq&, ConfigIF::ListRsp&);
  bool findListed(const ConfigIF::ListReq&, std::vector<const Variable*>& listed,
                  ConfigIF::ReturnMessage&) const;
  void status(const Call&, const ConfigIF::StatusReq&, ConfigIF::StatusRsp&);
  void tellStanding(ConfigIF::StatusRsp&) const;
  void clients(const Call&, const ConfigIF::ClientsReq&, ConfigIF::ClientsRsp&);

  RequestFrame& frame_;
  const Parts with_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};

}  // namespace ConfigSrv
