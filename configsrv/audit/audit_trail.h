// AuditTrail: a line for each change that somebody made or wanted: who, when, what, from what to
// what, and how it ended. docs/howto/audit.md shows the record and what each field means.
//
// Masking  what a secret variable held or was to hold is never written, nor why it was not taken;
//          nor what somebody sent for a variable that does not exist, for it may have been meant
//          for a secret one.
// Limits   kMaxValueBytes of each value; the record says when that was not all.
// Faults   a file that cannot be written stops no change; see internal/audit_file.h.
// Threads  one.
//
//   AuditTrail audit("/var/log/appconfig/audit.jsonl", log);
//   Changes changes(model, subscriptions, announcer, host, log, {}, &audit);
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "configsrv/changes/change.h"
#include "configsrv/log/log.h"

namespace ConfigSrv {

class AuditFile;

class AuditTrail final : public ChangeObserver {
 public:
  // Bytes of the elements of one value; what is beyond is left out.
  static constexpr std::size_t kMaxValueBytes = 4096;

  // The log outlives this object.
  AuditTrail(const std::string& file, const Log& log);
  ~AuditTrail() override;
  AuditTrail(const AuditTrail&) = delete;
  AuditTrail& operator=(const AuditTrail&) = delete;

  void changeEnds(const ChangeRequest& request, const Variable* variable,
                  const ChangeOutcome& outcome) override;

  // A change of all that a dotted name covers ("reset", "reset-attributes"), refused before it was
  // looked at one by one.
  void refusedBelow(const Requester& by, std::string_view action, const std::string& name,
                    const ChangeOutcome& outcome);

 private:
  const std::unique_ptr<AuditFile> file_;
};

}  // namespace ConfigSrv
