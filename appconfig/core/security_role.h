// SecurityRole: the role in which a client acts, and the role that a variable asks of its readers
// and writers. A higher number means more rights; roles are compared as signed numbers, so a value
// outside the five names is no error but simply lower or higher than they are.
//
// ConfigAccessLevels: the two roles that guard one variable, each of which may be unknown.
//
//   AppConfig::ConfigAccessLevels levels;  // nothing known
//   levels.writeRole = AppConfig::eRoleInstaller;
//   levels.writeRoleSet = true;            // the read role stays unknown
//
// Threads: plain values; any number of threads may read one.
#pragma once

#include <cstdint>

namespace AppConfig {

// The numbers never change. They are not the wire's: the service link translates.
enum SecurityRole : std::int32_t {
  eRolePublic = 0,
  eRoleUser = 1,
  eRoleInstaller = 2,
  eRoleService = 3,
  eRoleFactory = 4,
};

// A role counts only when its set flag is true; what a role holds while its flag is false means
// nothing. A notice that carries one role alone leaves the other flag false.
struct ConfigAccessLevels {
  SecurityRole readRole = eRolePublic;
  SecurityRole writeRole = eRolePublic;
  bool readRoleSet = false;
  bool writeRoleSet = false;
};

}  // namespace AppConfig
