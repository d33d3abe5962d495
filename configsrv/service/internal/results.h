// How errors and outcomes stand in answers.
//
// Threads:  plain functions.
#pragma once

#include <string>

#include "appconfig/core/error.h"
#include "configsrv/changes/change.h"
#include "platform/schema/config_if.pb.h"

namespace ConfigSrv {

// Writes an error and its text into a result.
void setError(ConfigIF::ReturnMessage& result, eErrorT error, const std::string& text);
// Writes how a change ended into a result.
void setOutcome(ConfigIF::ReturnMessage& result, const ChangeOutcome& outcome);

}  // namespace ConfigSrv
