#include "examples/gateway/hardware.h"

#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>

namespace Gateway {

namespace {

constexpr const char* kSubnet = "192.168.7.0/24";
constexpr std::uint32_t kSubnetBits = 0xC0A80700;
constexpr std::uint32_t kSubnetMask = 0xFFFFFF00;
constexpr int kPlainPort = 1;
constexpr long kPlainPortMaxMtu = 1500;

bool isInSubnet(const std::string& address) {
  in_addr parsed{};
  if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) return false;
  return (ntohl(parsed.s_addr) & kSubnetMask) == kSubnetBits;
}

}  // namespace

std::string refusalOfAddress(const std::string& address) {
  if (address.empty() || isInSubnet(address)) return {};
  return address + " is not in this gateway's subnet " + kSubnet;
}

std::string refusalOfMtu(int port, const std::string& mtu) {
  if (port != kPlainPort || std::strtol(mtu.c_str(), nullptr, 0) <= kPlainPortMaxMtu) return {};
  return "port 1 has no jumbo frames: its MTU is at most " + std::to_string(kPlainPortMaxMtu);
}

}  // namespace Gateway
