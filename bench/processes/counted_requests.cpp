// How many instructions does a request take, client and service together?
//
//   counted_uncached_read    getConfigVar of the facade. The value is taken out of the cache before
//                            each, which is counted too
//   counted_validate         isValid of the facade
//   counted_write_unchanged  setConfigVar with a ConfigResult of the value that the variable has
//   counted_registration     a registration for changes, of another variable each time, as the
//                            library makes it after the first read of one
//
// Floor: minimal_service.h, with the messages that the service and the library exchanged.
//
// Exactly so many operations are made as are asked for, one after the other. The program is run twice
// below callgrind, with more of them and with fewer: what all else costs is in both.
#include <functional>

#include "appconfig/service/platform_cfg_service.h"
#include "bench/processes/cases.h"
#include "bench/processes/client.h"
#include "bench/processes/counting.h"
#include "bench/processes/definitions.h"
#include "bench/processes/message_floor.h"
#include "bench/processes/minimal_service.h"
#include "bench/processes/processes.h"
#include "bench/processes/running_service.h"

namespace Bench {
namespace {

// Those that one run registers for.
constexpr int kVariables = 2500;

// ---- Ours ----

template <typename Operation>
Outcome countOurs(const Settings& settings, int others, const Operation& operation) {
  const RunningService service(settings, others, RunningService::StoreOn::Memory);
  if (!service.failure().empty()) return failed(service.failure());
  Client client(service.runtimeDir());
  const Outcome outcome = repeat(settings, [&](int n) { return operation(client, n); });
  // A registration says nothing of a service that has gone.
  return client.readAtService(textVar()) == kText ? outcome : failed("the service does not answer");
}

Outcome oursRead(const Settings& settings) {
  return countOurs(settings, 1000, [](Client& client, int) {
    client.config().removeVars("");
    return client.config().getConfigVar(textVar()) == kText;
  });
}

Outcome oursValidate(const Settings& settings) {
  return countOurs(settings, 1000, [](Client& client, int) {
    ConfigResult result;
    return client.config().isValid(textVar(), {kText}, &result);
  });
}

Outcome oursWrite(const Settings& settings) {
  return countOurs(settings, 1000, [](Client& client, int) {
    ConfigResult result;
    return client.config().setConfigVar(textVar(), kText, &result);
  });
}

// All of them, whatever part of them is used: so making them is no part of the difference.
template <typename Make>
auto ofEachVariable(const Make& make) {
  std::vector<decltype(make(textVar()))> made;
  for (int n = 0; n < kVariables; ++n) made.push_back(make(otherVar(n)));
  return made;
}

Outcome oursRegistration(const Settings& settings) {
  if (settings.operations > kVariables) return failed("there are not so many variables");
  const auto vars = ofEachVariable([](const ConfigVar& var) { return var; });
  return countOurs(settings, kVariables, [&](Client& client, int n) {
    AppConfig::PlatformCfgService& link = *client.config().getPlatformCfgService();
    const ConfigVar& var = vars[static_cast<std::size_t>(n)];
    link.registerHandlerProactively(var, ConfigRegistrar::eValueChanged);
    return link.isTold(var, ConfigRegistrar::eValueChanged);
  });
}

// ---- Floor ----

constexpr int kReadName[] = {3, 1, 1, 0};
constexpr int kWriteName[] = {3, 1, 1, 1, 0};
constexpr int kWriteValue[] = {3, 2, 0};
constexpr int kRegistrationName[] = {3, 0};
constexpr RequestForm kReadForm{kReadName, nullptr, false};
constexpr RequestForm kWriteForm{kWriteName, kWriteValue, false};
constexpr RequestForm kRegistrationForm{kRegistrationName, nullptr, true};

// What two processes share has to have its bytes in itself.
struct FixedBytes {
  char bytes[1024];
  std::size_t size = 0;

  void operator=(const std::string& text) { size = text.copy(bytes, sizeof bytes); }
  std::string text() const { return std::string(bytes, size); }
};

struct FixedExchange {
  FixedBytes request;
  FixedBytes response;
};

// The service is gone before the floor begins, and so is the process that asked.
Exchange askForExchange(const Settings& settings, Exchange (Client::*exchangeOf)()) {
  const Shared<FixedExchange> shared;
  Child asking([&] {
    const RunningService service(settings, 0, RunningService::StoreOn::Memory);
    if (!service.failure().empty()) return 1;
    Client client(service.runtimeDir());
    const Exchange exchange = (client.*exchangeOf)();
    shared->request = exchange.request;
    shared->response = exchange.response;
    return 0;
  });
  asking.join();
  return {shared->request.text(), shared->response.text()};
}

int serveMinimally(int socket, const RequestForm& form, const std::string& answer) {
  MinimalService service(form, answer);
  service.add(textVar().dottedName(), kText);
  for (int n = 0; n < kVariables; ++n) service.add(otherVar(n).dottedName(), kText);
  return service.serve(socket);
}

Outcome countFloor(const Settings& settings, const RequestForm& form, const std::string& answer,
                   const std::function<std::string&(int)>& frameOf) {
  if (answer.empty()) return failed("the service did not answer");
  SocketPair pair;
  Child service([&] {
    pair.closeHere();
    return serveMinimally(pair.there(), form, answer);
  });
  pair.closeThere();
  MinimalClient client(pair.here(), answer);
  const Outcome outcome = repeat(settings, [&](int n) { return client.ask(frameOf(n)); });
  pair.closeHere();
  return service.join() ? outcome : failed("the floor's service broke off");
}

template <Exchange (Client::*exchangeOf)()>
Outcome floorRequest(const Settings& settings, const RequestForm& form) {
  Exchange exchange = askForExchange(settings, exchangeOf);
  return countFloor(settings, form, exchange.response,
                    [&](int) -> std::string& { return exchange.request; });
}

Outcome floorRead(const Settings& settings) {
  return floorRequest<&Client::readExchange>(settings, kReadForm);
}
Outcome floorValidate(const Settings& settings) {
  return floorRequest<&Client::validateExchange>(settings, kWriteForm);
}
Outcome floorWrite(const Settings& settings) {
  return floorRequest<&Client::writeExchange>(settings, kWriteForm);
}

Outcome floorRegistration(const Settings& settings) {
  if (settings.operations > kVariables) return failed("there are not so many variables");
  const Exchange exchange = askForExchange(settings, &Client::registerExchange);
  auto frames = ofEachVariable(registrationFrame);
  return countFloor(settings, kRegistrationForm, exchange.response,
                    [&](int n) -> std::string& { return frames[static_cast<std::size_t>(n)]; });
}

}  // namespace

std::vector<Case> countedRequestCases() {
  return {
      {"counted_uncached_read", oursRead, floorRead},
      {"counted_validate", oursValidate, floorValidate},
      {"counted_write_unchanged", oursWrite, floorWrite},
      {"counted_registration", oursRegistration, floorRegistration},
  };
}

}  // namespace Bench
