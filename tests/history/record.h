// Record: what the processes of a run wrote down, together.
//
// Each process writes a file of its own, a line for each thing, so that what it did before it was killed
// is there. The driver writes one as well. Words are parted by blanks, and none is empty.
//
//   process NAME                                            first; the lines below are this process's
//   b ID THREAD TIME w|z VARIABLE VALUE                     a write or a reset (VALUE -) begins
//   e ID TIME ok|refused|unknown EPOCH REVISION             and ends; without it the outcome is unknown
//   f|t THREAD BEGIN END VARIABLE EPOCH REVISION 0|1 VALUE  fresh read; at rest; default
//   c|l THREAD BEGIN END VARIABLE VALUE                     cached read; at rest
//   h TIME SENDER EPOCH REVISION 0|1 VARIABLE VALUE         a handler is told
//   v|q TIME SENDER ok|refused VARIABLE VALUE               a provider is asked to validate; on change
//   r BEGIN END NAME                                        a registration
//   s TIME                                                  everything told so far is handled
//   copy BEGIN END NUMBER REVISION                          by the driver: the store was copied,
//   restore BEGIN END NUMBER EPOCH                          a copy restored, which began the epoch,
//   settled BEGIN END                                       nothing was under way in between,
//   did TIME TEXT...                                        and for people, what was done to whom
//
// A value that begins with "default-" is a definition's default, and the number behind it tells of which
// generation. Options are recorded as a variable of their own, NAME#options.
//
// Errors:  a line that is none of these is told by its text; one that was cut short by a kill, the last
//          of a file, is left out.
// Threads: none of its own; one at a time.
#pragma once

#include <istream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tests/history/operation.h"

namespace History {

struct Copy {
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::uint64_t number = 0;
  std::uint64_t revision = 0;
};

struct Restore {
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::uint64_t number = 0;
  std::uint64_t epoch = 0;
};

struct Window {
  std::int64_t begin = 0;
  std::int64_t end = 0;
};

struct Deed {
  std::int64_t time = 0;
  std::string text;
};

// Texts as numbers.
class Names {
 public:
  Names() = default;
  Names(const Names&) = delete;
  Names& operator=(const Names&) = delete;
  Names(Names&&) = default;
  Names& operator=(Names&&) = default;
  ~Names() = default;
  std::uint32_t number(std::string_view text);
  const std::string& operator[](std::uint32_t number) const { return *texts_[number]; }
  std::size_t size() const { return texts_.size(); }

 private:
  std::unordered_map<std::string, std::uint32_t> numbers_;
  std::vector<const std::string*> texts_;  // keys of the map, which stay where they are
};

struct Record {
  std::vector<Operation> operations;
  Names processes;
  Names variables;
  Names values;
  std::vector<Copy> copies;
  std::vector<Restore> restores;
  std::vector<Window> settled;
  std::vector<Deed> deeds;

  // Adds the lines of one file. Empty, or the line that cannot be understood.
  std::string add(std::istream& lines);
};

// Whether the text is a definition's default; and of which generation, counted from 1.
bool isDefaultText(std::string_view text);
std::uint64_t generationOf(std::string_view text);

}  // namespace History
