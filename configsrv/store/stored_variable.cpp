// What each kind of change does to a variable; the model and the store both come here, so that memory and
// disk cannot disagree.
#include "configsrv/store/stored_variable.h"

#include <functional>

#include "configsrv/store/internal/row_codec.h"

namespace ConfigSrv {
namespace {

// One overload for each kind: a new kind does not compile until it is given its meaning here.
struct Applier {
  std::uint64_t revision;
  StoredVariable* variable;

  void operator()(const StoreChange::SetValue& set) const {
    variable->value = set.value;
    variable->valueChangedAt = revision;
  }
  void operator()(const StoreChange::ResetValue&) const {
    variable->value.reset();
    variable->valueChangedAt = revision;
  }
  void operator()(const StoreChange::SetOptions& set) const {
    if (set.options) variable->options = set.options;
    if (set.defaultIndex) variable->defaultIndex = set.defaultIndex;
    variable->optionsChangedAt = revision;
  }
  void operator()(const StoreChange::SetAccess& set) const {
    if (set.readRole) variable->readRole = set.readRole;
    if (set.writeRole) variable->writeRole = set.writeRole;
    variable->accessChangedAt = revision;
  }
  void operator()(const StoreChange::ResetAttributes&) const {
    variable->options.reset();
    variable->defaultIndex.reset();
    variable->readRole.reset();
    variable->writeRole.reset();
    variable->optionsChangedAt = revision;
    variable->accessChangedAt = revision;
  }
};

void forget(const StoreChange::Forgotten& parts, StoredVariable& variable) {
  if (parts.value) variable.value.reset();
  if (!parts.options) return;
  variable.options.reset();
  variable.defaultIndex.reset();
}

bool sameKey(const ConfigVar& a, const ConfigVar& b) {
  const std::less<ConfigVar> less;
  return !less(a, b) && !less(b, a);
}

}  // namespace

bool operator==(const StoredVariable& a, const StoredVariable& b) {
  return sameKey(a.key, b.key) && a.value == b.value && a.options == b.options &&
         a.defaultIndex == b.defaultIndex && a.readRole == b.readRole &&
         a.writeRole == b.writeRole && a.valueChangedAt == b.valueChangedAt &&
         a.optionsChangedAt == b.optionsChangedAt && a.accessChangedAt == b.accessChangedAt;
}

void applyChange(const StoreChange& change, std::uint64_t revision, StoredVariable* variable) {
  forget(change.forgotten, *variable);
  std::visit(Applier{revision, variable}, change.what);
}

StoreChange::Row rowBefore(const StoredVariable* stored, const StoreChange& change) {
  StoreChange::Row row{stored != nullptr, 0, StoredVariable(change.key)};
  if (stored == nullptr) return row;
  row.digest = rowDigest(*stored);
  StoredVariable& content = row.content;
  const bool replacesValue = std::holds_alternative<StoreChange::SetValue>(change.what);
  // A value may be of a megabyte.
  if (!replacesValue) content.value = stored->value;
  content.options = stored->options;
  content.defaultIndex = stored->defaultIndex;
  content.readRole = stored->readRole;
  content.writeRole = stored->writeRole;
  content.valueChangedAt = stored->valueChangedAt;
  content.optionsChangedAt = stored->optionsChangedAt;
  content.accessChangedAt = stored->accessChangedAt;
  return row;
}

}  // namespace ConfigSrv
