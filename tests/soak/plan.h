// Plan: the variables of a soak, and what is done with each. All programs of a run make the same one
// from its size, so that a variable is named by its number.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "appconfig/core/config_var.h"

namespace Soak {

enum class Kind {
  Ordered,    // one process writes it, and waits for each answer: its values come in one order
  Instance,   // the same, and other variables share its name
  Provided,   // the same, and providers are asked; some values they refuse
  Contended,  // everybody writes it, waiting or not, and resets it
  Untouched,  // nobody writes it: it changes with its definition
};

struct Variable {
  ConfigVar key;
  Kind kind;
};

class Plan {
 public:
  explicit Plan(int variables);

  std::size_t size() const { return variables_.size(); }
  const Variable& operator[](std::size_t index) const { return variables_[index]; }
  // Groups whose variables are written or untouched; the provided ones have groups of their own.
  const std::vector<std::string>& groups() const { return groups_; }
  static const std::vector<std::string>& providedGroups();
  std::vector<std::size_t> inGroup(const std::string& group) const;
  // The number of a variable as handlers are told its key; size() when it is none of the plan.
  std::size_t find(const std::string& group, const std::string& name, int nameInstance) const;

  // None of the variables: changed last, when all is to be delivered.
  static ConfigVar marker();

  // TOML. Each generation has other defaults.
  std::string definitions(int generation) const;

 private:
  void add(Kind kind, const std::string& group, const std::string& name, int nameInstance);

  std::vector<Variable> variables_;
  std::vector<std::string> groups_;
  std::unordered_map<std::string, std::size_t> byKey_;
};

}  // namespace Soak
