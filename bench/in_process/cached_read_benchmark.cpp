// What does a read cost that the cache answers, through the facade that applications call?
//
// The floor of each is what cannot be left out: take a pthread mutex, find a ready-made key in a
// std::map, copy what is handed out; of a number or a truth value, make it from the text. Both read
// the same 1,024 keys, picked evenly from all, so that both miss the processor's caches as often.
//
//   BM_Text               one short string; floor BM_FloorText
//   BM_Int, BM_Bool       its number or truth value; floors BM_FloorInt, BM_FloorBool
//   BM_List               eight elements; floor BM_FloorList
//   BM_TextByParts        as BM_Text, with the key built by the call from its parts
//   BM_TextWhileNotices   as BM_Text, while another thread stores 10,000 notices a second; floor
//                         BM_FloorTextWhileNotices
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <strings.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/service/platform_cfg_service.h"
#include "bench/in_process/batch_times.h"

namespace {

using AppConfig::AppCfgManager;
using AppConfig::PlatformCfgService;
using Value = std::list<std::string>;

constexpr std::size_t kPicked = 1024;  // a power of two

enum class Kind { Text, Int, Bool, List };

Value valueOf(Kind kind) {
  switch (kind) {
    case Kind::Text:
      return {"thermostat"};
    case Kind::Int:
      return {"1500"};
    case Kind::Bool:
      return {"true"};
    case Kind::List:
      break;
  }
  return {"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4",
          "192.0.2.5", "192.0.2.6", "192.0.2.7", "192.0.2.8"};
}

// Like a device's names: a few words deep, twenty variables to a group.
ConfigVar nthVar(std::int64_t n) {
  return ConfigVar("network.port" + std::to_string(n / 20), 0, "setting" + std::to_string(n % 20),
                   0);
}

std::vector<ConfigVar> pickedOf(std::int64_t variables) {
  std::vector<ConfigVar> picked;
  // A prime step visits them in no order that the map, or the processor, could profit from.
  for (std::size_t i = 0; i < kPicked; ++i)
    picked.push_back(nthVar(static_cast<std::int64_t>(i) * 7919 % variables));
  return picked;
}

// What the reads of one benchmark share: each of its threads reads it, the first one makes it.
struct Ours {
  Ours(std::int64_t variables, Kind kind) : link(0, "", ""), manager(&link) {
    for (std::int64_t n = 0; n < variables; ++n) manager.updateConfigVar(nthVar(n), valueOf(kind));
  }
  void store(const ConfigVar& var) { manager.updateConfigVar(var, valueOf(Kind::Text)); }

  PlatformCfgService link;
  AppCfgManager manager;
};

struct Floor {
  Floor(std::int64_t variables, Kind kind) {
    for (std::int64_t n = 0; n < variables; ++n) entries.emplace(nthVar(n), valueOf(kind));
  }
  std::string text(const ConfigVar& var) {
    pthread_mutex_lock(&lock);
    std::string copy = entries.find(var)->second.front();
    pthread_mutex_unlock(&lock);
    return copy;
  }
  Value list(const ConfigVar& var) {
    pthread_mutex_lock(&lock);
    Value copy = entries.find(var)->second;
    pthread_mutex_unlock(&lock);
    return copy;
  }
  void store(const ConfigVar& var) {
    pthread_mutex_lock(&lock);
    entries.find(var)->second = valueOf(Kind::Text);
    pthread_mutex_unlock(&lock);
  }

  std::map<ConfigVar, Value> entries;
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
};

template <typename Side>
std::unique_ptr<Side> shared;

template <typename Side, Kind kind>
void setUp(const benchmark::State& state) {
  shared<Side> = std::make_unique<Side>(state.range(0), kind);
}

template <typename Side>
void tearDown(const benchmark::State&) {
  shared<Side>.reset();
}

template <typename Read>
void readAll(benchmark::State& state, Read read) {
  const std::vector<ConfigVar> picked = pickedOf(state.range(0));
  // Threads start apart from each other, as they would in an application.
  std::size_t next = static_cast<std::size_t>(state.thread_index()) * 97;
  BatchTimes(state).measure([&] { benchmark::DoNotOptimize(read(picked[next++ % kPicked])); });
}

// Stores notices, as the delivery thread does, for as long as it lives.
template <typename Side>
class Notices {
 public:
  Notices(Side& side, std::int64_t variables)
      : thread_([this, &side, picked = pickedOf(variables)] { run(side, picked); }) {}
  ~Notices() {
    stop_ = true;
    thread_.join();
  }

 private:
  void run(Side& side, const std::vector<ConfigVar>& picked) {
    for (std::size_t i = 0; !stop_; ++i) {
      side.store(picked[i % kPicked]);
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  }

  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Reads while one thread, beside all that read, stores notices.
template <typename Side, typename Read>
void readWhileNotices(benchmark::State& state, const Read& read) {
  std::unique_ptr<Notices<Side>> notices;
  if (state.thread_index() == 0)
    notices = std::make_unique<Notices<Side>>(*shared<Side>, state.range(0));
  readAll(state, read);
}

std::string oursText(const ConfigVar& var) { return shared<Ours>->manager.getConfigVar(var); }
std::string floorText(const ConfigVar& var) { return shared<Floor>->text(var); }

void BM_Text(benchmark::State& state) { readAll(state, oursText); }
void BM_FloorText(benchmark::State& state) { readAll(state, floorText); }

void BM_TextByParts(benchmark::State& state) {
  readAll(state, [](const ConfigVar& var) {
    return shared<Ours>->manager.getConfigVar(var.group(), 0, var.name(), 0);
  });
}

void BM_Int(benchmark::State& state) {
  readAll(state, [](const ConfigVar& var) { return shared<Ours>->manager.getConfigVarInt(var); });
}

void BM_Bool(benchmark::State& state) {
  readAll(state, [](const ConfigVar& var) { return shared<Ours>->manager.getConfigVarBool(var); });
}

void BM_FloorInt(benchmark::State& state) {
  readAll(state,
          [](const ConfigVar& var) { return std::strtol(floorText(var).c_str(), nullptr, 0); });
}

void BM_FloorBool(benchmark::State& state) {
  readAll(state,
          [](const ConfigVar& var) { return strcasecmp(floorText(var).c_str(), "true") == 0; });
}

// The interface fills a list and returns a copy of it, so what the application gets is two lists.
void BM_List(benchmark::State& state) {
  readAll(state, [out = Value()](const ConfigVar& var) mutable {
    return shared<Ours>->manager.getConfigVar(var, out);
  });
}

void BM_FloorList(benchmark::State& state) {
  readAll(state, [](const ConfigVar& var) { return shared<Floor>->list(var); });
}

void BM_TextWhileNotices(benchmark::State& state) { readWhileNotices<Ours>(state, oursText); }
void BM_FloorTextWhileNotices(benchmark::State& state) {
  readWhileNotices<Floor>(state, floorText);
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("variables")->Arg(1000)->Arg(100000)->UseRealTime();
}
void sizesAndThreads(benchmark::internal::Benchmark* benchmark) {
  benchmark->Apply(sizes)->Threads(1)->Threads(4);
}

}  // namespace

#define APPCONFIG_READ(side, kind) Setup(setUp<side, kind>)->Teardown(tearDown<side>)
BENCHMARK(BM_Text)->APPCONFIG_READ(Ours, Kind::Text)->Apply(sizesAndThreads);
BENCHMARK(BM_FloorText)->APPCONFIG_READ(Floor, Kind::Text)->Apply(sizesAndThreads);
BENCHMARK(BM_TextByParts)->APPCONFIG_READ(Ours, Kind::Text)->Apply(sizes)->Threads(1);
BENCHMARK(BM_Int)->APPCONFIG_READ(Ours, Kind::Int)->Apply(sizes);
BENCHMARK(BM_FloorInt)->APPCONFIG_READ(Floor, Kind::Int)->Apply(sizes);
BENCHMARK(BM_Bool)->APPCONFIG_READ(Ours, Kind::Bool)->Apply(sizes);
BENCHMARK(BM_FloorBool)->APPCONFIG_READ(Floor, Kind::Bool)->Apply(sizes);
BENCHMARK(BM_List)->APPCONFIG_READ(Ours, Kind::List)->Apply(sizesAndThreads);
BENCHMARK(BM_FloorList)->APPCONFIG_READ(Floor, Kind::List)->Apply(sizesAndThreads);
BENCHMARK(BM_TextWhileNotices)->APPCONFIG_READ(Ours, Kind::Text)->Apply(sizes);
BENCHMARK(BM_FloorTextWhileNotices)->APPCONFIG_READ(Floor, Kind::Text)->Apply(sizes);
