// Checker: whether a history can have happened at a service that keeps its promises.
//
// It takes one look at each operation for each rule, after sorting them by their times;
// docs/reliability.md has the rules. A history that is refused is made as short as it can be: of
// the operations that contradict each other, those are left out without which the same rule is
// still broken.
//
// Threads:  none of its own; one call at a time for a record.
#pragma once

#include <string>

#include "tests/history/findings.h"
#include "tests/history/record.h"

namespace History {

Findings check(const Record& record);

// The shortest history that shows the finding, a line for each operation and for what was done to
// processes in between. The record holds only these operations afterwards.
std::string shortest(Record& record, const Finding& finding);

}  // namespace History
