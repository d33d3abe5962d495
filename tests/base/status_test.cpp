#include "base/status.h"

#include <gtest/gtest.h>

namespace Base {
namespace {

// Neither in the order of its names nor with success first.
enum Colour { kRed = -1, kGreen = 0, kBlue = 1 };

TEST(StatusTest, AFreshOneIsSuccessAndSaysNothing) {
  const Status<> status;
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(status.text, "");
}

TEST(StatusTest, AFailureSaysWhy) {
  const Status<> status = failed("no such file");
  EXPECT_FALSE(status.ok());
  EXPECT_EQ(status.text, "no such file");
}

TEST(StatusTest, AFailureIsOneWithoutAText) { EXPECT_FALSE(failed({}).ok()); }

TEST(StatusTest, TheCodeThatIsZeroIsSuccess) {
  EXPECT_TRUE((Status<Colour>{kGreen, ""}.ok()));
  EXPECT_FALSE((Status<Colour>{kBlue, ""}.ok()));
  EXPECT_FALSE((Status<Colour>{kRed, ""}.ok()));
}

}  // namespace
}  // namespace Base
