// The SQL of the tables, and what becomes of a row on its way: columns that hold another type,
// numbers out of range and a wrong checksum make the row damaged. Whatever stands in the file,
// nothing of it is believed before that.
#include "configsrv/store/internal/store_contents.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <utility>

#include "configsrv/store/internal/row_codec.h"

namespace ConfigSrv {
namespace {

using Condition = StoreContents::Condition;

// Written into the file's header, where file(1) and sqlite3 show it: "ACFG".
constexpr std::int64_t kApplicationId = 0x41434647;

const char kMetaTable[] =
    "CREATE TABLE meta (format INTEGER NOT NULL, store_id INTEGER NOT NULL, "
    "checksum INTEGER NOT NULL)";

// Names are BLOBs because they are byte strings; BLOBs also order as std::less<ConfigVar> does.
const char kVariableTable[] =
    "CREATE TABLE variable (namespace INTEGER NOT NULL, group_name BLOB NOT NULL, "
    "group_instance INTEGER NOT NULL, name BLOB NOT NULL, name_instance INTEGER NOT NULL, "
    "value BLOB, options BLOB, default_index INTEGER, read_role INTEGER, write_role INTEGER, "
    "value_at INTEGER NOT NULL, options_at INTEGER NOT NULL, access_at INTEGER NOT NULL, "
    "checksum INTEGER NOT NULL, "
    "PRIMARY KEY (namespace, group_name, group_instance, name, name_instance)) WITHOUT ROWID";

#define APPCONFIG_VARIABLE_COLUMNS                                                              \
  "namespace, group_name, group_instance, name, name_instance, value, options, default_index, " \
  "read_role, write_role, value_at, options_at, access_at, checksum"
#define APPCONFIG_VARIABLE_KEY "namespace, group_name, group_instance, name, name_instance"

const char kSelectAll[] =
    "SELECT " APPCONFIG_VARIABLE_COLUMNS " FROM variable ORDER BY " APPCONFIG_VARIABLE_KEY;
const char kSelectOne[] = "SELECT " APPCONFIG_VARIABLE_COLUMNS
                          " FROM variable WHERE namespace=?1 AND group_name=?2 AND "
                          "group_instance=?3 AND name=?4 AND name_instance=?5";
const char kReplaceOne[] =
    "UPDATE variable SET value=?6, options=?7, default_index=?8, read_role=?9, write_role=?10, "
    "value_at=?11, options_at=?12, access_at=?13, checksum=?14 WHERE namespace=?1 AND "
    "group_name=?2 AND group_instance=?3 AND name=?4 AND name_instance=?5";
const char kWriteOne[] =
    "INSERT INTO variable (" APPCONFIG_VARIABLE_COLUMNS
    ") VALUES (?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14) "
    "ON CONFLICT DO UPDATE SET value=?6, options=?7, default_index=?8, read_role=?9, "
    "write_role=?10, value_at=?11, options_at=?12, access_at=?13, checksum=?14";

// What createContents makes; later formats are made of it, by their steps.
constexpr std::int64_t kFirstFormat = 1;

StoreContents newerFormat(const Database& database, std::int64_t format, std::int64_t newest) {
  StoreContents contents;
  contents.condition = Condition::kNewerFormat;
  contents.status = {StoreCode::kNewerFormat,
                     "the store " + database.file() + " has format " + std::to_string(format) +
                         ", and this version knows formats up to " + std::to_string(newest) +
                         "; it was not touched: install the newer version again, or move the file "
                         "away to begin an empty store"};
  return contents;
}

// A signed 64-bit column as the narrower number it was written from.
template <typename Number>
bool narrow(const std::optional<std::int64_t>& wide, Number* number) {
  if (!wide || *wide < std::int64_t{std::numeric_limits<Number>::min()} ||
      *wide > std::int64_t{std::numeric_limits<Number>::max()}) {
    return false;
  }
  *number = static_cast<Number>(*wide);
  return true;
}

template <typename Number>
bool readOptional(const Statement& row, int column, std::optional<Number>* number) {
  number->reset();
  return row.isNull(column) || narrow(row.number(column), &number->emplace());
}

bool readOptional(const Statement& row, int column, std::optional<std::string_view>* bytes) {
  bytes->reset();
  if (row.isNull(column)) return true;
  *bytes = row.bytes(column);
  return bytes->has_value();
}

bool readRevision(const Statement& row, int column, std::uint64_t* revision) {
  const std::optional<std::int64_t> number = row.number(column);
  if (!number || *number < 0) return false;
  *revision = static_cast<std::uint64_t>(*number);
  return true;
}

template <typename Strings>
bool decodeOptional(const std::optional<std::string_view>& bytes, std::optional<Strings>* strings) {
  strings->reset();
  if (!bytes) return true;
  *strings = decodeStrings<Strings>(*bytes);
  return strings->has_value();
}

std::optional<ConfigVar> readKey(const Statement& row) {
  std::int32_t nameSpace = 0;
  std::int32_t groupInstance = 0;
  std::int32_t nameInstance = 0;
  const std::optional<std::string_view> group = row.bytes(1);
  const std::optional<std::string_view> name = row.bytes(3);
  if (!narrow(row.number(0), &nameSpace) || !group || !narrow(row.number(2), &groupInstance) ||
      !name || !narrow(row.number(4), &nameInstance)) {
    return std::nullopt;
  }
  return ConfigVar(nameSpace, std::string(*group), groupInstance, std::string(*name), nameInstance);
}

// False when the row is not one that VariableTable::write made.
bool readRow(const Statement& row, StoredVariable* variable, std::uint64_t* digest) {
  std::optional<ConfigVar> key = readKey(row);
  std::optional<std::string_view> value;
  std::optional<std::string_view> options;
  std::uint32_t checksum = 0;
  if (!key || !readOptional(row, 5, &value) || !readOptional(row, 6, &options) ||
      !readOptional(row, 7, &variable->defaultIndex) ||
      !readOptional(row, 8, &variable->readRole) || !readOptional(row, 9, &variable->writeRole) ||
      !readRevision(row, 10, &variable->valueChangedAt) ||
      !readRevision(row, 11, &variable->optionsChangedAt) ||
      !readRevision(row, 12, &variable->accessChangedAt) || !narrow(row.number(13), &checksum)) {
    return false;
  }
  variable->key = std::move(*key);
  *digest = rowDigest(*variable, checksum);
  return checksum == rowChecksum(*variable, value, options) &&
         decodeOptional(value, &variable->value) && decodeOptional(options, &variable->options);
}

void bindKey(const ConfigVar& key, Statement* statement) {
  statement->bind(1, std::int64_t{key.nameSpace()});
  statement->bind(2, std::string_view(key.group()));
  statement->bind(3, std::int64_t{key.groupInstance()});
  statement->bind(4, std::string_view(key.name()));
  statement->bind(5, std::int64_t{key.nameInstance()});
}

template <typename Number>
std::optional<std::int64_t> widen(const std::optional<Number>& number) {
  if (!number) return std::nullopt;
  return std::int64_t{*number};
}

bool hasSchema(Database& database, const char* table, const char* schema) {
  std::string found;
  return database.readText(std::string("SELECT sql FROM sqlite_schema WHERE name='") + table + "'",
                           &found) &&
         found == schema;
}

std::uint64_t newestRevision(const StoredVariable& variable) {
  return std::max({variable.valueChangedAt, variable.optionsChangedAt, variable.accessChangedAt});
}

bool readMeta(Database& database, StoreContents* contents) {
  Statement row(database, "SELECT format, store_id, checksum FROM meta");
  if (!row.isReady() || row.step() != Statement::Step::kRow) return false;
  const std::int64_t format = row.number(0).value_or(0);
  contents->storeId = static_cast<std::uint64_t>(row.number(1).value_or(0));
  return format == contents->format && contents->storeId != 0 &&
         row.number(2) == std::int64_t{metaChecksum(format, contents->storeId)};
}

StoreContents readVariables(const Database& database, StoreContents contents) {
  Statement rows(database, kSelectAll);
  if (!rows.isReady()) return contentsAfterFailure(database);
  const std::less<ConfigVar> less;
  std::vector<StoredVariable>& variables = contents.variables;
  Statement::Step step = rows.step();
  for (; step == Statement::Step::kRow; step = rows.step()) {
    StoredVariable variable{ConfigVar("", 0, "", 0)};
    std::uint64_t digest = 0;
    if (!readRow(rows, &variable, &digest))
      return damagedContents("a row does not match its checksum");
    if (!variables.empty() && !less(variables.back().key, variable.key)) {
      return damagedContents("its rows are out of order");
    }
    contents.mark.revision = std::max(contents.mark.revision, newestRevision(variable));
    contents.mark.digest += digest;
    variables.push_back(std::move(variable));
  }
  return step == Statement::Step::kDone ? std::move(contents) : contentsAfterFailure(database);
}

bool insertMeta(Database& database, std::int64_t format, std::uint64_t storeId) {
  return database.run("INSERT INTO meta VALUES (" + std::to_string(format) + "," +
                      std::to_string(static_cast<std::int64_t>(storeId)) + "," +
                      std::to_string(metaChecksum(format, storeId)) + ")");
}

}  // namespace

StoreContents damagedContents(const std::string& damage) {
  StoreContents contents;
  contents.condition = Condition::kDamaged;
  contents.damage = damage;
  return contents;
}

StoreContents contentsAfterFailure(const Database& database) {
  if (database.lastFailureIsDamage()) return damagedContents(database.lastMessage());
  StoreContents contents;
  contents.condition = Condition::kFailed;
  contents.status = database.lastFailure("read");
  return contents;
}

bool createContents(Database& database, std::uint64_t storeId) {
  return database.run("BEGIN IMMEDIATE") &&
         database.run("PRAGMA application_id=" + std::to_string(kApplicationId)) &&
         database.run("PRAGMA user_version=" + std::to_string(kFirstFormat)) &&
         database.run(kMetaTable) && database.run(kVariableTable) &&
         insertMeta(database, kFirstFormat, storeId) && database.run("COMMIT");
}

StoreContents checkFormat(Database& database, const StoreFormats& formats) {
  std::int64_t version = 0;
  std::int64_t application = 0;
  if (!database.readNumber("PRAGMA user_version", &version) ||
      !database.readNumber("PRAGMA application_id", &application)) {
    return contentsAfterFailure(database);
  }
  if (application != kApplicationId) return damagedContents("it is not a configuration store");
  StoreContents contents;
  contents.format = version;
  if (version == formats.newest) return contents;
  std::int64_t format = 0;
  const bool known = database.readNumber("SELECT format FROM meta", &format) && format == version;
  if (known && version > formats.newest) return newerFormat(database, version, formats.newest);
  contents.condition = Condition::kOlderFormat;
  if (known && version >= kFirstFormat) return contents;
  return damagedContents("its header names format " + std::to_string(version));
}

StoreContents readContents(Database& database, const StoreFormats& formats) {
  StoreContents contents = checkFormat(database, formats);
  if (contents.condition != Condition::kGood) return contents;
  std::string check;
  if (!database.readText("PRAGMA quick_check(1)", &check)) return contentsAfterFailure(database);
  if (check != "ok") return damagedContents(check);
  if (!hasSchema(database, "meta", kMetaTable) ||
      !hasSchema(database, "variable", kVariableTable)) {
    return damagedContents("its tables are not those of a configuration store");
  }
  if (!readMeta(database, &contents))
    return damagedContents("its meta row does not match its checksum");
  return readVariables(database, std::move(contents));
}

bool replaceStoreId(Database& database, std::int64_t format, std::uint64_t storeId) {
  return database.run("BEGIN IMMEDIATE") && database.run("DELETE FROM meta") &&
         insertMeta(database, format, storeId) && database.run("COMMIT");
}

void emptyLog(Database& database) {
  const bool emptied = database.run("PRAGMA wal_checkpoint(TRUNCATE)");
  static_cast<void>(emptied);
}

bool readNewestRevision(Database& database, std::uint64_t* revision) {
  std::int64_t number = 0;
  const bool read = database.readNumber(
      "SELECT max(max(value_at, options_at, access_at)) FROM variable", &number);
  *revision = static_cast<std::uint64_t>(number);
  return read;
}

bool readStoreId(Database& database, std::uint64_t* storeId) {
  std::int64_t number = 0;
  const bool read = database.readNumber("SELECT store_id FROM meta", &number);
  *storeId = static_cast<std::uint64_t>(number);
  return read;
}

bool makeRecordTable(Database& database) {
  return database.run(
      "CREATE TABLE IF NOT EXISTS audit (revision INTEGER NOT NULL, line BLOB NOT NULL)");
}

bool dropRecordTable(Database& database) { return database.run("DROP TABLE IF EXISTS audit"); }

bool readRecords(Database& database, std::vector<StoredRecord>* records) {
  Statement rows(database, "SELECT revision, line FROM audit ORDER BY revision, rowid");
  if (!rows.isReady()) return false;
  Statement::Step step = rows.step();
  for (; step == Statement::Step::kRow; step = rows.step()) {
    const auto revision = static_cast<std::uint64_t>(rows.number(0).value_or(0));
    records->push_back({revision, std::string(rows.bytes(1).value_or(std::string_view()))});
  }
  return step == Statement::Step::kDone;
}

RecordTable::RecordTable(const Database& database)
    : insert_(database, "INSERT INTO audit VALUES (?1, ?2)"),
      forget_(database, "DELETE FROM audit WHERE revision <= ?1") {}

bool RecordTable::add(std::uint64_t revision, const std::string& text) {
  insert_.bind(1, static_cast<std::int64_t>(revision));
  insert_.bind(2, std::string_view(text));
  return insert_.finish();
}

bool RecordTable::forget(std::uint64_t upTo) {
  forget_.bind(1, static_cast<std::int64_t>(upTo));
  return forget_.finish();
}

VariableTable::VariableTable(const Database& database)
    : database_(database),
      select_(database, kSelectOne),
      replace_(database, kReplaceOne),
      write_(database, kWriteOne) {}

VariableTable::Found VariableTable::read(StoredVariable* variable, std::uint64_t* digest) {
  const ConfigVar key = variable->key;  // What is bound must outlive the reading of the row.
  bindKey(key, &select_);
  const Statement::Step step = select_.step();
  const bool good = step != Statement::Step::kRow || readRow(select_, variable, digest);
  select_.reset();
  if (step == Statement::Step::kFailed) return Found::kFailed;
  if (step == Statement::Step::kDone) return Found::kNothing;
  return good ? Found::kRow : Found::kDamaged;
}

bool VariableTable::write(const StoredVariable& variable, std::uint64_t* digest) {
  return writeWith(&write_, variable, digest);
}

// Finding a row to replace costs less than finding out whether it has to be added.
bool VariableTable::replace(const StoredVariable& variable, std::uint64_t* digest) {
  if (!writeWith(&replace_, variable, digest)) return false;
  return database_.rowsChanged() == 1 || write(variable, digest);
}

bool VariableTable::writeWith(Statement* statement, const StoredVariable& variable,
                              std::uint64_t* digest) {
  const std::optional<std::string> value = encodeOptional(variable.value);
  const std::optional<std::string> options = encodeOptional(variable.options);
  bindKey(variable.key, statement);
  statement->bind(6, value);
  statement->bind(7, options);
  statement->bind(8, widen(variable.defaultIndex));
  statement->bind(9, widen(variable.readRole));
  statement->bind(10, widen(variable.writeRole));
  statement->bind(11, static_cast<std::int64_t>(variable.valueChangedAt));
  statement->bind(12, static_cast<std::int64_t>(variable.optionsChangedAt));
  statement->bind(13, static_cast<std::int64_t>(variable.accessChangedAt));
  const std::uint32_t checksum = rowChecksum(variable, value, options);
  statement->bind(14, std::int64_t{checksum});
  *digest = rowDigest(variable, checksum);
  return statement->finish();
}

}  // namespace ConfigSrv
