// What the service lists, as list, watch and describe use it.
#pragma once

#include <functional>
#include <string>

#include "tools/appcfg/progress.h"
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

// Asks for the listing of a name and all below it (empty: everything), page by page, and hands over
// each record, in the order of their keys, until `take` wants no more. A service that knows no pages
// gives all at once. Not ok when a page could not be had; the records of those before were handed over.
// `hidden` counts the variables that the role may not read.
Outcome listPages(Session& session, const std::string& name,
                  const std::function<bool(ConfigIF::ListRecord&)>& take, std::uint32_t& hidden);

// All that is selected, in the order of their keys. Not ok when a name was given that nothing has.
// Each record is a step of the progress.
Outcome list(Session& session, const Selection& selection, Listing& listing,
             Progress* progress = nullptr);

}  // namespace AppCfgTool
