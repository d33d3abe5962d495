// StartChecks: what is looked at before the service serves.
//
// Mistakes in the files that decide what is served keep it from starting. Files and directories that
// others could have changed do not, for without them there is no service; whoever looks after the
// device is told.
//
// Threads:  plain functions.
#pragma once

#include <string>
#include <vector>

#include "configsrv/access/access_policy.h"
#include "configsrv/definitions/definitions.h"
#include "configsrv/log/log.h"
#include "configsrv/service/service.h"

namespace ConfigSrv {

// What the service is started from, when it has no mistakes.
struct CheckedFiles {
  Definitions definitions;
  AccessPolicy access;
  // One line each, of all files.
  std::vector<std::string> mistakes;
};

// Reads the definitions and the table of roles.
CheckedFiles checkFiles(const ServiceOptions& options, const Log& log);

// Who may write the socket's directory may put a socket of their own in its place.
void warnOfRuntimeDir(const ServiceOptions& options, const Log& log);

}  // namespace ConfigSrv
