// Places: the directories in which appcfg looks for the service's socket.
//
// Shape:   --runtime-dir or APPCONFIG_RUNTIME_DIR names the only one. Without them an ordinary user
//          has two: that of a service of their own ($XDG_RUNTIME_DIR/appconfig), then the device's
//          (/run/appconfig); root has the device's alone.
// Choice:  the first that holds a socket of the name, whether or not anybody listens there: whoever
//          tries out a service of their own, and finds it dead, must not change the device instead.
//          Applications do not look: they may start before their service, and run for months
//          (platform/messaging/wire/runtime_dir.h).
// Trust:   none is given here. The endpoint looks at the place when it opens a connection.
#pragma once

#include <string>
#include <vector>

#include "tools/appcfg/verb.h"

namespace AppCfgTool {

// In the order in which one looks; at least one.
std::vector<std::string> placesToLook(const Settings& settings);

// The first of them that holds a socket of this name; the last when none does.
std::string placeOf(const std::vector<std::string>& places, const std::string& serviceName);

// Whether something has this name in the directory.
bool holdsSocket(const std::string& place, const std::string& serviceName);

}  // namespace AppCfgTool
