// How keys and roles of the service stand in messages.
//
// Threads:  plain functions.
#pragma once

#include <optional>
#include <string>

#include "appconfig/core/config_var.h"
#include "appconfig/core/security_role.h"
#include "appconfig/core/state_stamp.h"

namespace ConfigIF {
class Inst;
}
namespace CommonIF {
enum eSecurityRole : int;
}

namespace ConfigSrv {

// A variable as notices and records name it. One with a namespace is meant for the links of that
// namespace alone; one without is meant for everybody, and the scope stays absent.
void fillInst(ConfigIF::Inst* inst, const ConfigVar& key);

// The variable that a request names; nothing when its path names none.
std::optional<ConfigVar> readInst(const ConfigIF::Inst& inst);

// The wire numbers the installer above the service technician, the library below.
AppConfig::SecurityRole fromWire(CommonIF::eSecurityRole role);
CommonIF::eSecurityRole toWire(AppConfig::SecurityRole role);

// How new the state is that a message carries. An epoch of 0 says nothing.
template <typename Message>
void fillStamp(const AppConfig::StateStamp& stamp, Message& message) {
  if (!stamp.isKnown()) return;
  message.set_epoch(stamp.epoch);
  message.set_changed_at(stamp.changedAt);
}

}  // namespace ConfigSrv
