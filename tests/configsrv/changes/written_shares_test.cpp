// What users have written in sum, and what they may have made durable in an hour.
#include "configsrv/changes/written_shares.h"

#include "configsrv/changes/hourly_limits.h"
#include "tests/configsrv/changes/changes_fixture.h"

namespace ConfigSrv {
namespace {

using PbUtility::Owner;
using testing::HasSubstr;

constexpr Owner kRootWriter{0, 10};
constexpr Owner kOneWriter{1000, 20};
constexpr Owner kOtherWriter{1001, 30};

// What a value of one string of so many bytes counts as.
constexpr std::size_t one(std::size_t bytes) {
  return WrittenShares::kPartBytes + WrittenShares::kStringBytes + bytes;
}

class WrittenSharesTest : public ChangesFixture {
 protected:
  void limit(PbUtility::ShareLimits limits) {
    ChangesOptions options;
    options.written = limits;
    changes_ = std::make_unique<Changes>(model_, subscriptions_, announcer_, host_, log_, options);
  }
  Changed begin(Owner owner, StoreChange change) {
    Requester by = writer();
    by.owner = owner;
    return submit(by, std::move(change));
  }
  // Up to its end.
  Changed make(Owner owner, StoreChange change) {
    Changed attempt = begin(owner, std::move(change));
    while (!host_.commits.empty()) host_.finishCommit();
    return attempt;
  }
  Changed writeBy(Owner owner, const std::string& key, const std::string& value) {
    return make(owner, setTo(key, {value}));
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
  limit({4 * one(10), 3 * one(10), one(10), 4 * one(10)});
  EXPECT_EQ(writeBy(kOneWriter, "net.name", "1234567890")->error(), eErrNone);
  const Changed refused = writeBy(kOneWriter, "net.mtu", "1400");
  EXPECT_EQ(refused->error(), eErrLimit);
  EXPECT_THAT(refused->text(),
              HasSubstr("no more than " + std::to_string(one(10)) +
                        " bytes of values and options for one user, and user 1000 has its share: "
                        "reset or shorten others first"));
  EXPECT_EQ(writeBy(kOtherWriter, "net.mtu", "1400")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, UsersTogetherLeaveRootItsPart) {
  limit({4 * one(10), 2 * one(4), 3 * one(10), 4 * one(10)});
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOtherWriter, "net.name", "1234")->error(), eErrNone);
  EXPECT_THAT(writeBy(kOtherWriter, "net.mode", "manual")->text(),
              HasSubstr("for all users together"));
  EXPECT_EQ(writeBy(kRootWriter, "net.mode", "manual")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, AWriteThatTakesNoMoreThanWhatItReplacesIsNeverRefused) {
  limit({one(10), one(10), one(10), one(10)});
  EXPECT_EQ(writeBy(kOneWriter, "net.name", "1234567890")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOneWriter, "net.name", "12345678901")->error(), eErrLimit);
  EXPECT_EQ(writeBy(kOneWriter, "net.name", "0987654321")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOtherWriter, "net.name", "0000000000")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOneWriter, "net.name", "1")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, WhatIsResetOrOverwrittenByAnotherMakesRoom) {
  limit({4 * one(10), 4 * one(10), one(10), 4 * one(10)});
  EXPECT_EQ(writeBy(kOneWriter, "net.name", "1234567890")->error(), eErrNone);
  EXPECT_EQ(make(kOneWriter, resetOf("net.name"))->error(), eErrNone);
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOneWriter, "net.name", "x")->error(), eErrLimit);
  EXPECT_EQ(writeBy(kOtherWriter, "net.mtu", "1300")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOneWriter, "net.name", "x")->error(), eErrNone);
  // The default counts for nothing, however it came about.
  EXPECT_EQ(writeBy(kOtherWriter, "net.mtu", "1500")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOtherWriter, "net.mode", "manual")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, OptionsCountApartFromTheValue) {
  limit({4 * one(10), 4 * one(10), one(4) + WrittenShares::kStringBytes + 6, 4 * one(10)});
  EXPECT_EQ(make(kOneWriter, optionsOf({"auto", "manual"}))->error(), eErrNone);
  EXPECT_EQ(writeBy(kOneWriter, "net.mode", "manual")->error(), eErrNone);
  EXPECT_EQ(make(kOneWriter, optionsOf({"auto", "manual", "off"}))->error(), eErrLimit);
}

TEST_F(WrittenSharesTest, WhatIsOnItsWayToTheDiskCountsAndAFailureGivesItBack) {
  limit({4 * one(10), 4 * one(10), one(10), 4 * one(10)});
  const Changed first = begin(kOneWriter, setTo("net.name", {"1234567890"}));
  EXPECT_EQ(begin(kOneWriter, setTo("net.mtu", {"1400"}))->error(), eErrLimit);
  host_.failCommit();
  EXPECT_EQ(first->error(), eErrStorage);
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1400")->error(), eErrNone);
}

TEST_F(WrittenSharesTest, AChangeIsRefusedBeforeItsProvidersAreAsked) {
  limit({one(1), one(1), one(1), one(1)});
  provide(kProvider, "net");
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1400")->error(), eErrLimit);
  EXPECT_TRUE(host_.questions.empty());
}

TEST_F(WrittenSharesTest, TwoThatFittedOneByOneAreHeldAgainstTheLimitAgainAfterTheirProviders) {
  limit({4 * one(10), 4 * one(10), one(10), 4 * one(10)});
  provide(kProvider, "net.mtu");
  const Changed asked = begin(kOneWriter, setTo("net.mtu", {"1400"}));
  EXPECT_EQ(writeBy(kOneWriter, "net.name", "1234567890")->error(), eErrNone);
  agree();
  agree();
  EXPECT_EQ(asked->error(), eErrLimit);
  EXPECT_EQ(valueOf("net.mtu"), "1500");
}

TEST_F(WrittenSharesTest, AProcessHasItsShareAsLongAsItLives) {
  limit({8 * one(10), one(10), one(10), one(10)});
  changes_->peerCame(peerOf(kRootWriter));
  changes_->peerCame(peerOf(kRootWriter));
  EXPECT_EQ(writeBy(kRootWriter, "net.name", "1234567890")->error(), eErrNone);
  EXPECT_THAT(writeBy(kRootWriter, "net.mtu", "1400")->text(),
              HasSubstr("process 10 has its share"));
  changes_->peerWent(peerOf(kRootWriter));
  EXPECT_EQ(writeBy(kRootWriter, "net.mtu", "1400")->error(), eErrLimit);
  changes_->peerWent(peerOf(kRootWriter));
  // Another process of the same number.
  changes_->peerCame(peerOf(kRootWriter));
  EXPECT_EQ(writeBy(kRootWriter, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_EQ(make(kRootWriter, resetOf("net.name"))->error(), eErrNone);
  EXPECT_EQ(writeBy(kRootWriter, "net.mode", "manual")->error(), eErrLimit);
}

TEST_F(WrittenSharesTest, WhatWasStoredBeforeTheStartCountsForAllAndForNoUser) {
  ASSERT_EQ(writeBy(kOneWriter, "net.name", "1234567890")->error(), eErrNone);
  limit({2 * one(10), 2 * one(10), one(10), 2 * one(10)});
  changes_->countStored();
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_THAT(writeBy(kOtherWriter, "net.mode", "manual")->text(), HasSubstr("in all"));
  EXPECT_EQ(make(kOtherWriter, resetOf("net.name"))->error(), eErrNone);
  EXPECT_EQ(writeBy(kOtherWriter, "net.mode", "manual")->error(), eErrNone);
}

// --- In an hour ---

class HourlyLimitsTest : public WrittenSharesTest {
 protected:
  void limitHour(HourlyOptions hourly) {
    ChangesOptions options;
    options.hourly = hourly;
    changes_ = std::make_unique<Changes>(model_, subscriptions_, announcer_, host_, log_, options);
  }
};

TEST_F(HourlyLimitsTest, AUsersCommitsPastTheLimitAreRefusedUntilItsHourIsOver) {
  limitHour({2, 0});
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1400")->error(), eErrNone);
  host_.clock += std::chrono::seconds(600);
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1300")->error(), eErrNone);
  const Changed refused = writeBy(kOneWriter, "net.mtu", "1200");
  EXPECT_EQ(refused->error(), eErrLimit);
  EXPECT_THAT(refused->text(),
              HasSubstr("no more than 2 durable changes in an hour for one user, and user 1000 has "
                        "its share: there is room again in 3000 s"));
  host_.clock += std::chrono::seconds(2999);
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1200")->error(), eErrLimit);
  host_.clock += std::chrono::seconds(1);
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1200")->error(), eErrNone);
}

TEST_F(HourlyLimitsTest, OtherUsersRootAndWritesOfWhatIsThereAreNotLimitedByIt) {
  limitHour({1, 0});
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1300")->error(), eErrLimit);
  EXPECT_EQ(writeBy(kOtherWriter, "net.mtu", "1300")->error(), eErrNone);
  for (const char* value : {"1", "2", "3"})
    EXPECT_EQ(writeBy(kRootWriter, "net.name", value)->error(), eErrNone);
}

TEST_F(HourlyLimitsTest, BytesCountWithAPageForEachCommit) {
  limitHour({0, HourlyLimits::kCommitBytes * 2 + 8});
  EXPECT_EQ(writeBy(kOneWriter, "net.mtu", "1400")->error(), eErrNone);
  EXPECT_THAT(writeBy(kOneWriter, "net.name", "12345")->text(),
              HasSubstr("bytes made durable in an hour"));
  EXPECT_EQ(writeBy(kOneWriter, "net.name", "1234")->error(), eErrNone);
  EXPECT_THAT(writeBy(kOtherWriter, "net.name", std::string(5000, 'x'))->text(),
              HasSubstr("make the value smaller"));
}

}  // namespace
}  // namespace ConfigSrv
