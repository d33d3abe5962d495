#include "configsrv/toml/mistake.h"

#include <gtest/gtest.h>

namespace ConfigSrv {
namespace {

TEST(MistakeTest, IsWrittenWithFileLineAndColumn) {
  EXPECT_EQ(formatMistake({"a.toml", 12, 7, "wrong"}), "a.toml:12:7: wrong");
}

TEST(MistakeTest, LeavesOutThePlaceThatItDoesNotHave) {
  EXPECT_EQ(formatMistake({"a.toml", 12, 0, "wrong"}), "a.toml:12: wrong");
  EXPECT_EQ(formatMistake({"definitions.d", 0, 0, "wrong"}), "definitions.d: wrong");
}

TEST(MistakeTest, StaysOnOneLineWhateverAFileNamesThings) {
  EXPECT_EQ(formatMistake({"a.toml", 1, 1, "\"b\nc\x7f\" is no field"}),
            "a.toml:1:1: \"b\\x0ac\\x7f\" is no field");
}

TEST(MistakeTest, SeveralAreOneLineEach) {
  EXPECT_EQ(formatMistakes({{"a", 1, 1, "x"}, {"b", 2, 2, "y"}}), "a:1:1: x\nb:2:2: y\n");
  EXPECT_EQ(formatMistakes({}), "");
}

}  // namespace
}  // namespace ConfigSrv
