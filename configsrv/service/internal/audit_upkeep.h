// AuditUpkeep: keeps the audit record's file and what the store has of it in step.
//
// The store keeps each record with its commit until the file is on the disk (AuditTrail). This brings
// the file to the disk from time to time, and has the store forget what is there.
//
// Threads:  one, that of the loop; the waiting for the disk is done where the store is worked with.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "configsrv/audit/audit_trail.h"
#include "configsrv/log/log.h"
#include "configsrv/store/commit_queue.h"
#include "configsrv/store/store.h"

namespace ConfigSrv {

class AuditUpkeep {
 public:
  // Does work with the store on the thread that makes changes durable, then calls `done` in the loop.
  using WithStore = std::function<void(CommitQueue::Work work, std::function<void()> done)>;

  // Without an audit, null, nothing is done. All else outlives this object.
  AuditUpkeep(AuditTrail* audit, Store& store, const Log& log, WithStore withStore);
  AuditUpkeep(const AuditUpkeep&) = delete;
  AuditUpkeep& operator=(const AuditUpkeep&) = delete;

  // At the start: what the store has kept, and the file may lack.
  void repair(const std::vector<StoredRecord>& records);
  // After commits: when enough waits for the disk.
  void syncIfWorthIt();
  // At the end, when nobody works with the store any more: an orderly end leaves nothing to repair.
  void end();

 private:
  AuditTrail* const audit_;
  Store& store_;
  const Log& log_;
  const WithStore withStore_;
  // A part of the record is on its way to the disk.
  bool isSyncing_ = false;
};

}  // namespace ConfigSrv
