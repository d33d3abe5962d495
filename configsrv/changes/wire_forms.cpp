#include "configsrv/changes/wire_forms.h"

#include "appconfig/wire/protobuf_message_helper.h"

namespace ConfigSrv {

void fillInst(ConfigIF::Inst* inst, const ConfigVar& key) {
  AppConfig::ProtobufMessageHelper::addVarName(inst, key);
  if (key.nameSpace() > 0) inst->set_scope(ConfigIF::SCOPE_NAMESPACE);
}

}  // namespace ConfigSrv
