// How much memory does the configuration take?
//
//   service_memory_10000         resident memory of configsrvd with 10,000 variables, in MiB;
//                                floor: with the few of the other cases
//   service_memory_per_variable  the difference of the two for one variable, in bytes
//   client_memory_idle           resident memory of a client that has read one variable, in MiB;
//                                floor: the same process before it made its endpoint
//   client_memory_per_variable   what 10,000 variables add, read and registered for, each, in bytes
#include "bench/processes/cases.h"
#include "bench/processes/client.h"
#include "bench/processes/definitions.h"
#include "bench/processes/measuring.h"
#include "bench/processes/running_service.h"

namespace Bench {
namespace {

constexpr int kMany = 10000;
constexpr double kMebibyte = 1024 * 1024;

Outcome onlyValue(double value) {
  Outcome outcome;
  outcome.p50 = value;
  outcome.samples = 1;
  return outcome;
}

template <int others>
Outcome serviceMemory(const Settings& settings) {
  const RunningService service(settings, others);
  if (!service.failure().empty()) return failed(service.failure());
  Client client(service.runtimeDir());
  if (client.readAtService(textVar()) != kText) return failed("the variable cannot be read");
  return onlyValue(residentBytes(service.pid()) / kMebibyte);
}

Outcome serviceMemoryPerVariable(const Settings& settings) {
  const Outcome many = serviceMemory<kMany>(settings);
  const Outcome few = serviceMemory<0>(settings);
  if (!many.failure.empty()) return many;
  return onlyValue((many.p50 - few.p50) * kMebibyte / kMany);
}

Outcome oursIdleClient(const Settings& settings) {
  const RunningService service(settings);
  if (!service.failure().empty()) return failed(service.failure());
  Client client(service.runtimeDir());
  if (client.config().getConfigVar(textVar()) != kText)
    return failed("the variable cannot be read");
  return onlyValue(residentBytes(getpid()) / kMebibyte);
}

Outcome floorIdleClient(const Settings& settings) {
  const RunningService service(settings);
  return onlyValue(residentBytes(getpid()) / kMebibyte);
}

Outcome clientMemoryPerVariable(const Settings& settings) {
  const RunningService service(settings, kMany);
  if (!service.failure().empty()) return failed(service.failure());
  Client client(service.runtimeDir());
  client.config().getConfigVar(textVar());
  const double before = residentBytes(getpid());
  for (int n = 0; n < kMany; ++n) {
    if (client.config().getConfigVar(otherVar(n)).empty())
      return failed("a variable cannot be read");
  }
  return onlyValue((residentBytes(getpid()) - before) / kMany);
}

}  // namespace

std::vector<Case> memoryCases() {
  return {
      {"service_memory_10000", serviceMemory<kMany>, serviceMemory<0>},
      {"service_memory_per_variable", serviceMemoryPerVariable, nullptr},
      {"client_memory_idle", oursIdleClient, floorIdleClient},
      {"client_memory_per_variable", clientMemoryPerVariable, nullptr},
  };
}

}  // namespace Bench
