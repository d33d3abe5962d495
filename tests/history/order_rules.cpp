// The order of writes and fresh reads. Each has its place from its revision; that the places are an order
// in which everything can have happened is what the sweep shows: nothing stands before what had ended
// when it began, and no write at the place of something that had.
#include <algorithm>

#include "tests/history/rules.h"

namespace History {
namespace {

bool isChange(const Operation& operation) {
  return operation.what == What::Write || operation.what == What::Reset;
}

bool isFresh(const Operation& operation) {
  return operation.what == What::Fresh || operation.what == What::Truth;
}

// What a variable's operations that ended make certain. Of a change that nobody answered, nothing.
Position settledPosition(const Context& context, std::size_t place) {
  const Operation& operation = context.operation(place);
  const bool isUnanswered = isChange(operation) && operation.outcome != Outcome::Ok;
  return isUnanswered ? 0 : context.states.at(place);
}

Rule ruleFor(const Context& context, std::size_t place, const Floor& floor) {
  if (isChange(context.operation(place))) return Rule::SwappedPair;
  return isChange(context.operation(floor.place)) ? Rule::LostWrite : Rule::StaleRead;
}

// A reset that changed nothing found the default: one that is not older than what was known.
void placeEmptyReset(const Context& context, std::size_t place, const Floor& floor) {
  const Operation& operation = context.operation(place);
  if (context.states.at(place) != 0 || operation.outcome != Outcome::Ok) return;
  const Position found =
      context.states.firstDefault(operation.variable, floor.position, operation.end);
  context.states.setAt(place, found);
  if (found == 0 && !mayHaveBeenReset(context, operation))
    context.findings.add(Rule::LostReset, {floor.place, place});
}

void checkPlace(const Context& context, std::size_t place, const Floor& floor) {
  const Operation& operation = context.operation(place);
  if (operation.what == What::Reset && operation.revision == 0)
    return placeEmptyReset(context, place, floor);
  const Position position = context.states.at(place);
  if (position == 0 || !(isChange(operation) || isFresh(operation))) return;
  const bool isBelow = isChange(operation) ? position <= floor.position : position < floor.position;
  if (isBelow) context.findings.add(ruleFor(context, place, floor), {floor.place, place});
}

std::uint64_t epochOf(const Context& context, std::size_t place) {
  const Operation& operation = context.operation(place);
  return isFresh(operation) || operation.what == What::Write ? operation.epoch : 0;
}

void checkRevision(const Context& context, std::size_t place, const Floor& floor) {
  const Operation& operation = context.operation(place);
  const Position position = Lineage::baseOf(context.states.at(place));
  const bool tells = isChange(operation) && operation.revision != 0 && position != 0;
  if (!tells || position > Lineage::baseOf(floor.position)) return;
  // The order of one variable is told by the rule for that.
  if (context.operation(floor.place).variable == operation.variable) return;
  context.findings.add(Rule::RevisionsOrder, {floor.place, place});
}

Position acknowledgedAt(const Context& context, std::size_t place) {
  const Operation& operation = context.operation(place);
  return isChange(operation) && operation.outcome == Outcome::Ok ? context.states.at(place) : 0;
}

// Copies come in the order of their times, as the changes do.
void checkCopiesHold(const Context& context) {
  Floor known;
  auto ended = context.byEnd.begin();
  for (const Copy& copy : context.record.copies) {
    for (; ended != context.byEnd.end() && context.operation(*ended).end < copy.begin; ++ended) {
      const Position position = acknowledgedAt(context, *ended);
      if (position > known.position) known = {position, *ended};
    }
    const std::uint32_t branch = context.lineage.branchDuring(copy.begin, copy.end);
    const Position held = Lineage::position(branch, copy.revision, Lineage::kMostGenerations);
    if (known.position > held) context.findings.add(Rule::CopyIncomplete, {known.place});
  }
}

void checkRestored(const Context& context, std::size_t place) {
  const State* const state = context.states.stateAt(place);
  if (state == nullptr) return;
  const Operation& operation = context.operation(place);
  const std::uint32_t branch = Lineage::branchAt(context.states.at(place));
  if (branch == 0 || operation.revision > context.lineage.cutOf(branch)) return;
  const State* const last = context.states.inherited(branch, operation.variable);
  if (last == nullptr || last->revision <= operation.revision) return;
  context.findings.add(Rule::NotTheCopy, {last->seen, place});
}

}  // namespace

void checkOrder(const Context& context) {
  const auto variableOf = [&](std::size_t place) { return context.operation(place).variable; };
  const std::size_t variables = context.record.variables.size();
  const Groups byBegin(context.byBegin, variables, variableOf);
  const Groups byEnd(context.byEnd, variables, variableOf);
  for (std::size_t variable = 0; variable < variables; ++variable) {
    sweep(
        context.record.operations, byBegin.begin(variable), byBegin.end(variable),
        byEnd.begin(variable), [&](std::size_t place) { return settledPosition(context, place); },
        [&](std::size_t place, const Floor& floor) { checkPlace(context, place, floor); });
  }
}

void checkRevisions(const Context& context) {
  const auto& operations = context.record.operations;
  sweep(
      operations, context.byBegin.begin(), context.byBegin.end(), context.byEnd.begin(),
      [&](std::size_t place) { return settledPosition(context, place); },
      [&](std::size_t place, const Floor& floor) { checkRevision(context, place, floor); });
  sweep(
      operations, context.byBegin.begin(), context.byBegin.end(), context.byEnd.begin(),
      [&](std::size_t place) { return epochOf(context, place); },
      [&](std::size_t place, const Floor& floor) {
        const std::uint64_t epoch = epochOf(context, place);
        if (epoch != 0 && epoch < floor.position)
          context.findings.add(Rule::EpochBack, {floor.place, place});
      });
}

void checkCopies(const Context& context) {
  checkCopiesHold(context);
  for (const std::size_t place : context.byBegin) checkRestored(context, place);
}

}  // namespace History
