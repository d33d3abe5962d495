#include "configsrv/service/internal/audit_upkeep.h"

#include <string>
#include <utility>

namespace ConfigSrv {

AuditUpkeep::AuditUpkeep(AuditTrail* audit, Store& store, const Log& log, WithStore withStore)
    : audit_(audit), store_(store), log_(log), withStore_(std::move(withStore)) {}

void AuditUpkeep::repair(const std::vector<StoredRecord>& records) {
  if (audit_ == nullptr || records.empty()) return;
  if (audit_->repair(records)) store_.forgetRecords(records.back().revision);
}

// What cannot be forced to the disk is not kept for ever: the store is not where records pile up.
void AuditUpkeep::syncIfWorthIt() {
  if (audit_ == nullptr || isSyncing_ || !audit_->isWorthSyncing()) return;
  isSyncing_ = true;
  const std::shared_ptr<AuditSync> lines = audit_->takeUnsynced();
  const auto outcome = std::make_shared<Base::Status<>>();
  withStore_(
      [lines, outcome](Store& store) {
        *outcome = lines->wait();
        store.forgetRecords(lines->revision);
      },
      [this, outcome] {
        isSyncing_ = false;
        audit_->synced(*outcome);
      });
}

void AuditUpkeep::end() {
  if (audit_ == nullptr) return;
  const std::shared_ptr<AuditSync> lines = audit_->takeUnsynced();
  const Base::Status<> outcome = lines->wait();
  audit_->synced(outcome);
  if (lines->revision == 0 || !outcome.ok()) return;
  const StoreStatus status = store_.forgetRecordsNow(lines->revision);
  if (!status.ok()) log_.warning(status.text);
}

}  // namespace ConfigSrv
