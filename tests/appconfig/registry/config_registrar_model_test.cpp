// The lookup against a model that is slow and obviously right: a walk over every entry of the map.
// Names are made of few letters, so that they collide, and of everything that could confuse a
// search by prefixes: dots in all places, upper case, empty names, zero bytes, bytes above 127.
#include <gtest/gtest.h>
#include <strings.h>

#include <array>
#include <cstdint>
#include <list>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "appconfig/registry/config_registrar.h"
#include "tests/appconfig/registry/recording_handlers.h"

namespace {

constexpr std::uint32_t kSeed = 20240607;
constexpr int kMaps = 1000;
constexpr int kLookupsPerMap = 100;
constexpr int kOperations = 20000;

template <typename T>
using HandlerMap = ConfigRegistrar::HandlerMap<T>;

std::string fullName(const ConfigVar& var) {
  return var.name().empty() ? var.group() : var.group() + "." + var.name();
}

bool groupCovers(const std::string& entry, const std::string& group) {
  if (entry.size() > group.size()) return false;
  if (strncasecmp(group.c_str(), entry.c_str(), entry.size()) != 0) return false;
  return entry.size() == group.size() || group[entry.size()] == '.';
}

template <typename T>
std::list<T*> modelLookup(const ConfigVar& var, const HandlerMap<T>& handlers, bool markers) {
  std::list<T*> exact;
  std::list<T*> groups;
  for (const auto& [key, list] : handlers) {
    const bool isExact = fullName(key) == fullName(var);
    if (!isExact && !(key.name().empty() && groupCovers(key.group(), var.group()))) continue;
    for (T* handler : list) {
      if (handler != nullptr || markers) (isExact ? exact : groups).push_back(handler);
    }
  }
  exact.splice(exact.end(), groups);
  return exact;
}

// Not the standard distributions: theirs differ from one library to the next.
class Random {
 public:
  explicit Random(std::uint32_t seed) : engine_(seed) {}
  std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(engine_()) % bound; }
  bool oneIn(std::uint32_t count) { return below(count) == 0; }

  std::string name(std::uint32_t longest) {
    static const std::string kLetters("aab.ab.AB.\xc4\xe4\0", 13);
    const auto used = static_cast<std::uint32_t>(oneIn(8) ? kLetters.size() : 10);
    std::string text;
    for (std::uint32_t left = below(longest + 1); left > 0; --left)
      text.push_back(kLetters[below(used)]);
    return text;
  }

  ConfigVar var() {
    return ConfigVar(static_cast<std::int32_t>(below(2)), name(6), static_cast<int>(below(2)),
                     oneIn(3) ? "" : name(4), static_cast<int>(below(2)));
  }

 private:
  std::mt19937 engine_;
};

std::string printable(const ConfigVar& var) {
  return ::testing::PrintToString(var.group()) + " + " + ::testing::PrintToString(var.name());
}

template <typename T>
std::string printable(const HandlerMap<T>& handlers) {
  std::string text;
  for (const auto& entry : handlers) text += "\n  " + printable(entry.first);
  return text;
}

template <typename T, typename Handler>
HandlerMap<T> randomMap(Random& random, std::array<Handler, 4>& handlers) {
  HandlerMap<T> map;
  for (std::uint32_t entries = random.below(30); entries > 0; --entries) {
    std::list<T*>& list = map[random.var()];
    for (std::uint32_t length = random.below(4); length > 0; --length)
      list.push_back(random.oneIn(4) ? nullptr : &handlers[random.below(4)]);
  }
  return map;
}

// Half of the lookups are for entries that exist, split or extended some other way.
template <typename T>
ConfigVar randomLookup(Random& random, const HandlerMap<T>& map) {
  if (map.empty() || random.oneIn(2)) return random.var();
  auto entry = map.begin();
  std::advance(entry, random.below(static_cast<std::uint32_t>(map.size())));
  const std::string full = fullName(entry->first);
  const std::uint32_t at = random.below(static_cast<std::uint32_t>(full.size()) + 1);
  if (at < full.size() && full[at] == '.')
    return ConfigVar(full.substr(0, at), 0, full.substr(at + 1), 0);
  return random.oneIn(2) ? entry->first
                         : ConfigVar(entry->first.group() + "." + random.name(3), 0, "a", 0);
}

template <typename T, typename Handler>
void compareLookups() {
  Random random(kSeed);
  std::array<Handler, 4> handlers;
  ConfigRegistrar registrar;
  std::size_t found = 0;
  for (int round = 0; round < kMaps; ++round) {
    HandlerMap<T> map = randomMap<T>(random, handlers);
    for (int lookup = 0; lookup < kLookupsPerMap; ++lookup) {
      const ConfigVar var = randomLookup(random, map);
      const bool markers = random.oneIn(2);
      const std::list<T*> expected = modelLookup(var, map, markers);
      ASSERT_EQ(registrar.getHandlers<T>(var, map, markers), expected)
          << "seed " << kSeed << ", map " << round << ", lookup " << lookup << ": "
          << printable(var) << (markers ? " with" : " without") << " markers in" << printable(map);
      found += expected.size();
    }
  }
  // Names that never met would prove nothing.
  EXPECT_GT(found, static_cast<std::size_t>(kMaps) * kLookupsPerMap / 2) << "seed " << kSeed;
}

TEST(ConfigRegistrarModelTest, ConsumerLookupsEqualAWalkOverAllEntries) {
  compareLookups<ConsumerConfigHandler, TestConsumer>();
}

TEST(ConfigRegistrarModelTest, ProviderLookupsEqualAWalkOverAllEntries) {
  compareLookups<ProviderConfigHandler, TestProvider>();
}

template <typename T>
bool modelUnregister(std::list<T*>& list, T* handler) {
  const std::size_t before = list.size();
  list.remove(handler);
  return list.size() != before;
}

TEST(ConfigRegistrarModelTest, EverySequenceOfOperationsEqualsTheModel) {
  Random random(kSeed);
  std::array<TestConsumer, 3> handlers;
  ConfigRegistrar registrar;
  std::array<HandlerMap<ConsumerConfigHandler>, 5> model;
  for (int operation = 0; operation < kOperations; ++operation) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + ", operation " + std::to_string(operation));
    const std::uint32_t number = random.below(5);
    const auto type = static_cast<ConfigRegistrar::ConsumerCallbackType>(number);
    const ConfigVar var(random.name(3), 0, random.name(1), 0);
    ConsumerConfigHandler* handler = random.oneIn(4) ? nullptr : &handlers[random.below(3)];
    switch (random.below(4)) {
      case 0:
        registrar.registerHandler(var, handler, type);
        model[number][var].push_back(handler);
        break;
      case 1:
        ASSERT_EQ(registrar.unregisterHandler(var, handler, type),
                  modelUnregister(model[number][var], handler));
        break;
      case 2:
        ASSERT_EQ(registrar.isHandlerRegistered(var, type),
                  !modelLookup(var, model[number], true).empty());
        break;
      default:
        ASSERT_EQ(registrar.getHandlers(var.group(), var.name(), type),
                  modelLookup(var, model[number], false));
    }
  }
}

}  // namespace
