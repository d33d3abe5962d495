// Model: the present state of every variable, in memory.
//
// What a variable is comes from its definition; what differs from that comes from the store. The
// model changes only by apply(), with changes that are durable already, so a reader never sees what
// a loss of power could take back.
//
// Cost:     16 bytes for a variable that is as defined, beside its definition; finding one costs a
//           hash and a comparison, walking a group costs by what lies below it.
// Errors:   what the store remembers and the definitions no longer allow is left out, with a text
//           for the log; the record stays in the store, for the definitions may come back. Until
//           then, or until the variable is changed: what somebody wants now ends what was left out.
// Threads:  one.
// Owns:     the definitions and the state. Variables do not move while the model lives.
//
//   Model model(std::move(loaded.definitions));
//   for (const std::string& line : model.restore(std::move(opened.variables), store.revision()))
//     log(line);
//   const Variable* mtu = model.find(ConfigVar("network", 0, "mtu", 0));
//   if (mtu != nullptr && !mtu->isDefault()) show(mtu->value());
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "appconfig/core/config_var.h"
#include "configsrv/definitions/definitions.h"
#include "configsrv/store/stored_variable.h"

namespace ConfigSrv {

class KeyIndex;
class NameIndex;

// One variable as it stands.
class Variable {
 public:
  explicit Variable(const VariableDefinition& definition) : definition_(&definition) {}

  const ConfigVar& key() const { return definition_->key; }
  const VariableDefinition& definition() const { return *definition_; }
  const VariableShape& shape() const { return *definition_->shape; }

  const std::list<std::string>& value() const;
  // Whether the value is the definition's, whoever set it: for an int or a bool by what it means.
  bool isDefault() const;
  // Whether it is also written as in the definition, so that there is nothing to keep.
  bool hasDefaultText() const;
  const std::vector<std::string>& options() const;
  std::uint32_t defaultIndex() const;
  AppConfig::SecurityRole readRole() const;
  AppConfig::SecurityRole writeRole() const;

  // Revision of the last change of each part; 0: never changed. The default index belongs to the
  // options.
  std::uint64_t valueChangedAt() const { return stored_ ? stored_->valueChangedAt : 0; }
  std::uint64_t optionsChangedAt() const { return stored_ ? stored_->optionsChangedAt : 0; }
  std::uint64_t accessChangedAt() const { return stored_ ? stored_->accessChangedAt : 0; }
  // The newest of the three.
  std::uint64_t changedAt() const;

  // Whether the store keeps a value, or options or a default index, that were left out. A change of
  // the variable has to make the store forget them, or a later start could bring them back.
  bool hasLeftOutValue() const { return stored_ && stored_->leftOut.value; }
  bool hasLeftOutOptions() const { return stored_ && stored_->leftOut.options; }

  // The variable's row in the store, for a change of it. Nothing when a part of the row was left out:
  // then only the store has it.
  std::optional<StoreChange::Row> rowBefore(const StoreChange& change) const;

 private:
  friend class Model;

  // As the store remembers it, without what was left out.
  struct Usable : StoredVariable {
    explicit Usable(StoredVariable stored) : StoredVariable(std::move(stored)) {}
    StoreChange::Forgotten leftOut{};
    bool leftOutRole = false;
  };

  const VariableDefinition* definition_;
  // Null until something is changed for the first time.
  std::unique_ptr<Usable> stored_;
};

// The variables that a name covers, to be walked without a list of them: in the order of the names,
// beginning with those that have this very name; for the empty name all, in the order of the keys.
// Valid as long as the model lives.
class CoveredVariables {
 public:
  std::size_t size() const;
  const Variable& operator[](std::size_t i) const;

 private:
  friend class Model;
  using Range = std::pair<const std::uint32_t*, const std::uint32_t*>;
  explicit CoveredVariables(const std::vector<Variable>& all) : all_(&all), everything_(true) {}
  CoveredVariables(const std::vector<Variable>& all, Range same, Range below)
      : all_(&all), same_(same), below_(below) {}

  const std::vector<Variable>* all_;
  bool everything_ = false;
  Range same_{};
  Range below_{};
};

class Model {
 public:
  explicit Model(Definitions definitions);
  ~Model();
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  // Takes over what the store remembers, once, before anything else. Returns one line for each
  // part that the definitions no longer allow (it counts as not set), and one for all variables
  // together that nobody defines any more.
  std::vector<std::string> restore(std::vector<StoredVariable> stored, std::uint64_t revision);

  // Null when nobody defined it. Namespace and both instances count.
  const Variable* find(const ConfigVar& key) const;

  // The variables that a dotted name covers: those of that full name and those below it at dot
  // boundaries, whatever their namespaces and instances, in the order of their keys. An empty name
  // covers all. The name is in lower case.
  std::vector<const Variable*> covered(std::string_view dottedName) const;
  // The same without the order: nothing is copied, and a walk may be continued later.
  CoveredVariables below(std::string_view dottedName) const;
  // One variable of this full name, in lower case; null when there is none. Of several instances
  // and namespaces the first.
  const Variable* named(std::string_view dottedName) const;

  // Takes over what was committed under a revision; the variable has to be one of this model.
  void apply(const StoreChange& change, std::uint64_t revision);

  // The newest revision taken over.
  std::uint64_t revision() const { return revision_; }
  // The epoch that the revisions belong to: only those of one epoch compare. 0 until it is set,
  // once.
  std::uint64_t epoch() const { return epoch_; }
  void setEpoch(std::uint64_t epoch) { epoch_ = epoch; }
  // Position of a variable in the order of the keys: its number for as long as the model lives.
  std::uint32_t indexOf(const Variable& variable) const;
  std::size_t size() const { return variables_.size(); }
  // How many variables have another value than their default.
  std::size_t changedVariables() const { return changedVariables_; }
  const Definitions& definitions() const { return definitions_; }

 private:
  Variable* findMutable(const ConfigVar& key);
  void restoreOne(Variable& variable, StoredVariable stored, std::vector<std::string>& lines);

  Definitions definitions_;
  // In the order of the definitions, which is that of the keys.
  std::vector<Variable> variables_;
  std::unique_ptr<KeyIndex> byKey_;
  std::unique_ptr<NameIndex> byName_;
  std::uint64_t revision_ = 0;
  std::uint64_t epoch_ = 0;
  std::size_t changedVariables_ = 0;
};

}  // namespace ConfigSrv
