#include "appconfig/core/lower_case.h"

#include <gtest/gtest.h>

namespace AppConfig {
namespace {

static_assert(lowerCase('A') == 'a' && lowerCase('Z') == 'z');

TEST(LowerCaseTest, OnlyTheLettersAToZAreChanged) {
  for (int byte = 0; byte < 256; ++byte) {
    const int expected = byte >= 'A' && byte <= 'Z' ? byte + 32 : byte;
    EXPECT_EQ(lowerCase(static_cast<char>(byte)), static_cast<char>(expected)) << byte;
  }
}

TEST(LowerCaseTest, ATextIsFoldedToItsEndZeroBytesIncluded) {
  EXPECT_EQ(lowerCase(std::string("Net\0WORK.Eth[1]", 15)), std::string("net\0work.eth[1]", 15));
  EXPECT_EQ(lowerCase(std::string()), "");
  EXPECT_EQ(lowerCase(std::string("\xc3\x84")), "\xc3\x84");
}

}  // namespace
}  // namespace AppConfig
