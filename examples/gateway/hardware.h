// hardware: what this gateway's ports can do. A definition's limits hold for every gateway that is
// sold; these are known on the device alone, which is why a provider has to be asked.
#pragma once

#include <string>

namespace Gateway {

// Both return the reason for a refusal, empty when the port can be set up so.

// An address has to be of the gateway's own subnet; the empty one means none.
std::string refusalOfAddress(const std::string& address);

// Port 1 cannot send jumbo frames.
std::string refusalOfMtu(int port, const std::string& mtu);

}  // namespace Gateway
