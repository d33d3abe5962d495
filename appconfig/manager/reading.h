// readWithReason: what the service holds now, or why there is nothing to be had.
//
// An unknown variable, a role that is too low and a service that is away all read as "" by
// AppCfgManager, as a value that is empty does. Who has to tell them apart asks here:
//
//   const AppConfig::Reading mode = AppConfig::readWithReason(ConfigVar("heating", 0, "mode", 0));
//   if (!mode) std::puts(mode.reason.c_str());       // "heating.mode: the service does not answer"
//   else if (mode.origin == AppConfig::Origin::Default) offer(mode.text());
//
// Cost:    one exchange with the service, each time, as readFresh (fresh_read.h), and like there the
//          answer goes into the cache. For reads in number ask AppCfgManager, and here when it gives
//          nothing.
// Away:    where the service cannot be asked, what this process was told last is the value, if it was
//          told any. The origin says so, and absence and reason why it is not newer.
// Secrets: an answer that is denied holds no value and no origin, whatever the cache has.
// Threads: any, handlers included. A Reading is a plain value.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "appconfig/core/config_var.h"
#include "appconfig/core/error.h"
#include "appconfig/core/export.h"

namespace AppConfig {

class AppCfgManager;

// Where a value comes from.
enum class Origin : std::int32_t {
  // There is none.
  None = 0,
  // The service, where the variable was never written or was reset.
  Default = 1,
  // The service, where it was written.
  Stored = 2,
  // The service, which does not tell the two apart.
  NotTold = 3,
  // This process's cache, for the service cannot be asked.
  LastKnown = 4,
};

// Why there is no value, or none that is newer.
enum class Absence : std::int32_t {
  None = 0,
  // No such variable: correct the name, or add a definition.
  Unknown = 1,
  // The role is too low to read it.
  Denied = 2,
  // The facade has no endpoint yet (setPbInterface).
  NoEndpoint = 3,
  // The service is not there, or did not answer in time: callStatus tells which.
  ServiceAway = 4,
  // A provider that had to be asked went away, or did not answer in time: trying again may help.
  ProviderAway = 5,
  ProviderTimedOut = 6,
  // The service could not answer for another reason: error and reason tell.
  Failed = 7,
};

struct Reading {
  // Whether there is a value. An empty list is one, if this is true.
  explicit operator bool() const { return origin != Origin::None; }
  // The first string of the value; "" when there is none.
  std::string text() const { return value.empty() ? std::string() : value.front(); }

  // All elements; empty when there is no value, too.
  std::list<std::string> value;
  // Where it comes from; None when there is none.
  Origin origin = Origin::None;
  // Why there is none, or none that is newer than the last known.
  Absence absence = Absence::None;
  // What the service answered; eErrNone as well when it did not answer.
  eErrorT error = eErrNone;
  // What the message layer returned; 0 when the service answered or there is no endpoint. That of an
  // Endpoint is a CallStatus (platform/messaging/endpoint.h).
  int callStatus = 0;
  // One line for people; empty when the service gave a value.
  std::string reason;
};

// A null manager stands for AppCfgManager::getInstance().
APPCONFIG_EXPORT Reading readWithReason(const ConfigVar& var, AppCfgManager* manager = nullptr);

}  // namespace AppConfig
