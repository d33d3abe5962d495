#include "appconfig/wire/read_inst.h"

#include <string>

#include "appconfig/wire/protobuf_message_helper.h"

namespace AppConfig {

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

}  // namespace AppConfig
