// What somebody wants changed, and how it ended.
//
// Threads:  plain values.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "appconfig/core/error.h"
#include "appconfig/core/security_role.h"
#include "base/status.h"
#include "configsrv/store/stored_variable.h"
#include "platform/messaging/serving/peer.h"
#include "platform/messaging/serving/shares.h"

namespace ConfigSrv {

// Who wants it. The role is one that this peer may claim: whoever makes a request has checked.
struct Requester {
  PbUtility::PeerId peer = 0;
  std::string clientName;
  AppConfig::SecurityRole role = AppConfig::eRolePublic;
  // The peer's delivery thread waits for the outcome, so it answers no question until then.
  bool insideReceiver = false;
  // Who the peer is, for a change that may end after the peer is gone; null unless somebody records
  // changes (ChangeObserver).
  std::shared_ptr<const PbUtility::Peer> caller{};
  // Whose share of the service's limits it takes from.
  PbUtility::Owner owner{};
};

struct ChangeRequest {
  Requester by;
  StoreChange what;
};

// The text says why it failed; of a provider's reasons it is the first.
struct [[nodiscard]] ChangeOutcome : Base::Status<eErrorT> {
  // The variable was so already; nothing was committed.
  bool unchanged = false;
  // A provider's further reasons.
  std::vector<std::string> reasons{};
  // Revision of the commit; 0 when there was none.
  std::uint64_t revision = 0;
  // After a success: revision at which what was to be changed last changed, by this or before it.
  std::uint64_t changedAt = 0;
};

// Called once for each change, in the loop, perhaps before submit() returns.
using ChangeDone = std::function<void(const ChangeOutcome& outcome)>;

class Variable;

// Records how changes end.
class ChangeObserver {
 public:
  virtual ~ChangeObserver() = default;
  // The record of a change that is about to be committed, all but its revision. It is kept with the
  // change, as durable as that; empty: nothing is kept.
  virtual std::string changeCommits(const Requester& by, const StoreChange& wanted,
                                    const Variable& variable) = 0;
  // The change of that record was committed; called before its requester is answered.
  virtual void changeCommitted(const std::string& record, std::uint64_t revision) = 0;
  // Called once for each other change, before its requester is answered. The variable, null when
  // there is none, is as it was. Validations are not told.
  virtual void changeEnds(const Requester& by, const StoreChange& wanted, const Variable* variable,
                          const ChangeOutcome& outcome) = 0;
};

}  // namespace ConfigSrv
