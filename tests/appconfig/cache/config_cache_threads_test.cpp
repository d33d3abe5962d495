// Many threads on one cache. What they assert holds only when every operation is one step; what
// they touch is what the thread sanitizer watches.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "appconfig/cache/config_cache.h"
#include "tests/support/threads.h"

namespace AppConfig {
namespace {

using TestSupport::Threads;

constexpr int kRounds = 2000;
const ConfigVar kShared("net", 0, "shared", 0);

bool allEqual(const std::list<std::string>& value) {
  return std::all_of(value.begin(), value.end(),
                     [&value](const std::string& text) { return text == value.front(); });
}

// Long enough to live outside the string object, so that a torn copy would show.
std::string text(int writer, int round) {
  return "a value that does not fit into the string itself " + std::to_string(writer) + "/" +
         std::to_string(round);
}

TEST(ConfigCacheThreadsTest, AReaderNeverSeesHalfAValue) {
  ConfigCache cache;
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  Threads readers;
  for (int reader = 0; reader < 2; ++reader) {
    readers.run([&] {
      std::list<std::string> value;
      std::string first;
      ConfigValue record;
      while (!done) {
        if (cache.copyValue(kShared, value) && (value.size() != 3 || !allEqual(value))) ++torn;
        if (cache.copyFirstString(kShared, first) && first.rfind("a value", 0) != 0) ++torn;
        if (cache.copyRecord(kShared, record) && !allEqual(record.getValue())) ++torn;
      }
    });
  }
  Threads writers;
  for (int writer = 0; writer < 2; ++writer) {
    writers.run([&cache, &torn, writer] {
      for (int round = 0; round < kRounds; ++round) {
        const std::list<std::string> value(3, text(writer, round));
        if (cache.update(kShared, value).getValue() != value) ++torn;
      }
    });
  }
  writers.join();
  done = true;
  readers.join();
  EXPECT_EQ(torn, 0);
  std::string last;
  ASSERT_TRUE(cache.copyFirstString(kShared, last));
  EXPECT_TRUE(last == text(0, kRounds - 1) || last == text(1, kRounds - 1)) << last;
}

TEST(ConfigCacheThreadsTest, UpdatesOfDifferentPartsOfOneRecordAreAllKept) {
  ConfigCache cache;
  Threads threads;
  const auto repeat = [&threads](auto update) {
    threads.run([update] {
      for (int round = 0; round < kRounds; ++round) update(round);
    });
  };
  repeat([&](int round) { cache.update(kShared, {std::to_string(round)}); });
  repeat([&](int round) { cache.updateIsDefault(kShared, round % 2 == 1); });
  repeat([&](int round) { cache.updateOptions(kShared, {"a", std::to_string(round)}); });
  repeat([&](int round) {
    cache.updateOptionDefaultIndex(kShared, static_cast<unsigned int>(round));
  });
  repeat([&](int) { cache.updateAccessLevels(kShared, {eRoleUser, eRolePublic, true, false}); });
  repeat([&](int) { cache.updateAccessLevels(kShared, {eRolePublic, eRoleService, false, true}); });
  threads.join();

  const std::string last = std::to_string(kRounds - 1);
  ConfigValue record;
  ASSERT_TRUE(cache.copyRecord(kShared, record));
  EXPECT_EQ(record.getSinglestringValue(), last);
  EXPECT_TRUE(record.isDefault());
  EXPECT_EQ(record.getOptions(), (std::vector<std::string>{"a", last}));
  EXPECT_EQ(record.defaultIndex(), static_cast<unsigned int>(kRounds - 1));
  EXPECT_TRUE(record.hasAccessLevels());
  EXPECT_EQ(record.readRole(), eRoleUser);
  EXPECT_EQ(record.writeRole(), eRoleService);
}

TEST(ConfigCacheThreadsTest, EntriesComeAndGoWithoutDisturbingOthers) {
  constexpr int kWriters = 3;
  ConfigCache cache;
  std::atomic<unsigned int> removed{0};
  std::atomic<bool> done{false};
  Threads remover;
  remover.run([&] {
    while (!done) {
      removed += cache.removeVars("passing");
      cache.getConfigValue(kShared);
    }
  });
  Threads writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    writers.run([&cache, writer] {
      for (int round = 0; round < kRounds; ++round) {
        cache.update(ConfigVar("passing", writer, "v", round), {"1"});
        cache.update(ConfigVar("staying", writer, "v", 0), {std::to_string(round)});
      }
    });
  }
  writers.join();
  done = true;
  remover.join();
  removed += cache.removeVars("passing");
  EXPECT_EQ(removed, static_cast<unsigned int>(kWriters * kRounds));
  for (int writer = 0; writer < kWriters; ++writer) {
    std::string value;
    ASSERT_TRUE(cache.copyFirstString(ConfigVar("staying", writer, "v", 0), value));
    EXPECT_EQ(value, std::to_string(kRounds - 1));
  }
  EXPECT_EQ(cache.removeVars(""), static_cast<unsigned int>(kWriters));
}

// Whichever operation it is that brings an entry: two threads that bring theirs at once lose none.
TEST(ConfigCacheThreadsTest, EachWayToBringAnEntryTakesItsTurn) {
  constexpr int kEntries = 30'000;
  using Bring = void (*)(ConfigCache&, const ConfigVar&);
  const Bring ways[] = {
      [](ConfigCache& cache, const ConfigVar& var) { cache.store(var, {"1"}); },
      [](ConfigCache& cache, const ConfigVar& var) { cache.storeIsDefault(var, true); },
      [](ConfigCache& cache, const ConfigVar& var) { cache.update(var, {"1"}); },
      [](ConfigCache& cache, const ConfigVar& var) { cache.updateIsDefault(var, true); },
      [](ConfigCache& cache, const ConfigVar& var) { cache.updateOptions(var, {"1"}); },
      [](ConfigCache& cache, const ConfigVar& var) { cache.updateOptionDefaultIndex(var, 1); },
      [](ConfigCache& cache, const ConfigVar& var) {
        cache.updateAccessLevels(var, {eRoleUser, eRolePublic, true, false});
      },
  };
  for (const Bring way : ways) {
    ConfigCache cache;
    std::atomic<int> ready{0};
    Threads threads;
    for (int writer = 0; writer < 2; ++writer) {
      threads.run([&, writer] {
        ++ready;
        while (ready < 2) std::this_thread::yield();
        for (int i = 0; i < kEntries; ++i) way(cache, ConfigVar("g", 0, "v", 2 * i + writer));
      });
    }
    threads.join();
    EXPECT_EQ(cache.removeVars(""), 2U * kEntries);
  }
}

}  // namespace
}  // namespace AppConfig
