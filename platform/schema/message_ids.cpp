#include "platform/schema/message_ids.h"

#include <atomic>
#include <cstdio>
#include <memory>
#include <typeindex>
#include <unordered_map>

#include "platform/schema/config_if.pb.h"

namespace PlatformSchema {
namespace {

using google::protobuf::MessageLite;

struct Entry {
  std::uint32_t id;
  const char* name;
  const std::type_info& type;
};

#define MESSAGE(id, name) \
  { id, #name, typeid(ConfigIF::name) }

const Entry kMessages[] = {
    MESSAGE(0x1A0100, OnChangeReq),
    MESSAGE(0x1A0101, OnChangeRsp),
    MESSAGE(0x1A0110, ReadReq),
    MESSAGE(0x1A0111, ReadRsp),
    MESSAGE(0x1A0120, BatchReadReq),
    MESSAGE(0x1A0121, BatchReadRsp),
    MESSAGE(0x1A0140, WriteReq),
    MESSAGE(0x1A0141, WriteRsp),
    MESSAGE(0x1A0143, ConfigChangedNtfy),
    MESSAGE(0x1A0150, DynamicValidateReq),
    MESSAGE(0x1A0151, DynamicValidateRsp),
    MESSAGE(0x1A0160, ValidateReq),
    MESSAGE(0x1A0161, ValidateRsp),
    MESSAGE(0x1A0170, ResetValueReq),
    MESSAGE(0x1A0171, ResetValueRsp),
    MESSAGE(0x1A0180, ResetNodeValueReq),
    MESSAGE(0x1A0181, ResetNodeValueRsp),
    MESSAGE(0x1A0190, ReadAttributesReq),
    MESSAGE(0x1A0191, ReadAttributesRsp),
    MESSAGE(0x1A01A0, ResetAttributeReq),
    MESSAGE(0x1A01A1, ResetAttributeRsp),
    MESSAGE(0x1A01A3, AttributeChangedNtfy),
    MESSAGE(0x1A0210, RegisterClientCallbackReq),
    MESSAGE(0x1A0211, RegisterClientCallbackRsp),
    MESSAGE(0x1A0220, UnregisterClientCallbackReq),
    MESSAGE(0x1A0221, UnregisterClientCallbackRsp),
    MESSAGE(0x1A0230, UnregisterAllClientCallbacksReq),
    MESSAGE(0x1A0231, UnregisterAllClientCallbacksRsp),
    MESSAGE(0x1A0240, GetAttributeOptionsReq),
    MESSAGE(0x1A0241, GetAttributeOptionsRsp),
    MESSAGE(0x1A0250, SetAttributeOptionsReq),
    MESSAGE(0x1A0251, SetAttributeOptionsRsp),
    MESSAGE(0x1A0253, OptionsChangedNtfy),
    MESSAGE(0x1A0260, GetDefaultOptionsReq),
    MESSAGE(0x1A0261, GetDefaultOptionsRsp),
    MESSAGE(0x1A0270, SubmitReq),
    MESSAGE(0x1A0271, SubmitRsp),
    MESSAGE(0x1A0273, SubmitNtfy),
    MESSAGE(0x1A0320, GetAccessLevelsReq),
    MESSAGE(0x1A0321, GetAccessLevelsRsp),
    MESSAGE(0x1A0330, SetAccessLevelsReq),
    MESSAGE(0x1A0331, SetAccessLevelsRsp),
    MESSAGE(0x1A0333, AccessLevelChangedNtfy),
    MESSAGE(0x1A0340, GetValueOptionsAccessReq),
    MESSAGE(0x1A0341, GetValueOptionsAccessRsp),
    MESSAGE(0x1A0350, BatchGetValueOptionsAccessReq),
    MESSAGE(0x1A0351, BatchGetValueOptionsAccessRsp),
    MESSAGE(0x1A0400, ListReq),
    MESSAGE(0x1A0401, ListRsp),
    MESSAGE(0x1A0410, StatusReq),
    MESSAGE(0x1A0411, StatusRsp),
    MESSAGE(0x1A0420, ClientsReq),
    MESSAGE(0x1A0421, ClientsRsp),
    MESSAGE(0x1A0430, MonitorReq),
    MESSAGE(0x1A0431, MonitorRsp),
    MESSAGE(0x1A0433, MonitorNtfy),
    MESSAGE(0x1A0440, StoreSnapshotReq),
    MESSAGE(0x1A0441, StoreSnapshotRsp),
    MESSAGE(0x1A0450, StoreRestoreReq),
    MESSAGE(0x1A0451, StoreRestoreRsp),
};

#undef MESSAGE

using IdsByType = std::unordered_map<std::type_index, std::uint32_t>;

// Made by whoever needs it first, without a lock: a child could wait for ever for a thread that was
// making it when the process forked.
const IdsByType& idsByType() {
  static std::atomic<const IdsByType*> made{nullptr};
  if (const IdsByType* ids = made.load(std::memory_order_acquire)) return *ids;
  auto own = std::make_unique<IdsByType>();
  for (const Entry& entry : kMessages) own->emplace(entry.type, entry.id);
  const IdsByType* first = nullptr;
  if (made.compare_exchange_strong(first, own.get())) return *own.release();
  return *first;
}

}  // namespace

std::uint32_t messageIdOf(const MessageLite& message) {
  const auto& ids = idsByType();
  const auto found = ids.find(typeid(message));
  return found == ids.end() ? kNoMessageId : found->second;
}

std::string messageName(std::uint32_t messageId) {
  for (const Entry& entry : kMessages) {
    if (entry.id == messageId) return entry.name;
  }
  char text[16];
  std::snprintf(text, sizeof text, "0x%06X", static_cast<unsigned>(messageId));
  return text;
}

std::vector<std::uint32_t> messageIds() {
  std::vector<std::uint32_t> ids;
  for (const Entry& entry : kMessages) ids.push_back(entry.id);
  return ids;
}

bool isRepeatedOnReconnect(std::uint32_t messageId) {
  return messageId == 0x1A0210 || messageId == 0x1A0430;
}
bool withdrawsOneRepeated(std::uint32_t messageId) { return messageId == 0x1A0220; }
bool withdrawsAllRepeated(std::uint32_t messageId) { return messageId == 0x1A0230; }

}  // namespace PlatformSchema
