// Thin: each function is one call of SQLite. What takes room is telling failures apart. SQLite has many
// codes for "the disk is full" and "the file is damaged", and the system's own reason, which decides what
// the caller can do, has to be asked of the file that failed.
#include "configsrv/store/internal/database.h"

#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>

namespace ConfigSrv {
namespace {

bool isFullDisk(int code, int systemError) {
  if (code == SQLITE_FULL) return true;
  if ((code & 0xFF) != SQLITE_IOERR && (code & 0xFF) != SQLITE_CANTOPEN) return false;
  // SQLite tells ENOSPC apart, but not a quota, nor a limit on the size of files.
  return systemError == EDQUOT || systemError == EFBIG || systemError == ENOSPC;
}

int lastErrno(sqlite3_file* file) {
  int error = 0;
  if (file == nullptr || file->pMethods == nullptr) return 0;  // Not open.
  file->pMethods->xFileControl(file, SQLITE_FCNTL_LAST_ERRNO, &error);
  return error;
}

// Null while there is none.
sqlite3_file* logFile(sqlite3* handle) {
  sqlite3_file* file = nullptr;
  if (sqlite3_file_control(handle, "main", SQLITE_FCNTL_JOURNAL_POINTER, &file) != SQLITE_OK) {
    return nullptr;
  }
  return file != nullptr && file->pMethods != nullptr ? file : nullptr;
}

bool readSize(sqlite3_file* file, std::uint64_t* bytes) {
  sqlite3_int64 size = 0;
  if (file == nullptr || file->pMethods->xFileSize(file, &size) != SQLITE_OK) return false;
  *bytes = static_cast<std::uint64_t>(size);
  return true;
}

// Why a write failed. sqlite3_system_errno is not told by every failing statement, so the two files
// are asked: the log or journal first, which is the one that is written before the other.
int writeErrno(sqlite3* handle) {
  for (const int pointer : {SQLITE_FCNTL_JOURNAL_POINTER, SQLITE_FCNTL_FILE_POINTER}) {
    sqlite3_file* file = nullptr;
    if (sqlite3_file_control(handle, "main", pointer, &file) != SQLITE_OK) continue;
    if (const int error = lastErrno(file); error != 0) return error;
  }
  return 0;
}

// The system's reason for the last failure; 0 when it has none.
int systemErrno(sqlite3* handle) {
  const int code = sqlite3_extended_errcode(handle);
  const int written = code == SQLITE_IOERR_WRITE ? writeErrno(handle) : 0;
  if (written != 0) return written;
  // Only these two set it; after any other it is that of an older failure.
  const bool fromSystem = (code & 0xFF) == SQLITE_IOERR || (code & 0xFF) == SQLITE_CANTOPEN;
  return fromSystem ? sqlite3_system_errno(handle) : 0;
}

StoreCode storeCode(int code, int systemError) {
  if (isFullDisk(code, systemError)) return StoreCode::kDiskFull;
  if (systemError == EIO) return StoreCode::kIo;
  switch (code & 0xFF) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return StoreCode::kInUse;
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
    case SQLITE_READONLY:
      return StoreCode::kUnusable;
    default:
      return StoreCode::kIo;
  }
}

const char* advice(StoreCode code) {
  switch (code) {
    case StoreCode::kDiskFull:
      return "free some space, or raise the store's size limit";
    case StoreCode::kInUse:
      return "end the process that has it open";
    case StoreCode::kUnusable:
      return "check the rights of the file and of its directory";
    default:
      return "check the disk";
  }
}

// SQLite's sums of what it allocates, which nobody reads, cost a lock for each allocation. Refused once
// SQLite has begun, as when a test brought a file system of its own; then it goes on counting.
void countNoMemory() {
  static const int refused = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  static_cast<void>(refused);
}

}  // namespace

Database::Database(const std::string& file, const std::string& vfs, Access access) : file_(file) {
  countNoMemory();
  const int mode = access == Access::kReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
  sqlite3* handle = nullptr;
  const int code = sqlite3_open_v2(file.c_str(), &handle, mode | SQLITE_OPEN_NOMUTEX,
                                   vfs.empty() ? nullptr : vfs.c_str());
  handle_.reset(handle);
  opened_ = code == SQLITE_OK;
  if (handle == nullptr) return;
  sqlite3_extended_result_codes(handle, 1);
  // A damaged or planted file must not make SQLite run what it holds.
  sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
}

void Database::Close::operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }

bool Database::run(const std::string& sql) {
  return sqlite3_exec(handle(), sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool Database::readNumber(const std::string& sql, std::int64_t* number) {
  Statement statement(*this, sql);
  const bool found = statement.isReady() && statement.step() == Statement::Step::kRow;
  *number = found ? statement.number(0).value_or(0) : 0;
  return found;
}

bool Database::readText(const std::string& sql, std::string* text) {
  Statement statement(*this, sql);
  const bool found = statement.isReady() && statement.step() == Statement::Step::kRow;
  *text = found ? statement.text(0) : std::string();
  return found;
}

bool Database::lastFailureIsDamage() const {
  if (handle_ == nullptr) return false;
  const int code = sqlite3_extended_errcode(handle());
  switch (code & 0xFF) {
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_ERROR:
    case SQLITE_TOOBIG:
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
      return true;
    case SQLITE_READONLY:
      // The file could be opened for writing: it is its own header that says otherwise.
      return code == SQLITE_READONLY;
    case SQLITE_IOERR:
      return code == SQLITE_IOERR_READ || code == SQLITE_IOERR_SHORT_READ ||
             code == SQLITE_IOERR_CORRUPTFS || code == SQLITE_IOERR_DATA;
    default:
      return false;
  }
}

std::string Database::lastMessage() const {
  if (handle_ == nullptr) return "out of memory";
  std::string message = sqlite3_errmsg(handle());
  const int systemError = systemErrno(handle());
  if (systemError != 0) message += " (" + std::generic_category().message(systemError) + ")";
  return message;
}

StoreStatus Database::lastFailure(const std::string& doing) const {
  const int code = handle_ == nullptr ? SQLITE_NOMEM : sqlite3_extended_errcode(handle());
  const int systemError = handle_ == nullptr ? 0 : systemErrno(handle());
  const StoreCode store = storeCode(code, systemError);
  return {store,
          "cannot " + doing + " the store " + file_ + ": " + lastMessage() + "; " + advice(store)};
}

bool Database::isReadOnly() const { return sqlite3_db_readonly(handle(), "main") == 1; }

std::uint64_t Database::takePagesWritten() {
  int pages = 0;
  int unused = 0;
  constexpr int kStartAnew = 1;
  sqlite3_db_status(handle(), SQLITE_DBSTATUS_CACHE_WRITE, &pages, &unused, kStartAnew);
  return static_cast<std::uint64_t>(pages);
}

int Database::rowsChanged() const { return sqlite3_changes(handle()); }

std::uint64_t Database::logBytes() const {
  std::uint64_t bytes = 0;
  return readSize(logFile(handle()), &bytes) ? bytes : 0;
}

void Database::countLogPages() {
  const auto count = [](void* logPages, sqlite3*, const char*, int pages) {
    *static_cast<int*>(logPages) = pages;
    return SQLITE_OK;
  };
  sqlite3_wal_hook(handle(), count, logPages_.get());
}

void Database::checkpoint() {
  *logPages_ = 0;
  sqlite3_wal_checkpoint_v2(handle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
}

bool Database::extendLog(std::uint64_t bytes) const {
  constexpr std::uint64_t kPieceBytes = std::uint64_t{32} * 1024;
  sqlite3_file* log = logFile(handle());
  std::uint64_t at = 0;
  // Asked for, and not reckoned: a byte too low would be in somebody's commit.
  if (!readSize(log, &at)) return false;
  const std::string zeros(kPieceBytes, '\0');
  for (const std::uint64_t end = at + bytes; at < end;) {
    const std::uint64_t piece = std::min(kPieceBytes, end - at);
    if (log->pMethods->xWrite(log, zeros.data(), static_cast<int>(piece),
                              static_cast<sqlite3_int64>(at)) != SQLITE_OK)
      return false;
    at += piece;
  }
  return true;
}

void Database::keepLogOnClose(bool keep) {
  sqlite3_db_config(handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, keep ? 1 : 0, nullptr);
}

Statement::Statement(const Database& database, std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v3(database.handle(), sql.data(), static_cast<int>(sql.size()),
                     SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  statement_.reset(statement);
}

void Statement::Finalize::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

void Statement::bind(int position, std::int64_t number) {
  bound_ &= sqlite3_bind_int64(statement_.get(), position, number) == SQLITE_OK;
}

void Statement::bind(int position, std::string_view bytes) {
  // An empty view may hold a null pointer, and SQLite would make NULL of that.
  const char* data = bytes.empty() ? "" : bytes.data();
  bound_ &= sqlite3_bind_blob64(statement_.get(), position, data, bytes.size(), SQLITE_STATIC) ==
            SQLITE_OK;
}

void Statement::bind(int position, const std::optional<std::string>& bytes) {
  if (bytes) return bind(position, std::string_view(*bytes));
  bound_ &= sqlite3_bind_null(statement_.get(), position) == SQLITE_OK;
}

void Statement::bind(int position, const std::optional<std::int64_t>& number) {
  if (number) return bind(position, *number);
  bound_ &= sqlite3_bind_null(statement_.get(), position) == SQLITE_OK;
}

void Statement::bindText(int position, const std::string& text) {
  bound_ &= sqlite3_bind_text64(statement_.get(), position, text.data(), text.size(), SQLITE_STATIC,
                                SQLITE_UTF8) == SQLITE_OK;
}

Statement::Step Statement::step() {
  if (!bound_) return Step::kFailed;
  const int code = sqlite3_step(statement_.get());
  if (code == SQLITE_ROW) return Step::kRow;
  return code == SQLITE_DONE ? Step::kDone : Step::kFailed;
}

void Statement::reset() {
  sqlite3_reset(statement_.get());
  bound_ = true;
}

bool Statement::finish() {
  const bool done = step() == Step::kDone;
  reset();
  return done;
}

bool Statement::isNull(int column) const {
  return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

std::optional<std::int64_t> Statement::number(int column) const {
  if (sqlite3_column_type(statement_.get(), column) != SQLITE_INTEGER) return std::nullopt;
  return sqlite3_column_int64(statement_.get(), column);
}

std::optional<std::string_view> Statement::bytes(int column) const {
  if (sqlite3_column_type(statement_.get(), column) != SQLITE_BLOB) return std::nullopt;
  const void* data = sqlite3_column_blob(statement_.get(), column);
  const int size = sqlite3_column_bytes(statement_.get(), column);
  if (size == 0) return std::string_view();
  if (data == nullptr) return std::nullopt;  // Out of memory.
  return std::string_view(static_cast<const char*>(data), static_cast<std::size_t>(size));
}

std::string Statement::text(int column) const {
  const unsigned char* data = sqlite3_column_text(statement_.get(), column);
  const int size = sqlite3_column_bytes(statement_.get(), column);
  if (data == nullptr) return {};
  return {data, data + size};
}

}  // namespace ConfigSrv
