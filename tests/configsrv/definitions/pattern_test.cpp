#include "configsrv/definitions/pattern.h"

#include <gtest/gtest.h>

#include <random>

namespace ConfigSrv {
namespace {

bool matches(const std::string& pattern, std::string_view value) {
  std::string reason;
  const auto compiled = Pattern::compile(pattern, reason);
  EXPECT_NE(compiled, nullptr) << pattern << ": " << reason;
  return compiled && PatternMatcher(*compiled).matches(value);
}

std::string whyRefused(const std::string& pattern) {
  std::string reason;
  EXPECT_EQ(Pattern::compile(pattern, reason), nullptr) << pattern;
  return reason;
}

TEST(PatternTest, AValueMatchesAsAWhole) {
  EXPECT_TRUE(matches("[a-z]+", "abc"));
  EXPECT_FALSE(matches("[a-z]+", "abc1"));
  EXPECT_FALSE(matches("[a-z]+", "1abc"));
  EXPECT_FALSE(matches("[a-z]+", ""));
  EXPECT_TRUE(matches("a|bc", "a"));
  EXPECT_TRUE(matches("a|bc", "bc"));
  EXPECT_FALSE(matches("a|bc", "abc"));
  EXPECT_TRUE(matches("", ""));
  EXPECT_FALSE(matches("", "a"));
  EXPECT_TRUE(matches("^a$", "a"));
  EXPECT_FALSE(matches("a", "a\n"));
}

TEST(PatternTest, ZeroBytesNewlinesAndInvalidUtf8AreOrdinaryBytes) {
  EXPECT_FALSE(matches("[a-z]+", std::string_view("abc\0def", 7)));
  EXPECT_FALSE(matches("[a-z]+", std::string_view("abc\0", 4)));
  EXPECT_TRUE(matches("a[^b]c", std::string_view("a\0c", 3)));
  EXPECT_FALSE(matches("a.c", std::string_view("a\0c", 3)));
  EXPECT_TRUE(matches("a.c", "a\nc"));
  EXPECT_TRUE(matches("a.c",
                      "a\xff"
                      "c"));
  EXPECT_FALSE(matches("a.c",
                       "a\xc3\xa9"
                       "c"));
}

TEST(PatternTest, BracketsAndBracesInPatternsAreUnderstood) {
  EXPECT_TRUE(matches("[])(}]+", "])(}"));
  EXPECT_TRUE(matches("[^])]+", "ab"));
  EXPECT_TRUE(matches("[[:digit:]()]{2,3}", "1(2"));
  EXPECT_TRUE(matches("\\(a\\)", "(a)"));
  EXPECT_TRUE(matches("([0-9]{1,3}\\.){3}[0-9]{1,3}", "192.168.0.1"));
}

TEST(PatternTest, WhatIsNoPatternIsRefusedWithTheReason) {
  EXPECT_NE(whyRefused("[a-z"), "");
  EXPECT_NE(whyRefused("(a"), "");
  EXPECT_NE(whyRefused("a\\"), "");
  EXPECT_NE(whyRefused("*a"), "");
  EXPECT_NE(whyRefused("a{2,1}"), "");
  EXPECT_EQ(whyRefused("a)"), "a \")\" has no \"(\": write \\) for the character");
  EXPECT_EQ(whyRefused("a)|(b"), "a \")\" has no \"(\": write \\) for the character");
  EXPECT_EQ(whyRefused("(a)\\1"), "back-references such as \\1 are not supported");
  EXPECT_EQ(whyRefused(std::string("a\0b", 3)), "it holds a zero byte");
}

TEST(PatternTest, APatternHasALongestLength) {
  const std::string longest = "[" + std::string(kMaxPatternBytes - 3, 'a') + "]*";
  EXPECT_TRUE(matches(longest, "aaa"));
  EXPECT_EQ(whyRefused(std::string(kMaxPatternBytes + 1, 'a')), "it is longer than 1024 bytes");
}

TEST(PatternTest, RepetitionsExpandToNoMoreThanTheLimit) {
  const std::string reason =
      "its repetitions expand to more than 500 characters: let \"max-length\" limit the length";
  EXPECT_TRUE(matches(
      "(ab){249}", std::string("abababab") + [] {
        std::string rest;
        for (int i = 0; i < 245; ++i) rest += "ab";
        return rest;
      }()));
  EXPECT_EQ(whyRefused("(ab){250}"), reason);
  EXPECT_EQ(whyRefused("((a{255}){255}){255}"), reason);
  EXPECT_EQ(whyRefused("((((((((((a+)+)+)+)+)+)+)+)+)+)+{99}"), reason);
  EXPECT_EQ(whyRefused("a{99999999999999999999}"), reason);
}

// The C library makes a node of what is empty too, and copies it as often.
TEST(PatternTest, RepetitionsOfNothingExpandToNoMoreThanTheLimit) {
  const std::string reason =
      "its repetitions expand to more than 500 characters: let \"max-length\" limit the length";
  EXPECT_EQ(whyRefused("((((){255}){255}){255}){255}"), reason);
  EXPECT_EQ(whyRefused("(){8}+{9}{9}"), reason);
  EXPECT_EQ(whyRefused("(||||){255}"), reason);
  EXPECT_TRUE(matches("(){3}a(|b){2}", "abb"));
}

// The C library walks through all of them when it compiles: the first two took it longer than anybody
// would wait for a service to start.
TEST(PatternTest, APatternThatMatchesNothingInManyWaysIsRefused) {
  const std::string reason =
      "its parts match nothing in more than 64 ways: repeat only what holds a character, as in a* "
      "for (a?)*";
  EXPECT_EQ(whyRefused("x?+++++++"), reason);
  EXPECT_EQ(whyRefused("b?????????+++"), reason);
  EXPECT_EQ(whyRefused("((a?)?(b?)?(c?)?(d?)?(e?)?(f?)?(g?)?)+"), reason);
  EXPECT_EQ(whyRefused("((a|b?|c?){9})*"), reason);
  EXPECT_TRUE(matches("(a?b?c?d?e?f?)*", "abcabc"));
  EXPECT_TRUE(matches("(([a-z]*)(-[a-z]*)*\\.)*[a-z]+", "a-b.c-.de"));
  EXPECT_TRUE(matches("(a*|b*)x(a*|b*)x(a*|b*)x(a*|b*)x(a*|b*)x(a*|b*)x(a*|b*)x", "xaaxbxxxxbbx"));
  EXPECT_TRUE(matches("([a-z]?[0-9]?){0,8}", "a1b2"));
}

TEST(PatternTest, AStringLongerThanIsMatchedDoesNotMatch) {
  EXPECT_TRUE(matches("a*", std::string(kMaxMatchedBytes, 'a')));
  EXPECT_FALSE(matches("a*", std::string(kMaxMatchedBytes + 1, 'a')));
}

TEST(PatternTest, OneMatcherAnswersForManyValues) {
  std::string reason;
  const auto pattern = Pattern::compile("(a|b)*a(a|b){9}", reason);
  ASSERT_NE(pattern, nullptr) << reason;
  PatternMatcher matcher(*pattern);
  std::mt19937 random(6);
  for (int round = 0; round < 200; ++round) {
    std::string value(10 + random() % 500, 'b');
    for (char& c : value) c = random() % 2 == 0 ? 'a' : 'b';
    EXPECT_EQ(matcher.matches(value), value[value.size() - 10] == 'a') << value;
  }
}

TEST(PatternTest, RubbishIsRefusedOrCompiledAndMatched) {
  std::mt19937 random(7);
  const std::string alphabet = "ab()[]{}*+?|.^$\\,19-:=\xff";
  for (int round = 0; round < 5000; ++round) {
    std::string text(random() % 20, '\0');
    for (char& c : text) c = alphabet[random() % alphabet.size()];
    std::string reason;
    const auto pattern = Pattern::compile(text, reason);
    EXPECT_EQ(pattern == nullptr, !reason.empty()) << text;
    if (pattern) PatternMatcher(*pattern).matches("ab19");
  }
}

}  // namespace
}  // namespace ConfigSrv
