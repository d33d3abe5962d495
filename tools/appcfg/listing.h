// What the service lists, as list, watch and describe use it.
#pragma once

#include "tools/appcfg/selection.h"
#include "tools/appcfg/session.h"

namespace AppCfgTool {

struct ListedVariable {
  ConfigVar var;
  ConfigIF::ListRecord record;
};

struct Listing {
  std::vector<ListedVariable> variables;
  // Variables that the role may not read, of the name as a whole: which they are is not told.
  std::uint32_t hidden = 0;
};

// "int"; "string" for a type that this version does not know.
const char* typeName(ConfigIF::ValueType type);

// All that is selected, in the order of their keys. Not ok when a name was given that nothing has.
Outcome list(Session& session, const Selection& selection, Listing& listing);

}  // namespace AppCfgTool
