// UpdateFloor: the least that a durable write of one row takes with SQLite: one prepared UPDATE of a
// row like the store's, with the store's settings. Nothing begins a transaction but SQLite itself.
#pragma once

#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace Bench {

class UpdateFloor {
 public:
  // Makes the file, with the row.
  explicit UpdateFloor(const std::string& file);
  ~UpdateFloor();
  UpdateFloor(const UpdateFloor&) = delete;
  UpdateFloor& operator=(const UpdateFloor&) = delete;

  // Gives the row this value, and other revisions and checksum.
  [[nodiscard]] bool update(const std::string& value);

 private:
  sqlite3* database_ = nullptr;
  sqlite3_stmt* update_ = nullptr;
  long long revision_ = 0;
};

}  // namespace Bench
