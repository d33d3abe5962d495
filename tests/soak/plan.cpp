#include "tests/soak/plan.h"

#include <set>

namespace Soak {
namespace {

constexpr int kGroups = 16;
constexpr int kRow = 8;  // variables that are planned together, one after another
constexpr int kRowsOfOneName = 4;

std::string keyText(const std::string& group, const std::string& name, int nameInstance) {
  return group + "." + name + "[" + std::to_string(nameInstance) + "]";
}

}  // namespace

Plan::Plan(int variables) {
  for (int group = 0; group < kGroups; ++group) groups_.push_back("soak.g" + std::to_string(group));
  for (int index = 0; index < variables; ++index) {
    const int row = index / kRow;
    const int place = index % kRow;
    const std::string& group = groups_[static_cast<std::size_t>(row % kGroups)];
    const int rowOfGroup = row / kGroups;
    const std::string suffix = std::to_string(rowOfGroup) + "x" + std::to_string(place);
    if (place < 3) {
      add(Kind::Ordered, group, "ordered" + suffix, 0);
    } else if (place < 5) {
      add(Kind::Instance, group, "many" + std::to_string(rowOfGroup / kRowsOfOneName),
          rowOfGroup % kRowsOfOneName * 2 + place - 3);
    } else if (place == 5) {
      add(Kind::Provided, providedGroups()[static_cast<std::size_t>(row % 2)],
          "provided" + std::to_string(row), 0);
    } else if (place == 6) {
      add(Kind::Contended, group, "contended" + suffix, 0);
    } else {
      add(Kind::Untouched, group, "untouched" + suffix, 0);
    }
  }
}

const std::vector<std::string>& Plan::providedGroups() {
  static const std::vector<std::string> kNames = {"soak.p0", "soak.p1"};
  return kNames;
}

void Plan::add(Kind kind, const std::string& group, const std::string& name, int nameInstance) {
  byKey_.emplace(keyText(group, name, nameInstance), variables_.size());
  variables_.push_back({ConfigVar(group, 0, name, nameInstance), kind});
}

std::vector<std::size_t> Plan::inGroup(const std::string& group) const {
  std::vector<std::size_t> found;
  for (std::size_t index = 0; index < variables_.size(); ++index) {
    if (variables_[index].key.group() == group) found.push_back(index);
  }
  return found;
}

std::size_t Plan::find(const std::string& group, const std::string& name, int nameInstance) const {
  const auto found = byKey_.find(keyText(group, name, nameInstance));
  return found == byKey_.end() ? variables_.size() : found->second;
}

ConfigVar Plan::marker() { return ConfigVar("soak.marker", 0, "mark", 0); }

std::string Plan::definitions(int generation) const {
  std::string text = "[variable.\"" + marker().dottedName() + "\"]\ntype = \"string\"\n";
  std::set<std::string> named;
  for (const Variable& variable : variables_) {
    const std::string name = variable.key.dottedName();
    if (!named.insert(name).second) continue;
    text += "[variable.\"" + name + "\"]\ntype = \"string\"\ndefault = \"default-" +
            std::to_string(generation) + "\"\n";
    if (variable.kind == Kind::Instance)
      text += "instances = { from = 0, to = " + std::to_string(2 * kRowsOfOneName - 1) + " }\n";
  }
  return text;
}

}  // namespace Soak
