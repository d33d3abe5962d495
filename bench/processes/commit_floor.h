// CommitFloor: what one durable commit of one row costs, with SQLite alone and the settings that
// the service's store uses: a write-ahead log, full synchronisation, exclusive locking.
#pragma once

#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace Bench {

class CommitFloor {
 public:
  // Makes the file.
  explicit CommitFloor(const std::string& file);
  ~CommitFloor();
  CommitFloor(const CommitFloor&) = delete;
  CommitFloor& operator=(const CommitFloor&) = delete;

  // Writes another value to the one row, durably.
  [[nodiscard]] bool commit();

 private:
  sqlite3_stmt* prepare(const char* sql);

  sqlite3* database_ = nullptr;
  sqlite3_stmt* begin_ = nullptr;
  sqlite3_stmt* write_ = nullptr;
  sqlite3_stmt* commit_ = nullptr;
  long long revision_ = 0;
};

}  // namespace Bench
