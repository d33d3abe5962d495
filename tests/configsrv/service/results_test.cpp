#include "configsrv/service/internal/results.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ConfigSrv {
namespace {

using testing::ElementsAre;

TEST(ResultsTest, AnErrorComesWithItsText) {
  ConfigIF::ReturnMessage result;
  setError(result, eErrNotFound, "net.x: no such variable");
  EXPECT_EQ(result.error(), CommonIF::eErrorType(eErrNotFound));
  EXPECT_THAT(result.messages(), ElementsAre("net.x: no such variable"));
}

TEST(ResultsTest, AnOutcomeIsWrittenAsFarAsItSaysAnything) {
  ConfigIF::ReturnMessage result;
  setOutcome(result, {});
  EXPECT_EQ(result.ByteSizeLong(), 0U);
  setOutcome(result, {{eErrVetoed, "a"}, true, {"b"}, 8});
  EXPECT_EQ(result.error(), CommonIF::eErrorType(eErrVetoed));
  EXPECT_TRUE(result.flag());
  EXPECT_THAT(result.messages(), ElementsAre("a", "b"));
  EXPECT_EQ(result.revision(), 8U);
}

}  // namespace
}  // namespace ConfigSrv
