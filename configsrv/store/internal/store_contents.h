// store_contents: the tables of a store's file, and the reading and writing of their rows.
//
// `variable` has one row for each variable that differs, or once differed, from its
// definition; it is WITHOUT ROWID, so that a row is found and written in one tree. `meta` has one
// row: the format and the store's id. The newest revision is stored nowhere: each transaction
// leaves its revision in a row, rows are never deleted, so it is the largest in the table, and a
// commit writes one page less. A store that keeps records has a table `audit` of them as well.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "configsrv/store/internal/database.h"
#include "configsrv/store/internal/store_format.h"
#include "configsrv/store/stored_variable.h"
#include "configsrv/store/witness.h"

namespace ConfigSrv {

struct StoreContents {
  enum class Condition { kGood, kDamaged, kOlderFormat, kNewerFormat, kFailed };

  Condition condition = Condition::kGood;
  std::string damage;  // What is wrong with it, when it is damaged.
  StoreStatus status;  // Why it could not be read, when that failed; or why it is refused.
  std::int64_t format = 0;
  std::uint64_t storeId = 0;
  StoreMark mark;
  std::vector<StoredVariable> variables;
};

// Fills an empty database, in one transaction.
[[nodiscard]] bool createContents(Database& database, std::uint64_t storeId);

// Only the format: what must be known before anything else may touch the file.
StoreContents checkFormat(Database& database, const StoreFormats& formats);

StoreContents damagedContents(const std::string& damage);

// What the database's last failure makes of it: damaged, or not readable for another reason.
StoreContents contentsAfterFailure(const Database& database);

// Checks and reads everything. An older format is not read: upgrade() comes first.
StoreContents readContents(Database& database, const StoreFormats& formats);

[[nodiscard]] bool replaceStoreId(Database& database, std::int64_t format, std::uint64_t storeId);

// Forgets the log, after what can be read of it was copied into the file. No harm when it fails.
void emptyLog(Database& database);

[[nodiscard]] bool readNewestRevision(Database& database, std::uint64_t* revision);
[[nodiscard]] bool readStoreId(Database& database, std::uint64_t* storeId);

// The table of records. An older version does not look at it, so the format stays what it was.
[[nodiscard]] bool makeRecordTable(Database& database);
[[nodiscard]] bool dropRecordTable(Database& database);
[[nodiscard]] bool readRecords(Database& database, std::vector<StoredRecord>* records);

// The rows of that table, in a commit. After a false, Database::lastFailure() says why.
class RecordTable {
 public:
  // The table has to be there.
  explicit RecordTable(const Database& database);

  bool isReady() const { return insert_.isReady() && forget_.isReady(); }
  [[nodiscard]] bool add(std::uint64_t revision, const std::string& text);
  [[nodiscard]] bool forget(std::uint64_t upTo);

 private:
  Statement insert_;
  Statement forget_;
};

// The rows of `variable`, one at a time. After a kFailed, Database::lastFailure() says why.
class VariableTable {
 public:
  enum class Found { kRow, kNothing, kDamaged, kFailed };

  explicit VariableTable(const Database& database);

  bool isReady() const { return select_.isReady() && replace_.isReady() && write_.isReady(); }

  // Fills in the row of variable->key, and sets its part of the digest; kNothing leaves both as they
  // are.
  Found read(StoredVariable* variable, std::uint64_t* digest);
  // Adds the row or replaces it, and sets its part of the digest.
  [[nodiscard]] bool write(const StoredVariable& variable, std::uint64_t* digest);
  // The same for a row that is known to be there, in less time.
  [[nodiscard]] bool replace(const StoredVariable& variable, std::uint64_t* digest);

 private:
  bool writeWith(Statement* statement, const StoredVariable& variable, std::uint64_t* digest);

  const Database& database_;
  Statement select_;
  Statement replace_;
  Statement write_;
};

}  // namespace ConfigSrv
