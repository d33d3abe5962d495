// MonitorRequests: who begins to watch the service live, and who stops.
//
// Threads:  one. Owns nothing: what it is made of outlives it.
#pragma once

#include "configsrv/monitor/monitor.h"
#include "configsrv/service/internal/request_frame.h"

namespace ConfigSrv {

class MonitorRequests {
 public:
  MonitorRequests(RequestFrame& frame, Monitor& monitor) : frame_(frame), monitor_(monitor) {}

  // False, and nothing was done, when the request is none of these.
  bool handle(const Incoming& incoming);

 private:
  void monitor(const Call&, const ConfigIF::MonitorReq&, ConfigIF::MonitorRsp&);

  RequestFrame& frame_;
  Monitor& monitor_;
};

}  // namespace ConfigSrv
