// store_format: the versions of a store's file, and the way from each to the next.
//
// Every format keeps a table `meta` with a column `format`, which must agree with user_version: so a
// flipped bit in the latter is told from a newer version's file. Whoever changes a table makes a new
// format: a higher `newest`, and a step from the one before. A file of the format so far goes into
// tests/configsrv/store/fixtures, for the service must read it for ever.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "configsrv/store/internal/database.h"

namespace ConfigSrv {

// From format n to n + 1: changes tables and rows, inside a transaction that is not its own. False
// when that failed, which the database then explains.
using FormatStep = std::function<bool(Database& database)>;

struct StoreFormats {
  std::int64_t newest = 1;
  // The first is the step from format 1; as many as lead to the newest.
  std::vector<FormatStep> steps{};
};

const StoreFormats& presentFormats();

// Brings the file to the newest format in one transaction, so that a loss of power leaves the old
// format or the new one.
[[nodiscard]] bool upgrade(Database& database, std::int64_t from, const StoreFormats& formats);

}  // namespace ConfigSrv
