// Registration key: what makes two callback registrations of one endpoint the same one.
//
// Client name, dotted name, callback type and callback identity count; the role does not, for a
// client may have changed its role between registering and withdrawing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace PlatformSchema {

// The key of a RegisterClientCallbackReq, UnregisterClientCallbackReq or MonitorReq; for an
// UnregisterAllClientCallbacksReq, what the keys of all that it withdraws start with. Empty when
// the payload cannot be parsed or is another message.
std::string registrationKey(std::uint32_t messageId, std::string_view payload);

// The key of a registration, and those of all registrations that tell its caller the same and more:
// for net.eth.mtu also net.eth, net and everything. A monitor has its own alone. None when the
// payload cannot be parsed or is another message.
std::vector<std::string> coveringKeys(std::uint32_t messageId, std::string_view payload);

// Whether it is a registration of a provider that is told on change: it hears of values that may
// still not come to be.
bool isToldOnChange(std::uint32_t messageId, std::string_view payload);

// What the service says when a response (its id and payload) tells that a registration found no
// room (ERROR_LIMIT), so that asking again later may help. Nothing for any other answer, success
// included.
std::optional<std::string> refusalForRoom(std::uint32_t responseId, std::string_view payload);

}  // namespace PlatformSchema
