// Endpoint: the messaging endpoint of an application, over Unix sockets.
//
//   PbUtility::Endpoint endpoint("thermostat-ui");
//   AppConfig::AppCfgManager::getInstance()->setPbInterface(&endpoint);
//
// Requests run on the calling thread: it takes a connection from a small pool, writes one frame and
// reads the answer itself. Incoming messages are read by one delivery thread, which calls the
// receivers in order of arrival; it starts with the first remote endpoint.
//
// Start:    any order: a service that is not there yet makes requests fail at once; the endpoint
//           finds it when it comes, and repeats its callback registrations whenever it comes back,
//           so that no change in between goes untold. A registration that the service has no room for
//           is repeated until it has (registration_refusals.h), and then told what it missed.
// Errors:   send and sendWaitResponse return a CallStatus; nothing here throws or raises SIGPIPE.
//           Receivers must not throw either: that ends the program.
// Threads:  all operations from any thread, also from inside receivers. Only one delivery thread
//           runs receivers, so a receiver that blocks holds up all later messages.
// Forking:  any thread may, at any moment. A child's first call opens connections and starts a
//           delivery thread of its own, which repeats the parent's registrations; the parent's
//           connections are closed in it. A child that returns from the receiver it was made in ends
//           there, with exit(0). A lock of the program's own that a receiver holds meanwhile stays
//           locked in the child (pthread_atfork(3)).
// Trust:    requests carry secrets, so nothing is sent to a socket of somebody who was not given the
//           place: the directories above it, and who listens, are looked at whenever a connection is
//           opened (docs/protocol.md, "Whom a client trusts").
// Owns:     its sockets and its thread. The destructor waits for a running receiver to return; called
//           inside one, it leaves that to the thread. Links keep a pointer to their endpoint: it has
//           to outlive their use, and usually lives as long as the process. A program whose threads
//           go on calling while it ends does not destroy it at all.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>

#include "platform/messaging/pb_utils.h"

namespace PbUtility {

// Why a call ended. 0 is success.
enum CallStatus : int {
  kCallOk = 0,
  // No such service, or it refuses connections: it is not running.
  kCallNoService = 1,
  // The service went away before it answered; whether it acted on the request is not known.
  kCallServiceDied = 2,
  // No answer within the deadline; whether the service acts on the request is not known.
  kCallTimedOut = 3,
  // The service would not take the request; lastRefusal tells why.
  kCallRefused = 4,
  // The answer was no frame or no message of the expected kind, or it would unfold to more than is
  // taken; lastRefusal tells.
  kCallBrokenAnswer = 5,
  // The request is no message of the protocol or longer than its kind may be (docs/limits.md); nothing
  // was sent, and lastRefusal tells how long it may be.
  kCallBadRequest = 6,
  // The endpoint's name cannot be used (see runtime_dir.h), it is one more than kMaxRemotes, or the
  // system is out of resources.
  kCallBadEndpoint = 7,
  // A socket is there, but somebody may have put it there who is neither root nor this process's
  // user nor an owner of the directory; lastRefusal tells who or what. Nothing was sent. The next
  // call looks again.
  kCallUntrusted = 8,
  // A socket may be there, but this process's user may not open it, or may not look into a directory
  // above it; lastRefusal names its path. Nothing was sent. Whether the service runs is not known.
  kCallForbidden = 9,
};

// One line for people.
__attribute__((visibility("default"))) const char* describe(CallStatus status);

// Remote endpoints that one endpoint may have to do with. A process has at most two services to talk
// to; whoever asks for names without end gets kCallBadEndpoint.
constexpr std::size_t kMaxRemotes = 64;

struct EndpointOptions {
  // Empty: the default of runtime_dir.h.
  std::string runtimeDir;
  // How long a call may take, connecting included.
  std::chrono::milliseconds deadline = std::chrono::seconds(30);
  // Most connections for requests to one service; further callers wait for one to be free. Requests
  // made inside receivers do not count: they have a connection of their own.
  unsigned maxConnections = 8;
};

// Visible outside of the shared library that this folder becomes a part of; its insides are not.
class __attribute__((visibility("default"))) Endpoint final : public PbUtils {
 public:
  // The name appears in the service's logs and in `appcfg clients`. Opens nothing yet.
  explicit Endpoint(std::string name, EndpointOptions options = {});
  ~Endpoint() override;
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  void addRemoteEndpoint(const std::string& endpointName, int instance) override;
  void addHandlers(const MSG_Callback* table) override;
  std::string localEndpoint() const override;
  int send(const google::protobuf::MessageLite& request, const std::string& endpointName,
           unsigned int* sequence) override;
  int sendWaitResponse(const google::protobuf::MessageLite& request,
                       google::protobuf::MessageLite* response,
                       const std::string& endpointName) override;

  // Text of the last refusal or failure that this thread met; empty when there was none.
  std::string lastRefusal() const;

  // Waits until the delivery connection to this remote stands and the service has answered every
  // registration made so far, at most `atMost`. Tools and tests use it; applications need not.
  bool waitUntilConnected(const std::string& endpointName, std::chrono::milliseconds atMost);

  // Waits until every message that had come to this process before the call has been handled: its
  // receivers have returned. What comes meanwhile is not waited for, and a message that the remote has
  // not sent yet has not come. True at once when nothing was ever delivered. False when `atMost` is
  // over first, and at once on the delivery thread, which would wait for itself.
  bool waitUntilHandled(std::chrono::milliseconds atMost);

 private:
  class __attribute__((visibility("hidden"))) State;
  // A child after fork makes itself a new state and leaves the parent's as it was.
  __attribute__((visibility("hidden"))) State& state() const;
  mutable std::atomic<State*> state_;
};

}  // namespace PbUtility
