// All messages of the protocol by their number, so that a harness can parse what the service
// sends.
//
// The lists below are written by hand. That they are complete is checked against the schema's own
// list when they are first used.
#include "fuzz/messages.h"

#include <functional>
#include <map>

#include "fuzz/input.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"

namespace Fuzz {
namespace {

using google::protobuf::MessageLite;
using Makers = std::map<std::uint32_t, std::function<std::unique_ptr<MessageLite>()>>;

template <typename... Messages>
Makers makersOf() {
  return {{PlatformSchema::messageIdOf(Messages()),
           []() -> std::unique_ptr<MessageLite> { return std::make_unique<Messages>(); }}...};
}

template <typename... Parts>
Makers joined(Parts... parts) {
  Makers all;
  (all.merge(parts), ...);
  return all;
}

#define PAIR(name) ConfigIF::name##Req, ConfigIF::name##Rsp
const Makers& makers() {
  using namespace ConfigIF;
  static const Makers all =
      joined(makersOf<PAIR(OnChange), PAIR(DynamicValidate), PAIR(Read), PAIR(BatchRead),
                      PAIR(Write), PAIR(Validate), PAIR(ResetValue), PAIR(ResetNodeValue),
                      PAIR(ReadAttributes), PAIR(ResetAttribute)>(),
             makersOf<PAIR(RegisterClientCallback), PAIR(UnregisterClientCallback),
                      PAIR(UnregisterAllClientCallbacks), PAIR(GetAttributeOptions),
                      PAIR(SetAttributeOptions), PAIR(GetDefaultOptions), PAIR(Submit),
                      PAIR(GetAccessLevels), PAIR(SetAccessLevels)>(),
             makersOf<PAIR(GetValueOptionsAccess), PAIR(BatchGetValueOptionsAccess), PAIR(List),
                      PAIR(Status), PAIR(Clients), PAIR(Monitor), PAIR(StoreSnapshot),
                      PAIR(StoreRestore)>(),
             makersOf<ConfigChangedNtfy, AttributeChangedNtfy, OptionsChangedNtfy, SubmitNtfy,
                      AccessLevelChangedNtfy, MonitorNtfy>());
  return all;
}
#undef PAIR

}  // namespace

std::unique_ptr<MessageLite> newMessage(std::uint32_t messageId) {
  const auto found = makers().find(messageId);
  return found == makers().end() ? nullptr : found->second();
}

const std::vector<std::uint32_t>& requestIds() {
  static const std::vector<std::uint32_t> ids = [] {
    std::vector<std::uint32_t> requests;
    for (const std::uint32_t id : PlatformSchema::messageIds()) {
      require(makers().count(id) == 1, "every message of the protocol is known here",
              PlatformSchema::messageName(id));
      if (id % 16 == 0) requests.push_back(id);
    }
    return requests;
  }();
  return ids;
}

void requireMessage(std::uint32_t messageId, std::string_view payload) {
  const std::unique_ptr<MessageLite> message = newMessage(messageId);
  require(message != nullptr, "a message of the protocol is sent");
  require(message->ParseFromArray(payload.data(), static_cast<int>(payload.size())),
          "a message that is sent can be read", PlatformSchema::messageName(messageId));
}

}  // namespace Fuzz
