// Runtime directory: where the sockets of the device's services stand.
//
// The directory is $APPCONFIG_RUNTIME_DIR, else /run/appconfig for root, else
// $XDG_RUNTIME_DIR/appconfig. An endpoint name is a path below it: "ConfigSrvc" is
// <dir>/ConfigSrvc, "/engine/ConfigSrvc" is <dir>/engine/ConfigSrvc.
//
// Errors:   a name that would leave the directory, is empty, holds a NUL byte, or makes a path
//           longer than a Unix socket's address can hold (107 bytes, unix(7)) is refused with a
//           text.
#pragma once

#include <string>
#include <string_view>

#include "base/status.h"

namespace PbUtility {

// The directory by the rules above; empty when none of them gives one (then say so to the user:
// set APPCONFIG_RUNTIME_DIR).
std::string defaultRuntimeDir();

// The socket's path for a name; fails when the name is refused.
Base::Status<> socketPath(std::string_view runtimeDir, std::string_view name, std::string& path);

}  // namespace PbUtility
