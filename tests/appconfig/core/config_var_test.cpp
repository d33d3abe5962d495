#include "appconfig/core/config_var.h"

#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

static_assert(!std::is_polymorphic_v<ConfigVar>);
static_assert(std::is_nothrow_move_constructible_v<ConfigVar>);
static_assert(std::is_nothrow_move_assignable_v<ConfigVar>);

template <typename Ordering>
bool before(const ConfigVar& a, const ConfigVar& b) {
  return Ordering()(a, b) && !Ordering()(b, a);
}

template <typename Ordering>
bool equivalent(const ConfigVar& a, const ConfigVar& b) {
  return !Ordering()(a, b) && !Ordering()(b, a);
}

using CacheOrdering = std::less<ConfigVar>;
using HandlerOrdering = CfgHandlerLookup;

struct KeyCase {
  const char* why;
  ConfigVar a;
  ConfigVar b;
  bool sameInCache;
  bool sameForHandlers;
};

const KeyCase kKeyCases[] = {
    {"case is folded away", {"Network", 3, "IPAddr", 4}, {"NETWORK", 3, "ipaddr", 4}, true, true},
    {"name instance", {"net", 0, "ip", 1}, {"net", 0, "ip", 2}, false, true},
    {"group instance", {"net", 1, "ip", 0}, {"net", 2, "ip", 0}, false, true},
    {"namespace", {0, "net", 0, "ip", 0}, {1, "net", 0, "ip", 0}, false, true},
    {"group", {"net", 0, "ip", 0}, {"nett", 0, "ip", 0}, false, false},
    {"name", {"net", 0, "ip", 0}, {"net", 0, "iq", 0}, false, false},
    {"same joined name", {"a", 0, "b.c", 0}, {"a.b", 0, "c", 0}, false, false},
    {"nothing at all", {"", 0, "", 0}, {"", 0, "", 0}, true, true},
};

TEST(ConfigVarTest, CacheTellsInstancesAndNamespacesApartAndHandlersDoNot) {
  for (const KeyCase& c : kKeyCases) {
    EXPECT_EQ(equivalent<CacheOrdering>(c.a, c.b), c.sameInCache) << c.why;
    EXPECT_EQ(equivalent<HandlerOrdering>(c.a, c.b), c.sameForHandlers) << c.why;
  }
}

TEST(ConfigVarTest, AKeyBuiltFromNetworkAndIPAddrHoldsNetworkAndIpaddr) {
  const ConfigVar var("Network", 3, "IPAddr", 4);
  EXPECT_EQ(var.nameSpace(), 0);
  EXPECT_EQ(var.group(), "network");
  EXPECT_EQ(var.groupInstance(), 3);
  EXPECT_EQ(var.name(), "ipaddr");
  EXPECT_EQ(var.nameInstance(), 4);
  EXPECT_FALSE(var.flag());
}

TEST(ConfigVarTest, AKeyWithANamespaceIsFoldedJustTheSame) {
  const ConfigVar var(7, "Network", 3, "IPAddr", 4);
  EXPECT_EQ(var.nameSpace(), 7);
  EXPECT_EQ(var.group(), "network");
  EXPECT_EQ(var.groupInstance(), 3);
  EXPECT_EQ(var.name(), "ipaddr");
  EXPECT_EQ(var.nameInstance(), 4);
  EXPECT_FALSE(var.flag());
}

TEST(ConfigVarTest, KeysThatDifferInCaseAloneAreEqualUnderBothOrderings) {
  const ConfigVar a("Network", 1, "IPAddr", 2);
  const ConfigVar b("NETWORK", 1, "ipaddr", 2);
  EXPECT_TRUE(equivalent<CacheOrdering>(a, b));
  EXPECT_TRUE(equivalent<HandlerOrdering>(a, b));
}

TEST(ConfigVarTest, TwoNameInstancesAreTwoCachedVariablesWithTheSameHandlers) {
  const ConfigVar one("net", 0, "ip", 1);
  const ConfigVar two("net", 0, "ip", 2);
  EXPECT_TRUE(before<CacheOrdering>(one, two));
  EXPECT_TRUE(equivalent<HandlerOrdering>(one, two));
}

TEST(ConfigVarTest, TwoNamespacesAreTwoCachedVariablesWithTheSameHandlers) {
  const ConfigVar one(1, "net", 0, "ip", 0);
  const ConfigVar two(2, "net", 0, "ip", 0);
  EXPECT_TRUE(before<CacheOrdering>(one, two));
  EXPECT_TRUE(equivalent<HandlerOrdering>(one, two));
}

TEST(ConfigVarTest, ANegativeInstanceOrNamespaceOrdersBeforeZero) {
  const ConfigVar zero("net", 0, "ip", 0);
  EXPECT_TRUE(before<CacheOrdering>(ConfigVar("net", -1, "ip", 0), zero));
  EXPECT_TRUE(before<CacheOrdering>(ConfigVar("net", 0, "ip", -1), zero));
  EXPECT_TRUE(before<CacheOrdering>(ConfigVar(-1, "net", 0, "ip", 0), zero));
}

TEST(ConfigVarTest, AGroupOrdersBeforeTheGroupsItBegins) {
  const ConfigVar a("a", 0, "x", 0);
  const ConfigVar ab("ab", 0, "x", 0);
  const ConfigVar b("b", 0, "x", 0);
  EXPECT_TRUE(before<CacheOrdering>(a, ab));
  EXPECT_TRUE(before<CacheOrdering>(ab, b));
  EXPECT_TRUE(before<HandlerOrdering>(a, ab));
  EXPECT_TRUE(before<HandlerOrdering>(ab, b));
}

TEST(ConfigVarTest, EmptyNamesAreValidAndOrderBeforeAllOthers) {
  const ConfigVar nothing("", 0, "", 0);
  const ConfigVar nameOnly("", 0, "a", 0);
  const ConfigVar groupOnly("a", 0, "", 0);
  const ConfigVar both("a", 0, "a", 0);
  EXPECT_TRUE(before<CacheOrdering>(nothing, nameOnly));
  EXPECT_TRUE(before<CacheOrdering>(nameOnly, groupOnly));
  EXPECT_TRUE(before<CacheOrdering>(groupOnly, both));
  EXPECT_TRUE(before<HandlerOrdering>(nothing, nameOnly));
  EXPECT_TRUE(before<HandlerOrdering>(nameOnly, groupOnly));
  EXPECT_TRUE(before<HandlerOrdering>(groupOnly, both));
}

// Each key orders before the next; the field that decides comes earlier than fields that disagree.
TEST(ConfigVarTest, TheFieldsDecideInTheOrderNamespaceGroupGroupInstanceNameNameInstance) {
  const std::vector<ConfigVar> ascending = {
      {-2, "z", 9, "z", 9},   {-1, "a", 0, "a", 0},   {0, "", 9, "z", 9},     {0, "a", -1, "z", 9},
      {0, "a", 0, "", 9},     {0, "a", 0, "a", -1},   {0, "a", 0, "a", 0},    {0, "a", 0, "aa", -9},
      {0, "a", 1, "", -9},    {0, "a.b", -9, "", 0},  {0, "aa", -9, "", 0},   {1, "", -9, "", -9},
      {1, "\x7f", 0, "a", 0}, {1, "\x80", 0, "a", 0}, {1, "\xff", 0, "a", 0},
  };
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    for (std::size_t j = 0; j < ascending.size(); ++j) {
      EXPECT_EQ(CacheOrdering()(ascending[i], ascending[j]), i < j) << i << " and " << j;
    }
  }
}

TEST(ConfigVarTest, HandlersOrderByGroupThenName) {
  const std::vector<ConfigVar> ascending = {
      {5, "", 9, "", 9},    {4, "", 8, "z", 8},   {3, "a", 7, "", 7},     {2, "a", 6, "b", 6},
      {1, "a", 5, "bb", 5}, {0, "a.b", 4, "", 4}, {-1, "\x7f", 3, "", 3}, {-2, "\x80", 2, "", 2},
  };
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    for (std::size_t j = 0; j < ascending.size(); ++j) {
      EXPECT_EQ(HandlerOrdering()(ascending[i], ascending[j]), i < j) << i << " and " << j;
    }
  }
}

// Each text orders before the next, wherever it stands.
TEST(ConfigVarTest, NamesAreComparedBehindAZeroByteToo) {
  const std::string ascending[] = {"a",
                                   std::string("a\0", 2),
                                   std::string("a\0\0", 3),
                                   std::string("a\0a", 3),
                                   std::string("a\0b", 3),
                                   "aa"};
  for (std::size_t i = 0; i + 1 < std::size(ascending); ++i) {
    const std::string& a = ascending[i];
    const std::string& b = ascending[i + 1];
    EXPECT_TRUE(before<CacheOrdering>({a, 0, "x", 0}, {b, 0, "x", 0})) << i;
    EXPECT_TRUE(before<HandlerOrdering>({a, 0, "x", 0}, {b, 0, "x", 0})) << i;
    EXPECT_TRUE(before<CacheOrdering>({"x", 0, a, 0}, {"x", 0, b, 0})) << i;
    EXPECT_TRUE(before<HandlerOrdering>({"x", 0, a, 0}, {"x", 0, b, 0})) << i;
  }
}

TEST(ConfigVarTest, AHandlerMapIsSearchedBehindAZeroByteToo) {
  const std::string named("a\0b", 3);
  const std::string other("a\0c", 3);
  const std::map<ConfigVar, int, CfgHandlerLookup> map = {{{named, 0, named, 0}, 1}};
  EXPECT_EQ(map.count(ConfigVarNames{named, named}), 1U);
  EXPECT_EQ(map.count(ConfigVarNames{named, other}), 0U);
  EXPECT_EQ(map.count(ConfigVarNames{other, named}), 0U);
}

TEST(ConfigVarTest, AHandlerMapIsSearchedByNamesAloneWithoutAKey) {
  const std::map<ConfigVar, int, CfgHandlerLookup> map = {
      {{"net", 1, "ip", 1}, 1}, {{"net", 0, "", 0}, 2}, {{"a", 0, "b", 0}, 3}};
  EXPECT_EQ(map.find(ConfigVarNames{"net", "ip"})->second, 1);
  EXPECT_EQ(map.find(ConfigVarNames{"net", ""})->second, 2);
  EXPECT_EQ(map.find(ConfigVarNames{"net", "i"}), map.end());
  EXPECT_EQ(map.lower_bound(ConfigVarNames{"b", ""})->second, 2);
}

TEST(ConfigVarTest, CopyingAKeyWhoseFlagIsTrueYieldsOneWhoseFlagIsFalse) {
  ConfigVar original(3, "net", 1, "ip", 2);
  original.setFlag(true);
  const ConfigVar copy(original);
  EXPECT_TRUE(original.flag());
  EXPECT_FALSE(copy.flag());
  EXPECT_TRUE(equivalent<CacheOrdering>(copy, original));
}

TEST(ConfigVarTest, AssigningClearsTheFlagAndTakesAllElse) {
  ConfigVar source(3, "net", 1, "ip", 2);
  source.setFlag(true);
  ConfigVar target("other", 9, "thing", 9);
  target.setFlag(true);
  target = source;
  EXPECT_FALSE(target.flag());
  EXPECT_TRUE(source.flag());
  EXPECT_TRUE(equivalent<CacheOrdering>(target, source));
}

TEST(ConfigVarTest, AssigningAKeyToItselfKeepsItsNames) {
  ConfigVar var(3, "net", 1, "ip", 2);
  ConfigVar& same = var;
  var = same;
  EXPECT_TRUE(equivalent<CacheOrdering>(var, ConfigVar(3, "net", 1, "ip", 2)));
  var = std::move(same);
  EXPECT_TRUE(equivalent<CacheOrdering>(var, ConfigVar(3, "net", 1, "ip", 2)));
}

TEST(ConfigVarTest, MovingTakesTheNamesAndClearsTheFlag) {
  ConfigVar source(3, "A.Group.Too.Long.To.Sit.In.The.String.Itself", 1, "IP", 2);
  source.setFlag(true);
  const ConfigVar moved(std::move(source));
  EXPECT_EQ(moved.dottedName(), "a.group.too.long.to.sit.in.the.string.itself.ip");
  EXPECT_EQ(moved.nameSpace(), 3);
  EXPECT_EQ(moved.groupInstance(), 1);
  EXPECT_EQ(moved.nameInstance(), 2);
  EXPECT_FALSE(moved.flag());
}

TEST(ConfigVarTest, AMovedFromKeyIsStillAKey) {
  ConfigVar source("net", 0, "ip", 0);
  ConfigVar target("other", 0, "thing", 0);
  target = std::move(source);
  EXPECT_EQ(target.dottedName(), "net.ip");
  EXPECT_TRUE(equivalent<CacheOrdering>(source, source));  // NOLINT(bugprone-use-after-move)
  source = ConfigVar("Back", 0, "Again", 0);
  EXPECT_EQ(source.dottedName(), "back.again");
}

TEST(ConfigVarTest, OnlyTheLettersAToZAreFolded) {
  std::string all;
  std::string expected;
  for (int byte = 0; byte < 256; ++byte) {
    all.push_back(static_cast<char>(byte));
    expected.push_back(static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte));
  }
  const ConfigVar var(all, 0, all, 0);
  EXPECT_EQ(var.group(), expected);
  EXPECT_EQ(var.name(), expected);
}

TEST(ConfigVarTest, TheDottedNameJoinsGroupAndNameUnlessTheNameIsEmpty) {
  EXPECT_EQ(ConfigVar("network", 1, "ipaddr", 2).dottedName(), "network.ipaddr");
  EXPECT_EQ(ConfigVar("", 0, "ipaddr", 0).dottedName(), ".ipaddr");
  EXPECT_EQ(ConfigVar("network", 0, "", 0).dottedName(), "network");
  EXPECT_EQ(ConfigVar("", 0, "", 0).dottedName(), "");
  EXPECT_EQ(ConfigVar(5, "Network.Eth", 1, "IPAddr", 2).dottedName(), "network.eth.ipaddr");
}

}  // namespace
