#include "configsrv/service/internal/results.h"

namespace ConfigSrv {

void setError(ConfigIF::ReturnMessage& result, eErrorT error, const std::string& text) {
  result.set_error(static_cast<CommonIF::eErrorType>(error));
  result.add_messages(text);
}

void setOutcome(ConfigIF::ReturnMessage& result, const ChangeOutcome& outcome) {
  if (outcome.error != eErrNone) result.set_error(static_cast<CommonIF::eErrorType>(outcome.error));
  if (outcome.unchanged) result.set_flag(true);
  for (const std::string& message : outcome.messages) result.add_messages(message);
  if (outcome.revision != 0) result.set_revision(outcome.revision);
}

}  // namespace ConfigSrv
