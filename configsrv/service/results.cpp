#include "configsrv/service/internal/results.h"

namespace ConfigSrv {

void setError(ConfigIF::ReturnMessage& result, eErrorT error, const std::string& text) {
  result.set_error(static_cast<CommonIF::eErrorType>(error));
  result.add_messages(text);
}

void setOutcome(ConfigIF::ReturnMessage& result, const ChangeOutcome& outcome) {
  if (!outcome.ok()) result.set_error(static_cast<CommonIF::eErrorType>(outcome.code));
  if (outcome.unchanged) result.set_flag(true);
  if (!outcome.ok()) result.add_messages(outcome.text);
  for (const std::string& reason : outcome.reasons) result.add_messages(reason);
  if (outcome.revision != 0) result.set_revision(outcome.revision);
}

}  // namespace ConfigSrv
