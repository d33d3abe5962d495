// Does finding whom the service has to tell slow down as registrations grow? The floor is the same
// with 100 registrations.
//
//   BM_FindSubscriber   one client has registered for the variable
//   BM_FindNobody       nobody has, nor for a group above it
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench/in_process/batch_times.h"
#include "configsrv/subscriptions/subscriptions.h"
#include "platform/schema/config_if.pb.h"

namespace {

using ConfigSrv::Registration;
using ConfigSrv::Subscriptions;

// The same number in all sizes, so that what grows is the registrations alone.
constexpr std::size_t kPicked = 100;
constexpr PbUtility::PeerId kPeer = 1;

std::string nthName(std::int64_t n) {
  return "network.port" + std::to_string(n / 20) + ".setting" + std::to_string(n % 20);
}

void registerAll(benchmark::State& state, Subscriptions& subscriptions) {
  for (std::int64_t n = 0; n < state.range(0); ++n) {
    const Registration registration{nthName(n), ConfigIF::CALLBACK_VALUE_CHANGED, "PlatCfgSvc0-1-0",
                                    "thermostat-ui"};
    if (!subscriptions.add(kPeer, {}, registration).ok()) state.SkipWithError("not registered");
  }
}

void findAll(benchmark::State& state, const std::string& suffix, std::size_t expected) {
  Subscriptions subscriptions;
  registerAll(state, subscriptions);
  std::vector<std::string> picked;
  for (std::size_t i = 0; i < kPicked; ++i)
    picked.push_back(nthName(static_cast<std::int64_t>(i) * 7919 % state.range(0)) + suffix);
  std::size_t next = 0;
  bool right = true;
  BatchTimes(state).measure([&] {
    const auto found =
        subscriptions.covering(picked[next++ % kPicked], ConfigIF::CALLBACK_VALUE_CHANGED);
    right = right && found.size() == expected;
  });
  if (!right) state.SkipWithError("found the wrong subscribers");
}

void BM_FindSubscriber(benchmark::State& state) { findAll(state, "", 1); }
void BM_FindNobody(benchmark::State& state) { findAll(state, "-unknown", 0); }

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("registrations")->Arg(100)->Arg(10000)->Arg(100000)->UseRealTime();
}

}  // namespace

BENCHMARK(BM_FindSubscriber)->Apply(sizes);
BENCHMARK(BM_FindNobody)->Apply(sizes);
