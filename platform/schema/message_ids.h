// Which number a ConfigIF message travels under.
//
// The last hexadecimal digit tells the kind: 0 request, 1 response, 3 notice. The table itself is
// message_ids.cpp; config_if.proto names the id beside each message.
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
