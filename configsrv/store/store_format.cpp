#include "configsrv/store/internal/store_format.h"

#include <string>

#include "configsrv/store/internal/row_codec.h"

namespace ConfigSrv {
namespace {

bool writeFormat(Database& database, std::int64_t format) {
  std::int64_t id = 0;
  if (!database.readNumber("SELECT store_id FROM meta", &id)) return false;
  const std::uint32_t checksum = metaChecksum(format, static_cast<std::uint64_t>(id));
  return database.run("UPDATE meta SET format=" + std::to_string(format) +
                      ", checksum=" + std::to_string(checksum)) &&
         database.run("PRAGMA user_version=" + std::to_string(format));
}

bool takeSteps(Database& database, std::int64_t from, const StoreFormats& formats) {
  for (std::int64_t format = from; format < formats.newest; ++format) {
    if (!formats.steps[static_cast<std::size_t>(format - 1)](database)) return false;
  }
  return writeFormat(database, formats.newest);
}

}  // namespace

const StoreFormats& presentFormats() {
  static const StoreFormats formats;
  return formats;
}

// A transaction that is left open ends with the connection, which a failure makes its caller close.
bool upgrade(Database& database, std::int64_t from, const StoreFormats& formats) {
  return database.run("BEGIN IMMEDIATE") && takeSteps(database, from, formats) &&
         database.run("COMMIT");
}

}  // namespace ConfigSrv
