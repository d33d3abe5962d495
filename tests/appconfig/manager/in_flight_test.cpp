#include "appconfig/manager/internal/in_flight.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using AppConfig::ConfigAccessLevels;
using AppConfig::ConfigCache;
using AppConfig::ConfigValue;
using AppConfig::Flight;
using AppConfig::NoticeStore;
using AppConfig::Parts;
using Value = std::list<std::string>;

class FlightTest : public ::testing::Test {
 protected:
  ConfigValue record() {
    ConfigValue out;
    cache.copyRecord(key, out);
    return out;
  }
  Value value() { return record().getValue(); }

  void notice(const Value& value) {
    const NoticeStore guard(cache, key, AppConfig::kValuePart);
    cache.update(key, value);
  }
  void noticeOf(Parts parts) { const NoticeStore guard(cache, key, parts); }

  static ConfigAccessLevels bothRoles() {
    ConfigAccessLevels levels;
    levels.readRole = AppConfig::eRoleInstaller;
    levels.writeRole = AppConfig::eRoleFactory;
    levels.readRoleSet = levels.writeRoleSet = true;
    return levels;
  }

  ConfigCache cache;
  const ConfigVar key{"net", 0, "mtu", 1};
};

TEST_F(FlightTest, WithoutContentionAReadStoresValueAndFlag) {
  Flight flight(cache, key);
  flight.storeRead({"a", "b"}, true);
  EXPECT_EQ(value(), (Value{"a", "b"}));
  EXPECT_TRUE(record().isDefault());
}

TEST_F(FlightTest, WithoutContentionAWriteStoresTheValueAndLeavesTheFlag) {
  cache.updateIsDefault(key, true);
  Flight(cache, key).storeWritten({"a"});
  EXPECT_EQ(value(), Value{"a"});
  EXPECT_TRUE(record().isDefault());
}

TEST_F(FlightTest, WhatANoticeStoredSinceAReadBeganStays) {
  Flight read(cache, key);
  notice({"new"});
  read.storeRead({"old"}, true);
  EXPECT_EQ(value(), Value{"new"});
  EXPECT_FALSE(record().isDefault());
}

TEST_F(FlightTest, OfAWriteAndANoticeSinceItBeganThatDifferNeitherStays) {
  Flight write(cache, key);
  notice({"before or after"});
  write.storeWritten({"ours"});
  EXPECT_EQ(value(), Value{});
}

TEST_F(FlightTest, OfAWriteAndANoticeSinceItBeganThatAgreeTheValueStays) {
  Flight write(cache, key);
  notice({"ours"});
  write.storeWritten({"ours"});
  EXPECT_EQ(value(), Value{"ours"});
}

TEST_F(FlightTest, AnEntryThatWasRemovedAfterANoticeDuringAWriteStaysRemoved) {
  Flight write(cache, key);
  notice({"theirs"});
  cache.removeVars("net");
  write.storeWritten({"ours"});
  EXPECT_EQ(cache.getConfigValue(key), cache.end());
}

TEST_F(FlightTest, ANoticeBeforeTheFlightOrAfterItsStoreIsNoMatter) {
  notice({"older"});
  Flight flight(cache, key);
  flight.storeRead({"old"}, false);
  EXPECT_EQ(value(), Value{"old"});
  notice({"new"});
  EXPECT_EQ(value(), Value{"new"});
}

TEST_F(FlightTest, ANoticeAboutAnotherEntryOvertakesNobody) {
  ConfigCache otherCache;
  Flight flight(cache, key);
  const ConfigVar others[] = {{"net", 0, "mtu", 2},
                              {"net", 1, "mtu", 1},
                              {"net", 0, "name", 1},
                              {"nets", 0, "mtu", 1},
                              {5, "net", 0, "mtu", 1}};
  for (const ConfigVar& other : others) {
    const NoticeStore guard(cache, other, AppConfig::kValuePart);
  }
  { const NoticeStore guard(otherCache, key, AppConfig::kValuePart); }
  flight.storeRead({"a"}, false);
  EXPECT_EQ(value(), Value{"a"});
}

TEST_F(FlightTest, ANoticeAboutOnePartLeavesTheOthersToTheFlight) {
  Flight flight(cache, key);
  noticeOf(AppConfig::kOptionsPart | AppConfig::kDefaultIndexPart | AppConfig::kReadRolePart |
           AppConfig::kWriteRolePart);
  flight.storeRead({"a"}, true);
  EXPECT_EQ(value(), Value{"a"});
  EXPECT_TRUE(record().isDefault());
}

TEST_F(FlightTest, AnAnnouncedFlagStaysAndTheValueIsStored) {
  Flight flight(cache, key);
  noticeOf(AppConfig::kDefaultFlagPart);
  flight.storeRead({"a"}, true);
  EXPECT_EQ(value(), Value{"a"});
  EXPECT_FALSE(record().isDefault());
}

TEST_F(FlightTest, AnnouncedOptionsStayAndTheIndexIsStored) {
  Flight flight(cache, key);
  noticeOf(AppConfig::kOptionsPart);
  flight.storeOptions({"a", "b"}, 1);
  EXPECT_FALSE(record().hasOptions());
  EXPECT_EQ(record().defaultIndex(), 1U);
}

TEST_F(FlightTest, AnAnnouncedIndexStaysAndTheOptionsAreStored) {
  Flight read(cache, key);
  Flight write(cache, key);
  noticeOf(AppConfig::kDefaultIndexPart);
  read.storeOptions({"a", "b"}, 1);
  write.storeDefaultIndex(2);
  EXPECT_TRUE(record().hasOptions());
  EXPECT_EQ(record().defaultIndex(), 0U);
}

TEST_F(FlightTest, OfTheRolesTheHalfThatWasAnnouncedStays) {
  Flight flight(cache, key);
  ConfigAccessLevels announced;
  announced.writeRole = AppConfig::eRoleUser;
  announced.writeRoleSet = true;
  {
    const NoticeStore guard(cache, key, AppConfig::kWriteRolePart);
    cache.updateAccessLevels(key, announced);
  }
  flight.storeAccessLevels(bothRoles());
  EXPECT_EQ(record().readRole(), AppConfig::eRoleInstaller);
  EXPECT_EQ(record().writeRole(), AppConfig::eRoleUser);
  EXPECT_TRUE(record().hasAccessLevels());
}

TEST_F(FlightTest, AnAnnouncedReadRoleStaysAndTheWriteRoleIsStored) {
  Flight flight(cache, key);
  ConfigAccessLevels announced;
  announced.readRole = AppConfig::eRoleUser;
  announced.readRoleSet = true;
  {
    const NoticeStore guard(cache, key, AppConfig::kReadRolePart);
    cache.updateAccessLevels(key, announced);
  }
  flight.storeAccessLevels(bothRoles());
  EXPECT_EQ(record().readRole(), AppConfig::eRoleUser);
  EXPECT_EQ(record().writeRole(), AppConfig::eRoleFactory);
}

TEST_F(FlightTest, OfTwoAnswersThatAreEqualTheValueStaysAndTheFlagIsTakenOver) {
  Flight read(cache, key);
  Flight(cache, key).storeWritten({"a"});
  read.storeRead({"a"}, true);
  EXPECT_EQ(value(), Value{"a"});
  EXPECT_TRUE(record().isDefault());
}

TEST_F(FlightTest, OfTwoAnswersThatDifferNeitherStays) {
  Flight slow(cache, key);
  Flight(cache, key).storeRead({"a"}, true);
  EXPECT_EQ(value(), Value{"a"});
  slow.storeRead({"b"}, false);
  EXPECT_FALSE(record().hasValue());
  EXPECT_TRUE(record().isDefault());  // says nothing without a value
}

TEST_F(FlightTest, AnEntryThatWasEmptiedIsNotFilledByAFlightThatWasOpenThen) {
  Flight slowest(cache, key);
  Flight slow(cache, key);
  Flight(cache, key).storeRead({"a"}, false);
  slow.storeWritten({"b"});
  slowest.storeRead({"b"}, false);
  EXPECT_FALSE(record().hasValue());
  Flight(cache, key).storeRead({"b"}, false);
  EXPECT_EQ(value(), Value{"b"});
}

TEST_F(FlightTest, AFlightThatBeganAfterAnotherStoredIsTheNewer) {
  auto first = std::make_unique<Flight>(cache, key);
  first->storeRead({"a"}, false);
  Flight second(cache, key);
  first.reset();
  second.storeRead({"b"}, false);
  EXPECT_EQ(value(), Value{"b"});
}

// The second answer equals what is there, but the third cannot know which of them is newer.
TEST_F(FlightTest, AnAnswerThatChangedNothingContestsOthersAllTheSame) {
  Flight first(cache, key);
  Flight(cache, key).storeRead({"a"}, false);
  Flight third(cache, key);
  first.storeRead({"a"}, false);
  third.storeRead({"b"}, false);
  EXPECT_FALSE(record().hasValue());
}

TEST_F(FlightTest, AFlightThatStoresNothingContestsNobody) {
  Flight slow(cache, key);
  { const Flight failed(cache, key); }
  slow.storeRead({"a"}, false);
  EXPECT_EQ(value(), Value{"a"});
}

TEST_F(FlightTest, AFlightThatANoticeOvertookContestsNobody) {
  Flight overtaken(cache, key);
  notice({"n"});
  Flight later(cache, key);
  overtaken.storeRead({"a"}, false);
  later.storeRead({"b"}, false);
  EXPECT_EQ(value(), Value{"b"});
}

TEST_F(FlightTest, ANoticeEndsAContest) {
  Flight slow(cache, key);
  Flight(cache, key).storeRead({"a"}, false);
  notice({"n"});
  slow.storeRead({"b"}, false);
  EXPECT_EQ(value(), Value{"n"});
}

TEST_F(FlightTest, FlightsOfOtherEntriesContestNobody) {
  Flight slow(cache, key);
  ConfigCache otherCache;
  Flight(otherCache, key).storeRead({"x"}, false);
  for (const int otherInstance : {0, 2})
    Flight(cache, ConfigVar("net", 0, "mtu", otherInstance)).storeRead({"x"}, false);
  slow.storeRead({"b"}, false);
  EXPECT_EQ(value(), Value{"b"});
}

TEST_F(FlightTest, OfOptionsIndexAndRolesTheLastAnswerStays) {
  Flight slow(cache, key);
  Flight(cache, key).storeOptions({"a"}, 1);
  slow.storeOptions({"b"}, 2);
  EXPECT_EQ(record().getOptions(), std::vector<std::string>{"b"});
  EXPECT_EQ(record().defaultIndex(), 2U);
  Flight(cache, key).storeDefaultIndex(3);
  EXPECT_EQ(record().defaultIndex(), 3U);
  Flight(cache, key).storeAccessLevels(bothRoles());
  EXPECT_EQ(record().readRole(), AppConfig::eRoleInstaller);
}

TEST_F(FlightTest, AnEntryRemovedDuringAFlightIsFilledAgain) {
  cache.update(key, {"old"});
  Flight flight(cache, key);
  cache.removeVars("");
  flight.storeRead({"a"}, false);
  EXPECT_EQ(value(), Value{"a"});
}

TEST_F(FlightTest, AnEntryRemovedDuringAContestStaysRemoved) {
  Flight slow(cache, key);
  Flight(cache, key).storeRead({"a"}, false);
  cache.removeVars("");
  slow.storeRead({"b"}, false);
  ConfigValue unused;
  EXPECT_FALSE(cache.copyRecord(key, unused));
}

TEST_F(FlightTest, FlightsMayEndInAnyOrder) {
  auto a = std::make_unique<Flight>(cache, key);
  auto b = std::make_unique<Flight>(cache, key);
  auto c = std::make_unique<Flight>(cache, key);
  b.reset();
  notice({"n"});
  c.reset();
  a->storeRead({"old"}, false);
  a.reset();
  EXPECT_EQ(value(), Value{"n"});
  Flight(cache, key).storeRead({"new"}, false);
  EXPECT_EQ(value(), Value{"new"});
}

}  // namespace
