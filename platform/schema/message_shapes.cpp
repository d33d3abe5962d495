// One array of parts for each shape; messages that have the same strings and messages under the same
// numbers share one. Enumerations are left out of the plain numbers: a value that this version does not
// know is kept beside the object, with the fields that it does not know.
#include "platform/schema/internal/message_shapes.h"

#include <google/protobuf/message_lite.h>

#include <algorithm>
#include <iterator>

#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"

namespace PlatformSchema {
namespace {

// What the heap adds to a block.
constexpr std::size_t kBlock = 16;
// The first array of a repeated field: a header and four pointers.
constexpr std::size_t kFirstArray = kBlock + 5 * sizeof(void*);

constexpr Part text(std::uint32_t number) { return {number, nullptr, false, Counted::Nothing}; }
constexpr Part texts(std::uint32_t number, Counted counted) {
  return {number, nullptr, true, counted};
}
constexpr Part one(std::uint32_t number, const Shape& message) {
  return {number, &message, false, Counted::Nothing};
}
constexpr Part many(std::uint32_t number, const Shape& message, Counted counted) {
  return {number, &message, true, counted};
}

constexpr std::uint32_t numbers() { return 0; }
template <typename... Rest>
constexpr std::uint32_t numbers(int first, Rest... rest) {
  return std::uint32_t{1} << first | numbers(rest...);
}

template <typename Message, std::size_t count>
constexpr Shape shape(const char* name, const Part (&parts)[count], std::uint32_t plain) {
  Shape made{{}, sizeof(Message) + kBlock, parts, count, plain};
  for (const Part& part : parts) made.bytes += part.repeated ? kFirstArray : 0;
  for (std::size_t i = 0; name[i] != '\0'; ++i) made.name[i] = name[i];
  return made;
}

#define SHAPE(name, plain) \
  constexpr Shape k##name##Shape = shape<ConfigIF::name>(#name, k##name, plain)

// --- Building blocks ---

constexpr Part kNode[] = {text(1)};
SHAPE(Node, numbers(2));
constexpr Part kInst[] = {many(1, kNodeShape, Counted::Nodes)};
SHAPE(Inst, numbers());
constexpr Part kInstValue[] = {one(1, kInstShape), texts(2, Counted::Elements)};
SHAPE(InstValue, numbers());
constexpr Part kReturnMessage[] = {texts(3, Counted::Messages), text(5), text(6)};
SHAPE(ReturnMessage, numbers(2, 4));

// --- Requests ---

constexpr Part kReadReq[] = {text(1), one(3, kInstShape)};
SHAPE(ReadReq, numbers());
constexpr Part kWriteReq[] = {text(1), one(3, kInstValueShape)};
SHAPE(WriteReq, numbers());
constexpr Part kResetNodeValueReq[] = {text(1), text(3)};
SHAPE(ResetNodeValueReq, numbers());
constexpr Part kBatchReadReq[] = {text(1), many(3, kInstShape, Counted::Entries)};
SHAPE(BatchReadReq, numbers());
constexpr Part kSetAttributeOptionsReq[] = {text(1), one(3, kInstShape),
                                            texts(5, Counted::Options)};
SHAPE(SetAttributeOptionsReq, numbers());
constexpr Part kRegisterClientCallbackReq[] = {text(1), text(3), text(5)};
SHAPE(RegisterClientCallbackReq, numbers());
constexpr Part kStatusReq[] = {text(1)};
SHAPE(StatusReq, numbers());
constexpr Part kListReq[] = {text(1), text(3), one(5, kInstShape)};
SHAPE(ListReq, numbers());
constexpr Part kOnChangeReq[] = {text(1), text(2), one(4, kInstValueShape)};
SHAPE(OnChangeReq, numbers());

// --- Responses ---

constexpr Part kWriteRsp[] = {one(1, kReturnMessageShape)};
SHAPE(WriteRsp, numbers());
constexpr Part kReadRsp[] = {one(1, kReturnMessageShape), texts(2, Counted::Elements)};
SHAPE(ReadRsp, numbers());
constexpr Part kReadRecord[] = {one(1, kInstShape), texts(3, Counted::Elements)};
SHAPE(ReadRecord, numbers(4));
constexpr Part kBatchReadRsp[] = {one(1, kReturnMessageShape),
                                  many(2, kReadRecordShape, Counted::Nothing)};
SHAPE(BatchReadRsp, numbers());
constexpr Part kGetAttributeOptionsRsp[] = {one(1, kReturnMessageShape),
                                            texts(2, Counted::Options)};
SHAPE(GetAttributeOptionsRsp, numbers());
constexpr Part kAccessLevelsRecord[] = {one(1, kInstShape)};
SHAPE(AccessLevelsRecord, numbers());
constexpr Part kSetAccessLevelsRsp[] = {one(1, kReturnMessageShape),
                                        many(2, kAccessLevelsRecordShape, Counted::Nothing)};
SHAPE(SetAccessLevelsRsp, numbers());
constexpr Part kAttributes[] = {one(1, kInstShape),         text(3),  texts(4, Counted::Elements),
                                texts(5, Counted::Options), text(11), text(15)};
SHAPE(Attributes, numbers(6, 7, 8, 9, 10, 14, 16, 17, 18));
constexpr Part kReadAttributesRsp[] = {one(1, kReturnMessageShape), one(2, kAttributesShape)};
SHAPE(ReadAttributesRsp, numbers());
constexpr Part kFullRecord[] = {one(1, kInstShape), texts(3, Counted::Elements),
                                texts(5, Counted::Options)};
SHAPE(FullRecord, numbers(4, 6));
constexpr Part kGetValueOptionsAccessRsp[] = {one(1, kReturnMessageShape),
                                              one(2, kFullRecordShape)};
SHAPE(GetValueOptionsAccessRsp, numbers());
constexpr Part kBatchGetValueOptionsAccessRsp[] = {one(1, kReturnMessageShape),
                                                   many(2, kFullRecordShape, Counted::Nothing)};
SHAPE(BatchGetValueOptionsAccessRsp, numbers());
constexpr Part kListRecord[] = {one(1, kInstShape), texts(3, Counted::Elements), text(5)};
SHAPE(ListRecord, numbers(4, 6));
constexpr Part kListRsp[] = {one(1, kReturnMessageShape),
                             many(2, kListRecordShape, Counted::Nothing), one(4, kInstShape)};
SHAPE(ListRsp, numbers());
constexpr Part kStatusRsp[] = {one(1, kReturnMessageShape), text(2), text(15), text(16),
                               texts(23, Counted::Elements)};
SHAPE(StatusRsp, numbers());
constexpr Part kClientRecord[] = {text(1), texts(7, Counted::Nothing)};
SHAPE(ClientRecord, numbers(2, 3, 4, 5, 6));
constexpr Part kClientsRsp[] = {one(1, kReturnMessageShape),
                                many(2, kClientRecordShape, Counted::Nothing)};
SHAPE(ClientsRsp, numbers());

constexpr Part kStoreSnapshotRsp[] = {one(1, kReturnMessageShape), text(2)};
SHAPE(StoreSnapshotRsp, numbers());

// --- Notices ---

constexpr Part kConfigChangedNtfy[] = {text(1), one(2, kInstValueShape)};
SHAPE(ConfigChangedNtfy, numbers());
constexpr Part kSubmitNtfy[] = {text(1), one(2, kInstShape)};
SHAPE(SubmitNtfy, numbers());
constexpr Part kOptionsChangedNtfy[] = {text(1), one(2, kInstShape), texts(3, Counted::Options)};
SHAPE(OptionsChangedNtfy, numbers());
constexpr Part kMonitorNtfy[] = {text(3), text(5), one(6, kInstShape), texts(7, Counted::Elements),
                                 text(10)};
SHAPE(MonitorNtfy, numbers());

#undef SHAPE

constexpr const Shape* kShapes[] = {
    &kOnChangeReqShape,
    &kWriteRspShape,
    &kReadReqShape,
    &kReadRspShape,
    &kBatchReadReqShape,
    &kBatchReadRspShape,
    &kWriteReqShape,
    &kConfigChangedNtfyShape,
    &kResetNodeValueReqShape,
    &kReadAttributesRspShape,
    &kSubmitNtfyShape,
    &kRegisterClientCallbackReqShape,
    &kStatusReqShape,
    &kGetAttributeOptionsRspShape,
    &kSetAttributeOptionsReqShape,
    &kOptionsChangedNtfyShape,
    &kSetAccessLevelsRspShape,
    &kGetValueOptionsAccessRspShape,
    &kBatchGetValueOptionsAccessRspShape,
    &kListReqShape,
    &kListRspShape,
    &kStatusRspShape,
    &kClientsRspShape,
    &kMonitorNtfyShape,
    &kStoreSnapshotRspShape,
};

// Evaluated by the compiler, which refuses a shape that the array does not have.
constexpr std::uint8_t indexOf(const Shape& shape) {
  std::uint8_t index = 0;
  while (kShapes[index] != &shape) ++index;
  return index;
}

// Not a pointer, which would be one more to relocate for each message.
struct Entry {
  constexpr Entry(std::uint32_t id, const Shape& its) : messageId(id), shape(indexOf(its)) {}

  std::uint32_t messageId;
  std::uint8_t shape;
};

// shapeOf() bisects it.
constexpr Entry kMessages[] = {
    {MessageId::kOnChangeReq, kOnChangeReqShape},
    {MessageId::kOnChangeRsp, kWriteRspShape},
    {MessageId::kReadReq, kReadReqShape},
    {MessageId::kReadRsp, kReadRspShape},
    {MessageId::kBatchReadReq, kBatchReadReqShape},
    {MessageId::kBatchReadRsp, kBatchReadRspShape},
    {MessageId::kWriteReq, kWriteReqShape},
    {MessageId::kWriteRsp, kWriteRspShape},
    {MessageId::kConfigChangedNtfy, kConfigChangedNtfyShape},
    {MessageId::kDynamicValidateReq, kOnChangeReqShape},
    {MessageId::kDynamicValidateRsp, kWriteRspShape},
    {MessageId::kValidateReq, kWriteReqShape},
    {MessageId::kValidateRsp, kWriteRspShape},
    {MessageId::kResetValueReq, kReadReqShape},
    {MessageId::kResetValueRsp, kWriteRspShape},
    {MessageId::kResetNodeValueReq, kResetNodeValueReqShape},
    {MessageId::kResetNodeValueRsp, kWriteRspShape},
    {MessageId::kReadAttributesReq, kReadReqShape},
    {MessageId::kReadAttributesRsp, kReadAttributesRspShape},
    {MessageId::kResetAttributeReq, kResetNodeValueReqShape},
    {MessageId::kResetAttributeRsp, kWriteRspShape},
    {MessageId::kAttributeChangedNtfy, kSubmitNtfyShape},
    {MessageId::kRegisterClientCallbackReq, kRegisterClientCallbackReqShape},
    {MessageId::kRegisterClientCallbackRsp, kWriteRspShape},
    {MessageId::kUnregisterClientCallbackReq, kRegisterClientCallbackReqShape},
    {MessageId::kUnregisterClientCallbackRsp, kWriteRspShape},
    {MessageId::kUnregisterAllClientCallbacksReq, kStatusReqShape},
    {MessageId::kUnregisterAllClientCallbacksRsp, kWriteRspShape},
    {MessageId::kGetAttributeOptionsReq, kReadReqShape},
    {MessageId::kGetAttributeOptionsRsp, kGetAttributeOptionsRspShape},
    {MessageId::kSetAttributeOptionsReq, kSetAttributeOptionsReqShape},
    {MessageId::kSetAttributeOptionsRsp, kWriteRspShape},
    {MessageId::kOptionsChangedNtfy, kOptionsChangedNtfyShape},
    {MessageId::kGetDefaultOptionsReq, kResetNodeValueReqShape},
    {MessageId::kGetDefaultOptionsRsp, kGetAttributeOptionsRspShape},
    {MessageId::kSubmitReq, kReadReqShape},
    {MessageId::kSubmitRsp, kWriteRspShape},
    {MessageId::kSubmitNtfy, kSubmitNtfyShape},
    {MessageId::kGetAccessLevelsReq, kReadReqShape},
    {MessageId::kGetAccessLevelsRsp, kWriteRspShape},
    {MessageId::kSetAccessLevelsReq, kBatchReadReqShape},
    {MessageId::kSetAccessLevelsRsp, kSetAccessLevelsRspShape},
    {MessageId::kAccessLevelChangedNtfy, kSubmitNtfyShape},
    {MessageId::kGetValueOptionsAccessReq, kReadReqShape},
    {MessageId::kGetValueOptionsAccessRsp, kGetValueOptionsAccessRspShape},
    {MessageId::kBatchGetValueOptionsAccessReq, kBatchReadReqShape},
    {MessageId::kBatchGetValueOptionsAccessRsp, kBatchGetValueOptionsAccessRspShape},
    {MessageId::kListReq, kListReqShape},
    {MessageId::kListRsp, kListRspShape},
    {MessageId::kStatusReq, kStatusReqShape},
    {MessageId::kStatusRsp, kStatusRspShape},
    {MessageId::kClientsReq, kStatusReqShape},
    {MessageId::kClientsRsp, kClientsRspShape},
    {MessageId::kMonitorReq, kResetNodeValueReqShape},
    {MessageId::kMonitorRsp, kWriteRspShape},
    {MessageId::kMonitorNtfy, kMonitorNtfyShape},
    {MessageId::kStoreSnapshotReq, kStatusReqShape},
    {MessageId::kStoreSnapshotRsp, kStoreSnapshotRspShape},
    {MessageId::kStoreRestoreReq, kStatusReqShape},
    {MessageId::kStoreRestoreRsp, kWriteRspShape},
};

constexpr bool isAscending() {
  for (std::size_t i = 1; i < std::size(kMessages); ++i) {
    if (kMessages[i - 1].messageId >= kMessages[i].messageId) return false;
  }
  return true;
}
static_assert(isAscending());

}  // namespace

const Shape* shapeOf(std::uint32_t messageId) {
  const Entry* found =
      std::lower_bound(std::begin(kMessages), std::end(kMessages), messageId,
                       [](const Entry& entry, std::uint32_t id) { return entry.messageId < id; });
  if (found == std::end(kMessages) || found->messageId != messageId) return nullptr;
  return kShapes[found->shape];
}

bool holdsRecords(const Shape& shape) {
  return std::any_of(shape.parts, shape.parts + shape.partCount, [](const Part& part) {
    return part.repeated && part.message != nullptr && part.counted == Counted::Nothing;
  });
}

}  // namespace PlatformSchema
