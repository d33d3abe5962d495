#include "appconfig/core/key_notation.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>

namespace AppConfig {
namespace {

bool sameKey(const ConfigVar& a, const ConfigVar& b) {
  const std::less<ConfigVar> less;
  return !less(a, b) && !less(b, a);
}

ConfigVar parsed(std::string_view text) {
  ConfigVar var("untouched", 0, "untouched", 0);
  const Base::Status<> read = parseKey(text, var);
  EXPECT_TRUE(read.ok()) << text;
  EXPECT_EQ(read.text, "") << text;
  return var;
}

std::string whyNoKey(std::string_view text) {
  ConfigVar var("untouched", 7, "untouched", 7);
  Base::Status<> read = parseKey(text, var);
  EXPECT_FALSE(read.ok()) << text;
  EXPECT_TRUE(sameKey(var, ConfigVar("untouched", 7, "untouched", 7))) << text;
  return std::move(read.text);
}

struct KeyCase {
  const char* text;
  ConfigVar key;
  const char* shortest;
};

const KeyCase kKeyCases[] = {
    {"network.hostname", {"network", 0, "hostname", 0}, "network.hostname"},
    {"network.eth[1].mtu", {"network.eth", 1, "mtu", 0}, "network.eth[1].mtu"},
    {"sensors.temp[2]", {"sensors", 0, "temp", 2}, "sensors.temp[2]"},
    {"a[1].b[2]", {"a", 1, "b", 2}, "a[1].b[2]"},
    {"3:engine.speed", {3, "engine", 0, "speed", 0}, "3:engine.speed"},
    {"0:engine.speed", {"engine", 0, "speed", 0}, "engine.speed"},
    {"Network.HostName", {"network", 0, "hostname", 0}, "network.hostname"},
    {"network[0].hostname[0]", {"network", 0, "hostname", 0}, "network.hostname"},
    {"network[-1].hostname[007]", {"network", -1, "hostname", 7}, "network[-1].hostname[7]"},
    {"a[2147483647].b[-2147483648]",
     {"a", INT32_MAX, "b", INT32_MIN},
     "a[2147483647].b[-2147483648]"},
    {"a.1", {"a", 0, "1", 0}, "a.1"},
    {"a.b\"c'd", {"a", 0, "b\"c'd", 0}, "a.b\"c'd"},
    {"caf\xc3\xa9.t\xff", {"caf\xc3\xa9", 0, "t\xff", 0}, "caf\xc3\xa9.t\xff"},
};

TEST(KeyNotationTest, ReadsAKeyAndWritesTheShortestTextOfIt) {
  for (const KeyCase& c : kKeyCases) {
    EXPECT_TRUE(sameKey(parsed(c.text), c.key)) << c.text;
    EXPECT_EQ(formatKey(c.key), c.shortest);
  }
}

struct RefusedCase {
  std::string text;
  const char* reason;
};

const RefusedCase kRefused[] = {
    {"", "\"\" is no key: a key has a group and a name, as in network.hostname (at character 1)"},
    {"hostname",
     "\"hostname\" is no key: a key has a group and a name, as in network.hostname (at character "
     "1)"},
    {".", "\".\" is no key: a part of the name is empty (at character 1)"},
    {".mtu", "\".mtu\" is no key: a part of the name is empty (at character 1)"},
    {"network.", "\"network.\" is no key: a part of the name is empty (at character 9)"},
    {"network..mtu", "\"network..mtu\" is no key: a part of the name is empty (at character 9)"},
    {"[1].mtu", "\"[1].mtu\" is no key: a part of the name is empty (at character 1)"},
    {"network[1].eth.mtu",
     "\"network[1].eth.mtu\" is no key: an instance stands behind the whole group or behind the "
     "name, as in network.eth[1].mtu (at character 8)"},
    {"a.b[1]c",
     "\"a.b[1]c\" is no key: an instance stands behind the whole group or behind the name, as in "
     "network.eth[1].mtu (at character 4)"},
    {"a.b[1][2]",
     "\"a.b[1][2]\" is no key: an instance stands behind the whole group or behind the name, as in "
     "network.eth[1].mtu (at character 4)"},
    {"a.b]",
     "\"a.b]\" is no key: an instance stands behind the whole group or behind the name, as in "
     "network.eth[1].mtu (at character 4)"},
    {"a.b[1", "\"a.b[1\" is no key: \"]\" is missing (at character 4)"},
    {"a.b[]",
     "\"a.b[]\" is no key: an instance is a whole number from -2147483648 to 2147483647 (at "
     "character 5)"},
    {"a.b[2147483648]",
     "\"a.b[2147483648]\" is no key: an instance is a whole number from -2147483648 to 2147483647 "
     "(at character 5)"},
    {"a.b[+1]",
     "\"a.b[+1]\" is no key: an instance is a whole number from -2147483648 to 2147483647 (at "
     "character 5)"},
    {":a.b",
     "\":a.b\" is no key: a namespace is a whole number from 0 to 2147483647 (at character 1)"},
    {"-1:a.b",
     "\"-1:a.b\" is no key: a namespace is a whole number from 0 to 2147483647 (at character 1)"},
    {"1:2:a.b",
     "\"1:2:a.b\" is no key: control characters, blanks, colons and backslashes cannot be in a "
     "name (at character 4)"},
    {"net work.mtu",
     "\"net work.mtu\" is no key: control characters, blanks, colons and backslashes cannot be in "
     "a name (at character 4)"},
    {std::string("a.b\0c", 5),
     "\"a.b\\x00c\" is no key: control characters, blanks, colons and backslashes cannot be in a "
     "name (at character 4)"},
    {"a.b\nc",
     "\"a.b\\x0ac\" is no key: control characters, blanks, colons and backslashes cannot be in a "
     "name (at character 4)"},
    {"a.b\\c",
     "\"a.b\\c\" is no key: control characters, blanks, colons and backslashes cannot be in a name "
     "(at character 4)"},
};

TEST(KeyNotationTest, SaysWhatIsWrongAndWhereAndLeavesTheKeyAlone) {
  for (const RefusedCase& c : kRefused) EXPECT_EQ(whyNoKey(c.text), c.reason);
}

TEST(KeyNotationTest, ANameHasAtMost255Bytes) {
  const std::string longest(kMaxNameBytes, 'n');
  EXPECT_TRUE(sameKey(parsed(longest + "." + longest), ConfigVar(longest, 0, longest, 0)));
  EXPECT_NE(whyNoKey("a." + longest + "n").find("at most 255 bytes long (at character 258)"),
            std::string::npos);
  EXPECT_NE(whyNoKey(longest + "n.a").find("at most 255 bytes long (at character 256)"),
            std::string::npos);
}

TEST(KeyNotationTest, AMessageRepeatsOnlyTheBeginningOfALongText) {
  EXPECT_LT(whyNoKey(std::string(100000, 'n')).size(), 250U);
}

// Names of any bytes, short ones of few different bytes so that near misses are common.
std::string randomName(std::mt19937& random, const std::string& alphabet) {
  std::string name(random() % 8, '\0');
  for (char& c : name) c = alphabet[random() % alphabet.size()];
  return name;
}

std::int32_t randomNumber(std::mt19937& random) {
  const std::int32_t numbers[] = {
      0, 1, 2, -1, INT32_MAX, INT32_MIN, static_cast<std::int32_t>(random())};
  return numbers[random() % 7];
}

TEST(KeyNotationTest, AKeyThatCanBeWrittenReadsBackAsItself) {
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    const std::string group = "g" + randomName(random, "ab-_7\xc3\xa9/");
    const std::string name = "n" + randomName(random, "ab-_7\xc3\xa9\"'");
    const ConfigVar key(randomNumber(random) & INT32_MAX, group, randomNumber(random), name,
                        randomNumber(random));
    EXPECT_TRUE(sameKey(parsed(formatKey(key)), key)) << formatKey(key);
  }
}

TEST(KeyNotationTest, WhateverTextIsReadIsWrittenBackAsTheSameKey) {
  std::mt19937 random(2);
  int keys = 0;
  for (int round = 0; round < 200000; ++round) {
    const std::string text = randomName(random, "ab.[]:1-\\") + randomName(random, ".[1]b");
    ConfigVar key("", 0, "", 0);
    if (!parseKey(text, key).ok()) continue;
    ++keys;
    EXPECT_TRUE(sameKey(parsed(formatKey(key)), key)) << text;
  }
  EXPECT_GT(keys, 100);  // the round saw more than refusals
}

TEST(KeyNotationTest, RubbishIsRefusedWithAPrintableReason) {
  std::mt19937 random(3);
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 300, '\0');
    for (char& c : text) c = static_cast<char>(random());
    ConfigVar key("", 0, "", 0);
    const Base::Status<> read = parseKey(text, key);
    for (const char c : read.text) {
      EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f) << text;
    }
  }
}

TEST(KeyNotationTest, AKeyThatCannotBeReadIsStillWrittenOnOneLineOfItsOwn) {
  EXPECT_EQ(formatKey(ConfigVar("", 0, "ip", 0)), ".ip");
  EXPECT_EQ(formatKey(ConfigVar("network", 0, "", 0)), "network.");
  EXPECT_EQ(formatKey(ConfigVar("", 0, "", 0)), ".");
  EXPECT_EQ(formatKey(ConfigVar("a", 0, "b.c", 0)), "a.b\\x2ec");
  EXPECT_EQ(formatKey(ConfigVar("a", 0, "b\n[1]", 0)), "a.b\\x0a\\x5b1\\x5d");
  EXPECT_EQ(formatKey(ConfigVar("a\\x", 0, "b c:", 0)), "a\\x5cx.b\\x20c\\x3a");
  EXPECT_EQ(formatKey(ConfigVar(-3, "a", 0, "b", 0)), "-3:a.b");
}

TEST(KeyNotationTest, NoTwoKeysShareAText) {
  std::mt19937 random(4);
  for (int round = 0; round < 50000; ++round) {
    const std::string alphabet = ".[]:1\\x";
    const ConfigVar a(static_cast<int>(random() % 2), randomName(random, alphabet), 0,
                      randomName(random, alphabet), static_cast<int>(random() % 2));
    const ConfigVar b(static_cast<int>(random() % 2), randomName(random, alphabet), 0,
                      randomName(random, alphabet), static_cast<int>(random() % 2));
    EXPECT_EQ(formatKey(a) == formatKey(b), sameKey(a, b)) << formatKey(a);
  }
}

TEST(DottedNameTest, ReadsTheNameOfAVariableOrAGroupInLowerCase) {
  for (const char* text : {"Network", "network.ETH", "a.b.c.d", "caf\xc3\xa9"}) {
    std::string name;
    EXPECT_TRUE(parseDottedName(text, name).ok()) << text;
    EXPECT_EQ(name, ConfigVar(text, 0, "", 0).group());
  }
}

TEST(DottedNameTest, RefusesNamespacesInstancesAndEmptyParts) {
  for (const char* text : {"", ".", "a.", ".a", "a..b", "3:a", "a[1]", "a.b[0]", "a b", "a\n"}) {
    std::string name = "untouched";
    EXPECT_FALSE(parseDottedName(text, name).ok()) << text;
    EXPECT_NE(parseDottedName(text, name).text, "") << text;
    EXPECT_EQ(name, "untouched");
  }
}

TEST(DottedNameTest, IsAtMostAGroupAndANameLong) {
  const std::string longest(kMaxNameBytes, 'n');
  std::string name;
  EXPECT_TRUE(parseDottedName(longest + "." + longest, name).ok());
  EXPECT_FALSE(parseDottedName(longest + "n", name).ok());
  EXPECT_FALSE(parseDottedName(longest + "." + longest + "n", name).ok());
  EXPECT_FALSE(parseDottedName(longest + "n." + longest, name).ok());
}

}  // namespace
}  // namespace AppConfig
