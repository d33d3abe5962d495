// history_check: reads the records of a run and says whether they can have happened.
//
//   history_check FILE...
//
// Prints the shortest history of what is wrong first, and the line "N operations, M wrong, R/s".
// Exit codes: 0 nothing is wrong; 1 something is; 2 usage, or a record that cannot be read.
#include <chrono>
#include <fstream>
#include <iostream>

#include "tests/history/checker.h"

namespace {

bool read(History::Record& record, const char* name) {
  std::ifstream file(name);
  if (!file) {
    std::cerr << "history_check: " << name << ": cannot be read\n";
    return false;
  }
  const std::string wrong = record.add(file);
  if (!wrong.empty())
    std::cerr << "history_check: " << name << ": not understood: " << wrong << "\n";
  return wrong.empty();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: history_check FILE...\n";
    return 2;
  }
  const auto began = std::chrono::steady_clock::now();
  History::Record record;
  for (int i = 1; i < argc; ++i) {
    if (!read(record, argv[i])) return 2;
  }
  const std::size_t operations = record.operations.size();
  const History::Findings findings = History::check(record);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  if (findings.count() != 0) {
    const History::Finding& first = findings.first().front();
    std::cout << nameOf(first.rule) << ":\n" << shortest(record, first);
  }
  std::cout << operations << " operations, " << findings.count() << " wrong, "
            << static_cast<long>(static_cast<double>(operations) / std::max(took.count(), 1e-9))
            << "/s\n";
  return findings.count() == 0 ? 0 : 1;
}
