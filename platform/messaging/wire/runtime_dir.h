// Runtime directory: where the sockets of the device's services stand.
//
// The directory is $APPCONFIG_RUNTIME_DIR, else for an ordinary user in a login session
// $XDG_RUNTIME_DIR/appconfig, else, for root and for programs that the device starts under a user of
// their own, /run/appconfig. What is there does not matter: a program may start before its service
// does, and one that runs for months must not go from one service to another. An endpoint name is a
// path below it: "ConfigSrvc" is <dir>/ConfigSrvc, "/engine/ConfigSrvc" is <dir>/engine/ConfigSrvc.
//
// Errors:   a name that would leave the directory, is empty, holds a NUL byte, or makes a path
//           longer than a Unix socket's address can hold (107 bytes, unix(7)) is refused with a
//           text.
#pragma once

#include <string>
#include <string_view>

#include "base/status.h"

namespace PbUtility {

// Where the sockets of the device's own services stand.
constexpr const char* kDeviceRuntimeDir = "/run/appconfig";

// The directory by the rules above; never empty.
std::string defaultRuntimeDir();

// Where a service that a user starts for themselves has its socket; empty for root, and for a process
// outside of a login session.
std::string usersRuntimeDir();

// The socket's path for a name; fails when the name is refused.
Base::Status<> socketPath(std::string_view runtimeDir, std::string_view name, std::string& path);

}  // namespace PbUtility
