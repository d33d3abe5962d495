// StartChecks: what is looked at before the service serves.
//
// Files and directories that others could have changed do not keep it from starting, for without them
// there is no service; whoever looks after the device is told.
//
// Threads:  plain functions.
#pragma once

#include "configsrv/log/log.h"
#include "configsrv/service/service.h"

namespace ConfigSrv {

// Who may write a definition may change who may do what.
void warnOfDefinitions(const ServiceOptions& options, const Log& log);

// Who may write the socket's directory may put a socket of their own in its place.
void warnOfRuntimeDir(const ServiceOptions& options, const Log& log);

}  // namespace ConfigSrv
