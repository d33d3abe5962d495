// Whose changes may be under way, how many of them, and that nobody takes what others need.
#include "configsrv/changes/internal/change_shares.h"

#include "tests/configsrv/changes/shares_fixture.h"

namespace ConfigSrv {
namespace {

using testing::HasSubstr;

class ChangeSharesTest : public SharesFixture {
 protected:
  static std::size_t bytesOf(const std::string& key, std::list<std::string> value) {
    return ChangeShares::bytesOf({writer(), setTo(key, std::move(value))});
  }
};

TEST_F(ChangeSharesTest, AUsersChangesPastItsShareAreRefusedWithLimitAndOwnerAndRootsAreNot) {
  ChangesOptions options;
  options.underWay = {4, 3, 1, 3};
  limit(options);
  EXPECT_FALSE(beginToWrite(kUser, "net.mtu", "1400")->ended());
  const Changed refused = beginToWrite(kUser, "net.name", "x");
  EXPECT_EQ(refused->error(), eErrLimit);
  EXPECT_THAT(refused->text(), HasSubstr("net.name: no more than 1 changes under way for one user, "
                                         "and user 1000 has its share: try again"));
  EXPECT_FALSE(beginToWrite(kOtherUser, "net.name", "y")->ended());
  EXPECT_FALSE(beginToWrite(kRoot, "net.mode", "manual")->ended());
}

TEST_F(ChangeSharesTest, WhatEndedMakesRoomHoweverItEnded) {
  ChangesOptions options;
  options.underWay.perUser = 1;
  limit(options);
  beginToWrite(kUser, "net.mtu", "1400");
  host_.finishCommit();
  beginToWrite(kUser, "net.mtu", "1300");
  host_.failCommit();
  EXPECT_EQ(beginToWrite(kUser, "net.mtu", "none")->error(), eErrInvalidValue);
  EXPECT_FALSE(beginToWrite(kUser, "net.mtu", "1200")->ended());
  EXPECT_EQ(beginToWrite(kUser, "net.name", "x")->error(), eErrLimit);
}

TEST_F(ChangeSharesTest, ValidationsCountToo) {
  ChangesOptions options;
  options.underWay.perUser = 1;
  limit(options);
  provide(kProvider, "net");
  EXPECT_FALSE(validate(by(kUser), "net.mtu", {"1400"})->ended());
  EXPECT_EQ(validate(by(kUser), "net.mtu", {"1300"})->error(), eErrLimit);
  EXPECT_EQ(beginToWrite(kUser, "net.name", "x")->error(), eErrLimit);
  agree();
  EXPECT_FALSE(beginToWrite(kUser, "net.name", "x")->ended());
}

TEST_F(ChangeSharesTest, BytesAreSharedOutAsWell) {
  const std::size_t one = bytesOf("net.name", {"1234567890"});
  ChangesOptions options;
  options.bytesUnderWay = {4 * one, 2 * one, one, 4 * one};
  limit(options);
  EXPECT_THAT(beginToWrite(kUser, "net.name", "12345678901")->text(),
              HasSubstr("bytes of changes under way for one user, and user 1000"));
  EXPECT_FALSE(beginToWrite(kUser, "net.name", "1234567890")->ended());
  EXPECT_EQ(beginToWrite(kUser, "net.mtu", "1400")->error(), eErrLimit);
  EXPECT_FALSE(beginToWrite(kRoot, "net.mtu", "1400")->ended());
}

// A value of many empty strings has no bytes and takes memory all the same.
TEST_F(ChangeSharesTest, EachStringCounts) {
  EXPECT_EQ(bytesOf("net.name", {"", ""}) - bytesOf("net.name", {""}), ChangeShares::kStringBytes);
  EXPECT_EQ(bytesOf("net.name", {"abc"}) - bytesOf("net.name", {""}), 3U);
}

TEST_F(ChangeSharesTest, TheLargestValueFitsAnOrdinaryUsersShare) {
  std::list<std::string> largest(kMaxElements - 1);
  largest.emplace_back(kMaxValueBytes, 'x');
  const ChangesOptions options;
  EXPECT_TRUE(ChangeShares(options).room(kUser, bytesOf("net.name", largest)).ok());
}

TEST_F(ChangeSharesTest, OneUserCannotFillTheQueueOfAVariable) {
  ChangesOptions options;
  options.waitingPerVariable = {4, 3, 2, 3};
  limit(options);
  beginToWrite(kRoot, "net.mtu", "1400");
  EXPECT_FALSE(beginToWrite(kUser, "net.mtu", "1401")->ended());
  EXPECT_FALSE(beginToWrite(kUser, "net.mtu", "1402")->ended());
  const Changed refused = beginToWrite(kUser, "net.mtu", "1403");
  EXPECT_EQ(refused->error(), eErrLimit);
  EXPECT_THAT(refused->text(),
              HasSubstr("no more than 2 changes that wait for their turn at one variable for one "
                        "user, and user 1000 has its share: write less often"));
  EXPECT_FALSE(beginToWrite(kOtherUser, "net.mtu", "1404")->ended());
  EXPECT_THAT(beginToWrite(kOtherUser, "net.mtu", "1405")->text(), HasSubstr("all users together"));
  EXPECT_FALSE(beginToWrite(kRoot, "net.mtu", "1406")->ended());
  EXPECT_THAT(beginToWrite(kRoot, "net.mtu", "1407")->text(), HasSubstr("in all"));
}

}  // namespace
}  // namespace ConfigSrv
