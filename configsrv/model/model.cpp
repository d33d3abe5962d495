// The model keeps a StoredVariable only for what was ever changed, in the very form in which the
// store keeps it, and changes it with the store's own applyChange: memory and disk cannot disagree
// about what a change does.
#include "configsrv/model/model.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "appconfig/core/key_notation.h"
#include "base/status.h"
#include "configsrv/model/internal/key_index.h"
#include "configsrv/model/internal/name_index.h"

namespace ConfigSrv {
namespace {

using AppConfig::formatKey;
using AppConfig::SecurityRole;

SecurityRole chosen(const std::optional<int>& role, SecurityRole otherwise) {
  return role ? static_cast<SecurityRole>(*role) : otherwise;
}

bool isRole(int role) { return role >= AppConfig::eRolePublic && role <= AppConfig::eRoleFactory; }

std::string left(const ConfigVar& key, const std::string& what, const std::string& why) {
  return formatKey(key) + ": the stored " + what + " is not used: " + why;
}

const std::vector<std::string>& optionsOf(const StoredVariable& stored,
                                          const VariableShape& shape) {
  return stored.options ? *stored.options : shape.options;
}

std::uint32_t defaultIndexOf(const StoredVariable& stored, const VariableShape& shape) {
  return stored.defaultIndex ? *stored.defaultIndex : shape.defaultIndex;
}

// Whether the stored value can be used under the present definition.
Base::Status<> valueFits(const StoredVariable& stored, const VariableShape& shape) {
  if (shape.readOnly) return Base::failed("the variable is read-only");
  return checkValue(shape, optionsOf(stored, shape), *stored.value);
}

// Whether the variable can have a value that is one of its options: the stored one, or the default.
bool canHoldAnOption(const StoredVariable& stored, const VariableShape& shape) {
  if (stored.value && valueFits(stored, shape).ok()) return true;
  return checkValue(shape, optionsOf(stored, shape), shape.defaultValue).ok();
}

// Whether the stored options can be used.
Base::Status<> optionsFit(const StoredVariable& stored, const VariableShape& shape) {
  if (shape.readOnly) return Base::failed("the variable is read-only");
  if (shape.type == ValueType::Enumeration && optionsOf(stored, shape).empty())
    return Base::failed("an enumeration needs options");
  for (const std::string& option : optionsOf(stored, shape)) {
    Base::Status<> fits = checkValue(shape, {option}, {option});
    if (!fits.ok()) return fits;
  }
  const std::size_t count = std::max<std::size_t>(1, optionsOf(stored, shape).size());
  if (defaultIndexOf(stored, shape) >= count)
    return Base::failed("the default index is past the options");
  if (!canHoldAnOption(stored, shape)) return Base::failed("the default is none of the options");
  return {};
}

// True when there were options and they had to be left out.
bool leaveOutOptions(StoredVariable& stored, const VariableShape& shape,
                     std::vector<std::string>& lines) {
  if (!stored.options && !stored.defaultIndex) return false;
  const Base::Status<> fit = optionsFit(stored, shape);
  if (fit.ok()) return false;
  lines.push_back(left(stored.key, "option list", fit.text));
  stored.options.reset();
  stored.defaultIndex.reset();
  return true;
}

// Whether it was left out.
bool leaveOutRole(const ConfigVar& key, const char* what, std::optional<int>& role,
                  std::vector<std::string>& lines) {
  if (!role || isRole(*role)) return false;
  lines.push_back(left(key, what, std::to_string(*role) + " is no role"));
  role.reset();
  return true;
}

// True when there was a value and it had to be left out.
bool leaveOutValue(StoredVariable& stored, const VariableShape& shape,
                   std::vector<std::string>& lines) {
  if (!stored.value) return false;
  const Base::Status<> fits = valueFits(stored, shape);
  if (fits.ok()) return false;
  lines.push_back(left(stored.key, "value", fits.text));
  stored.value.reset();
  return true;
}

// Names only the first few: a product that drops a group must not fill the log.
std::string lineOfUndefined(const std::vector<ConfigVar>& keys) {
  constexpr std::size_t kNamed = 8;
  std::string names;
  for (std::size_t i = 0; i < std::min(kNamed, keys.size()); ++i)
    names += (i == 0 ? "" : ", ") + formatKey(keys[i]);
  if (keys.size() > kNamed) names += ", ...";
  const bool one = keys.size() == 1;
  return std::to_string(keys.size()) + " stored variable" + (one ? " has" : "s have") +
         " no definition; what was stored is kept until " + (one ? "it" : "they") + " come" +
         (one ? "s" : "") + " back: " + names;
}

[[noreturn]] void stopForUnknown(const ConfigVar& key) {
  std::fprintf(stderr, "a change of %s was applied, which is no variable of this model\n",
               formatKey(key).c_str());
  std::abort();
}

}  // namespace

const std::list<std::string>& Variable::value() const {
  return stored_ && stored_->value ? *stored_->value : shape().defaultValue;
}

bool Variable::isDefault() const {
  return !stored_ || !stored_->value ||
         isSameValue(shape().type, *stored_->value, shape().defaultValue);
}

bool Variable::hasDefaultText() const {
  return !stored_ || !stored_->value || *stored_->value == shape().defaultValue;
}

const std::vector<std::string>& Variable::options() const {
  return stored_ && stored_->options ? *stored_->options : shape().options;
}

std::uint32_t Variable::defaultIndex() const {
  return stored_ ? defaultIndexOf(*stored_, shape()) : shape().defaultIndex;
}

SecurityRole Variable::readRole() const {
  return stored_ ? chosen(stored_->readRole, shape().readRole) : shape().readRole;
}

SecurityRole Variable::writeRole() const {
  return stored_ ? chosen(stored_->writeRole, shape().writeRole) : shape().writeRole;
}

std::uint64_t Variable::changedAt() const {
  return std::max({valueChangedAt(), optionsChangedAt(), accessChangedAt()});
}

std::optional<StoreChange::Row> Variable::rowBefore(const StoreChange& change) const {
  if (stored_ && (stored_->leftOut.value || stored_->leftOut.options || stored_->leftOutRole))
    return std::nullopt;
  return ConfigSrv::rowBefore(stored_.get(), change);
}

Model::Model(Definitions definitions) : definitions_(std::move(definitions)) {
  variables_.reserve(definitions_.size());
  for (const VariableDefinition& definition : definitions_) variables_.emplace_back(definition);
  byKey_ = std::make_unique<KeyIndex>(variables_);
  byName_ = std::make_unique<NameIndex>(variables_);
}

Model::~Model() = default;

std::vector<std::string> Model::restore(std::vector<StoredVariable> stored,
                                        std::uint64_t revision) {
  revision_ = revision;
  std::vector<std::string> lines;
  std::vector<ConfigVar> undefined;
  for (StoredVariable& record : stored) {
    Variable* variable = findMutable(record.key);
    if (variable == nullptr)
      undefined.push_back(record.key);
    else
      restoreOne(*variable, std::move(record), lines);
  }
  if (!undefined.empty()) lines.push_back(lineOfUndefined(undefined));
  return lines;
}

// The options first: the value has to be one of them.
void Model::restoreOne(Variable& variable, StoredVariable stored, std::vector<std::string>& lines) {
  StoreChange::Forgotten leftOut;
  leftOut.options = leaveOutOptions(stored, variable.shape(), lines);
  const bool readRole = leaveOutRole(stored.key, "read role", stored.readRole, lines);
  const bool writeRole = leaveOutRole(stored.key, "write role", stored.writeRole, lines);
  leftOut.value = leaveOutValue(stored, variable.shape(), lines);
  variable.stored_ = std::make_unique<Variable::Usable>(std::move(stored));
  variable.stored_->leftOut = leftOut;
  variable.stored_->leftOutRole = readRole || writeRole;
  if (!variable.isDefault()) ++changedVariables_;
}

const Variable* Model::find(const ConfigVar& key) const {
  const std::uint32_t position = byKey_->find(key);
  return position == KeyIndex::kNotFound ? nullptr : &variables_[position];
}

Variable* Model::findMutable(const ConfigVar& key) {
  const std::uint32_t position = byKey_->find(key);
  return position == KeyIndex::kNotFound ? nullptr : &variables_[position];
}

std::vector<const Variable*> Model::covered(std::string_view dottedName) const {
  std::vector<const Variable*> result;
  for (const std::uint32_t position : byName_->covered(dottedName))
    result.push_back(&variables_[position]);
  return result;
}

CoveredVariables Model::below(std::string_view dottedName) const {
  if (dottedName.empty()) return CoveredVariables(variables_);
  return {variables_, byName_->exactly(dottedName), byName_->below(dottedName)};
}

const Variable* Model::named(std::string_view dottedName) const {
  const NameIndex::Range same = byName_->exactly(dottedName);
  return same.first == same.second ? nullptr : &variables_[*same.first];
}

std::size_t CoveredVariables::size() const {
  if (everything_) return all_->size();
  return static_cast<std::size_t>((same_.second - same_.first) + (below_.second - below_.first));
}

const Variable& CoveredVariables::operator[](std::size_t i) const {
  if (everything_) return (*all_)[i];
  const auto same = static_cast<std::size_t>(same_.second - same_.first);
  return (*all_)[i < same ? same_.first[i] : below_.first[i - same]];
}

void Model::apply(const StoreChange& change, std::uint64_t revision) {
  Variable* variable = findMutable(change.key);
  if (variable == nullptr) stopForUnknown(change.key);
  const bool wasChanged = !variable->isDefault();
  if (!variable->stored_)
    variable->stored_ = std::make_unique<Variable::Usable>(StoredVariable(change.key));
  applyChange(change, revision, variable->stored_.get());
  if (change.forgotten.value) variable->stored_->leftOut.value = false;
  if (change.forgotten.options) variable->stored_->leftOut.options = false;
  revision_ = revision;
  if (wasChanged && variable->isDefault()) --changedVariables_;
  if (!wasChanged && !variable->isDefault()) ++changedVariables_;
}

std::uint32_t Model::indexOf(const Variable& variable) const {
  return static_cast<std::uint32_t>(&variable - variables_.data());
}

}  // namespace ConfigSrv
