// Every message of the protocol as an object, by the number that it travels under.
#pragma once

#include <google/protobuf/message_lite.h>

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace Fuzz {

// Null for a number that is no message's.
std::unique_ptr<google::protobuf::MessageLite> newMessage(std::uint32_t messageId);

// The requests that a service answers, and those that a service makes of a provider.
const std::vector<std::uint32_t>& requestIds();

// Ends the process unless the payload is a message of that number.
void requireMessage(std::uint32_t messageId, std::string_view payload);

}  // namespace Fuzz
