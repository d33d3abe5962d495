#include "bench/processes/update_floor.h"

#include <sqlite3.h>

namespace Bench {
namespace {

// The store's table, its settings, and the row that an int has after its first write.
const char kSchema[] =
    "PRAGMA page_size=4096; PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=FULL; PRAGMA temp_store=MEMORY; PRAGMA cell_size_check=ON;"
    "PRAGMA secure_delete=OFF; PRAGMA wal_autocheckpoint=1000; PRAGMA journal_size_limit=4152960;"
    "CREATE TABLE variable (namespace INTEGER NOT NULL, group_name BLOB NOT NULL, "
    "group_instance INTEGER NOT NULL, name BLOB NOT NULL, name_instance INTEGER NOT NULL, "
    "value BLOB, options BLOB, default_index INTEGER, read_role INTEGER, write_role INTEGER, "
    "value_at INTEGER NOT NULL, options_at INTEGER NOT NULL, access_at INTEGER NOT NULL, "
    "checksum INTEGER NOT NULL, "
    "PRIMARY KEY (namespace, group_name, group_instance, name, name_instance)) WITHOUT ROWID;"
    "INSERT INTO variable VALUES (0, CAST('bench.measured' AS BLOB), 0, CAST('written0' AS BLOB), "
    "0, "
    "x'00', NULL, NULL, NULL, NULL, 0, 0, 0, 0);";

const char kUpdate[] =
    "UPDATE variable SET value=?1, value_at=?2, checksum=?3 WHERE namespace=?4 AND group_name=?5 "
    "AND group_instance=?6 AND name=?7 AND name_instance=?8";

// Far from 0, so that the row has as many bytes each time.
constexpr long long kChecksum = 4'000'000'000;

}  // namespace

UpdateFloor::UpdateFloor(const std::string& file) {
  sqlite3_open_v2(file.c_str(), &database_,
                  SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  sqlite3_exec(database_, kSchema, nullptr, nullptr, nullptr);
  if (sqlite3_prepare_v2(database_, kUpdate, -1, &update_, nullptr) != SQLITE_OK) return;
  sqlite3_bind_int64(update_, 4, 0);
  sqlite3_bind_blob(update_, 5, "bench.measured", 14, SQLITE_STATIC);
  sqlite3_bind_int64(update_, 6, 0);
  sqlite3_bind_blob(update_, 7, "written0", 8, SQLITE_STATIC);
  sqlite3_bind_int64(update_, 8, 0);
}

UpdateFloor::~UpdateFloor() {
  sqlite3_finalize(update_);
  sqlite3_close_v2(database_);
}

bool UpdateFloor::update(const std::string& value) {
  if (update_ == nullptr) return false;
  sqlite3_bind_blob(update_, 1, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
  sqlite3_bind_int64(update_, 2, ++revision_);
  sqlite3_bind_int64(update_, 3, kChecksum + revision_);
  const bool done = sqlite3_step(update_) == SQLITE_DONE;
  sqlite3_reset(update_);
  return done && sqlite3_changes(database_) == 1;
}

}  // namespace Bench
