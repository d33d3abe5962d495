// RequestFrame: what is done around every request, whatever it asks for: parsed, its role held against
// what the kernel says of the peer, answered or refused.
//
// A family of handlers leads each message id of its own to one of two functions here, which call a
// member function of the family once the request is admitted:
//
//   case PlatformSchema::kReadReq:
//     return frame_.answerNow<&ReadRequests::read>(*this, incoming);
//   case PlatformSchema::kWriteReq:
//     return frame_.answerLater<ConfigIF::WriteRsp, &ChangeRequests::write>(*this, incoming);
//
// Errors:   a payload that is no message of its kind, and a request that is none, are refused as a
//           whole, with a line in the log. Everything else is an error code in the answer; that a
//           request unfolds to too much has a line in the log as well.
// Threads:  one at a time, whichever runs the server's loop. Owns nothing: what it is made of outlives
//           it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "configsrv/access/access_policy.h"
#include "configsrv/changes/change.h"
#include "configsrv/log/log.h"
#include "configsrv/model/model.h"
#include "configsrv/monitor/monitor_tap.h"
#include "platform/messaging/serving/server.h"
#include "platform/schema/config_if.pb.h"

namespace ConfigSrv {

using Incoming = PbUtility::IncomingRequest;

// A request whose role has been checked.
struct Call {
  PbUtility::RequestId id;
  Requester by;
  // FrameHeader::revision.
  std::uint64_t knownRevision;
  // IncomingRequest::overDelivery.
  bool overDelivery;
};

class RequestFrame {
 public:
  // A client's name is for logs and for providers to read; what is longer than this is cut.
  static constexpr std::size_t kMaxClientName = 256;

  // Who makes a change is kept with it when changes are recorded.
  RequestFrame(const Log& log, const AccessPolicy& access, const Model& model, MonitorTap& server,
               bool recordsChanges)
      : log_(log),
        access_(access),
        model_(model),
        server_(server),
        recordsChanges_(recordsChanges) {}
  RequestFrame(const RequestFrame&) = delete;
  RequestFrame& operator=(const RequestFrame&) = delete;

  // Calls void answer(const Call&, const Request&, Response&), then sends the response. True, for
  // the family to return: the request was one of its own.
  template <auto answer, typename Family>
  bool answerNow(Family& family, const Incoming& incoming);
  // Calls void begin(const Call&, const Request&), which answers by respond() when it has ended. True
  // as above. What is denied is answered here, after onDenied(call, request, result).
  template <typename Response, auto begin, typename Family, typename OnDenied>
  bool answerLater(Family& family, const Incoming& incoming, const OnDenied& onDenied);
  template <typename Response, auto begin, typename Family>
  bool answerLater(Family& family, const Incoming& incoming) {
    return answerLater<Response, begin>(family, incoming, [](const auto&...) {});
  }

  // False, and answered, when the payload is no such message (by a refusal) or passes a limit (by the
  // response with LIMIT in its result, which is a part of it).
  bool parse(const Incoming& incoming, google::protobuf::MessageLite& request,
             google::protobuf::MessageLite& response, ConfigIF::ReturnMessage& result);
  void respond(const PbUtility::RequestId& id, const google::protobuf::MessageLite& response);
  // Says so in the log as well.
  void refuse(const Incoming& incoming, eErrorT error, const std::string& text);

 private:
  // What a handler's parameters are.
  template <typename Handler>
  struct Signature;
  template <typename Family, typename Request, typename Response>
  struct Signature<void (Family::*)(const Call&, const Request&, Response&)> {
    using RequestType = Request;
    using ResponseType = Response;
  };
  template <typename Family, typename Request>
  struct Signature<void (Family::*)(const Call&, const Request&)> {
    using RequestType = Request;
  };

  // False, and the error in the result, when the caller may not claim the role.
  bool admit(const Incoming& incoming, const std::string& clientName,
             CommonIF::eSecurityRole wireRole, Call& call, ConfigIF::ReturnMessage& result);
  void logRefusal(const Incoming& incoming, const std::string& text);
  void keepCaller(const Incoming& incoming, Call& call) const;

  const Log& log_;
  const AccessPolicy& access_;
  const Model& model_;
  MonitorTap& server_;
  const bool recordsChanges_;
};

template <auto answer, typename Family>
bool RequestFrame::answerNow(Family& family, const Incoming& incoming) {
  typename Signature<decltype(answer)>::RequestType request;
  typename Signature<decltype(answer)>::ResponseType response;
  Call call;
  ConfigIF::ReturnMessage& result = *response.mutable_result();
  if (!parse(incoming, request, response, result)) return true;
  if (admit(incoming, request.client_name(), request.role(), call, result))
    (family.*answer)(call, request, response);
  respond(incoming.id, response);
  return true;
}

template <typename Response, auto begin, typename Family, typename OnDenied>
bool RequestFrame::answerLater(Family& family, const Incoming& incoming, const OnDenied& onDenied) {
  typename Signature<decltype(begin)>::RequestType request;
  Response response;
  Call call;
  ConfigIF::ReturnMessage& result = *response.mutable_result();
  if (!parse(incoming, request, response, result)) return true;
  const bool admitted = admit(incoming, request.client_name(), request.role(), call, result);
  keepCaller(incoming, call);
  if (admitted) {
    (family.*begin)(call, request);
    return true;
  }
  onDenied(call, request, result);
  respond(incoming.id, response);
  return true;
}

}  // namespace ConfigSrv
