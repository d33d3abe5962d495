// ChangeRequests: the requests that change variables, or ask whether they could. Each is answered when
// it has ended.
//
// A change whose role was not granted never becomes one (Changes), so it is recorded here.
//
// Threads:  one. Owns nothing: what it is made of outlives it.
#pragma once

#include <string>

#include "configsrv/audit/audit_trail.h"
#include "configsrv/changes/changes.h"
#include "configsrv/log/log.h"
#include "configsrv/model/model.h"
#include "configsrv/service/internal/change_batch.h"
#include "configsrv/service/internal/request_frame.h"
#include "configsrv/service/internal/slices.h"

namespace ConfigSrv {

class ChangeRequests {
 public:
  // Without an audit, null, nothing is recorded.
  ChangeRequests(RequestFrame& frame, const Log& log, const Model& model, Changes& changes,
                 Slices& slices, AuditTrail* audit)
      : frame_(frame),
        log_(log),
        model_(model),
        changes_(changes),
        slices_(slices),
        audit_(audit) {}

  // False, and nothing was done, when the request is none of these.
  bool handle(const Incoming& incoming);

 private:
  using Wanted = decltype(StoreChange::what);

  // RequestFrame::answerLater, for those that may be recorded.
  template <typename Response, auto begin>
  bool change(const Incoming& incoming);

  void write(const Call&, const ConfigIF::WriteReq&);
  void validate(const Call&, const ConfigIF::ValidateReq&);
  void resetValue(const Call&, const ConfigIF::ResetValueReq&);
  void resetNodeValue(const Call&, const ConfigIF::ResetNodeValueReq&);
  void setOptions(const Call&, const ConfigIF::SetAttributeOptionsReq&);
  void setAccessLevels(const Call&, const ConfigIF::SetAccessLevelsReq&);
  void resetAttribute(const Call&, const ConfigIF::ResetAttributeReq&);

  // How the outcome of a change becomes the answer to its request.
  template <typename Response>
  ChangeDone answering(const Call& call);
  template <typename Response>
  ChangeBatch::Done answeringAll(const Call& call);
  ChangeDone logging(const Call& call, const ConfigVar& key, ChangeDone answer);
  // One change of the variable that a path names.
  void submitOne(const Call& call, const ConfigIF::Inst& inst, Wanted what, ChangeDone answer);
  // The same change of everything that a dotted name covers.
  void submitBelow(const Call& call, const std::string& name, const Wanted& what,
                   const ChangeBatch::Done& answer);

  void recordDenied(const Call&, const ConfigIF::WriteReq&, const ChangeOutcome&);
  void recordDenied(const Call&, const ConfigIF::ResetValueReq&, const ChangeOutcome&);
  void recordDenied(const Call&, const ConfigIF::ResetNodeValueReq&, const ChangeOutcome&);
  void recordDenied(const Call&, const ConfigIF::SetAttributeOptionsReq&, const ChangeOutcome&);
  void recordDenied(const Call&, const ConfigIF::SetAccessLevelsReq&, const ChangeOutcome&);
  void recordDenied(const Call&, const ConfigIF::ResetAttributeReq&, const ChangeOutcome&);
  void recordDenied(const Call& call, const ConfigIF::Inst& inst, Wanted what,
                    const ChangeOutcome& outcome);

  RequestFrame& frame_;
  const Log& log_;
  const Model& model_;
  Changes& changes_;
  Slices& slices_;
  AuditTrail* const audit_;
};

}  // namespace ConfigSrv
