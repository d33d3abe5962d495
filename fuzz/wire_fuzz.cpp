// Paths, values and results of messages, as the library and the service read them.
#include <algorithm>

#include "appconfig/wire/protobuf_message_helper.h"
#include "configsrv/changes/wire_forms.h"
#include "fuzz/input.h"
#include "fuzz/messages.h"
#include "fuzz/mutators.h"
#include "platform/schema/error_conversion.h"

namespace {

using Fuzz::require;
using Helper = AppConfig::ProtobufMessageHelper;

template <typename Message>
bool parse(Message& message, std::string_view bytes) {
  return message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
}

// A path that names a variable is written and read as the same variable.
void readPath(const ConfigIF::Inst& inst) {
  const auto key = ConfigSrv::readInst(inst);
  if (!key) return;
  ConfigIF::Inst written;
  ConfigSrv::fillInst(&written, *key);
  const auto again = ConfigSrv::readInst(written);
  require(again.has_value(), "a written path names a variable");
  // A group called "cfg" is a namespace to whoever reads its path: only the name is left then.
  const bool ambiguous = key->nameSpace() < 1 && key->group() == "cfg";
  const std::less<ConfigVar> less;
  require(ambiguous || (!less(*again, *key) && !less(*key, *again)),
          "a path that was read is written as the same variable");
}

void readValue(const ConfigIF::InstValue& value) {
  readPath(value.inst());
  std::list<std::string> read;
  if (Helper::getConfigVarValue(read, value) != 0) return;
  ConfigIF::InstValue written;
  Helper::addVarValue(&written, read);
  require(std::equal(read.begin(), read.end(), written.values().begin(), written.values().end()),
          "a value that was read is written as it stood");
}

void readResult(const ConfigIF::ReturnMessage& message) {
  ConfigResult result;
  Helper::fillReturnMessage(result, message);
  ConfigIF::ReturnMessage written;
  Helper::fillReturnMessage(&written, result);
  ConfigResult again;
  Helper::fillReturnMessage(again, written);
  ConfigIF::ReturnMessage twice;
  Helper::fillReturnMessage(&twice, again);
  require(twice.SerializeAsString() == written.SerializeAsString(),
          "a result that was read is written as it stood");
}

// What was parsed is the same message once it is written and parsed again.
void readAnyMessage(std::uint32_t messageId, std::string_view bytes) {
  const auto message = Fuzz::newMessage(messageId);
  if (!message || !parse(*message, bytes)) return;
  const std::string written = message->SerializeAsString();
  const auto again = Fuzz::newMessage(messageId);
  require(again->ParseFromString(written) && again->SerializeAsString() == written,
          "a message that was read is written as one that reads the same");
}

}  // namespace

// A message behind its number.
Fuzz::InputShape Fuzz::inputShape() { return {2, InputShape::Rest::Message}; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  const std::uint32_t messageId = 0x1A0000U + input.number();
  const std::string_view bytes = input.rest();
  ConfigIF::Inst inst;
  ConfigIF::InstValue value;
  ConfigIF::ReturnMessage result;
  if (parse(inst, bytes)) readPath(inst);
  if (parse(value, bytes)) readValue(value);
  if (parse(result, bytes)) readResult(result);
  readAnyMessage(messageId, bytes);
  return 0;
}
