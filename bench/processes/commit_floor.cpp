#include "bench/processes/commit_floor.h"

#include <sqlite3.h>

namespace Bench {
namespace {

// The columns that the store writes for one variable, without meaning.
const char kSchema[] =
    "PRAGMA page_size=4096; PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=FULL; PRAGMA wal_autocheckpoint=1000; PRAGMA journal_size_limit=4152960;"
    "CREATE TABLE variable (namespace INTEGER NOT NULL, group_name BLOB NOT NULL, "
    "group_instance INTEGER NOT NULL, name BLOB NOT NULL, name_instance INTEGER NOT NULL, "
    "value BLOB, changed_at INTEGER NOT NULL, "
    "PRIMARY KEY (namespace, group_name, group_instance, name, name_instance)) WITHOUT ROWID;";

const char kWrite[] =
    "INSERT INTO variable VALUES (0, 'bench.measured', 0, 'written', 0, ?1, ?1) "
    "ON CONFLICT DO UPDATE SET value=?1, changed_at=?1";

bool runOnce(sqlite3_stmt* statement) {
  const bool done = sqlite3_step(statement) == SQLITE_DONE;
  sqlite3_reset(statement);
  return done;
}

}  // namespace

CommitFloor::CommitFloor(const std::string& file) {
  sqlite3_open_v2(file.c_str(), &database_,
                  SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  sqlite3_exec(database_, kSchema, nullptr, nullptr, nullptr);
  begin_ = prepare("BEGIN IMMEDIATE");
  write_ = prepare(kWrite);
  commit_ = prepare("COMMIT");
}

CommitFloor::~CommitFloor() {
  sqlite3_finalize(begin_);
  sqlite3_finalize(write_);
  sqlite3_finalize(commit_);
  sqlite3_close_v2(database_);
}

sqlite3_stmt* CommitFloor::prepare(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr);
  return statement;
}

bool CommitFloor::commit() {
  if (commit_ == nullptr) return false;
  sqlite3_bind_int64(write_, 1, ++revision_);
  return runOnce(begin_) && runOnce(write_) && runOnce(commit_);
}

}  // namespace Bench
