#include "tools/appcfg/meaning.h"

#include "appconfig/core/lower_case.h"
#include "appconfig/core/typed_text.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/config_if.pb.h"

namespace AppCfgTool {
namespace {

bool mayBeInt(const std::string& text) {
  return !text.empty() && std::string("+-0123456789").find(text[0]) != std::string::npos;
}

bool mayBeBool(const std::string& text) {
  const std::string word = AppConfig::lowerCase(text);
  return word == "true" || word == "false";
}

bool isOfType(Session& session, const ConfigVar& var, ConfigIF::ValueType type) {
  ConfigIF::ReadAttributesRsp response;
  const Outcome asked = session.ask({"describe", ""},
                                    AppConfig::ProtobufMessageHelper::getReadAttributesRequest(
                                        session.client(), session.role(), var),
                                    response);
  return asked.ok() && response.attributes().type() == type;
}

}  // namespace

bool isSameValue(Session& session, const ConfigVar& var, const std::vector<std::string>& a,
                 const std::vector<std::string>& b) {
  if (a == b || a.size() != 1 || b.size() != 1) return a == b;
  const std::string& one = a[0];
  const std::string& other = b[0];
  if (mayBeInt(one) && mayBeInt(other) && AppConfig::intOf(one) == AppConfig::intOf(other))
    return isOfType(session, var, ConfigIF::VALUE_INT);
  if (mayBeBool(one) && mayBeBool(other) && AppConfig::boolOf(one) == AppConfig::boolOf(other))
    return isOfType(session, var, ConfigIF::VALUE_BOOL);
  return false;
}

std::string readOtherwise(Session& session, const ConfigVar& var,
                          const std::vector<std::string>& value) {
  if (value.size() != 1 || !mayBeInt(value[0])) return {};
  const std::string number = std::to_string(AppConfig::intOf(value[0]));
  if (number == value[0] || !isOfType(session, var, ConfigIF::VALUE_INT)) return {};
  return value[0] + " is read as " + number;
}

}  // namespace AppCfgTool
