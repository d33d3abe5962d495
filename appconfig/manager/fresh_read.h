// readFresh: what the service holds now, whatever the cache has.
//
// A read of the cache is as new as the last notice that came; a notice waits while a handler before
// it runs. Who has to know what holds at this moment asks with readFresh: its answer holds every
// write that was accepted before the call, by whomever, and waits for no notice.
//
//   std::list<std::string> mode;
//   if (AppConfig::readFresh(ConfigVar("heating", 0, "mode", 0), mode)) act(mode.front());
//
// Cost:    one exchange with the service, each time. The answer goes into the cache, as that of any
//          read, so later reads of the cache are at least as new.
// Absence: false, and an empty value, when the variable is unknown or empty, may not be read, or
//          the service did not answer.
// Threads: any, handlers included.
#pragma once

#include <list>
#include <string>

#include "appconfig/core/config_var.h"
#include "appconfig/core/export.h"

namespace AppConfig {

class AppCfgManager;

// Replaces value. A null manager stands for AppCfgManager::getInstance().
APPCONFIG_EXPORT bool readFresh(const ConfigVar& var, std::list<std::string>& value,
                                AppCfgManager* manager = nullptr);

}  // namespace AppConfig
