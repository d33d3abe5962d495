// The rules that a history has to keep, each in one pass. checker.h puts them together.
//
// Caches come first: they give cached reads their places, which the order of all then counts with.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "tests/history/findings.h"
#include "tests/history/lineage.h"
#include "tests/history/order.h"
#include "tests/history/record.h"
#include "tests/history/states.h"

namespace History {

struct Context {
  const Record& record;
  const Lineage& lineage;
  States& states;
  const Places& byBegin;
  const Places& byEnd;
  Findings& findings;

  const Operation& operation(std::size_t place) const { return record.operations[place]; }
};

// Of each process and variable: reads of the cache never go back, hold what the process wrote and was
// told, and, when everything was delivered, what is true.
void checkCaches(const Context& context);
// Of each variable: writes, resets and fresh reads in one order that fits their times.
void checkOrder(const Context& context);
// Of all variables together: revisions grow as changes were made, epochs as they were seen.
void checkRevisions(const Context& context);
// Copies hold what was acknowledged, restored stores what was copied.
void checkCopies(const Context& context);
// Handlers are told in order, once, and of the last change.
void checkHandlers(const Context& context);
// What was refused is nowhere; providers who were there were asked, and told in order.
void checkProviders(const Context& context);

// Whether a registration for the name is one for the variable. Values and options are registered for
// apart: "h" covers "h.level", and "h#options" covers "h.level#options".
bool covers(std::string_view name, std::string_view variable);
// The window of a time when nothing was under way; -1 when it is in none.
int settledAt(const Record& record, std::int64_t time);
// When the last window began that had ended by then; 0 when there was none.
std::int64_t lastSettledBefore(const Record& record, std::int64_t time);
// Whether the operation may have found the default of a reset that nobody answered. One that began before
// the last window is out of the question: what it did was known there, and every cache had it.
bool mayHaveBeenReset(const Context& context, const Operation& operation);
// What was true in each window: [window][variable], kNowhere when nobody looked.
std::vector<Places> truths(const Record& record);

}  // namespace History
