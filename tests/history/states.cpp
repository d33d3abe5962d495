// The claims are taken in the order in which their operations began, so that the first that tells
// of a revision is the oldest. Then the states are sorted, each branch is told what it has from its
// parent, and each default is held against the resets: an acknowledged reset tells its revision,
// and one that nobody answered may account for one default that nothing else accounts for.
#include "tests/history/states.h"

namespace History {
namespace {

bool isStamped(What what) {
  return what == What::Fresh || what == What::Truth || what == What::Told || what == What::Write;
}

}  // namespace

States::States(const Record& record, const Lineage& lineage, const Places& byBegin,
               Findings& findings)
    : record_(record),
      lineage_(lineage),
      findings_(findings),
      at_(record.operations.size()),
      values_(record.values.size()),
      byVariable_(record.variables.size()),
      firsts_(record.variables.size()),
      defaults_(record.variables.size()),
      looseResets_(record.variables.size()) {
  states_.reserve(record.operations.size() / 8);
  noteCauses(byBegin);
  claimAll(byBegin);
  placeWrites(byBegin);
  sortStates();
  inherit();
  placeDefaults();
  checkDefaults();
}

bool States::hasStamp(std::size_t place) const {
  const Operation& operation = record_.operations[place];
  if (operation.what == What::Reset)
    return operation.outcome == Outcome::Ok && operation.revision != 0;
  return isStamped(operation.what) && operation.epoch != 0;
}

// The answer to a reset tells the revision and not the epoch.
std::uint32_t States::branchOf(std::size_t place) const {
  const Operation& operation = record_.operations[place];
  if (operation.epoch != 0) return lineage_.branchOf(operation.epoch);
  return lineage_.branchDuring(operation.begin, operation.end);
}

// --- Who wrote what ---

void States::noteCauses(const Places& byBegin) {
  for (std::uint32_t value = 0; value < values_.size(); ++value) {
    const std::string& text = record_.values[value];
    values_[value].isDefault = isDefaultText(text);
    if (values_[value].isDefault) values_[value].generation = generationOf(text);
  }
  for (const std::size_t place : byBegin) {
    const Operation& operation = record_.operations[place];
    Value& value = values_[operation.value];
    const bool isAnswer = operation.what == What::Validated || operation.what == What::Changed;
    if (operation.what == What::Write) value.write = place;
    if ((operation.what == What::Write || isAnswer) && operation.outcome == Outcome::Refused &&
        !value.isDefault && !(isAnswer && value.refusal != kNowhere))
      value.refusal = place;
  }
}

// --- Claims ---

void States::claimAll(const Places& byBegin) {
  for (const std::size_t place : byBegin) {
    const Operation& operation = record_.operations[place];
    if (operation.what != What::Reset && operation.what != What::Registered) checkSource(place);
    if (hasStamp(place)) claim(place);
    const bool isLoose = operation.what == What::Reset && operation.outcome == Outcome::Unknown;
    if (isLoose) looseResets_[operation.variable].push_back(operation.begin);
  }
}

void States::claim(std::size_t place) {
  const Operation& operation = record_.operations[place];
  const std::uint32_t branch = branchOf(place);
  const bool isReset = operation.what == What::Reset;
  if (branch ==
      lineage_.branches()) {  // a reset while a store was restored: in the one or the other
    looseResets_[operation.variable].push_back(operation.begin);
    return;
  }
  const bool isDefault = isReset || values_[operation.value].isDefault;
  const std::uint64_t generation = isReset ? 0 : values_[operation.value].generation;
  at_[place] = Lineage::position(branch, operation.revision, generation);
  if (operation.revision == 0) {
    if (!isDefault) findings_.add(Rule::TwoStates, {place});
    return;
  }
  const std::uint32_t owner = lineage_.ownerOf(branch, operation.revision);
  if ((isReset || operation.what == What::Write) && owner != branch)
    findings_.add(Rule::RevisionsOrder, {place});
  const std::uint64_t key = keyOf(owner, operation.revision);
  const auto [found, isNew] =
      states_.emplace(key, State{owner, operation.revision, operation.variable, operation.value,
                                 isDefault, place, kNowhere});
  State& state = found->second;
  if (!isNew) check(state, place);
  if (isReset) state.cause = place;
  if (isDefault) return;
  Value& value = values_[operation.value];
  if (value.hasState && value.state != key)
    findings_.add(Rule::WrittenTwice, {states_.at(value.state).seen, place});
  if (value.hasState) return;
  value.hasState = true;
  value.state = key;
  state.cause = value.write;
}

void States::check(const State& state, std::size_t place) {
  const Operation& operation = record_.operations[place];
  const bool isDefault = operation.what == What::Reset || values_[operation.value].isDefault;
  const bool agrees = state.variable == operation.variable && state.isDefault == isDefault &&
                      (isDefault || state.value == operation.value);
  if (!agrees) findings_.add(Rule::TwoStates, {state.seen, place});
}

// Whether the value can be there at all, whoever saw it.
void States::checkSource(std::size_t place) {
  const Operation& operation = record_.operations[place];
  if (operation.what == What::Delivered) return;
  const Value& value = values_[operation.value];
  const bool tellsFlag = operation.what == What::Fresh || operation.what == What::Truth ||
                         operation.what == What::Told;
  if (tellsFlag && operation.isDefault != value.isDefault)
    return findings_.add(Rule::FromNowhere, {place});
  if (value.isDefault) return;
  if (value.write == kNowhere || record_.operations[value.write].variable != operation.variable)
    return findings_.add(Rule::FromNowhere, {place});
  if (operation.end < record_.operations[value.write].begin)
    findings_.add(Rule::BeforeWritten, {value.write, place});
}

// A write that nobody answered stands where others saw what it made.
void States::placeWrites(const Places& byBegin) {
  for (const std::size_t place : byBegin) {
    const Operation& operation = record_.operations[place];
    if (operation.what != What::Write || at_[place] != 0) continue;
    const State* const state = stateOf(operation.value);
    if (state != nullptr) at_[place] = Lineage::position(state->owner, state->revision, 0);
  }
}

const State* States::stateOf(std::uint32_t value) const {
  return values_[value].hasState ? &states_.at(values_[value].state) : nullptr;
}

const State* States::stateAt(std::size_t place) const {
  const Operation& operation = record_.operations[place];
  if (at_[place] == 0 || !hasStamp(place)) return nullptr;
  if (operation.revision == 0) return &firsts_[operation.variable];
  const auto found = states_.find(
      keyOf(lineage_.ownerOf(branchOf(place), operation.revision), operation.revision));
  return found == states_.end() ? nullptr : &found->second;
}

// --- The order of the states ---

void States::sortStates() {
  for (std::uint32_t variable = 0; variable < firsts_.size(); ++variable) {
    firsts_[variable].variable = variable;
    firsts_[variable].isDefault = true;
    byVariable_[variable].push_back(&firsts_[variable]);
  }
  for (const auto& [key, state] : states_) byVariable_[state.variable].push_back(&state);
  for (auto& states : byVariable_) {
    std::sort(states.begin(), states.end(), [](const State* a, const State* b) {
      return keyOf(a->owner, a->revision) < keyOf(b->owner, b->revision);
    });
  }
}

void States::inherit() {
  const auto notAfter = [](std::uint64_t key, const State* state) {
    return key < keyOf(state->owner, state->revision);
  };
  inherited_.assign(lineage_.branches(), std::vector<const State*>(firsts_.size()));
  for (std::uint32_t branch = 1; branch < lineage_.branches(); ++branch) {
    const std::uint32_t parent = lineage_.parentOf(branch);
    for (std::uint32_t variable = 0; variable < firsts_.size(); ++variable) {
      const auto& states = byVariable_[variable];
      const auto behind = std::upper_bound(states.begin(), states.end(),
                                           keyOf(parent, lineage_.cutOf(branch)), notAfter);
      const State* const last = behind == states.begin() ? nullptr : *(behind - 1);
      const bool isOwn = last != nullptr && last->owner == parent;
      inherited_[branch][variable] = isOwn ? last : inherited_[parent][variable];
    }
  }
}

const State* States::inherited(std::uint32_t branch, std::uint32_t variable) const {
  return inherited_[branch][variable];
}

// --- Defaults ---

void States::placeDefaults() {
  for (std::uint32_t variable = 0; variable < firsts_.size(); ++variable) {
    auto& places = defaults_[variable];
    for (const State* state : byVariable_[variable]) {
      if (!state->isDefault) continue;
      const std::int64_t since = isCauseKnown(*state) ? record_.operations[state->cause].begin : 0;
      places.push_back({Lineage::position(state->owner, state->revision, 0), since});
    }
    for (std::uint32_t branch = 1; branch < lineage_.branches(); ++branch) {
      const State* const state = inherited_[branch][variable];
      if (state == nullptr || !state->isDefault) continue;
      places.push_back({Lineage::position(branch, state->revision, 0), lineage_.beginOf(branch)});
    }
    std::sort(places.begin(), places.end(),
              [](const DefaultPlace& a, const DefaultPlace& b) { return a.base < b.base; });
  }
}

void States::checkDefaults() {
  for (std::uint32_t variable = 0; variable < firsts_.size(); ++variable) {
    const auto& loose = looseResets_[variable];  // by their times
    std::size_t used = 0;
    for (const State* state : byVariable_[variable]) {
      if (!state->isDefault || state->revision == 0 || isCauseKnown(*state)) continue;
      const bool mayBe = used < loose.size() && loose[used] <= record_.operations[state->seen].end;
      if (!mayBe) findings_.add(Rule::FromNowhere, {state->seen});
      used += mayBe ? 1 : 0;
    }
  }
}

bool States::mayHaveBeenReset(std::uint32_t variable, std::int64_t from, std::int64_t until) const {
  const auto& loose = looseResets_[variable];
  const auto first = std::lower_bound(loose.begin(), loose.end(), from);
  return first != loose.end() && *first <= until;
}

// --- Where a read may have been ---

Position States::firstPlace(std::uint32_t variable, std::uint32_t value, Position floor,
                            std::int64_t end) const {
  const Value& about = values_[value];
  if (about.isDefault) return placeOfDefault(variable, about.generation, floor, end);
  return placeOfWritten(variable, value, floor, end);
}

// In its own branch, or in a later one that had it from the copy.
Position States::placeOfWritten(std::uint32_t variable, std::uint32_t value, Position floor,
                                std::int64_t end) const {
  const State* const state = stateOf(value);
  if (state == nullptr || state->variable != variable) return 0;
  std::uint32_t branch = std::max(state->owner, Lineage::branchAt(floor));
  for (; branch < lineage_.branches() && lineage_.beginOf(branch) <= end; ++branch) {
    if (branch != state->owner && inherited_[branch][variable] != state) continue;
    const Position position = Lineage::position(branch, state->revision, 0);
    if (position >= floor) return position;
  }
  return 0;
}

Position States::placeOfDefault(std::uint32_t variable, std::uint64_t generation, Position floor,
                                std::int64_t end) const {
  const auto& places = defaults_[variable];
  auto found = std::lower_bound(
      places.begin(), places.end(), Lineage::baseOf(floor),
      [](const DefaultPlace& place, Position sought) { return place.base < sought; });
  for (; found != places.end() && found->since <= end; ++found) {
    const Position position = found->base | generation;
    if (position >= floor) return position;
  }
  return 0;
}

Position States::firstDefault(std::uint32_t variable, Position floor, std::int64_t end) const {
  const Position found = placeOfDefault(variable, Lineage::kMostGenerations, floor, end);
  return found == 0 ? 0 : std::max(Lineage::baseOf(found), floor);
}

}  // namespace History
