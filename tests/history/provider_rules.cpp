// Providers. One that was asked over a connection before a write began and again after it ended was there
// all the time, so it must have been asked about that write as well; no clock and no list of who is alive
// has to be believed for that.
#include <algorithm>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "tests/history/rules.h"

namespace History {
namespace {

bool isSeen(const Operation& operation) {
  return operation.what == What::Fresh || operation.what == What::Truth ||
         operation.what == What::Told || operation.what == What::Cached ||
         operation.what == What::Look;
}

// All that one process was asked.
struct Provider {
  struct Presence {
    std::size_t first;
    std::size_t last;
  };
  std::map<std::uint64_t, Presence> presences;  // by connection
  std::unordered_set<std::uint32_t> values;
  std::unordered_map<std::uint32_t, std::size_t> last;  // of each variable the last that became one
};

class Providers {
 public:
  explicit Providers(const Context& context)
      : context_(context), provided_(context.record.variables.size()) {}

  void check() {
    for (const std::size_t place : context_.byBegin) {
      if (context_.operation(place).what == What::Changed) takeChanged(place);
    }
    for (const std::size_t place : context_.byBegin) {
      const Operation& operation = context_.operation(place);
      if (isSeen(operation)) checkSeen(place);
      if (operation.what == What::Write && operation.outcome == Outcome::Ok) takeWrite(place);
    }
    for (const auto& [process, provider] : providers_) checkPresences(provider);
  }

 private:
  void takeChanged(std::size_t place) {
    const Operation& operation = context_.operation(place);
    provided_[operation.variable] = true;
    Provider& provider = providers_[operation.process];
    const auto [presence, isNew] =
        provider.presences.emplace(operation.sender, Provider::Presence{place, place});
    presence->second.last = place;
    provider.values.insert(operation.value);
    const State* const state = context_.states.stateOf(operation.value);
    if (state == nullptr) return;
    const auto [last, isFirst] = provider.last.emplace(operation.variable, place);
    if (!isFirst &&
        isBefore(*state, *context_.states.stateOf(context_.operation(last->second).value)))
      context_.findings.add(Rule::ProviderOrder, {last->second, place});
    last->second = place;
  }

  static bool isBefore(const State& a, const State& b) {
    return a.owner != b.owner ? a.owner < b.owner : a.revision < b.revision;
  }

  // A provider sees what it is asked about in its own cache, whatever comes of it.
  void checkSeen(std::size_t place) {
    const Operation& operation = context_.operation(place);
    const States& states = context_.states;
    if (!states.isRefused(operation.value)) return;
    const bool isCached = operation.what == What::Cached || operation.what == What::Look;
    const auto provider = providers_.find(operation.process);
    const bool wasAsked =
        provider != providers_.end() && provider->second.values.count(operation.value) != 0;
    if (isCached && wasAsked) return;
    context_.findings.add(Rule::RefusedSeen, {states.refusalOf(operation.value), place});
  }

  void takeWrite(std::size_t place) {
    const Operation& operation = context_.operation(place);
    if (context_.states.isRefused(operation.value))
      context_.findings.add(Rule::VetoIgnored, {context_.states.refusalOf(operation.value), place});
    if (provided_[operation.variable]) writes_.push_back(place);
  }

  void checkPresences(const Provider& provider) {
    for (const auto& [sender, presence] : provider.presences) checkPresence(provider, presence);
  }

  void checkPresence(const Provider& provider, const Provider::Presence& presence) {
    const std::int64_t from = context_.operation(presence.first).begin;
    const std::int64_t until = context_.operation(presence.last).begin;
    auto write = std::lower_bound(writes_.begin(), writes_.end(), from,
                                  [&](std::size_t place, std::int64_t time) {
                                    return context_.operation(place).begin < time;
                                  });
    for (; write != writes_.end() && context_.operation(*write).begin < until; ++write) {
      const Operation& operation = context_.operation(*write);
      if (operation.end > until || provider.values.count(operation.value) != 0) continue;
      context_.findings.add(Rule::ProviderPassed, {presence.first, *write, presence.last});
    }
  }

  const Context& context_;
  std::vector<bool> provided_;
  std::unordered_map<std::uint32_t, Provider> providers_;
  Places writes_;
};

}  // namespace

void checkProviders(const Context& context) { Providers(context).check(); }

}  // namespace History
