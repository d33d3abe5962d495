// Which number a ConfigIF message travels under.
//
// The last hexadecimal digit tells the kind: 0 request, 1 response, 3 notice. MessageId is the one
// table of the numbers; config_if.proto names the number beside each message, and nothing else does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace PlatformSchema {

// kReadReq is the number of a ConfigIF::ReadReq, and so on. Ascending.
enum MessageId : std::uint32_t {
  kOnChangeReq = 0x1A0100,
  kOnChangeRsp = 0x1A0101,
  kReadReq = 0x1A0110,
  kReadRsp = 0x1A0111,
  kBatchReadReq = 0x1A0120,
  kBatchReadRsp = 0x1A0121,
  kWriteReq = 0x1A0140,
  kWriteRsp = 0x1A0141,
  kConfigChangedNtfy = 0x1A0143,
  kDynamicValidateReq = 0x1A0150,
  kDynamicValidateRsp = 0x1A0151,
  kValidateReq = 0x1A0160,
  kValidateRsp = 0x1A0161,
  kResetValueReq = 0x1A0170,
  kResetValueRsp = 0x1A0171,
  kResetNodeValueReq = 0x1A0180,
  kResetNodeValueRsp = 0x1A0181,
  kReadAttributesReq = 0x1A0190,
  kReadAttributesRsp = 0x1A0191,
  kResetAttributeReq = 0x1A01A0,
  kResetAttributeRsp = 0x1A01A1,
  kAttributeChangedNtfy = 0x1A01A3,
  kRegisterClientCallbackReq = 0x1A0210,
  kRegisterClientCallbackRsp = 0x1A0211,
  kUnregisterClientCallbackReq = 0x1A0220,
  kUnregisterClientCallbackRsp = 0x1A0221,
  kUnregisterAllClientCallbacksReq = 0x1A0230,
  kUnregisterAllClientCallbacksRsp = 0x1A0231,
  kGetAttributeOptionsReq = 0x1A0240,
  kGetAttributeOptionsRsp = 0x1A0241,
  kSetAttributeOptionsReq = 0x1A0250,
  kSetAttributeOptionsRsp = 0x1A0251,
  kOptionsChangedNtfy = 0x1A0253,
  kGetDefaultOptionsReq = 0x1A0260,
  kGetDefaultOptionsRsp = 0x1A0261,
  kSubmitReq = 0x1A0270,
  kSubmitRsp = 0x1A0271,
  kSubmitNtfy = 0x1A0273,
  kGetAccessLevelsReq = 0x1A0320,
  kGetAccessLevelsRsp = 0x1A0321,
  kSetAccessLevelsReq = 0x1A0330,
  kSetAccessLevelsRsp = 0x1A0331,
  kAccessLevelChangedNtfy = 0x1A0333,
  kGetValueOptionsAccessReq = 0x1A0340,
  kGetValueOptionsAccessRsp = 0x1A0341,
  kBatchGetValueOptionsAccessReq = 0x1A0350,
  kBatchGetValueOptionsAccessRsp = 0x1A0351,
  kListReq = 0x1A0400,
  kListRsp = 0x1A0401,
  kStatusReq = 0x1A0410,
  kStatusRsp = 0x1A0411,
  kClientsReq = 0x1A0420,
  kClientsRsp = 0x1A0421,
  kMonitorReq = 0x1A0430,
  kMonitorRsp = 0x1A0431,
  kMonitorNtfy = 0x1A0433,
  kStoreSnapshotReq = 0x1A0440,
  kStoreSnapshotRsp = 0x1A0441,
  kStoreRestoreReq = 0x1A0450,
  kStoreRestoreRsp = 0x1A0451,
};

// Id of a message that is no part of the protocol.
constexpr std::uint32_t kNoMessageId = 0;

// Id under which this message travels; kNoMessageId when its type is no message of the protocol.
// Told by type, so a message may be empty. Any thread.
std::uint32_t messageIdOf(const google::protobuf::MessageLite& message);

// "ReadReq" for 0x1A0110; "0x1A0999" for an id that the table does not hold. For logs.
std::string messageName(std::uint32_t messageId);

// Every id of the protocol, ascending. For tests and tools that walk through the whole protocol.
std::vector<std::uint32_t> messageIds();

// Whether a client's endpoint repeats this request on every new connection: registrations, which
// have to survive a restart of the service.
bool isRepeatedOnReconnect(std::uint32_t messageId);

// Whether this request withdraws what requests of isRepeatedOnReconnect made: one of them (its
// payload is the registration's own), or all of them.
bool withdrawsOneRepeated(std::uint32_t messageId);
bool withdrawsAllRepeated(std::uint32_t messageId);

}  // namespace PlatformSchema
