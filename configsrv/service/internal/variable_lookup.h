// VariableLookup: the variable that a request names, and whether its caller may read it.
//
// Errors:   what is not found, or may not be read, is null, and the result says why.
// Threads:  one. The model outlives it.
#pragma once

#include <string>

#include "configsrv/model/model.h"
#include "configsrv/service/internal/request_frame.h"
#include "platform/schema/config_if.pb.h"

namespace ConfigSrv {

class VariableLookup {
 public:
  explicit VariableLookup(const Model& model) : model_(model) {}

  const Variable* find(const ConfigIF::Inst& inst, ConfigIF::ReturnMessage& result) const;
  const Variable* findReadable(const Call& call, const ConfigIF::Inst& inst,
                               ConfigIF::ReturnMessage& result) const;
  // Of several instances and namespaces any will do: they share their definition. In any case.
  const Variable* findReadable(const Call& call, const std::string& dottedName,
                               ConfigIF::ReturnMessage& result) const;

 private:
  static bool mayRead(const Call& call, const Variable& variable, ConfigIF::ReturnMessage& result);

  const Model& model_;
};

}  // namespace ConfigSrv
