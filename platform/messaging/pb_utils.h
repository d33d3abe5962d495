// PbUtils: what the library needs of a messaging endpoint.
//
// The library sends its requests through this interface and has its incoming messages delivered by
// it. PbUtility::Endpoint (endpoint.h) is the implementation over Unix sockets that comes with
// appconfig; a device with a message layer of its own implements these five operations and the
// functions of msg.h instead.
//
// Threads:  send and sendWaitResponse may be called from any thread, also from inside a receiver.
// Owns:     nothing that is passed in; tables are copied.
#pragma once

#include <cstdint>
#include <string>

struct MSG_Callback;
namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace PbUtility {

class PbUtils;

// Visible outside of the shared library that this folder becomes a part of.
#pragma GCC visibility push(default)

// Tells message layers apart for as long as the process lives, which their addresses do not: another
// one may stand where one was destroyed. 1 and up, the same at each call. Any thread.
std::uint64_t layerNumber(const PbUtils* layer);

// The layer is gone, and what was known about it beside the object with it: its number, and what
// registration_refusals.h tells. The destructor calls it.
void forgetLayer(const PbUtils* layer) noexcept;

#pragma GCC visibility pop

class PbUtils {
 public:
  virtual ~PbUtils() { forgetLayer(this); }

  // Makes a remote endpoint known, so that its messages can reach this one. The instance is -1 for
  // "the only one of that name". Repeating it is harmless, and the remote need not exist yet.
  virtual void addRemoteEndpoint(const std::string& endpointName, int instance) = 0;

  // Adds receivers for incoming messages. The table ends with an all-zero record and is copied.
  // Where several records take one message id, each is called, in the order in which they came.
  virtual void addHandlers(const MSG_Callback* table) = 0;

  // This endpoint's own name, as other endpoints see it.
  virtual std::string localEndpoint() const = 0;

  // Hands a request over and waits for nothing. 0 when the message layer took it. With a
  // sequence pointer, stores the number under which it travels. Requests that one thread sends to
  // one endpoint arrive in the order of their calls.
  virtual int send(const google::protobuf::MessageLite& request, const std::string& endpointName,
                   unsigned int* sequence) = 0;

  // Sends a request and waits for its response. 0 when the response was received and parsed; any
  // other value is a failure (see endpoint.h for those of Endpoint) and leaves the response
  // unspecified.
  virtual int sendWaitResponse(const google::protobuf::MessageLite& request,
                               google::protobuf::MessageLite* response,
                               const std::string& endpointName) = 0;
};

}  // namespace PbUtility
