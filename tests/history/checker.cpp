#include "tests/history/checker.h"

#include <algorithm>
#include <array>
#include <set>

#include "tests/history/rules.h"

namespace History {
namespace {

constexpr std::array<const char*, kRules> kNames = {
    "two states at one revision",
    "a value from nowhere",
    "seen before it was written",
    "one write at two revisions",
    "a refused value is seen",
    "lost write",
    "stale fresh read",
    "swapped pair",
    "lost reset",
    "revisions out of order",
    "epoch goes back",
    "restored store is not its copy",
    "copy is incomplete",
    "cached read goes back",
    "stale cache",
    "handler told out of order",
    "handler told twice",
    "handler never told",
    "veto ignored",
    "provider passed over",
    "provider told out of order",
};

constexpr std::array<const char*, 11> kVerbs = {
    "write",          "reset",
    "fresh read",     "fresh read, at rest",
    "cached read",    "cached read, at rest",
    "told",           "asked whether",
    "told on change", "register",
    "all delivered",
};

constexpr std::size_t kDeedsTold = 12;

const char* nameOf(Outcome outcome) {
  if (outcome == Outcome::Ok) return "ok";
  return outcome == Outcome::Refused ? "refused" : "no answer";
}

bool isTelling(What what) {
  return what == What::Told || what == What::Delivered || what == What::Registered;
}

bool isJudged(What what) {
  return what == What::Write || what == What::Reset || what == What::Validated ||
         what == What::Changed;
}

std::string milliseconds(std::int64_t nanoseconds) {
  const std::string text = std::to_string(nanoseconds / 1000 % 1000000 + 1000000).substr(1);
  return std::to_string(nanoseconds / 1000000000) + "." + text;
}

std::string timesOf(const Operation& operation) {
  const std::string begin = milliseconds(operation.begin);
  if (operation.end == operation.begin) return begin;
  return begin + " to " + (operation.end == kNever ? "?" : milliseconds(operation.end));
}

std::string describe(const Record& record, const Operation& operation) {
  std::string text = timesOf(operation) + " " + record.processes[operation.process];
  if (operation.thread != 0) text += "/" + std::to_string(operation.thread);
  text += std::string(": ") + kVerbs.at(static_cast<std::size_t>(operation.what));
  if (operation.what == What::Delivered) return text;
  if (operation.what == What::Registered) return text + " " + record.values[operation.value];
  text += " " + record.variables[operation.variable];
  if (operation.what != What::Reset) text += " " + record.values[operation.value];
  if (isJudged(operation.what)) text += std::string(": ") + nameOf(operation.outcome);
  if (operation.revision == 0 && operation.epoch == 0) return text;
  text += " (revision " + std::to_string(operation.revision);
  return text + (operation.epoch == 0 ? "" : " of epoch " + std::to_string(operation.epoch)) + ")";
}

bool breaks(const Record& record, Rule rule) {
  const Findings findings = check(record);
  return std::any_of(findings.first().begin(), findings.first().end(),
                     [rule](const Finding& finding) { return finding.rule == rule; });
}

// What a finding is about, and what else belongs to a history that shows it.
class Around {
 public:
  Around(const Record& record, const Finding& finding)
      : record_(record),
        rule_(finding.rule),
        places_(finding.operations.begin(), finding.operations.end()) {
    for (const std::size_t place : finding.operations) {
      const Operation& operation = record.operations[place];
      const bool isOfVariable =
          operation.what != What::Registered && operation.what != What::Delivered;
      if (isOfVariable) values_.insert(operation.value);
      if (isOfVariable) variables_.insert(operation.variable);
      if (isTelling(operation.what)) processes_.insert(operation.process);
      from_ = std::min(from_, operation.begin);
      until_ = std::max(until_, operation.begin);
    }
  }

  std::vector<Operation> operations() const {
    std::vector<Operation> found;
    for (std::size_t place = 0; place < record_.operations.size(); ++place) {
      const Operation& operation = record_.operations[place];
      if (places_.count(place) != 0 || excuses(operation) || wrote(operation) ||
          isSameTelling(operation))
        found.push_back(operation);
    }
    return found;
  }

  // Whether the operation could be why all is well; to leave it out would prove nothing.
  bool excuses(const Operation& operation) const {
    const bool isOfProcess = processes_.count(operation.process) != 0 && operation.begin <= until_;
    const bool isOfVariable = variables_.count(operation.variable) != 0;
    if (rule_ != Rule::ToldTwice && rule_ != Rule::NeverTold) return false;
    if (operation.what == What::Registered) return isOfProcess && isFor(operation);
    return operation.what == What::Changed && isOfProcess && isOfVariable &&
           operation.begin >= from_;
  }

 private:
  bool isFor(const Operation& registration) const {
    return std::any_of(variables_.begin(), variables_.end(), [&](std::uint32_t variable) {
      return covers(record_.values[registration.value], record_.variables[variable]);
    });
  }
  bool wrote(const Operation& operation) const {
    return operation.what == What::Write && values_.count(operation.value) != 0;
  }
  bool isSameTelling(const Operation& operation) const {
    return rule_ == Rule::ToldTwice && operation.what == What::Told &&
           processes_.count(operation.process) != 0 && variables_.count(operation.variable) != 0 &&
           values_.count(operation.value) != 0 && operation.begin <= until_;
  }

  const Record& record_;
  const Rule rule_;
  const std::set<std::size_t> places_;
  std::set<std::uint32_t> values_;
  std::set<std::uint32_t> variables_;
  std::set<std::uint32_t> processes_;
  std::int64_t from_ = kNever;
  std::int64_t until_ = 0;
};

// Leaves out one after another what is not needed. The operations are few.
void shorten(Record& record, const Around& around, Rule rule) {
  for (std::size_t i = 0; i < record.operations.size();) {
    const Operation left = record.operations[i];
    const auto at = [&] { return record.operations.begin() + static_cast<std::ptrdiff_t>(i); };
    if (!around.excuses(left)) {
      record.operations.erase(at());
      if (breaks(record, rule)) continue;
      record.operations.insert(at(), left);
    }
    ++i;
  }
}

std::string tell(const Record& record) {
  std::vector<std::pair<std::int64_t, std::string>> lines;
  std::int64_t first = kNever;
  std::int64_t last = 0;
  for (const Operation& operation : record.operations) {
    lines.emplace_back(operation.begin, describe(record, operation));
    // What was registered for may be long ago.
    if (operation.what != What::Registered) first = std::min(first, operation.begin);
    last = std::max(last, operation.begin);
  }
  std::size_t deeds = 0;
  for (auto deed = record.deeds.rbegin(); deed != record.deeds.rend() && deeds < kDeedsTold;
       ++deed) {
    if (deed->time < first || deed->time > last) continue;
    lines.emplace_back(deed->time, milliseconds(deed->time) + " " + deed->text);
    ++deeds;
  }
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (const auto& [time, line] : lines) text += "  " + line + "\n";
  return text;
}

}  // namespace

const char* nameOf(Rule rule) { return kNames.at(static_cast<std::size_t>(rule)); }

int settledAt(const Record& record, std::int64_t time) {
  const auto later = std::upper_bound(
      record.settled.begin(), record.settled.end(), time,
      [](std::int64_t sought, const Window& window) { return sought < window.begin; });
  if (later == record.settled.begin() || (later - 1)->end < time) return -1;
  return static_cast<int>(later - record.settled.begin()) - 1;
}

std::int64_t lastSettledBefore(const Record& record, std::int64_t time) {
  const auto later = std::upper_bound(
      record.settled.begin(), record.settled.end(), time,
      [](std::int64_t sought, const Window& window) { return sought <= window.end; });
  return later == record.settled.begin() ? 0 : (later - 1)->begin;
}

bool mayHaveBeenReset(const Context& context, const Operation& operation) {
  const std::int64_t from = lastSettledBefore(context.record, operation.begin);
  return context.states.mayHaveBeenReset(operation.variable, from, operation.end);
}

std::vector<Places> truths(const Record& record) {
  std::vector<Places> found(record.settled.size(), Places(record.variables.size(), kNowhere));
  for (std::size_t place = 0; place < record.operations.size(); ++place) {
    const Operation& operation = record.operations[place];
    if (operation.what != What::Truth) continue;
    const int window = settledAt(record, operation.begin);
    if (window >= 0) found[static_cast<std::size_t>(window)][operation.variable] = place;
  }
  return found;
}

Findings check(const Record& record) {
  const Places byBegin = placesBy(record.operations, [](const Operation& o) { return o.begin; });
  const Places byEnd = placesBy(record.operations, [](const Operation& o) { return o.end; });
  Findings findings;
  const Lineage lineage(record);
  States states(record, lineage, byBegin, findings);
  const Context context{record, lineage, states, byBegin, byEnd, findings};
  checkCaches(context);
  checkOrder(context);
  checkRevisions(context);
  checkCopies(context);
  checkHandlers(context);
  checkProviders(context);
  return findings;
}

std::string shortest(Record& record, const Finding& finding) {
  const Around around(record, finding);
  record.operations = around.operations();
  shorten(record, around, finding.rule);
  return tell(record);
}

}  // namespace History
