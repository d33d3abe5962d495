#include "appconfig/core/typed_text.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace AppConfig {
namespace {

TEST(TypedTextTest, AnIntIsReadInTheBaseThatItsFirstDigitsSay) {
  const struct {
    const char* text;
    std::int32_t number;
  } cases[] = {
      {"24", 24},         {"030", 24}, {"0x18", 24},     {"0X18", 24}, {"+24", 24},
      {"-030", -24},      {" 24", 24}, {"24 hours", 24}, {"08", 0},    {"", 0},
      {"twenty-four", 0}, {"0", 0},    {"-0", 0},
  };
  for (const auto& c : cases) EXPECT_EQ(intOf(c.text), c.number) << c.text;
}

TEST(TypedTextTest, PastItsBitsAnIntIsTheNearestThatTheyHold) {
  EXPECT_EQ(intOf("2147483647"), INT32_MAX);
  EXPECT_EQ(intOf("2147483648"), INT32_MAX);
  EXPECT_EQ(intOf("99999999999999999999"), INT32_MAX);
  EXPECT_EQ(intOf("-2147483648"), INT32_MIN);
  EXPECT_EQ(intOf("-2147483649"), INT32_MIN);
}

TEST(TypedTextTest, TrueInAnyCaseIsTrueAndNothingElse) {
  for (const char* text : {"true", "True", "TRUE"}) EXPECT_TRUE(boolOf(text)) << text;
  for (const char* text : {"false", "", "1", "yes", " true", "true "})
    EXPECT_FALSE(boolOf(text)) << text;
}

}  // namespace
}  // namespace AppConfig
