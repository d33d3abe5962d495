#include "configsrv/changes/wire_forms.h"

#include "appconfig/wire/protobuf_message_helper.h"

namespace ConfigSrv {

using AppConfig::ProtobufMessageHelper;
using AppConfig::SecurityRole;

void fillInst(ConfigIF::Inst* inst, const ConfigVar& key) {
  ProtobufMessageHelper::addVarName(inst, key);
  if (key.nameSpace() > 0) inst->set_scope(ConfigIF::SCOPE_NAMESPACE);
}

std::optional<ConfigVar> readInst(const ConfigIF::Inst& inst) {
  std::string group;
  std::string name;
  int groupInstance = 0;
  int nameInstance = 0;
  if (ProtobufMessageHelper::getConfigVarName(group, groupInstance, name, nameInstance, inst) != 0)
    return std::nullopt;
  return ConfigVar(ProtobufMessageHelper::getConfigVarNamespace(inst), group, groupInstance, name,
                   nameInstance);
}

SecurityRole fromWire(CommonIF::eSecurityRole role) {
  switch (role) {
    case CommonIF::SECURITY_ROLE_USER:
      return AppConfig::eRoleUser;
    case CommonIF::SECURITY_ROLE_INSTALLER:
      return AppConfig::eRoleInstaller;
    case CommonIF::SECURITY_ROLE_SERVICE:
      return AppConfig::eRoleService;
    case CommonIF::SECURITY_ROLE_FACTORY:
      return AppConfig::eRoleFactory;
    case CommonIF::SECURITY_ROLE_PUBLIC:
      break;
  }
  return AppConfig::eRolePublic;
}

CommonIF::eSecurityRole toWire(SecurityRole role) {
  switch (role) {
    case AppConfig::eRoleUser:
      return CommonIF::SECURITY_ROLE_USER;
    case AppConfig::eRoleInstaller:
      return CommonIF::SECURITY_ROLE_INSTALLER;
    case AppConfig::eRoleService:
      return CommonIF::SECURITY_ROLE_SERVICE;
    case AppConfig::eRoleFactory:
      return CommonIF::SECURITY_ROLE_FACTORY;
    case AppConfig::eRolePublic:
      break;
  }
  return CommonIF::SECURITY_ROLE_PUBLIC;
}

}  // namespace ConfigSrv
