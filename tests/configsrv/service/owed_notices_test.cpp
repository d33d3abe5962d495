#include "configsrv/service/internal/owed_notices.h"

#include <gtest/gtest.h>

namespace ConfigSrv {
namespace {

constexpr PbUtility::PeerId kPeer = 1;
constexpr PbUtility::PeerId kOther = 2;

TEST(OwedNoticesTest, ANoticeToAPeerThatIsOwedSomethingCarriesNoMoreThanTheAnswer) {
  OwedNotices owed;
  owed.begin(kPeer, 10);
  EXPECT_EQ(owed.carried(kPeer, 12), 10U);
  EXPECT_EQ(owed.carried(kPeer, 9), 9U);
  EXPECT_EQ(owed.carried(kOther, 12), 12U);
}

TEST(OwedNoticesTest, OfSeveralAnswersTheLeastCountsUntilItsEnd) {
  OwedNotices owed;
  owed.begin(kPeer, 10);
  owed.begin(kPeer, 11);
  owed.begin(kPeer, 10);
  owed.end(kPeer, 10);
  EXPECT_EQ(owed.carried(kPeer, 12), 10U);
  owed.end(kPeer, 10);
  EXPECT_EQ(owed.carried(kPeer, 12), 11U);
  owed.end(kPeer, 11);
  EXPECT_EQ(owed.carried(kPeer, 12), 12U);
}

}  // namespace
}  // namespace ConfigSrv
