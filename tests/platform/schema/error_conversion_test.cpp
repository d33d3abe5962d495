#include "platform/schema/error_conversion.h"

#include <gtest/gtest.h>

#include <limits>

#include "platform/schema/common_if.pb.h"

namespace {

eErrorT converted(int number) {
  return convertErrorTypeToCommonPbType(static_cast<CommonIF::eErrorType>(number));
}

const int kUnknownNumbers[] = {
    CommonIF::eErrorType_MAX + 1,    CommonIF::eErrorType_MIN - 1,    -25, 1000,
    std::numeric_limits<int>::max(), std::numeric_limits<int>::min(),
};

TEST(ErrorConversionTest, EveryCodeOfTheSchemaKeepsItsNumber) {
  for (int number = CommonIF::eErrorType_MIN; number <= CommonIF::eErrorType_MAX; ++number) {
    ASSERT_TRUE(CommonIF::eErrorType_IsValid(number)) << number;
    EXPECT_EQ(static_cast<int>(converted(number)), number);
  }
}

TEST(ErrorConversionTest, TheLibraryHasANameForEveryCodeOfTheSchema) {
  EXPECT_EQ(static_cast<int>(eErrNone), CommonIF::eErrorType_MIN);
  EXPECT_EQ(static_cast<int>(eErrNotSupported), CommonIF::eErrorType_MAX);
}

TEST(ErrorConversionTest, AnUnknownCodeBecomesTheGeneralFailure) {
  for (const int number : kUnknownNumbers) EXPECT_EQ(converted(number), eErrFailed) << number;
}

TEST(ErrorConversionTest, ZeroIsSuccessAndNothingElseBecomesZero) {
  EXPECT_EQ(converted(0), eErrNone);
  for (int number = -1000; number <= 1000; ++number) {
    EXPECT_EQ(converted(number) == eErrNone, number == 0) << number;
  }
}

}  // namespace
