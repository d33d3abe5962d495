#include "tools/appcfg/verbs.h"

namespace AppCfgTool {

const std::vector<Verb>& verbs() {
  static const std::vector<Verb> all = {
      getVerb(),          setVerb(),        resetVerb(),      validateVerb(),   isDefaultVerb(),
      listVerb(),         describeVerb(),   optionsGetVerb(), optionsSetVerb(), accessGetVerb(),
      accessSetVerb(),    watchVerb(),      waitVerb(),       exportVerb(),     importVerb(),
      submitVerb(),       statusVerb(),     clientsVerb(),    monitorVerb(),    storeCopyVerb(),
      storeRestoreVerb(), completionVerb(), completeVerb(),   helpVerb(),
  };
  return all;
}

}  // namespace AppCfgTool
