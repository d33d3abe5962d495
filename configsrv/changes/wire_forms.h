// How keys and roles of the service stand in messages.
//
// Threads:  plain functions.
#pragma once

#include "appconfig/core/config_var.h"
#include "appconfig/core/state_stamp.h"
#include "appconfig/wire/read_inst.h"
#include "appconfig/wire/role_conversion.h"

namespace ConfigSrv {

// A variable as notices and records name it. One with a namespace is meant for the links of that
// namespace alone; one without is meant for everybody, and the scope stays absent.
void fillInst(ConfigIF::Inst* inst, const ConfigVar& key);

// The variable that a request names, and roles, are read as the library reads them.
using AppConfig::fromWire;
using AppConfig::readInst;
using AppConfig::toWire;

// How new the state is that a message carries. An epoch of 0 says nothing.
template <typename Message>
void fillStamp(const AppConfig::StateStamp& stamp, Message& message) {
  if (!stamp.isKnown()) return;
  message.set_epoch(stamp.epoch);
  message.set_changed_at(stamp.changedAt);
}

}  // namespace ConfigSrv
