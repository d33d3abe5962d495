#include "tools/appcfg/exit_code.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/schema/common_if.pb.h"

namespace AppCfgTool {
namespace {

struct ErrorCase {
  CommonIF::eErrorType error;
  ExitCode code;
};

const ErrorCase kErrorCases[] = {
    {CommonIF::ERROR_NONE, kExitOk},
    {CommonIF::ERROR_FAILED, kExitFailed},
    {CommonIF::ERROR_NOT_FOUND, kExitNotFound},
    {CommonIF::ERROR_DENIED, kExitDenied},
    {CommonIF::ERROR_INVALID_VALUE, kExitInvalidValue},
    {CommonIF::ERROR_VETOED, kExitVetoed},
    {CommonIF::ERROR_READ_ONLY, kExitDenied},
    {CommonIF::ERROR_UNAVAILABLE, kExitUnreachable},
    {CommonIF::ERROR_TIMED_OUT, kExitTimedOut},
    {CommonIF::ERROR_CONFLICT, kExitConflict},
    {CommonIF::ERROR_INVALID_REQUEST, kExitUsage},
    {CommonIF::ERROR_LIMIT, kExitInvalidValue},
    {CommonIF::ERROR_STORAGE, kExitFailed},
    {CommonIF::ERROR_NOT_SUPPORTED, kExitFailed},
};

TEST(ExitCodeTest, EachErrorOfTheServiceHasItsCode) {
  for (const ErrorCase& c : kErrorCases) EXPECT_EQ(exitCodeOf(c.error), c.code) << c.error;
}

TEST(ExitCodeTest, NoErrorOfTheSchemaIsForgottenByThisTest) {
  std::set<int> covered;
  for (const ErrorCase& c : kErrorCases) covered.insert(c.error);
  for (int i = CommonIF::eErrorType_MIN; i <= CommonIF::eErrorType_MAX; ++i) {
    EXPECT_EQ(CommonIF::eErrorType_IsValid(i), covered.count(i) == 1) << i;
  }
}

TEST(ExitCodeTest, AnErrorThatThisVersionDoesNotKnowIsAFailure) {
  EXPECT_EQ(exitCodeOf(static_cast<CommonIF::eErrorType>(99)), kExitFailed);
}

TEST(ExitCodeTest, EachFailureOfTheMessageLayerHasItsCode) {
  EXPECT_EQ(exitCodeOf(PbUtility::kCallOk), kExitOk);
  EXPECT_EQ(exitCodeOf(PbUtility::kCallNoService), kExitUnreachable);
  EXPECT_EQ(exitCodeOf(PbUtility::kCallServiceDied), kExitUnreachable);
  EXPECT_EQ(exitCodeOf(PbUtility::kCallTimedOut), kExitTimedOut);
  EXPECT_EQ(exitCodeOf(PbUtility::kCallRefused), kExitFailed);
  EXPECT_EQ(exitCodeOf(PbUtility::kCallBrokenAnswer), kExitFailed);
  EXPECT_EQ(exitCodeOf(PbUtility::kCallBadRequest), kExitInvalidValue);
  EXPECT_EQ(exitCodeOf(PbUtility::kCallBadEndpoint), kExitFailed);
  EXPECT_EQ(exitCodeOf(PbUtility::kCallUntrusted), kExitUnreachable);
  EXPECT_EQ(exitCodeOf(PbUtility::kCallForbidden), kExitDenied);
}

TEST(ExitCodeTest, TheCodesAreZeroToTenEachWithANameOfItsOwn) {
  std::set<std::string> names;
  for (std::size_t i = 0; i < exitCodes().size(); ++i) {
    EXPECT_EQ(exitCodes()[i].code, static_cast<ExitCode>(i));
    EXPECT_TRUE(names.insert(exitCodes()[i].name).second) << exitCodes()[i].name;
  }
  EXPECT_EQ(exitCodes().size(), 11U);
}

TEST(ExitCodeTest, ANameIsThatOfTheTable) {
  EXPECT_STREQ(exitCodeName(kExitNotFound), "not-found");
  EXPECT_STREQ(exitCodeName(static_cast<ExitCode>(77)), "failed");
}

}  // namespace
}  // namespace AppCfgTool
