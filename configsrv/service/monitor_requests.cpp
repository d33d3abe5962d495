#include "configsrv/service/internal/monitor_requests.h"

#include "configsrv/service/internal/results.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {

bool MonitorRequests::handle(const Incoming& incoming) {
  if (incoming.messageId != PlatformSchema::kMonitorReq) return false;
  return frame_.answerNow<&MonitorRequests::monitor>(*this, incoming);
}

// The endpoint repeats it on each delivery connection, so a repeated stop is no mistake.
void MonitorRequests::monitor(const Call& call, const ConfigIF::MonitorReq& request,
                              ConfigIF::MonitorRsp& response) {
  if (request.stop()) return monitor_.remove(call.by.peer);
  const Base::Status<> added =
      monitor_.add(call.by.peer, call.by.owner, call.by.role, request.prefix());
  if (!added.ok()) setError(*response.mutable_result(), eErrLimit, added.text);
}

}  // namespace ConfigSrv
