// The library's enumerations against the wire's. Roles 2 and 3 are crossed against 40 and 30: the
// wire's numbers were handed out before the installer was ranked below the service technician, and
// straightening them would give every deployed client another role than it asked for.

#include "appconfig/service/platform_cfg_service.h"
#include "platform/schema/config_if.pb.h"

namespace AppConfig {

SecurityRole PlatformCfgService::enumTranslate(CommonIF::eSecurityRole role) {
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

CommonIF::eSecurityRole PlatformCfgService::enumTranslate(SecurityRole role) {
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

ConfigIF::CallbackType PlatformCfgService::enumTranslate(ConsumerCallbackType type) {
  switch (type) {
    case eValueChanged:
      return ConfigIF::CALLBACK_VALUE_CHANGED;
    case eAttributeChanged:
      return ConfigIF::CALLBACK_ATTRIBUTE_CHANGED;
    case eOptionsChanged:
      return ConfigIF::CALLBACK_OPTIONS_CHANGED;
    case eSubmit:
      return ConfigIF::CALLBACK_SUBMIT;
    case eAccessLevelsChanged:
      return ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED;
  }
  return ConfigIF::CALLBACK_SUBMIT;
}

ConfigRegistrar::ConsumerCallbackType PlatformCfgService::enumTranslate(
    ConfigIF::CallbackType type) {
  switch (type) {
    case ConfigIF::CALLBACK_VALUE_CHANGED:
      return eValueChanged;
    case ConfigIF::CALLBACK_ATTRIBUTE_CHANGED:
      return eAttributeChanged;
    case ConfigIF::CALLBACK_OPTIONS_CHANGED:
      return eOptionsChanged;
    case ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED:
      return eAccessLevelsChanged;
    default:  // CALLBACK_SUBMIT; a provider's types, which no consumer has; unknown ones
      return eSubmit;
  }
}

int PlatformCfgService::enumTranslate(ConfigIF::SubmitType type) {
  return type == ConfigIF::SUBMIT_APPLY ? 0 : 1;
}

}  // namespace AppConfig
