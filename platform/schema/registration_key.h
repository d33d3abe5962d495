// Registration key: what makes two callback registrations of one endpoint the same one.
//
// Client name, dotted name, callback type and callback identity count; the role does not, for a
// client may have changed its role between registering and withdrawing.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace PlatformSchema {

// The key of a RegisterClientCallbackReq, UnregisterClientCallbackReq or MonitorReq; for an
// UnregisterAllClientCallbacksReq, what the keys of all that it withdraws start with. Empty when
// the payload cannot be parsed or is another message.
std::string registrationKey(std::uint32_t messageId, std::string_view payload);

// Whether it is a registration of a provider that is told on change: it hears of values that may
// still not come to be.
bool isToldOnChange(std::uint32_t messageId, std::string_view payload);

}  // namespace PlatformSchema
