#include "appconfig/cache/config_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <string>
#include <type_traits>

namespace AppConfig {
namespace {

using ::testing::ElementsAre;

static_assert(!std::is_polymorphic_v<ConfigCache>);
static_assert(!std::is_copy_constructible_v<ConfigCache>);
static_assert(!std::is_copy_assignable_v<ConfigCache>);

const ConfigVar kMtu("net", 0, "mtu", 0);

ConfigAccessLevels readHalf(SecurityRole role) { return {role, eRolePublic, true, false}; }
ConfigAccessLevels writeHalf(SecurityRole role) { return {eRolePublic, role, false, true}; }

void fillGroups(ConfigCache& cache, const std::list<std::string>& groups) {
  for (const std::string& group : groups) cache.update(ConfigVar(group, 0, "v", 0), {"1"});
}

bool holds(ConfigCache& cache, const ConfigVar& var) {
  return cache.getConfigValue(var) != cache.end();
}

TEST(ConfigCacheTest, LookingUpInAnEmptyCacheFindsNothingAndCreatesNothing) {
  ConfigCache cache;
  EXPECT_EQ(cache.getConfigValue(kMtu), cache.end());
  EXPECT_EQ(cache.removeVars(""), 0u);
}

TEST(ConfigCacheTest, StoringTheDefaultFlagAloneCreatesAnEntryWithoutAValue) {
  ConfigCache cache;
  const ConfigValue after = cache.updateIsDefault(kMtu, true);
  EXPECT_TRUE(after.isDefault());
  EXPECT_FALSE(after.hasValue());
  const ConfigCache::Position entry = cache.getConfigValue(kMtu);
  ASSERT_NE(entry, cache.end());
  EXPECT_TRUE(entry->second.isDefault());
  EXPECT_FALSE(entry->second.hasValue());
}

TEST(ConfigCacheTest, KeysThatDifferOnlyInNameInstanceAreTwoEntries) {
  ConfigCache cache;
  cache.update(ConfigVar("net", 0, "ip", 1), {"one"});
  cache.update(ConfigVar("net", 0, "ip", 2), {"two"});
  EXPECT_EQ(cache.getConfigValue(ConfigVar("net", 0, "ip", 1))->second.getSinglestringValue(),
            "one");
  EXPECT_EQ(cache.getConfigValue(ConfigVar("net", 0, "ip", 2))->second.getSinglestringValue(),
            "two");
  EXPECT_FALSE(holds(cache, ConfigVar("net", 0, "ip", 0)));
}

TEST(ConfigCacheTest, KeysThatDifferOnlyInNamespaceAreTwoEntries) {
  ConfigCache cache;
  cache.update(ConfigVar(0, "net", 0, "ip", 0), {"none"});
  EXPECT_FALSE(holds(cache, ConfigVar(1, "net", 0, "ip", 0)));
  cache.update(ConfigVar(1, "net", 0, "ip", 0), {"one"});
  EXPECT_EQ(cache.removeVars(""), 2u);
}

TEST(ConfigCacheTest, NamesAreFoundInAnyCase) {
  ConfigCache cache;
  cache.update(ConfigVar("Net", 0, "MTU", 0), {"1500"});
  EXPECT_TRUE(holds(cache, ConfigVar("nET", 0, "mtu", 0)));
}

TEST(ConfigCacheTest, NewOptionsKeepTheDefaultIndex) {
  ConfigCache cache;
  cache.updateOptions(kMtu, {"a", "b"});
  cache.updateOptionDefaultIndex(kMtu, 1);
  const ConfigValue after = cache.updateOptions(kMtu, {"c"});
  EXPECT_EQ(after.defaultIndex(), 1u);
  EXPECT_THAT(after.getOptions(), ElementsAre("c"));
  EXPECT_EQ(cache.getConfigValue(kMtu)->second.defaultIndex(), 1u);
}

TEST(ConfigCacheTest, UpdatingTheDefaultIndexReturnsTheRecordAfterTheChange) {
  ConfigCache cache;
  EXPECT_EQ(cache.updateOptionDefaultIndex(kMtu, 3).defaultIndex(), 3u);
  cache.update(kMtu, {"1500"});
  const ConfigValue after = cache.updateOptionDefaultIndex(kMtu, 5);
  EXPECT_EQ(after.defaultIndex(), 5u);
  EXPECT_THAT(after.getValue(), ElementsAre("1500"));
  EXPECT_EQ(cache.getConfigValue(kMtu)->second.defaultIndex(), 5u);
}

TEST(ConfigCacheTest, AccessLevelsAreKnownOnceBothHalvesWereStored) {
  ConfigCache cache;
  EXPECT_FALSE(cache.updateAccessLevels(kMtu, readHalf(eRoleService)).hasAccessLevels());
  EXPECT_FALSE(cache.getConfigValue(kMtu)->second.hasAccessLevels());
  const ConfigValue after = cache.updateAccessLevels(kMtu, writeHalf(eRoleFactory));
  EXPECT_TRUE(after.hasAccessLevels());
  EXPECT_EQ(after.readRole(), eRoleService);
  EXPECT_EQ(after.writeRole(), eRoleFactory);
}

TEST(ConfigCacheTest, EachUpdateLeavesTheOtherPartsAsTheyWere) {
  ConfigCache cache;
  cache.update(kMtu, {"1500"});
  cache.updateIsDefault(kMtu, true);
  cache.updateOptions(kMtu, {"1500", "9000"});
  cache.updateOptionDefaultIndex(kMtu, 1);
  cache.updateAccessLevels(kMtu, {eRoleUser, eRoleService, true, true});
  const ConfigValue after = cache.update(kMtu, {"9000"});
  EXPECT_THAT(after.getValue(), ElementsAre("9000"));
  EXPECT_TRUE(after.isDefault());
  EXPECT_THAT(after.getOptions(), ElementsAre("1500", "9000"));
  EXPECT_EQ(after.defaultIndex(), 1u);
  EXPECT_EQ(after.readRole(), eRoleUser);
  EXPECT_EQ(after.writeRole(), eRoleService);
  EXPECT_TRUE(after.hasAccessLevels());
}

TEST(ConfigCacheTest, AnUpdateReturnsACopyThatLaterUpdatesDoNotChange) {
  ConfigCache cache;
  const ConfigValue before = cache.update(kMtu, {"1500"});
  cache.update(kMtu, {"9000"});
  EXPECT_EQ(before.getSinglestringValue(), "1500");
}

TEST(ConfigCacheTest, StoringMakesOrChangesOnePartAsUpdatingDoes) {
  ConfigCache cache;
  cache.storeIsDefault(kMtu, true);
  ConfigValue record;
  ASSERT_TRUE(cache.copyRecord(kMtu, record));
  EXPECT_FALSE(record.hasValue());
  EXPECT_TRUE(record.isDefault());
  cache.store(ConfigVar("NET", 0, "Mtu", 0), {"1500", "x"});
  ASSERT_TRUE(cache.copyRecord(kMtu, record));
  EXPECT_EQ(record.getValue(), (std::list<std::string>{"1500", "x"}));
  EXPECT_TRUE(record.isDefault());
  cache.storeIsDefault(kMtu, false);
  cache.store(kMtu, {});
  ASSERT_TRUE(cache.copyRecord(kMtu, record));
  EXPECT_FALSE(record.hasValue());
  EXPECT_FALSE(record.isDefault());
}

TEST(ConfigCacheTest, StoringAnEmptyValueKeepsTheEntryAndForgetsTheValue) {
  ConfigCache cache;
  cache.update(kMtu, {"1500"});
  EXPECT_FALSE(cache.update(kMtu, {}).hasValue());
  EXPECT_TRUE(holds(cache, kMtu));
}

TEST(ConfigCacheTest, RemovingByAnEmptyTextRemovesEveryEntryAndReturnsTheFormerCount) {
  ConfigCache cache;
  fillGroups(cache, {"", "a", "b", "c.d"});
  EXPECT_EQ(cache.removeVars(""), 4u);
  EXPECT_EQ(cache.removeVars(""), 0u);
}

TEST(ConfigCacheTest, RemovingByXTakesTheGroupsXAndAxAndLeavesY) {
  ConfigCache cache;
  fillGroups(cache, {"x", "ax", "y"});
  EXPECT_EQ(cache.removeVars("x"), 2u);
  EXPECT_FALSE(holds(cache, ConfigVar("x", 0, "v", 0)));
  EXPECT_FALSE(holds(cache, ConfigVar("ax", 0, "v", 0)));
  EXPECT_TRUE(holds(cache, ConfigVar("y", 0, "v", 0)));
}

TEST(ConfigCacheTest, RemovingByAnUpperCaseTextRemovesNone) {
  ConfigCache cache;
  fillGroups(cache, {"x", "ax", "y", "X.upper"});
  EXPECT_EQ(cache.removeVars("X"), 0u);
}

TEST(ConfigCacheTest, RemovingMatchesAnywhereInTheGroup) {
  ConfigCache cache;
  fillGroups(cache, {"network", "subnet", "a.net.b", "ne.t"});
  EXPECT_EQ(cache.removeVars("net"), 3u);
  EXPECT_TRUE(holds(cache, ConfigVar("ne.t", 0, "v", 0)));
}

TEST(ConfigCacheTest, RemovingTakesEveryInstanceAndNamespaceAndIgnoresTheName) {
  ConfigCache cache;
  cache.update(ConfigVar(0, "net", 0, "a", 0), {"1"});
  cache.update(ConfigVar(3, "net", 1, "b", 2), {"1"});
  cache.update(ConfigVar(0, "other", 0, "net", 0), {"1"});
  EXPECT_EQ(cache.removeVars("net"), 2u);
  EXPECT_TRUE(holds(cache, ConfigVar("other", 0, "net", 0)));
}

TEST(ConfigCacheTest, RemovingComparesAllBytesOfTheTextAndOfTheGroupThoseBehindAZeroByteToo) {
  const std::string zeroB("\0b", 2);
  ConfigCache cache;
  fillGroups(cache, {"a", "b", "a" + zeroB, "a" + zeroB + "c"});
  EXPECT_EQ(cache.removeVars("a" + zeroB + "d"), 0u);
  EXPECT_EQ(cache.removeVars(zeroB + "c"), 1u);
  EXPECT_TRUE(holds(cache, ConfigVar("a" + zeroB, 0, "v", 0)));
  EXPECT_EQ(cache.removeVars("b"), 2u);
  EXPECT_TRUE(holds(cache, ConfigVar("a", 0, "v", 0)));
  EXPECT_EQ(cache.removeVars(std::string(1, '\0')), 0u);
}

TEST(ConfigCacheTest, GroupsAndNamesThatDifferBehindAZeroByteAreEntriesOfTheirOwn) {
  const std::string one("a\0one", 5);
  const std::string two("a\0two", 5);
  ConfigCache cache;
  cache.update(ConfigVar(one, 0, "v", 0), {"1"});
  EXPECT_FALSE(holds(cache, ConfigVar(two, 0, "v", 0)));
  EXPECT_FALSE(holds(cache, ConfigVar("a", 0, "v", 0)));
  cache.update(ConfigVar("v", 0, one, 0), {"2"});
  EXPECT_FALSE(holds(cache, ConfigVar("v", 0, two, 0)));
  EXPECT_FALSE(holds(cache, ConfigVar("v", 0, "a", 0)));
}

TEST(ConfigCacheTest, ResettingAnEmptyCacheDoesNothing) {
  ConfigCache cache;
  cache.reset();
  EXPECT_FALSE(holds(cache, kMtu));
}

TEST(ConfigCacheTest, ResettingForgetsEverythingAndTheCacheCanBeFilledAgain) {
  ConfigCache cache;
  fillGroups(cache, {"a", "b"});
  cache.reset();
  EXPECT_EQ(cache.removeVars(""), 0u);
  cache.update(kMtu, {"1500"});
  EXPECT_TRUE(holds(cache, kMtu));
}

TEST(ConfigCacheTest, AValueIsCopiedOut) {
  ConfigCache cache;
  cache.update(kMtu, {"1500", "9000"});
  std::list<std::string> value = {"old"};
  std::string first = "old";
  EXPECT_TRUE(cache.copyValue(kMtu, value));
  EXPECT_TRUE(cache.copyFirstString(kMtu, first));
  EXPECT_THAT(value, ElementsAre("1500", "9000"));
  EXPECT_EQ(first, "1500");
}

TEST(ConfigCacheTest, WithoutAnEntryTheCopyingReadsAreFalseAndTouchNothing) {
  ConfigCache cache;
  std::list<std::string> value = {"old"};
  std::string first = "old";
  ConfigValue record;
  record.defaultIndex(7);
  EXPECT_FALSE(cache.copyValue(kMtu, value));
  EXPECT_FALSE(cache.copyFirstString(kMtu, first));
  EXPECT_FALSE(cache.copyRecord(kMtu, record));
  EXPECT_THAT(value, ElementsAre("old"));
  EXPECT_EQ(first, "old");
  EXPECT_EQ(record.defaultIndex(), 7u);
  EXPECT_FALSE(holds(cache, kMtu));
}

TEST(ConfigCacheTest, WithoutAValueOnlyTheRecordIsCopiedOut) {
  ConfigCache cache;
  cache.updateOptionDefaultIndex(kMtu, 3);
  std::list<std::string> value = {"old"};
  std::string first = "old";
  ConfigValue record;
  EXPECT_FALSE(cache.copyValue(kMtu, value));
  EXPECT_FALSE(cache.copyFirstString(kMtu, first));
  EXPECT_TRUE(cache.copyRecord(kMtu, record));
  EXPECT_THAT(value, ElementsAre("old"));
  EXPECT_EQ(first, "old");
  EXPECT_EQ(record.defaultIndex(), 3u);
}

TEST(ConfigCacheTest, AnEmptyStringIsCopiedOutAsAValue) {
  ConfigCache cache;
  cache.update(kMtu, {""});
  std::list<std::string> value;
  std::string first = "old";
  EXPECT_TRUE(cache.copyValue(kMtu, value));
  EXPECT_TRUE(cache.copyFirstString(kMtu, first));
  EXPECT_THAT(value, ElementsAre(""));
  EXPECT_EQ(first, "");
}

TEST(ConfigCacheTest, TheEndStaysTheSame) {
  ConfigCache cache;
  const ConfigCache::Position end = cache.end();
  cache.update(kMtu, {"1500"});
  EXPECT_EQ(cache.end(), end);
  cache.reset();
  EXPECT_EQ(cache.getConfigValue(kMtu), end);
}

}  // namespace
}  // namespace AppConfig
