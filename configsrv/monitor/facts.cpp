// One function template reads all messages: what a message has is found out by whether the
// generated class has the field. The overload with int is chosen where it compiles, the one with
// long elsewhere.
#include "configsrv/monitor/internal/facts.h"

#include <optional>
#include <utility>

#include "appconfig/wire/read_inst.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_bounds.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {
namespace {

using google::protobuf::RepeatedPtrField;

void addVariable(Facts& facts, const ConfigIF::Inst& inst) {
  if (std::optional<ConfigVar> key = AppConfig::readInst(inst))
    facts.variables.push_back(std::move(*key));
}

void addVariable(Facts& facts, const RepeatedPtrField<ConfigIF::Inst>& insts) {
  for (const ConfigIF::Inst& inst : insts) addVariable(facts, inst);
}

void setValues(Facts& facts, const RepeatedPtrField<std::string>& values) {
  facts.values.assign(values.begin(), values.end());
}

template <class Message>
auto readInst(const Message& message, Facts& facts, int) -> decltype(message.inst(), void()) {
  addVariable(facts, message.inst());
}
template <class Message>
void readInst(const Message&, Facts&, long) {}

template <class Message>
auto readValue(const Message& message, Facts& facts, int)
    -> decltype(message.value().inst(), void()) {
  addVariable(facts, message.value().inst());
  setValues(facts, message.value().values());
}
template <class Message>
void readValue(const Message&, Facts&, long) {}

template <class Message>
auto readValues(const Message& message, Facts& facts, int) -> decltype(message.values(), void()) {
  setValues(facts, message.values());
}
template <class Message>
void readValues(const Message&, Facts&, long) {}

template <class Message>
auto readOptions(const Message& message, Facts& facts, int) -> decltype(message.options(), void()) {
  setValues(facts, message.options());
}
template <class Message>
void readOptions(const Message&, Facts&, long) {}

template <class Message>
auto readRecord(const Message& message, Facts& facts, int)
    -> decltype(message.record().values(), void()) {
  setValues(facts, message.record().values());
}
template <class Message>
void readRecord(const Message&, Facts&, long) {}

template <class Message>
auto readName(const Message& message, Facts& facts, int) -> decltype(message.name(), void()) {
  facts.name = message.name();
}
template <class Message>
void readName(const Message&, Facts&, long) {}

template <class Message>
auto readPrefix(const Message& message, Facts& facts, int) -> decltype(message.prefix(), void()) {
  facts.name = message.prefix();
}
template <class Message>
void readPrefix(const Message&, Facts&, long) {}

template <class Message>
auto readResult(const Message& message, Facts& facts, int) -> decltype(message.result(), void()) {
  facts.error = message.result().error();
  if (message.result().messages_size() > 0) facts.text = message.result().messages(0);
}
template <class Message>
void readResult(const Message&, Facts&, long) {}

template <class Message>
std::optional<Facts> read(std::uint32_t messageId, std::string_view payload) {
  Message message;
  if (!PlatformSchema::readMessage(messageId, payload, message).ok()) return {};
  Facts facts;
  readInst(message, facts, 0);
  readValue(message, facts, 0);
  readValues(message, facts, 0);
  readOptions(message, facts, 0);
  readRecord(message, facts, 0);
  readName(message, facts, 0);
  readPrefix(message, facts, 0);
  readResult(message, facts, 0);
  return facts;
}

struct Kind {
  std::uint32_t messageId;
  std::optional<Facts> (*read)(std::uint32_t messageId, std::string_view payload);
};

template <class Message>
Kind kind() {
  return {PlatformSchema::messageIdOf(Message()), &read<Message>};
}

#define REQUEST(name) kind<ConfigIF::name##Req>(), kind<ConfigIF::name##Rsp>()

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all = {
      REQUEST(OnChange),
      REQUEST(Read),
      REQUEST(BatchRead),
      REQUEST(Write),
      REQUEST(DynamicValidate),
      REQUEST(Validate),
      REQUEST(ResetValue),
      REQUEST(ResetNodeValue),
      REQUEST(ReadAttributes),
      REQUEST(ResetAttribute),
      REQUEST(RegisterClientCallback),
      REQUEST(UnregisterClientCallback),
      REQUEST(UnregisterAllClientCallbacks),
      REQUEST(GetAttributeOptions),
      REQUEST(SetAttributeOptions),
      REQUEST(GetDefaultOptions),
      REQUEST(Submit),
      REQUEST(GetAccessLevels),
      REQUEST(SetAccessLevels),
      REQUEST(GetValueOptionsAccess),
      REQUEST(BatchGetValueOptionsAccess),
      REQUEST(List),
      REQUEST(Status),
      REQUEST(Clients),
      kind<ConfigIF::ConfigChangedNtfy>(),
      kind<ConfigIF::AttributeChangedNtfy>(),
      kind<ConfigIF::OptionsChangedNtfy>(),
      kind<ConfigIF::SubmitNtfy>(),
      kind<ConfigIF::AccessLevelChangedNtfy>(),
  };
  return all;
}

#undef REQUEST

}  // namespace

std::optional<Facts> factsOf(std::uint32_t messageId, std::string_view payload) {
  for (const Kind& kind : kinds()) {
    if (kind.messageId == messageId) return kind.read(messageId, payload);
  }
  return {};
}

}  // namespace ConfigSrv
