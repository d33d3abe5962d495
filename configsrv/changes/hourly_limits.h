// HourlyLimits: how often, and how much, an ordinary user may have made durable in an hour.
//
// For flash memory that wears out; the integrator sets them. A user's hour begins with its first
// commit and ends 60 minutes later; the next one begins with the commit after that. Root and the
// service's own user have no such limit: what they do is the device's own business.
//
// Errors:   a failure names the limit, the user, and when there is room again.
// Threads:  one.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "base/status.h"
#include "platform/messaging/serving/shares.h"

namespace ConfigSrv {

struct HourlyOptions {
  // 0: without limit.
  std::uint64_t commits = 0;
  std::uint64_t bytes = 0;
};

class HourlyLimits {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kHour{3600};
  // What a commit counts as, beside what it carries: the page that it writes at least.
  static constexpr std::size_t kCommitBytes = 4096;
  // Users whose hours are remembered before those that are over are forgotten.
  static constexpr std::size_t kUsers = 1024;

  HourlyLimits(HourlyOptions options, uid_t own) : options_(options), own_(own) {}

  bool limits(PbUtility::Owner owner) const;
  // For a commit that carries so many bytes.
  Base::Status<> room(PbUtility::Owner owner, std::size_t carried, Clock::time_point now) const;
  void add(PbUtility::Owner owner, std::size_t carried, Clock::time_point now);

 private:
  struct Hour {
    Clock::time_point begin;
    std::uint64_t commits = 0;
    std::uint64_t bytes = 0;
  };
  void forgetPast(Clock::time_point now);

  const HourlyOptions options_;
  const uid_t own_;
  std::unordered_map<uid_t, Hour> hours_;
};

}  // namespace ConfigSrv
