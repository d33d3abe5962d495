// store_format: the versions of a store's file, and the way from each to the next.
//
// The format is the number of who may open the file: a version opens any whose format it knows. A
// device with two slots for its software starts the older one again when the newer one fails, and that
// has to find its configuration. So what is added goes where older versions do not look, into tables of
// its own that are made when they are needed, as `audit` is, and leaves the format as it is. An older
// version keeps such tables and does not keep them up to date, so each row that belongs to a variable's
// state says its revision, and counts for nothing beside a newer one.
//
// Whoever changes a table that older versions read makes a new format: a higher `newest`, and a step
// from the one before. Every format keeps a table `meta` with a column `format`, which must agree with
// user_version: so a flipped bit in the latter is told from a newer version's file. A file of the format
// so far goes into tests/configsrv/store/fixtures, for the service must read it for ever.
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
