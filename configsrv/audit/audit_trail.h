// AuditTrail: a line for each change that somebody made or wanted: who, when, what, from what to
// what, and how it ended. docs/howto/audit.md shows the record and what each field means.
//
// Masking:  what a secret variable held or was to hold is never written, nor why it was not taken;
//           nor what somebody sent for a variable that does not exist, for it may have been meant
//           for a secret one.
// Limits:   kMaxValueBytes of each value; the record says when that was not all.
// Durable:  the record of a change that is committed is kept in the store as well, in the same
//           commit, until the file is on the disk (takeUnsynced()). What the end of a service, or a
//           loss of power, left out of the file, repair() appends at the next start, marked as
//           such.
// Faults:   a file that cannot be written stops no change; see internal/audit_file.h.
// Threads:  one.
//
//   AuditTrail audit("/var/log/appconfig/audit.jsonl", log);
//   Changes changes(model, subscriptions, announcer, host, log, {}, &audit);
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/status.h"
#include "configsrv/audit/audit_sync.h"
#include "configsrv/changes/change.h"
#include "configsrv/log/log.h"

namespace ConfigSrv {

class AuditFile;

class AuditTrail final : public ChangeObserver {
 public:
  // Bytes kept of the elements of one value; the rest is left out.
  static constexpr std::size_t kMaxValueBytes = 4096;
  // Records, and their bytes, that the store keeps until the file is forced to the disk.
  static constexpr std::size_t kMaxUnsynced = 256;
  static constexpr std::size_t kMaxUnsyncedBytes = std::size_t{64} * 1024;

  // The log outlives this object.
  AuditTrail(const std::string& file, const Log& log);
  ~AuditTrail() override;
  AuditTrail(const AuditTrail&) = delete;
  AuditTrail& operator=(const AuditTrail&) = delete;

  std::string changeCommits(const Requester& by, const StoreChange& wanted,
                            const Variable& variable) override;
  void changeCommitted(const std::string& record, std::uint64_t revision) override;
  void changeEnds(const Requester& by, const StoreChange& wanted, const Variable* variable,
                  const ChangeOutcome& outcome) override;

  // A change of all that a dotted name covers ("reset", "reset-attributes"), refused before it was
  // looked at one by one.
  void refusedBelow(const Requester& by, std::string_view action, const std::string& name,
                    const ChangeOutcome& outcome);

  // Appends the records that the store has kept and the file lacks. True when all of them are in
  // the file and on the disk, so that the store can forget them.
  bool repair(const std::vector<StoredRecord>& records);

  // True when enough lines are unsynced that forcing them to the disk is worth the wait.
  bool isWorthSyncing() const {
    return unsynced_ >= kMaxUnsynced || unsyncedBytes_ >= kMaxUnsyncedBytes;
  }
  // What was written since the last call. Its `revision` is that of the newest change among it.
  std::shared_ptr<AuditSync> takeUnsynced();
  // To be called with the result of its wait(); a failure goes to the log.
  void synced(const Base::Status<>& outcome);

 private:
  const std::string path_;
  const Log& log_;
  const std::unique_ptr<AuditFile> file_;
  std::size_t unsynced_ = 0;
  std::size_t unsyncedBytes_ = 0;
  std::uint64_t lastRevision_ = 0;
};

}  // namespace ConfigSrv
