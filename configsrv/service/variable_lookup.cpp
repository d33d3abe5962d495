#include "configsrv/service/internal/variable_lookup.h"

#include "appconfig/core/key_notation.h"
#include "appconfig/core/lower_case.h"
#include "appconfig/core/role_names.h"
#include "configsrv/changes/wire_forms.h"
#include "configsrv/service/internal/results.h"

namespace ConfigSrv {

using AppConfig::formatKey;
using AppConfig::lowerCase;
using AppConfig::roleName;

const Variable* VariableLookup::find(const ConfigIF::Inst& inst,
                                     ConfigIF::ReturnMessage& result) const {
  const std::optional<ConfigVar> key = readInst(inst);
  if (!key) {
    setError(result, eErrInvalidRequest, "the path names no variable");
    return nullptr;
  }
  const Variable* variable = model_.find(*key);
  if (variable == nullptr) setError(result, eErrNotFound, formatKey(*key) + ": no such variable");
  return variable;
}

const Variable* VariableLookup::findReadable(const Call& call, const ConfigIF::Inst& inst,
                                             ConfigIF::ReturnMessage& result) const {
  const Variable* variable = find(inst, result);
  return variable != nullptr && mayRead(call, *variable, result) ? variable : nullptr;
}

const Variable* VariableLookup::findReadable(const Call& call, const std::string& dottedName,
                                             ConfigIF::ReturnMessage& result) const {
  const Variable* variable = model_.named(lowerCase(dottedName));
  if (variable == nullptr) setError(result, eErrNotFound, dottedName + ": no such variable");
  return variable != nullptr && mayRead(call, *variable, result) ? variable : nullptr;
}

bool VariableLookup::mayRead(const Call& call, const Variable& variable,
                             ConfigIF::ReturnMessage& result) {
  if (call.by.role >= variable.readRole()) return true;
  setError(result, eErrDenied,
           formatKey(variable.key()) + ": reading needs the role " +
               std::string(roleName(variable.readRole())) + ", not " +
               std::string(roleName(call.by.role)));
  return false;
}

}  // namespace ConfigSrv
