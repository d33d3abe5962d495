// What a process may read from its cache. A cached read has no revision; it is given the first place at
// which its value can have been that is not below what the process knew already. So each read claims as
// little as it can, and one that finds no place has none.
//
// What a process knows of a variable: what it read, what it wrote and was told is accepted, and
// what a handler of it was told. Not what it reset, nor options that it set: these reach the cache
// by notice. A process that is told of a change as a provider has it in its cache before it is one;
// such reads are left out.
#include <unordered_set>

#include "tests/history/rules.h"

namespace History {
namespace {

bool isCached(const Operation& operation) {
  return operation.what == What::Cached || operation.what == What::Look;
}

bool isOptions(const std::string& variable) { return variable.find('#') != std::string::npos; }

std::uint64_t askedKey(const Operation& operation) {
  return (std::uint64_t{operation.process} << 32U) | operation.value;
}

class Caches {
 public:
  explicit Caches(const Context& context) : context_(context), truths_(truths(context.record)) {
    for (std::uint32_t i = 0; i < context.record.variables.size(); ++i)
      areOptions_.push_back(isOptions(context.record.variables[i]));
    for (const Operation& operation : context.record.operations) {
      if (operation.what == What::Changed) asked_.insert(askedKey(operation));
    }
  }

  Position known(std::size_t place) const {
    const Operation& operation = context_.operation(place);
    if (isCached(operation) || operation.what == What::Told) return context_.states.at(place);
    if (areOptions_[operation.variable]) return 0;
    const bool counts = operation.what == What::Fresh || operation.what == What::Truth ||
                        (operation.what == What::Write && operation.outcome == Outcome::Ok);
    return counts ? context_.states.at(place) : 0;
  }

  void check(std::size_t place, const Floor& floor) {
    const Operation& operation = context_.operation(place);
    if (!isCached(operation) || asked_.count(askedKey(operation)) != 0) return;
    if (operation.what == What::Look && !isTrue(place)) return;
    States& states = context_.states;
    const Position position =
        states.firstPlace(operation.variable, operation.value, floor.position, operation.end);
    states.setAt(place, position);
    if (position != 0 || mayBeUnplaced(operation)) return;
    context_.findings.add(Rule::CachedBack, {floor.place, place});
  }

 private:
  // A value whose revision nobody told.
  bool mayBeUnplaced(const Operation& operation) const {
    const States& states = context_.states;
    if (states.isDefault(operation.value)) return mayHaveBeenReset(context_, operation);
    return states.stateOf(operation.value) == nullptr;
  }

  bool isTrue(std::size_t place) {
    const Operation& operation = context_.operation(place);
    const int window = settledAt(context_.record, operation.begin);
    if (window < 0) return true;
    const std::size_t truth = truths_[static_cast<std::size_t>(window)][operation.variable];
    if (truth == kNowhere || context_.operation(truth).value == operation.value) return true;
    context_.findings.add(Rule::Stale, {truth, place});
    return false;
  }

  const Context& context_;
  const std::vector<Places> truths_;
  std::vector<bool> areOptions_;
  std::unordered_set<std::uint64_t> asked_;
};

}  // namespace

void checkCaches(const Context& context) {
  const std::size_t variables = context.record.variables.size();
  const auto keyOf = [&](std::size_t place) {
    const Operation& operation = context.operation(place);
    return std::size_t{operation.process} * variables + operation.variable;
  };
  const std::size_t keys = context.record.processes.size() * variables;
  const Groups byBegin(context.byBegin, keys, keyOf);
  const Groups byEnd(context.byEnd, keys, keyOf);
  Caches caches(context);
  for (std::size_t key = 0; key < keys; ++key) {
    sweep(
        context.record.operations, byBegin.begin(key), byBegin.end(key), byEnd.begin(key),
        [&](std::size_t place) { return caches.known(place); },
        [&](std::size_t place, const Floor& floor) { caches.check(place, floor); });
  }
}

}  // namespace History
