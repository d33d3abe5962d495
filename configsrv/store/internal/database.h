// Database, Statement: SQLite's handles, closed by destructors, with failures as StoreStatus.
//
// Threads: one at a time.
// Owns:    the connection and the statement; a Statement must go before its Database.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "configsrv/store/store_status.h"

struct sqlite3;
struct sqlite3_stmt;

namespace ConfigSrv {

class Database {
 public:
  enum class Access { kReadOnly, kReadWrite };

  // The file must exist. After a failure the object is good for lastFailure() alone.
  Database(const std::string& file, const std::string& vfs, Access access);

  bool isOpen() const { return opened_; }
  sqlite3* handle() const { return handle_.get(); }
  const std::string& file() const { return file_; }

  // True when it worked; else lastFailure() says why.
  [[nodiscard]] bool run(const std::string& sql);
  // The first column of the first row; 0 and false after a failure or when there is no row.
  [[nodiscard]] bool readNumber(const std::string& sql, std::int64_t* number);
  [[nodiscard]] bool readText(const std::string& sql, std::string* text);

  // Whether the last failure is one of the file's contents: garbage, a torn page, an unreadable
  // sector, a table that is not there. What the caller can do then is to set the file aside.
  bool lastFailureIsDamage() const;
  // "cannot read the store /x/store.db: disk I/O error; ..."
  StoreStatus lastFailure(const std::string& doing) const;
  std::string lastMessage() const;

  // Whether the file, or its own header, keeps it from being written.
  bool isReadOnly() const;

  // Pages written to the log, or the file, since the last call.
  std::uint64_t takePagesWritten();

  // The rows that the last statement changed.
  int rowsChanged() const;
  // The size of the log's file.
  std::uint64_t logBytes() const;
  // From now on a commit leaves the log as it is, and counts its pages; checkpoint() copies them into
  // the file.
  void countLogPages();
  // The log's pages at the last commit, or 0 after a checkpoint.
  int logPages() const { return *logPages_; }
  // What fails is tried again by the next one: the log has it all.
  void checkpoint();
  // Makes the log's file so much longer, by zeros, without flushing; false when that failed. What is
  // in the file stays as it is.
  bool extendLog(std::uint64_t bytes) const;

  // Leaves the log beside the file when closing, instead of copying it into the file.
  void keepLogOnClose(bool keep);

 private:
  struct Close {
    void operator()(sqlite3* handle) const;
  };

  std::string file_;
  std::unique_ptr<sqlite3, Close> handle_;
  // At one place wherever this object goes, for SQLite writes to it.
  std::unique_ptr<int> logPages_ = std::make_unique<int>(0);
  bool opened_ = false;
};

class Statement {
 public:
  enum class Step { kRow, kDone, kFailed };

  // isReady() is false when the text does not compile against this database: see lastFailure().
  Statement(const Database& database, std::string_view sql);

  bool isReady() const { return statement_ != nullptr; }

  // Positions count from 1. Bytes are not copied: they must live until reset().
  void bind(int position, std::int64_t number);
  void bind(int position, std::string_view bytes);
  void bind(int position, const std::optional<std::string>& bytes);
  void bind(int position, const std::optional<std::int64_t>& number);
  void bindText(int position, const std::string& text);

  Step step();
  // Makes the statement ready for its next use; a row that was read is gone.
  void reset();
  // step() and reset() of a statement that has no rows.
  [[nodiscard]] bool finish();

  // Columns count from 0. Nothing when the column holds another type, NULL included.
  bool isNull(int column) const;
  std::optional<std::int64_t> number(int column) const;
  // Good until the next step() or reset().
  std::optional<std::string_view> bytes(int column) const;
  std::string text(int column) const;

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const;
  };

  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  // A value that could not be bound (too large) fails the next step().
  bool bound_ = true;
};

}  // namespace ConfigSrv
