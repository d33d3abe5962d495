// Roles 2 and 3 are crossed against 40 and 30: the wire's numbers were handed out before the installer
// was ranked below the service technician, and straightening them would give every deployed client
// another role than it asked for.
#include "appconfig/wire/role_conversion.h"

#include "platform/schema/common_if.pb.h"

namespace AppConfig {

SecurityRole fromWire(CommonIF::eSecurityRole role) {
  switch (role) {
    case CommonIF::SECURITY_ROLE_PUBLIC:
      return eRolePublic;
    case CommonIF::SECURITY_ROLE_USER:
      return eRoleUser;
    case CommonIF::SECURITY_ROLE_SERVICE:
      return eRoleService;
    case CommonIF::SECURITY_ROLE_INSTALLER:
      return eRoleInstaller;
    case CommonIF::SECURITY_ROLE_FACTORY:
      return eRoleFactory;
  }
  return eRolePublic;
}

CommonIF::eSecurityRole toWire(SecurityRole role) {
  switch (role) {
    case eRolePublic:
      return CommonIF::SECURITY_ROLE_PUBLIC;
    case eRoleUser:
      return CommonIF::SECURITY_ROLE_USER;
    case eRoleInstaller:
      return CommonIF::SECURITY_ROLE_INSTALLER;
    case eRoleService:
      return CommonIF::SECURITY_ROLE_SERVICE;
    case eRoleFactory:
      return CommonIF::SECURITY_ROLE_FACTORY;
  }
  return CommonIF::SECURITY_ROLE_PUBLIC;
}

}  // namespace AppConfig
