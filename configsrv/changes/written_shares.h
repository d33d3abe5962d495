// WrittenShares: how much each user and process may have written into variables, in sum.
//
// Values and options that are not the definition's take memory and store for as long as they stand.
// They count, with each of their strings, for whoever wrote them last: for the user, and for the
// process as long as it lives. What was stored before the start of the service counts only for all
// together, because nobody knows who wrote it. A write that takes no more than what it replaces is
// never refused.
//
//   plan = what a change would come to; room(plan); take(plan) when it is being made durable; then
//   apply(plan) once it is, or drop(plan) when it failed.
//
// Errors:   a failure names the limit, whose it is, and what to do.
// Threads:  one. The model outlives it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "base/status.h"
#include "configsrv/model/model.h"
#include "platform/messaging/serving/shares.h"

namespace ConfigSrv {

class WrittenShares {
 public:
  // What a value, or options, count as beside their bytes, and what each string does.
  static constexpr std::size_t kPartBytes = 64;
  static constexpr std::size_t kStringBytes = 64;

  // What a change makes of one part of a variable, its value or its options.
  struct Plan {
    bool isAny = false;
    std::uint64_t part = 0;
    PbUtility::Owner owner;
    std::size_t bytes = 0;
    // By how much its owner's sum grows until it is applied or dropped.
    std::size_t taken = 0;
    std::uint64_t life = 0;
  };

  WrittenShares(const Model& model, PbUtility::ShareLimits limits, uid_t own);

  // Counts what the model has from before, once.
  void countStored();
  // An endpoint of a process came, or went: after the last one the process counts as ended.
  void came(pid_t process);
  void went(pid_t process);

  Plan planOf(const Variable& variable, const StoreChange& change, PbUtility::Owner owner) const;
  Base::Status<> room(const Plan& plan) const;
  void take(Plan& plan);
  void apply(const Plan& plan);
  void drop(const Plan& plan);

 private:
  struct Written {
    PbUtility::Owner owner;
    std::size_t bytes = 0;
    std::uint64_t life = 0;
  };
  // A process that has endpoints now. Numbers of processes come again, so each life has its own.
  struct Process {
    std::size_t endpoints = 0;
    std::uint64_t life = 0;
    std::size_t bytes = 0;
  };

  std::size_t ofProcess(pid_t process) const;
  std::size_t bytesAt(std::uint64_t part) const;
  std::size_t growth(const Plan& plan) const;
  void add(PbUtility::Owner owner, std::uint64_t life, std::size_t bytes);
  void remove(PbUtility::Owner owner, std::uint64_t life, std::size_t bytes);

  const Model& model_;
  const std::size_t perProcess_;
  PbUtility::Shares shares_;
  std::unordered_map<std::uint64_t, Written> written_;
  std::unordered_map<pid_t, Process> living_;
  std::uint64_t lastLife_ = 0;
};

}  // namespace ConfigSrv
