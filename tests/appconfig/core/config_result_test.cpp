#include "appconfig/core/config_result.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <type_traits>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(!std::is_polymorphic_v<ConfigResult>);
static_assert(std::is_same_v<std::underlying_type_t<eErrorT>, std::int32_t>);

const auto kSeven = static_cast<eErrorT>(7);

ConfigResult fullResult() {
  ConfigResult result;
  result.fillConfigResult(true, kSeven, true);
  result.addResultMessage("first");
  result.addResultMessage("second");
  result.setServerContext("context");
  result.setClientName("client");
  return result;
}

void expectFull(const ConfigResult& result) {
  EXPECT_EQ(result.error(), kSeven);
  EXPECT_TRUE(result.flag());
  EXPECT_THAT(result.resultMessages(), ElementsAre("first", "second"));
  EXPECT_EQ(result.serverContext(), "context");
  EXPECT_EQ(result.clientName(), "client");
}

TEST(ConfigResultTest, AFreshResultSaysSuccessAndNothingElse) {
  const ConfigResult result;
  EXPECT_EQ(result.error(), eErrNone);
  EXPECT_EQ(static_cast<int>(result.error()), 0);
  EXPECT_FALSE(result.flag());
  EXPECT_THAT(result.resultMessages(), IsEmpty());
  EXPECT_EQ(result.serverContext(), "");
  EXPECT_EQ(result.clientName(), "");
}

TEST(ConfigResultTest, FillingReplacesCodeAndFlagAndKeepsTheMessages) {
  ConfigResult result = fullResult();
  EXPECT_TRUE(result.fillConfigResult(true, eErrDenied, false));
  EXPECT_EQ(result.error(), eErrDenied);
  EXPECT_FALSE(result.flag());
  EXPECT_THAT(result.resultMessages(), ElementsAre("first", "second"));
  EXPECT_EQ(result.serverContext(), "context");
  EXPECT_EQ(result.clientName(), "client");
}

TEST(ConfigResultTest, FillingHandsItsFirstArgumentBackWhateverTheCode) {
  ConfigResult result;
  EXPECT_TRUE(result.fillConfigResult(true, eErrFailed, false));
  EXPECT_FALSE(result.fillConfigResult(false, eErrNone, true));
  EXPECT_EQ(result.error(), eErrNone);
  EXPECT_TRUE(result.flag());
}

TEST(ConfigResultTest, FillingTheDefaultsKeepsServerContextAndClientName) {
  ConfigResult result = fullResult();
  EXPECT_EQ(&ConfigResult::fillDefaults(result), &result);
  EXPECT_EQ(result.error(), eErrNone);
  EXPECT_FALSE(result.flag());
  EXPECT_THAT(result.resultMessages(), IsEmpty());
  EXPECT_EQ(result.serverContext(), "context");
  EXPECT_EQ(result.clientName(), "client");
}

TEST(ConfigResultTest, ANegativeCodeIsAFailure) {
  for (const int code : {-25, -1, static_cast<int>(std::numeric_limits<std::int32_t>::min())}) {
    ConfigResult result;
    result.fillConfigResult(false, static_cast<eErrorT>(code), false);
    EXPECT_NE(result.error(), eErrNone) << code;
    EXPECT_EQ(static_cast<int>(result.error()), code);
  }
}

TEST(ConfigResultTest, AddingAMessageTwiceYieldsTwoEntriesInOrder) {
  ConfigResult result;
  result.addResultMessage("too hot");
  result.addResultMessage("too late");
  result.addResultMessage("too hot");
  EXPECT_THAT(result.resultMessages(), ElementsAre("too hot", "too late", "too hot"));
}

TEST(ConfigResultTest, AMessageAddedTwiceInARowIsThereTwice) {
  ConfigResult result;
  result.addResultMessage("too hot");
  result.addResultMessage("too hot");
  result.addResultMessage("");
  result.addResultMessage("");
  EXPECT_THAT(result.resultMessages(), ElementsAre("too hot", "too hot", "", ""));
}

TEST(ConfigResultTest, AnEmptyTextReplacesServerContextAndClientName) {
  ConfigResult result = fullResult();
  result.setServerContext("");
  EXPECT_EQ(result.serverContext(), "");
  EXPECT_EQ(result.clientName(), "client");
  result.setClientName("");
  EXPECT_EQ(result.clientName(), "");
}

TEST(ConfigResultTest, AssigningTakesAllFiveFields) {
  const ConfigResult source = fullResult();
  ConfigResult target;
  target.addResultMessage("of the target");
  EXPECT_EQ(&(target = source), &target);
  expectFull(target);
  expectFull(source);
}

TEST(ConfigResultTest, CopyingTakesAllFiveFields) {
  const ConfigResult source = fullResult();
  ConfigResult copy(source);
  expectFull(copy);
  copy.addResultMessage("of the copy");
  expectFull(source);
}

TEST(ConfigResultTest, AssigningAResultToItselfLeavesItUnchanged) {
  ConfigResult result = fullResult();
  const ConfigResult& same = result;
  result = same;
  expectFull(result);
}

TEST(ConfigResultTest, AssigningAFieldToItselfLeavesItUnchanged) {
  ConfigResult result = fullResult();
  result.setServerContext(result.serverContext());
  result.setClientName(result.clientName());
  expectFull(result);
}

TEST(ConfigResultTest, ItsOwnMessageCanBeAddedAgain) {
  ConfigResult result = fullResult();
  result.addResultMessage(result.resultMessages().front());
  EXPECT_THAT(result.resultMessages(), ElementsAre("first", "second", "first"));
}

}  // namespace
