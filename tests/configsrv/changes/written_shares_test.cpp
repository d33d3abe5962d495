// What users have written in sum, and what they may have made durable in an hour.
#include "configsrv/changes/written_shares.h"

#include "configsrv/changes/hourly_limits.h"
#include "tests/configsrv/changes/shares_fixture.h"

namespace ConfigSrv {
namespace {

using PbUtility::Owner;
using testing::HasSubstr;

// What a value of one string of so many bytes counts as.
constexpr std::size_t one(std::size_t bytes) {
  return WrittenShares::kPartBytes + WrittenShares::kStringBytes + bytes;
}

class WrittenSharesTest : public SharesFixture {
 protected:
  void limitWritten(PbUtility::ShareLimits limits) {
    ChangesOptions options;
    options.written = limits;
    limit(options);
  }
  static StoreChange resetOf(const std::string& key) {
    return {TestSupport::keyOf(key), StoreChange::ResetValue{}};
  }
  static StoreChange optionsOf(std::vector<std::string> options) {
    return {TestSupport::keyOf("net.mode"), StoreChange::SetOptions{std::move(options), {}}};
  }
  static PbUtility::Peer peerOf(Owner owner) { return {1, "client", owner.uid, 0, owner.pid}; }
};

TEST_F(WrittenSharesTest, WhatAUserWritesPastItsShareIsRefusedAndNamesLimitAndUserAndWhatToDo) {
  limitWritten({4 * one(10), 3 * one(10), one(10), 4 * one(10)});
  EXPECT_EQ(writeBy(kUser, "net.name", "1234567890")->error(), eErrNone);
  const Changed refused = writeBy(kUser, "net.mtu", "1400");
  EXPECT_EQ(refused->error(), eErrLimit);
  EXPECT_THAT(refused->text(),
              HasSubstr("no more than " + std::to_string(one(10)) +
                        " bytes of values and options for one user, and user 1000 has its share: "
                        "reset or shorten others first"));
  EXPECT_EQ(writeBy(kOtherUser, "net.mtu", "1400")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, UsersTogetherLeaveRootItsPart) {
  limitWritten({4 * one(10), 2 * one(4), 3 * one(10), 4 * one(10)});
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOtherUser, "net.name", "1234")->error(), eErrNone);
  EXPECT_THAT(writeBy(kOtherUser, "net.mode", "manual")->text(),
              HasSubstr("for all users together"));
  EXPECT_EQ(writeBy(kRoot, "net.mode", "manual")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, AWriteThatTakesNoMoreThanWhatItReplacesIsNeverRefused) {
  limitWritten({one(10), one(10), one(10), one(10)});
  EXPECT_EQ(writeBy(kUser, "net.name", "1234567890")->error(), eErrNone);
  EXPECT_EQ(writeBy(kUser, "net.name", "12345678901")->error(), eErrLimit);
  EXPECT_EQ(writeBy(kUser, "net.name", "0987654321")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOtherUser, "net.name", "0000000000")->error(), eErrNone);
  EXPECT_EQ(writeBy(kUser, "net.name", "1")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, WhatIsResetOrOverwrittenByAnotherMakesRoom) {
  limitWritten({4 * one(10), 4 * one(10), one(10), 4 * one(10)});
  EXPECT_EQ(writeBy(kUser, "net.name", "1234567890")->error(), eErrNone);
  EXPECT_EQ(make(kUser, resetOf("net.name"))->error(), eErrNone);
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_EQ(writeBy(kUser, "net.name", "x")->error(), eErrLimit);
  EXPECT_EQ(writeBy(kOtherUser, "net.mtu", "1300")->error(), eErrNone);
  EXPECT_EQ(writeBy(kUser, "net.name", "x")->error(), eErrNone);
  // The default counts for nothing, however it came about.
  EXPECT_EQ(writeBy(kOtherUser, "net.mtu", "1500")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOtherUser, "net.mode", "manual")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, OptionsCountApartFromTheValue) {
  limitWritten({4 * one(10), 4 * one(10), one(4) + WrittenShares::kStringBytes + 6, 4 * one(10)});
  EXPECT_EQ(make(kUser, optionsOf({"auto", "manual"}))->error(), eErrNone);
  EXPECT_EQ(writeBy(kUser, "net.mode", "manual")->error(), eErrNone);
  EXPECT_EQ(make(kUser, optionsOf({"auto", "manual", "off"}))->error(), eErrLimit);
}

TEST_F(WrittenSharesTest, OptionsThatAreResetMakeRoom) {
  const std::size_t two = one(4) + WrittenShares::kStringBytes + 3;
  limitWritten({4 * two, 4 * two, two, 4 * two});
  EXPECT_EQ(make(kUser, optionsOf({"auto", "off"}))->error(), eErrNone);
  EXPECT_EQ(writeBy(kUser, "net.name", "1234567890")->error(), eErrLimit);
  const StoreChange reset{TestSupport::keyOf("net.mode"), StoreChange::ResetAttributes{}};
  EXPECT_EQ(make(kUser, reset)->error(), eErrNone);
  EXPECT_EQ(writeBy(kUser, "net.name", "1234567890")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, WhatIsOnItsWayToTheDiskCountsAndAFailureGivesItBack) {
  limitWritten({4 * one(10), 4 * one(10), one(10), 4 * one(10)});
  const Changed first = begin(kUser, setTo("net.name", {"1234567890"}));
  EXPECT_EQ(begin(kUser, setTo("net.mtu", {"1400"}))->error(), eErrLimit);
  host_.failCommit();
  EXPECT_EQ(first->error(), eErrStorage);
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1400")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, AChangeIsRefusedBeforeItsProvidersAreAsked) {
  limitWritten({one(1), one(1), one(1), one(1)});
  provide(kProvider, "net");
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1400")->error(), eErrLimit);
  EXPECT_TRUE(host_.questions.empty());
}

TEST_F(WrittenSharesTest, TwoThatFittedOneByOneAreHeldAgainstTheLimitAgainAfterTheirProviders) {
  limitWritten({4 * one(10), 4 * one(10), one(10), 4 * one(10)});
  provide(kProvider, "net.mtu");
  const Changed asked = begin(kUser, setTo("net.mtu", {"1400"}));
  EXPECT_EQ(writeBy(kUser, "net.name", "1234567890")->error(), eErrNone);
  agree();
  agree();
  EXPECT_EQ(asked->error(), eErrLimit);
  EXPECT_EQ(valueOf("net.mtu"), "1500");
}

TEST_F(WrittenSharesTest, AProcessHasItsShareAsLongAsItLives) {
  limitWritten({8 * one(10), one(10), one(10), one(10)});
  changes_->peerCame(peerOf(kRoot));
  changes_->peerCame(peerOf(kRoot));
  EXPECT_EQ(writeBy(kRoot, "net.name", "1234567890")->error(), eErrNone);
  EXPECT_THAT(writeBy(kRoot, "net.mtu", "1400")->text(), HasSubstr("process 10 has its share"));
  changes_->peerWent(peerOf(kRoot));
  EXPECT_EQ(writeBy(kRoot, "net.mtu", "1400")->error(), eErrLimit);
  changes_->peerWent(peerOf(kRoot));
  // Another process of the same number.
  changes_->peerCame(peerOf(kRoot));
  EXPECT_EQ(writeBy(kRoot, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_EQ(make(kRoot, resetOf("net.name"))->error(), eErrNone);
  EXPECT_EQ(writeBy(kRoot, "net.mode", "manual")->error(), eErrLimit);
}

TEST_F(WrittenSharesTest, WhatWasStoredBeforeTheStartCountsForAllAndForNoUser) {
  ASSERT_EQ(writeBy(kUser, "net.name", "1234567890")->error(), eErrNone);
  limitWritten({2 * one(10), 2 * one(10), one(10), 2 * one(10)});
  changes_->countStored();
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_THAT(writeBy(kOtherUser, "net.mode", "manual")->text(), HasSubstr("in all"));
  EXPECT_EQ(make(kOtherUser, resetOf("net.name"))->error(), eErrNone);
  EXPECT_EQ(writeBy(kOtherUser, "net.mode", "manual")->error(), eErrNone);
}

// --- In an hour ---

class HourlyLimitsTest : public SharesFixture {
 protected:
  void limitHour(HourlyOptions hourly) {
    ChangesOptions options;
    options.hourly = hourly;
    limit(options);
  }
};

TEST_F(HourlyLimitsTest, AUsersCommitsPastTheLimitAreRefusedUntilItsHourIsOver) {
  limitHour({2, 0});
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1400")->error(), eErrNone);
  host_.clock += std::chrono::seconds(600);
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1300")->error(), eErrNone);
  const Changed refused = writeBy(kUser, "net.mtu", "1200");
  EXPECT_EQ(refused->error(), eErrLimit);
  EXPECT_THAT(refused->text(),
              HasSubstr("no more than 2 durable changes in an hour for one user, and user 1000 has "
                        "its share: there is room again in 3000 s"));
  host_.clock += std::chrono::seconds(2999);
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1200")->error(), eErrLimit);
  host_.clock += std::chrono::seconds(1);
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1200")->error(), eErrNone);
}

TEST_F(HourlyLimitsTest, OtherUsersRootAndWritesOfWhatIsThereAreNotLimitedByIt) {
  limitHour({1, 0});
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1300")->error(), eErrLimit);
  EXPECT_EQ(writeBy(kOtherUser, "net.mtu", "1300")->error(), eErrNone);
  for (const char* value : {"1", "2", "3"})
    EXPECT_EQ(writeBy(kRoot, "net.name", value)->error(), eErrNone);
}

TEST_F(HourlyLimitsTest, BytesCountWithAPageForEachCommit) {
  limitHour({0, HourlyLimits::kCommitBytes * 2 + 8});
  EXPECT_EQ(writeBy(kUser, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_THAT(writeBy(kUser, "net.name", "12345")->text(),
              HasSubstr("bytes made durable in an hour"));
  EXPECT_EQ(writeBy(kUser, "net.name", "1234")->error(), eErrNone);
  EXPECT_THAT(writeBy(kOtherUser, "net.name", std::string(5000, 'x'))->text(),
              HasSubstr("make the value smaller"));
}

}  // namespace
}  // namespace ConfigSrv
