// ReadRequests: the requests that read what the service knows of variables. Answered at once.
//
// Threads:  one. Owns nothing: what it is made of outlives it.
#pragma once

#include <cstdint>

#include "configsrv/model/model.h"
#include "configsrv/service/internal/request_frame.h"
#include "configsrv/service/internal/variable_lookup.h"
#include "configsrv/subscriptions/subscriptions.h"

namespace ConfigSrv {

class ReadRequests {
 public:
  ReadRequests(RequestFrame& frame, const Model& model, const Subscriptions& subscriptions)
      : frame_(frame), model_(model), lookup_(model), subscriptions_(subscriptions) {}

  // False, and nothing was done, when the request is none of these.
  bool handle(const Incoming& incoming);

  // Values that were read so far, of one variable each.
  std::uint64_t reads() const { return reads_; }

 private:
  void read(const Call&, const ConfigIF::ReadReq&, ConfigIF::ReadRsp&);
  void batchRead(const Call&, const ConfigIF::BatchReadReq&, ConfigIF::BatchReadRsp&);
  void getOptions(const Call&, const ConfigIF::GetAttributeOptionsReq&,
                  ConfigIF::GetAttributeOptionsRsp&);
  void getDefaultOptions(const Call&, const ConfigIF::GetDefaultOptionsReq&,
                         ConfigIF::GetDefaultOptionsRsp&);
  void getAccessLevels(const Call&, const ConfigIF::GetAccessLevelsReq&,
                       ConfigIF::GetAccessLevelsRsp&);
  void readAttributes(const Call&, const ConfigIF::ReadAttributesReq&,
                      ConfigIF::ReadAttributesRsp&);
  void getRecord(const Call&, const ConfigIF::GetValueOptionsAccessReq&,
                 ConfigIF::GetValueOptionsAccessRsp&);
  void getRecords(const Call&, const ConfigIF::BatchGetValueOptionsAccessReq&,
                  ConfigIF::BatchGetValueOptionsAccessRsp&);
  bool fillRecord(const Call& call, const ConfigIF::Inst& inst, ConfigIF::FullRecord& record,
                  ConfigIF::ReturnMessage& result) const;

  RequestFrame& frame_;
  const Model& model_;
  const VariableLookup lookup_;
  const Subscriptions& subscriptions_;
  std::uint64_t reads_ = 0;
};

}  // namespace ConfigSrv
