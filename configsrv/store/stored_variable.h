// StoredVariable: what the store remembers of one variable; StoreChange: one change to that.
//
// Shape:   everything absent means "as the definitions say". Values and options are byte strings
//          of any bytes, the NUL included. Roles are numbers that the store does not interpret.
//          Revisions are those of the commits; 0 means never.
// Errors:  none: every combination can be stored. Whether a value fits is checked before.
// Threads: plain values.
//
//   StoreChange change{ConfigVar("network", 0, "mtu", 0), StoreChange::SetValue{{"1500"}}};
//   applyChange(change, 7, &variable);  // variable.valueChangedAt == 7
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "appconfig/core/config_var.h"

namespace ConfigSrv {

// A variable that went back to its defaults keeps its record, all absent, for the sake of the
// revisions: a client that was away can then be told that the variable changed.
struct StoredVariable {
  explicit StoredVariable(ConfigVar var) : key(std::move(var)) {}

  ConfigVar key;
  std::optional<std::list<std::string>> value;  // An empty list is a value: of no elements.
  std::optional<std::vector<std::string>> options;
  std::optional<std::uint32_t> defaultIndex;
  std::optional<int> readRole;
  std::optional<int> writeRole;
  std::uint64_t valueChangedAt = 0;
  std::uint64_t optionsChangedAt = 0;  // Options or default index.
  std::uint64_t accessChangedAt = 0;
};

bool operator==(const StoredVariable& a, const StoredVariable& b);
inline bool operator!=(const StoredVariable& a, const StoredVariable& b) { return !(a == b); }

// Each kind marks what it touches as changed, even when it puts back what was there: a change that
// changes nothing is for the caller to leave out.
struct StoreChange {
  // The row of the variable as it stands in the store.
  struct Row {
    bool exists = false;
    std::uint64_t digest = 0;  // What it adds to the store's; 0 when there is none.
    StoredVariable content;    // Without a value that the change replaces.
  };

  struct SetValue {
    std::list<std::string> value;
  };
  struct ResetValue {};
  struct SetOptions {
    std::optional<std::vector<std::string>> options;  // Absent: the options stay as they are.
    std::optional<std::uint32_t> defaultIndex;        // Absent: the default index stays.
  };
  struct SetAccess {
    std::optional<int> readRole;  // Absent: the role stays as it is.
    std::optional<int> writeRole;
  };
  struct ResetAttributes {};  // Options, default index and both roles; the value stays.

  // Parts that are removed before anything is set, and are not marked as changed: those that were
  // stored and not in use, which nobody misses.
  struct Forgotten {
    bool value = false;
    bool options = false;  // And the default index.
  };

  ConfigVar key;
  std::variant<SetValue, ResetValue, SetOptions, SetAccess, ResetAttributes> what;
  Forgotten forgotten{};
  // For a change whose maker knows the row: the store then need not read it before it writes it.
  std::optional<Row> row{};
  // Kept beside the change, in the same commit, by a store that keeps records; empty: none.
  std::string record{};
};

// A record that a store has kept, and the revision of its change.
struct StoredRecord {
  std::uint64_t revision = 0;
  std::string text;
};

// Changes that become durable together, under one revision: all of them or none.
using StoreTransaction = std::vector<StoreChange>;

// The one place that knows what a change does, so that memory and disk cannot disagree. The keys
// are taken to be the same.
void applyChange(const StoreChange& change, std::uint64_t revision, StoredVariable* variable);

// The row, as a change of it needs it; null when the store has none.
StoreChange::Row rowBefore(const StoredVariable* stored, const StoreChange& change);

}  // namespace ConfigSrv
