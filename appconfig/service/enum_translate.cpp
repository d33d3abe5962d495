// The library's enumerations against the wire's.

#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/role_conversion.h"
#include "platform/schema/config_if.pb.h"

namespace AppConfig {

SecurityRole PlatformCfgService::enumTranslate(CommonIF::eSecurityRole role) {
  return fromWire(role);
}

CommonIF::eSecurityRole PlatformCfgService::enumTranslate(SecurityRole role) {
  return toWire(role);
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
