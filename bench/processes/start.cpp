// How long until a device has its configuration?
//
//   service_start_10000  from starting configsrvd with 10,000 definitions and a store to its line
//                        "ready"; floor: the same with the few definitions of the other cases
//   first_reads_1000     a client that has just started reads 1,000 variables, each for the first
//                        time, so that each read is followed by a registration; floor: 2,000
//                        ping-pongs of a read's bytes
#include "bench/processes/cases.h"
#include "bench/processes/client.h"
#include "bench/processes/definitions.h"
#include "bench/processes/measuring.h"
#include "bench/processes/message_floor.h"
#include "bench/processes/processes.h"
#include "bench/processes/running_service.h"

namespace Bench {
namespace {

constexpr int kReads = 1000;
constexpr int kSomeTimes = 3;

template <int others>
Outcome serviceStart(const Settings& settings) {
  RunningService service(settings, others);
  std::vector<double> milliseconds;
  // The first start makes the store, which a device does once in its life, so it does not count.
  for (int i = 0; i < kSomeTimes && service.failure().empty(); ++i) {
    service.restart();
    milliseconds.push_back(service.startMicroseconds() / 1000);
  }
  if (!service.failure().empty()) return failed(service.failure());
  return summarize(std::move(milliseconds));
}

int readAll(const std::string& runtimeDir, double& milliseconds) {
  const double begin = nowMicroseconds();
  Client client(runtimeDir);
  for (int n = 0; n < kReads; ++n) {
    if (client.config().getConfigVar(otherVar(n)).empty()) return 1;
  }
  milliseconds = (nowMicroseconds() - begin) / 1000;
  return 0;
}

Outcome oursFirstReads(const Settings& settings) {
  const RunningService service(settings, kReads);
  if (!service.failure().empty()) return failed(service.failure());
  const Shared<double> milliseconds;
  std::vector<double> samples;
  for (int i = 0; i < kSomeTimes; ++i) {
    Child client([&] { return readAll(service.runtimeDir(), *milliseconds); });
    if (!client.join()) return failed("a variable cannot be read");
    samples.push_back(*milliseconds);
  }
  return summarize(std::move(samples));
}

Outcome floorFirstReads(const Settings& settings) {
  const MessageBytes bytes = askForBytes(settings, &Client::readBytes);
  if (bytes.request == 0) return failed("the service did not answer");
  SocketPair pair;
  const Child other([&] {
    pair.closeHere();
    return echo(pair.there(), bytes);
  });
  pair.closeThere();
  std::vector<double> samples;
  for (int i = 0; i < kSomeTimes; ++i) {
    const double begin = nowMicroseconds();
    for (int n = 0; n < 2 * kReads; ++n) {
      if (!sendBytes(pair.here(), bytes.request) || !receiveBytes(pair.here(), bytes.response))
        return failed("the ping-pong broke off");
    }
    samples.push_back((nowMicroseconds() - begin) / 1000);
  }
  return summarize(std::move(samples));
}

}  // namespace

std::vector<Case> startCases() {
  return {
      {"service_start_10000", serviceStart<10000>, serviceStart<0>},
      {"first_reads_1000", oursFirstReads, floorFirstReads},
  };
}

}  // namespace Bench
