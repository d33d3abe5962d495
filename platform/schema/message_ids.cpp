// One table has the number, the name and the type of each message. A message's number is found by its
// type in an index that is made of the table when it is first needed; names are only for logs, and are
// looked for one after the other.
//
// A type is known by the address of its std::type_info, and only where that is not in the index by its
// name: a program that has the messages compiled in once more has other addresses for the same types. To
// compute the hash of a name took more than all else of an answer's way to its number.
#include "platform/schema/message_ids.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <iterator>
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

#define MESSAGE(name) \
  { k##name, #name, typeid(ConfigIF::name) }

const Entry kMessages[] = {
    MESSAGE(OnChangeReq),
    MESSAGE(OnChangeRsp),
    MESSAGE(ReadReq),
    MESSAGE(ReadRsp),
    MESSAGE(BatchReadReq),
    MESSAGE(BatchReadRsp),
    MESSAGE(WriteReq),
    MESSAGE(WriteRsp),
    MESSAGE(ConfigChangedNtfy),
    MESSAGE(DynamicValidateReq),
    MESSAGE(DynamicValidateRsp),
    MESSAGE(ValidateReq),
    MESSAGE(ValidateRsp),
    MESSAGE(ResetValueReq),
    MESSAGE(ResetValueRsp),
    MESSAGE(ResetNodeValueReq),
    MESSAGE(ResetNodeValueRsp),
    MESSAGE(ReadAttributesReq),
    MESSAGE(ReadAttributesRsp),
    MESSAGE(ResetAttributeReq),
    MESSAGE(ResetAttributeRsp),
    MESSAGE(AttributeChangedNtfy),
    MESSAGE(RegisterClientCallbackReq),
    MESSAGE(RegisterClientCallbackRsp),
    MESSAGE(UnregisterClientCallbackReq),
    MESSAGE(UnregisterClientCallbackRsp),
    MESSAGE(UnregisterAllClientCallbacksReq),
    MESSAGE(UnregisterAllClientCallbacksRsp),
    MESSAGE(GetAttributeOptionsReq),
    MESSAGE(GetAttributeOptionsRsp),
    MESSAGE(SetAttributeOptionsReq),
    MESSAGE(SetAttributeOptionsRsp),
    MESSAGE(OptionsChangedNtfy),
    MESSAGE(GetDefaultOptionsReq),
    MESSAGE(GetDefaultOptionsRsp),
    MESSAGE(SubmitReq),
    MESSAGE(SubmitRsp),
    MESSAGE(SubmitNtfy),
    MESSAGE(GetAccessLevelsReq),
    MESSAGE(GetAccessLevelsRsp),
    MESSAGE(SetAccessLevelsReq),
    MESSAGE(SetAccessLevelsRsp),
    MESSAGE(AccessLevelChangedNtfy),
    MESSAGE(GetValueOptionsAccessReq),
    MESSAGE(GetValueOptionsAccessRsp),
    MESSAGE(BatchGetValueOptionsAccessReq),
    MESSAGE(BatchGetValueOptionsAccessRsp),
    MESSAGE(ListReq),
    MESSAGE(ListRsp),
    MESSAGE(StatusReq),
    MESSAGE(StatusRsp),
    MESSAGE(ClientsReq),
    MESSAGE(ClientsRsp),
    MESSAGE(MonitorReq),
    MESSAGE(MonitorRsp),
    MESSAGE(MonitorNtfy),
    MESSAGE(StoreSnapshotReq),
    MESSAGE(StoreSnapshotRsp),
    MESSAGE(StoreRestoreReq),
    MESSAGE(StoreRestoreRsp),
};

#undef MESSAGE

class IdsByType {
 public:
  IdsByType() {
    for (const Entry& entry : kMessages) {
      byName_.emplace(entry.type, entry.id);
      std::size_t slot = slotOf(entry.type);
      while (byAddress_[slot] != nullptr) slot = next(slot);
      byAddress_[slot] = &entry;
    }
  }

  std::uint32_t find(const std::type_info& type) const {
    for (std::size_t slot = slotOf(type); byAddress_[slot] != nullptr; slot = next(slot)) {
      if (&byAddress_[slot]->type == &type) return byAddress_[slot]->id;
    }
    const auto found = byName_.find(type);
    return found == byName_.end() ? kNoMessageId : found->second;
  }

 private:
  static constexpr std::size_t kSlots = 256;
  static_assert(std::size(kMessages) * 2 <= kSlots, "a free slot is near wherever one looks");

  // Two objects of the kind lie 16 bytes apart at least.
  static std::size_t slotOf(const std::type_info& type) {
    return reinterpret_cast<std::uintptr_t>(&type) / 16 % kSlots;
  }
  static std::size_t next(std::size_t slot) { return (slot + 1) % kSlots; }

  std::array<const Entry*, kSlots> byAddress_{};
  std::unordered_map<std::type_index, std::uint32_t> byName_;
};

// Made by whoever needs it first, without a lock: a child could wait for ever for a thread that was
// making it when the process forked.
const IdsByType& idsByType() {
  static std::atomic<const IdsByType*> made{nullptr};
  if (const IdsByType* ids = made.load(std::memory_order_acquire)) return *ids;
  auto own = std::make_unique<IdsByType>();
  const IdsByType* first = nullptr;
  if (made.compare_exchange_strong(first, own.get())) return *own.release();
  return *first;
}

}  // namespace

std::uint32_t messageIdOf(const MessageLite& message) { return idsByType().find(typeid(message)); }

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
  return messageId == kRegisterClientCallbackReq || messageId == kMonitorReq;
}
bool withdrawsOneRepeated(std::uint32_t messageId) {
  return messageId == kUnregisterClientCallbackReq;
}
bool withdrawsAllRepeated(std::uint32_t messageId) {
  return messageId == kUnregisterAllClientCallbacksReq;
}

}  // namespace PlatformSchema
