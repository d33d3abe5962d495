// StoreRequests: the requests that copy the store as a whole, or put a copy in its place.
//
// Threads:  one; the work with the store is done on the thread that makes changes durable. Owns
//           nothing: what it is made of outlives it.
#pragma once

#include <functional>
#include <string>

#include "configsrv/log/log.h"
#include "configsrv/model/model.h"
#include "configsrv/service/internal/request_frame.h"
#include "configsrv/store/commit_queue.h"
#include "platform/messaging/serving/server.h"

namespace ConfigSrv {

class StoreRequests {
 public:
  struct Parts {
    const Log& log;
    const Model& model;
    // For who a peer is.
    const PbUtility::Server& server;
    // The store's.
    std::string file;
    // Does work with the store on the thread that makes changes durable, then calls `done` in the loop.
    std::function<void(CommitQueue::Work work, std::function<void()> done)> withStore;
    // Ends this run of the service, for another with the store that is there then.
    std::function<void()> restart;
  };
  StoreRequests(RequestFrame& frame, Parts with) : frame_(frame), with_(std::move(with)) {}

  // False, and nothing was done, when the request is none of these.
  bool handle(const Incoming& incoming);

 private:
  bool mayManageStore(const Call& call, ConfigIF::ReturnMessage& result) const;
  void storeSnapshot(const Call&, const ConfigIF::StoreSnapshotReq&);
  void storeRestore(const Call&, const ConfigIF::StoreRestoreReq&);

  RequestFrame& frame_;
  const Parts with_;
};

}  // namespace ConfigSrv
