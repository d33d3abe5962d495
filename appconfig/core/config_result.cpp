#include "appconfig/core/config_result.h"

bool ConfigResult::fillConfigResult(bool ret, eErrorT error, bool flag) {
  error_ = error;
  flag_ = flag;
  return ret;
}

void ConfigResult::addResultMessage(const std::string& message) {
  resultMessages_.push_back(message);
}

void ConfigResult::setServerContext(const std::string& serverContext) {
  serverContext_ = serverContext;
}

void ConfigResult::setClientName(const std::string& clientName) { clientName_ = clientName; }

ConfigResult& ConfigResult::fillDefaults(ConfigResult& result) {
  result.fillConfigResult(true, eErrNone, false);
  result.resultMessages_.clear();
  return result;
}
