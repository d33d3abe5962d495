// What the integrator may set for changes, and what is counted of them.
//
// Threads:  plain values.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "configsrv/changes/hourly_limits.h"
#include "platform/messaging/serving/shares.h"

namespace ConfigSrv {

struct ChangesOptions {
  // How long a provider may take to answer one question.
  std::chrono::milliseconds providerDeadline{3000};
  // The service's own user, who is no ordinary one.
  uid_t own = 0;
  // Changes that may wait for their turn at one variable: all, ordinary users, a user, a process.
  PbUtility::ShareLimits waitingPerVariable{1024, 768, 256, 1024};
  // Changes and validations under way. One endpoint of root's is slowed down before it has as much
  // as a process may have.
  PbUtility::ShareLimits underWay{16384, 12288, 2048, 4096};
  // What those under way take in memory (ChangeShares::bytesOf).
  PbUtility::ShareLimits bytesUnderWay{std::size_t{64} << 20, std::size_t{6} << 20,
                                       std::size_t{3} << 20, std::size_t{32} << 20};
  // What stands in values and options that are not the definition's (WrittenShares). The store's
  // file has room for twice as much.
  PbUtility::ShareLimits written{std::size_t{32} << 20, std::size_t{24} << 20, std::size_t{8} << 20,
                                 std::size_t{16} << 20};
  // See HourlyLimits.
  HourlyOptions hourly{};
};

// Since the start.
struct ChangeCounters {
  std::uint64_t commits = 0;
  std::uint64_t unchanged = 0;
  std::uint64_t refused = 0;
};

}  // namespace ConfigSrv
