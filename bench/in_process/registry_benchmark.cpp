// Does looking up the handlers of a variable, or registering one more, slow down as registrations
// grow? The floor of each is the same with 100 registrations.
//
//   BM_FindConsumers   the variable itself is registered, and nothing above it
//   BM_FindNobody      neither the variable nor a group above it is
//   BM_FindGroup       the group alone is
//   BM_FindProviders   as BM_FindConsumers, for providers
//   BM_Register        registers a handler for one more variable, and takes that back
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "appconfig/registry/config_registrar.h"
#include "bench/in_process/batch_times.h"

namespace {

// The same number in all sizes, so that what grows is the registrations alone.
constexpr std::size_t kPicked = 100;

// Handlers are handed around by address and never called.
ConsumerConfigHandler* anyConsumer() {
  static char place;
  return reinterpret_cast<ConsumerConfigHandler*>(&place);
}
ProviderConfigHandler* anyProvider() {
  static char place;
  return reinterpret_cast<ProviderConfigHandler*>(&place);
}

std::string nthGroup(std::int64_t n) { return "network.port" + std::to_string(n / 20); }
std::string nthName(std::int64_t n) { return "setting" + std::to_string(n % 20); }
ConfigVar nthVar(std::int64_t n) { return ConfigVar(nthGroup(n), 0, nthName(n), 0); }

struct Names {
  std::string group;
  std::string name;
};

std::vector<Names> pickedOf(std::int64_t registrations, const std::string& suffix) {
  std::vector<Names> picked;
  for (std::size_t i = 0; i < kPicked; ++i) {
    const std::int64_t n = static_cast<std::int64_t>(i) * 7919 % registrations;
    picked.push_back({nthGroup(n), nthName(n) + suffix});
  }
  return picked;
}

void registerConsumers(ConfigRegistrar& registrar, std::int64_t count) {
  for (std::int64_t n = 0; n < count; ++n)
    registrar.registerHandler(nthVar(n), anyConsumer(), ConfigRegistrar::eValueChanged);
}

template <typename Find>
void findAll(benchmark::State& state, const std::vector<Names>& picked, std::size_t expected,
             const Find& find) {
  std::size_t next = 0;
  bool right = true;
  BatchTimes(state).measure([&] {
    const auto found = find(picked[next++ % kPicked]);
    right = right && found.size() == expected;
  });
  if (!right) state.SkipWithError("found the wrong handlers");
}

void findConsumers(benchmark::State& state, ConfigRegistrar& registrar, const std::string& suffix,
                   std::size_t expected) {
  findAll(state, pickedOf(state.range(0), suffix), expected, [&registrar](const Names& names) {
    return registrar.getHandlers(names.group, names.name, ConfigRegistrar::eValueChanged);
  });
}

void BM_FindConsumers(benchmark::State& state) {
  ConfigRegistrar registrar;
  registerConsumers(registrar, state.range(0));
  findConsumers(state, registrar, "", 1);
}

void BM_FindNobody(benchmark::State& state) {
  ConfigRegistrar registrar;
  registerConsumers(registrar, state.range(0));
  findConsumers(state, registrar, "-unknown", 0);
}

void BM_FindGroup(benchmark::State& state) {
  ConfigRegistrar registrar;
  for (std::int64_t n = 0; n < state.range(0); ++n)
    registrar.registerHandler(ConfigVar("network.port" + std::to_string(n), 0, "", 0),
                              anyConsumer(), ConfigRegistrar::eValueChanged);
  findConsumers(state, registrar, "", 1);
}

void BM_FindProviders(benchmark::State& state) {
  ConfigRegistrar registrar;
  for (std::int64_t n = 0; n < state.range(0); ++n)
    registrar.registerHandler(nthVar(n), anyProvider());
  findAll(state, pickedOf(state.range(0), ""), 1, [&registrar](const Names& names) {
    return registrar.getProviderHandlers(names.group, names.name);
  });
}

// Of variables that are registered already: taking a handler back leaves its entry, so that new
// names would make the registry larger with each round.
void BM_Register(benchmark::State& state) {
  ConfigRegistrar registrar;
  registerConsumers(registrar, state.range(0));
  std::vector<ConfigVar> picked;
  for (const Names& names : pickedOf(state.range(0), ""))
    picked.emplace_back(names.group, 0, names.name, 0);
  std::size_t next = 0;
  BatchTimes(state).measure([&] {
    const ConfigVar& var = picked[next++ % kPicked];
    registrar.registerHandler(var, nullptr, ConfigRegistrar::eValueChanged);
    registrar.unregisterHandler(var, nullptr, ConfigRegistrar::eValueChanged);
  });
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("registrations")->Arg(100)->Arg(10000)->Arg(100000)->UseRealTime();
}

}  // namespace

BENCHMARK(BM_FindConsumers)->Apply(sizes);
BENCHMARK(BM_FindNobody)->Apply(sizes);
BENCHMARK(BM_FindGroup)->Apply(sizes);
BENCHMARK(BM_FindProviders)->Apply(sizes);
BENCHMARK(BM_Register)->Apply(sizes);
