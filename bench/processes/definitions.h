// The variables of the service that is measured: a few that the cases use, and any number of others
// of all types, as a device has them.
#pragma once

#include <string>

#include "appconfig/core/config_var.h"

namespace Bench {

constexpr int kWrittenVariables = 64;
constexpr const char* kGroup = "bench.measured";
constexpr const char* kText = "thermostat";

// A string that nobody changes: kText.
ConfigVar textVar();
// An int for each process that writes.
ConfigVar writtenVar(int n);
// One of the others.
ConfigVar otherVar(int n);

// Makes the directory and fills it. False when that fails.
[[nodiscard]] bool writeDefinitions(const std::string& directory, int others);

}  // namespace Bench
