// How much does a request cost beyond two processes exchanging two messages of its size?
//
//   uncached_read    getConfigVar of the facade, with the value removed from the cache beforehand,
//                    which is not timed. The service was told of the callback by an earlier read,
//                    so there is one request and one response.
//   validate         isValid of the facade
//   write_unchanged  setConfigVar with a ConfigResult of the value that the variable has, which
//                    changes nothing and so commits nothing
//
// Floor: a blocking ping-pong of the same bytes over a Unix stream socket.
#include "bench/processes/cases.h"
#include "bench/processes/client.h"
#include "bench/processes/definitions.h"
#include "bench/processes/measuring.h"
#include "bench/processes/message_floor.h"
#include "bench/processes/processes.h"
#include "bench/processes/running_service.h"

namespace Bench {
namespace {

const auto kNothing = [] {};

template <typename Prepare, typename Operation>
Outcome withService(const Settings& settings, const Prepare& prepare, const Operation& operation) {
  const RunningService service(settings);
  if (!service.failure().empty()) return failed(service.failure());
  Client client(service.runtimeDir());
  return measure(
      settings, {service.pid()}, [&] { prepare(client); }, [&] { return operation(client); });
}

void forget(Client& client) { client.config().removeVars(""); }
void leave(Client&) {}

Outcome oursValidate(const Settings& settings) {
  return withService(settings, leave, [](Client& client) {
    ConfigResult result;
    return client.config().isValid(textVar(), {kText}, &result);
  });
}

Outcome oursWriteUnchanged(const Settings& settings) {
  return withService(settings, leave, [](Client& client) {
    ConfigResult result;
    return client.config().setConfigVar(textVar(), kText, &result);
  });
}

Outcome pingPong(const Settings& settings, const MessageBytes& bytes) {
  if (bytes.request == 0) return failed("the service did not answer");
  SocketPair pair;
  const Child other([&] {
    pair.closeHere();
    return echo(pair.there(), bytes);
  });
  pair.closeThere();
  return measure(settings, {other.pid()}, kNothing, [&] {
    return sendBytes(pair.here(), bytes.request) && receiveBytes(pair.here(), bytes.response);
  });
}

template <MessageBytes (Client::*bytesOf)()>
Outcome floorPingPong(const Settings& settings) {
  return pingPong(settings, askForBytes(settings, bytesOf));
}

}  // namespace

MessageBytes askForBytes(const Settings& settings, MessageBytes (Client::*bytesOf)()) {
  const Shared<MessageBytes> bytes;
  Child asking([&] {
    const RunningService service(settings);
    if (!service.failure().empty()) return 1;
    Client client(service.runtimeDir());
    *bytes = (client.*bytesOf)();
    return 0;
  });
  asking.join();
  return *bytes;
}

Outcome oursUncachedRead(const Settings& settings) {
  return withService(settings, forget, [](Client& client) {
    return client.config().getConfigVar(textVar()) == kText;
  });
}

std::vector<Case> roundTripCases() {
  return {
      {"uncached_read", oursUncachedRead, floorPingPong<&Client::readBytes>},
      {"validate", oursValidate, floorPingPong<&Client::validateBytes>},
      {"write_unchanged", oursWriteUnchanged, floorPingPong<&Client::writeBytes>},
  };
}

}  // namespace Bench
