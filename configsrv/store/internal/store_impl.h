// Store::Impl: an open store: its lock, its connection and the statements that a commit reuses.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "configsrv/store/internal/database.h"
#include "configsrv/store/internal/log_reserve.h"
#include "configsrv/store/internal/store_contents.h"
#include "configsrv/store/internal/store_files.h"
#include "configsrv/store/store.h"

namespace ConfigSrv {

class Store::Impl {
 public:
  Impl(StoreFiles files, FileLock lock, Database database, const StoreOptions& options,
       const StoreContents& contents, std::uint64_t snapshotRevision);

  bool isReady() const;
  // Makes the table of records, when the store is to keep them, and reads what is in it.
  StoreStatus openRecords(bool keep, std::vector<StoredRecord>* records);
  const Database& database() const { return database_; }

  std::uint64_t storeId() const { return storeId_; }
  std::uint64_t revision() const { return mark_.revision; }
  StoreMark mark() const { return mark_; }
  std::uint64_t commitsSinceSnapshot() const;

  CommitResult commit(const std::vector<StoreTransaction>& transactions);
  void forgetRecords(std::uint64_t upTo) { forgetUpTo_ = upTo; }
  StoreStatus forgetRecordsNow(std::uint64_t upTo);
  bool isCheckpointDue() const { return database_.logPages() >= checkpointPages_; }
  void checkpoint();
  StoreStatus snapshot();
  StoreCounters counters() const;

 private:
  using Clock = std::chrono::steady_clock;

  StoreStatus makeSnapshot();
  void snapshotWhenDue();
  void countWrite();
  StoreStatus writeAll(const std::vector<StoreTransaction>& transactions,
                       std::vector<std::uint64_t>* revisions, StoreMark* after);
  // The row that a change begins with, read when the change does not bring it.
  StoreStatus readRow(const StoreChange& change, StoreChange::Row* row);
  // Gives the change the revision of `after`, and `after` the digest that it leads to.
  StoreStatus writeChange(const StoreChange& change, StoreMark* after);
  StoreStatus writeTransactions(const std::vector<StoreTransaction>& transactions,
                                std::vector<std::uint64_t>* revisions, StoreMark* after);
  [[nodiscard]] bool forgetWaiting();
  StoreStatus writeFailure() const;
  void rollBack();
  StoreStatus copyInto(const std::string& file);

  const StoreFiles files_;
  const FileLock lock_;  // Outlives the connection: nobody may come in before the file is closed.
  Database database_;
  LogReserve logReserve_;
  VariableTable table_;
  std::optional<RecordTable> records_;  // Of a store that keeps them.
  Statement begin_;
  Statement commit_;
  Statement rollBack_;
  Witness* const witness_;
  const std::uint64_t storeId_;
  StoreMark mark_;
  std::uint64_t forgetUpTo_ = 0;  // 0: no records are to be forgotten.
  const int checkpointPages_;
  int commitsWhileDue_ = 0;
  std::uint64_t snapshotRevision_;
  const Clock::duration snapshotEvery_;
  Clock::time_point snapshotTriedAt_ = Clock::now();
  // Written by the one thread that uses the store, read by any.
  std::atomic<std::uint64_t> writes_{0};
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<std::uint64_t> snapshots_{0};
  std::atomic<std::uint64_t> failedSnapshots_{0};
};

}  // namespace ConfigSrv
