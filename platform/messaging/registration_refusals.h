// Registration refusals: which callback registrations the service had no room for.
//
// The service shares out how much each user and process may register. What it refuses for want of
// room (ERROR_LIMIT) is not lost: the endpoint asks again until there is room, and what was missed
// is told then. Until then nobody tells of changes, so that a value read meanwhile is good for once
// and not to be kept. Here is who knows:
//
//   ConfigIF::RegisterClientCallbackReq registration = ...;
//   if (isRegistrationRefused(&endpoint, "ConfigSrvc", registration)) cache.forget(variable);
//
// Endpoint notes all of it by itself. A message layer of the device's own may tell as well, and is
// then to ask again as Endpoint does; of one that does not, nothing is ever refused.
//
// Shape:    by message layer, name of the remote endpoint, and what makes two registrations the same:
//           client name, variable or group, type and callback identity. All of a layer's end with it.
// Cost:     asking is one atomic load while nothing is refused.
// Threads:  any. One mutex, under which nothing is called; not to be called with a lock held that a
//           function of pthread_atfork(3) takes.
// Forking:  a child knows what its parent knew.
#pragma once

#include <string>

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace PbUtility {

class PbUtils;

// Visible outside of the shared library that this folder becomes a part of.
#pragma GCC visibility push(default)

// Whether any service refused any registration and has not accepted it since.
bool isAnyRegistrationRefused();

// Whether the service refused this registration (a RegisterClientCallbackReq or MonitorReq), or one
// that covers it (net.eth, net or everything for net.eth.mtu), and has not accepted that one since.
// False for other messages and for a null layer.
bool isRegistrationRefused(const PbUtils* layer, const std::string& endpointName,
                           const google::protobuf::MessageLite& registration);

// The service's words for any registration that is refused there now; empty when none is.
std::string registrationRefusal(const PbUtils* layer, const std::string& endpointName);

// For message layers: the service refused it for want of room, and why; it accepted it, or nobody
// asks for it any more. A null layer and other messages are ignored.
void noteRegistrationRefused(const PbUtils* layer, const std::string& endpointName,
                             const google::protobuf::MessageLite& registration,
                             const std::string& reason);
void noteRegistrationAccepted(const PbUtils* layer, const std::string& endpointName,
                              const google::protobuf::MessageLite& registration);

#pragma GCC visibility pop

}  // namespace PbUtility
