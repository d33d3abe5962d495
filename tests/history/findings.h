// Findings: what is wrong with a history, each with the few operations that contradict each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace History {

enum class Rule : std::uint8_t {
  TwoStates,       // one revision is told of with two states, or for two variables
  FromNowhere,     // a value that nobody wrote, or a default that nobody went back to
  BeforeWritten,   // seen before its write began
  WrittenTwice,    // one write, several revisions
  RefusedSeen,     // a refused value is there all the same
  LostWrite,       // a fresh read does not hold what was acknowledged before it began
  StaleRead,       // a fresh read is older than what was seen before it began
  SwappedPair,     // a write stands before what had ended when it began
  LostReset,       // a reset found nothing to do where there was something
  RevisionsOrder,  // a write's revision is none after those that were known when it began
  EpochBack,       // an epoch older than one that was known
  NotTheCopy,      // a restored store does not hold what its copy held
  CopyIncomplete,  // a copy lacks what was acknowledged before it was made
  CachedBack,      // a cached read is older than what its process had read, written or was told
  Stale,           // a cache does not hold what is true after everything was delivered
  ToldBack,        // a handler was told something older than before
  ToldTwice,       // a handler was told the same again, without a reason
  NeverTold,       // a handler does not know the last change after everything was delivered
  VetoIgnored,     // a write was acknowledged that a provider had refused
  ProviderPassed,  // a write was acknowledged that a provider who was there had not been asked about
  ProviderOrder,   // a provider was told of changes in another order than they were made in
};
constexpr std::size_t kRules = static_cast<std::size_t>(Rule::ProviderOrder) + 1;

// "lost write"
const char* nameOf(Rule rule);

struct Finding {
  Rule rule;
  // Places in the record.
  std::vector<std::size_t> operations;
};

class Findings {
 public:
  void add(Rule rule, std::vector<std::size_t> operations) {
    ++count_;
    if (first_.size() < kKept) first_.push_back({rule, std::move(operations)});
  }
  std::size_t count() const { return count_; }
  const std::vector<Finding>& first() const { return first_; }

 private:
  static constexpr std::size_t kKept = 64;
  std::size_t count_ = 0;
  std::vector<Finding> first_;
};

}  // namespace History
