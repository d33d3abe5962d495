// States: what a record says each revision made of which variable, and where each operation stands.
//
// Nothing is believed because it was said once. Every answer and every notice with a stamp is a
// claim that at this revision this variable became this value; all claims of a revision have to
// agree, each value has to come from a write of that variable, begun before anybody saw it, and
// have one revision. What is left is one order of the states of each variable, which the rules then
// hold against the times.
//
// Threads:  none of its own; const after construction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "tests/history/findings.h"
#include "tests/history/lineage.h"
#include "tests/history/order.h"
#include "tests/history/record.h"

namespace History {

constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);

struct State {
  std::uint32_t owner = 0;  // branch
  std::uint64_t revision = 0;
  std::uint32_t variable = 0;
  std::uint32_t value = 0;
  bool isDefault = false;
  std::size_t seen = kNowhere;   // first claim
  std::size_t cause = kNowhere;  // write or reset
};

class States {
 public:
  States(const Record& record, const Lineage& lineage, const Places& byBegin, Findings& findings);

  // Where the operation stands; 0 when nothing tells. Cached reads get theirs from the rule for them.
  Position at(std::size_t place) const { return at_[place]; }
  void setAt(std::size_t place, Position position) { at_[place] = position; }
  bool isDefault(std::uint32_t value) const { return values_[value].isDefault; }
  std::uint64_t generation(std::uint32_t value) const { return values_[value].generation; }
  // The write of a value; kNowhere when it has none.
  std::size_t writeOf(std::uint32_t value) const { return values_[value].write; }
  // Whether somebody refused the value, and so it must never be seen.
  bool isRefused(std::uint32_t value) const { return values_[value].refusal != kNowhere; }
  std::size_t refusalOf(std::uint32_t value) const { return values_[value].refusal; }
  // The state that a written value made; null when nobody told its revision.
  const State* stateOf(std::uint32_t value) const;
  // The state that an operation with a stamp tells of; null for one that says nothing.
  const State* stateAt(std::size_t place) const;
  // What the branch had of the variable from its parent, as far as it is known.
  const State* inherited(std::uint32_t branch, std::uint32_t variable) const;
  // The first place not below the floor at which a read that ended then may have found the value.
  // 0: none.
  Position firstPlace(std::uint32_t variable, std::uint32_t value, Position floor,
                      std::int64_t end) const;
  // The same of its default, of whichever generation.
  Position firstDefault(std::uint32_t variable, Position floor, std::int64_t end) const;
  // Whether a reset whose revision nobody knows may have happened: one that began in that time.
  bool mayHaveBeenReset(std::uint32_t variable, std::int64_t from, std::int64_t until) const;

 private:
  struct Value {
    bool isDefault = false;
    std::uint64_t generation = 0;
    std::size_t write = kNowhere;
    std::size_t refusal = kNowhere;
    std::uint64_t state = 0;  // key
    bool hasState = false;
  };
  // A place at which a variable was its default.
  struct DefaultPlace {
    Position base;
    std::int64_t since;
  };

  static std::uint64_t keyOf(std::uint32_t owner, std::uint64_t revision) {
    return (std::uint64_t{owner} << 44U) | revision;
  }
  bool hasStamp(std::size_t place) const;
  std::uint32_t branchOf(std::size_t place) const;
  void noteCauses(const Places& byBegin);
  void claimAll(const Places& byBegin);
  void claim(std::size_t place);
  void check(const State& state, std::size_t place);
  void checkSource(std::size_t place);
  void placeWrites(const Places& byBegin);
  void sortStates();
  void inherit();
  void placeDefaults();
  void checkDefaults();
  bool isCauseKnown(const State& state) const { return state.cause != kNowhere; }
  Position placeOfWritten(std::uint32_t variable, std::uint32_t value, Position floor,
                          std::int64_t end) const;
  Position placeOfDefault(std::uint32_t variable, std::uint64_t generation, Position floor,
                          std::int64_t end) const;

  const Record& record_;
  const Lineage& lineage_;
  Findings& findings_;
  std::vector<Position> at_;
  std::vector<Value> values_;
  std::unordered_map<std::uint64_t, State> states_;
  // Of each variable, sorted by owner and revision; the first is that which it began with.
  std::vector<std::vector<const State*>> byVariable_;
  std::vector<State> firsts_;
  // [branch][variable]
  std::vector<std::vector<const State*>> inherited_;
  std::vector<std::vector<DefaultPlace>> defaults_;
  // Times at which resets began whose revision is not known.
  std::vector<std::vector<std::int64_t>> looseResets_;
};

}  // namespace History
