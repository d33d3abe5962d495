// What handlers were told. Of one variable a process is told in the order of the revisions, newest
// states alone when it is slow. The same state comes again only for a reason: over another
// connection, once for each registration that covers the variable; after a registration; and to a
// provider that was asked about a change which then failed. When everything was delivered, each
// handler knows what is true, unless that was so before its registration.
#include <algorithm>
#include <string_view>

#include "tests/history/rules.h"

namespace History {
namespace {

bool isSameOrBelow(std::string_view name, std::string_view variable) {
  if (variable.substr(0, name.size()) != name) return false;
  return variable.size() == name.size() || variable[name.size()] == '.';
}

// All that one process was told.
class Handlers {
 public:
  Handlers(const Context& context, const std::vector<Places>& truths)
      : context_(context), truths_(truths), told_(context.record.variables.size()) {}

  void take(std::size_t place) {
    const Operation& operation = context_.operation(place);
    if (operation.what == What::Registered) registrations_.push_back(place);
    if (operation.what == What::Told) takeTold(place);
    if (operation.what == What::Changed) ++told_[operation.variable].again;
    if (operation.what == What::Delivered) takeDelivered(place);
  }

 private:
  struct Told {
    std::size_t place = kNowhere;
    // How many more times the same may come: by questions; by registrations, of those made so far.
    unsigned again = 0;
    unsigned used = 0;
    std::size_t settled = 0;  // registrations whose notices have all come over this connection
  };

  void takeTold(std::size_t place) {
    Told& told = told_[context_.operation(place).variable];
    const std::size_t before = told.place;
    told.place = place;
    if (before == kNowhere ||
        context_.operation(before).sender != context_.operation(place).sender) {
      told.used = 0;
      told.settled = 0;
    } else if (context_.states.at(place) == context_.states.at(before) &&
               !mayComeAgain(told, place)) {
      context_.findings.add(Rule::ToldTwice, {before, place});
    }
    if (before != kNowhere && context_.states.at(place) < context_.states.at(before))
      context_.findings.add(Rule::ToldBack, {before, place});
  }

  bool mayComeAgain(Told& told, std::size_t place) {
    if (told.again > 0) {
      --told.again;
      return true;
    }
    const std::string& variable = context_.record.variables[context_.operation(place).variable];
    unsigned reasons = 0;
    for (std::size_t i = told.settled; i < registrations_.size(); ++i)
      reasons += covers(nameOf(registrations_[i]), variable) ? 1U : 0U;
    return told.used++ < reasons;
  }

  const std::string& nameOf(std::size_t registration) const {
    return context_.record.values[context_.operation(registration).value];
  }

  void takeDelivered(std::size_t place) {
    for (Told& told : told_) {
      told.again = told.used = 0;
      told.settled = registrations_.size();
    }
    const int window = settledAt(context_.record, context_.operation(place).begin);
    if (window < 0) return;
    for (const std::size_t truth : truths_[static_cast<std::size_t>(window)]) {
      if (truth != kNowhere && !knows(truth))
        context_.findings.add(Rule::NeverTold, evidence(truth, place));
    }
  }

  bool knows(std::size_t truth) const {
    const Operation& is = context_.operation(truth);
    const std::size_t told = told_[is.variable].place;
    if (told != kNowhere) return context_.operation(told).value == is.value;
    const std::int64_t since = changedSince(truth);
    const std::string& variable = context_.record.variables[is.variable];
    for (const std::size_t registration : registrations_) {
      if (covers(nameOf(registration), variable) && context_.operation(registration).end < since)
        return false;
    }
    return true;
  }

  // The earliest time at which what is true can have become so; 0 when nothing tells.
  std::int64_t changedSince(std::size_t truth) const {
    const State* const state = context_.states.stateAt(truth);
    const std::uint32_t branch = Lineage::branchAt(context_.states.at(truth));
    if (state == nullptr) return 0;
    if (branch != state->owner) return 0;  // what a copy brought back may have been known before
    return state->cause == kNowhere ? 0 : context_.operation(state->cause).begin;
  }

  Places evidence(std::size_t truth, std::size_t delivered) const {
    Places places = {truth, delivered};
    const std::size_t told = told_[context_.operation(truth).variable].place;
    if (told != kNowhere) return {told, truth, delivered};
    places.insert(places.end(), registrations_.begin(), registrations_.end());
    return places;
  }

  const Context& context_;
  const std::vector<Places>& truths_;
  std::vector<Told> told_;
  Places registrations_;
};

}  // namespace

bool covers(std::string_view name, std::string_view variable) {
  const std::size_t ofName = std::min(name.find('#'), name.size());
  const std::size_t ofVariable = std::min(variable.find('#'), variable.size());
  return name.substr(ofName) == variable.substr(ofVariable) &&
         isSameOrBelow(name.substr(0, ofName), variable.substr(0, ofVariable));
}

void checkHandlers(const Context& context) {
  const std::size_t processes = context.record.processes.size();
  const Groups groups(context.byBegin, processes, [&](std::size_t place) {
    return std::size_t{context.operation(place).process};
  });
  const std::vector<Places> all = truths(context.record);
  for (std::size_t process = 0; process < processes; ++process) {
    Handlers handlers(context, all);
    for (auto place = groups.begin(process); place != groups.end(process); ++place)
      handlers.take(*place);
  }
}

}  // namespace History
