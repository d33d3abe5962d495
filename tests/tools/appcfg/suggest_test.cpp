#include "tools/appcfg/suggest.h"

#include <gtest/gtest.h>

namespace AppCfgTool {
namespace {

TEST(SuggestTest, EachLetterMoreLessChangedOrSwappedCountsOne) {
  EXPECT_EQ(editDistance("get", "get"), 0U);
  EXPECT_EQ(editDistance("", "get"), 3U);
  EXPECT_EQ(editDistance("gett", "get"), 1U);
  EXPECT_EQ(editDistance("gt", "get"), 1U);
  EXPECT_EQ(editDistance("gat", "get"), 1U);
  EXPECT_EQ(editDistance("gte", "get"), 1U);
  EXPECT_EQ(editDistance("netwrok.hotsname", "network.hostname"), 2U);
}

std::string questionFor(const std::string& word, const std::vector<std::string>& candidates) {
  Nearest nearest(word);
  for (const std::string& candidate : candidates) nearest.take(candidate);
  return nearest.question();
}

TEST(SuggestTest, OnlyTheNearestAreSuggestedAndAtMostThree) {
  EXPECT_EQ(questionFor("net.hots", {"net.mtu", "net.host", "net.hosts"}),
            "did you mean net.host or net.hosts?");
  EXPECT_EQ(questionFor("net.a", {"net.b", "net.c", "net.d", "net.e"}),
            "did you mean net.b, net.c or net.d?");
  EXPECT_EQ(questionFor("net.hst", {"net.host", "net.host"}), "did you mean net.host?");
}

TEST(SuggestTest, WhatIsFarOffIsNotSuggested) {
  EXPECT_EQ(questionFor("frobnicate", {"get", "set", "network.hostname"}), "");
  EXPECT_EQ(questionFor("on", {"off", "no"}), "");
  EXPECT_EQ(questionFor("x", {"y"}), "");
}

TEST(SuggestTest, AVerbOfTwoWordsIsFoundByBothAndByItsFirst) {
  EXPECT_EQ(verbLike("gte"), "did you mean get?");
  EXPECT_EQ(verbLike("optoins"), "did you mean options?");
  EXPECT_EQ(verbLike("options gte"), "did you mean options get?");
}

}  // namespace
}  // namespace AppCfgTool
