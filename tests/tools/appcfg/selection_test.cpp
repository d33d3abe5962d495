#include "tools/appcfg/selection.h"

#include <gtest/gtest.h>

#include "appconfig/core/key_notation.h"

namespace AppCfgTool {
namespace {

ConfigVar key(const std::string& text) {
  ConfigVar var("", 0, "", 0);
  EXPECT_TRUE(AppConfig::parseKey(text, var).ok()) << text;
  return var;
}

Selection selection(const std::string& text, Settings settings = {}) {
  Selection made(settings);
  const Outcome read = made.read(text);
  EXPECT_TRUE(read.ok()) << read.text;
  return made;
}

TEST(SelectionTest, ANameSelectsItselfAndAllBelowInEveryInstanceAndNamespace) {
  const struct {
    const char* text;
    const char* variable;
    bool selected;
  } cases[] = {
      {"network", "network.hostname", true},
      {"network", "network.eth[1].mtu", true},
      {"network", "3:network.hostname", true},
      {"network", "networks.hostname", false},
      {"Network.ETH", "network.eth[1].mtu", true},
      {"network.eth.mtu", "network.eth[1].mtu", true},
      {"network.eth.mtu", "network.eth.mtu[2]", true},
      {"network.eth.mtu", "network.eth.mtus", false},
      {"network.eth[1]", "network.eth[1].mtu", true},
      {"network.eth[1]", "network.eth[1].speed[4]", true},
      {"network.eth[1]", "network.eth[2].mtu", false},
      {"network.eth[1]", "network.eth.mtu", false},
      {"network.eth[1]", "network.eth[1]", true},
      {"network.eth[1].mtu", "network.eth[1].mtu", true},
      {"network.eth[1].mtu", "network.eth[1].mtu[2]", false},
      {"eth[1]", "eth[1].mtu", true},
      {"eth[1]", "eth[2].mtu", false},
      {"3:engine", "3:engine.speed", true},
      {"3:engine", "3:engine.oil.level", true},
      {"3:engine", "engine.speed", false},
      {"3:engine", "4:engine.speed", false},
      {"3:engine.speed", "3:engine.speed[7]", true},
      {"0:engine", "engine.speed", true},
      {"0:engine", "3:engine.speed", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(selection(c.text).selects(key(c.variable)), c.selected)
        << c.text << ' ' << c.variable;
  }
}

TEST(SelectionTest, NothingReadIsEverything) {
  const Selection all{Settings()};
  EXPECT_TRUE(all.selects(key("a.b")));
  EXPECT_TRUE(all.selects(key("3:a.b")));
  EXPECT_EQ(all.name(), "");
}

TEST(SelectionTest, TheSettingsNamespaceCountsUnlessTheTextHasOne) {
  Settings settings;
  settings.nameSpace = 3;
  EXPECT_FALSE(selection("engine", settings).selects(key("engine.speed")));
  EXPECT_TRUE(selection("engine", settings).selects(key("3:engine.speed")));
  EXPECT_TRUE(selection("4:engine", settings).selects(key("4:engine.speed")));
}

TEST(SelectionTest, TheNameIsWhatTheServiceIsAskedFor) {
  EXPECT_EQ(selection("3:engine").name(), "engine");
  EXPECT_EQ(selection("Network.ETH[1]").name(), "network.eth");
  EXPECT_EQ(selection("eth[1]").name(), "eth");
  EXPECT_EQ(selection("network.eth[1].mtu").name(), "network.eth.mtu");
}

TEST(SelectionTest, WhatIsNoNameIsRefused) {
  for (const char* text : {"", ".", "a..b", "a b", "x:a", "3:", "eth[x]", "eth[1", "a[1].b.c"}) {
    Selection made{Settings()};
    EXPECT_EQ(made.read(text).code, kExitUsage) << text;
  }
}

}  // namespace
}  // namespace AppCfgTool
