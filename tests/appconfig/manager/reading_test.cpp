// What a read with a reason tells, for each way in which a service answers or does not.
#include "appconfig/manager/reading.h"

#include "tests/appconfig/manager/manager_fixture.h"

namespace {

using AppConfig::Absence;
using AppConfig::Origin;
using AppConfig::Reading;
using AppConfig::readWithReason;
using TestSupport::answerReadsWith;
using TestSupport::Value;

class ReadingTest : public TestSupport::ManagerTest {
 protected:
  Reading read() { return readWithReason(mtu, manager.get()); }
  void refuseWith(CommonIF::eErrorType error, const std::string& message = "") {
    pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>([=](const auto&, auto& response) {
      TestSupport::refuse(response.mutable_result(), error, message);
    });
  }
};

TEST_F(ReadingTest, AValueComesWithItsOrigin) {
  answerReadsWith(pb, {"1500", "9000"}, true);
  Reading reading = read();
  EXPECT_TRUE(reading);
  EXPECT_EQ(reading.value, (Value{"1500", "9000"}));
  EXPECT_EQ(reading.text(), "1500");
  EXPECT_EQ(reading.origin, Origin::Default);
  EXPECT_EQ(reading.absence, Absence::None);
  EXPECT_EQ(reading.reason, "");
  answerReadsWith(pb, {"1400"}, false);
  reading = read();
  EXPECT_EQ(reading.text(), "1400");
  EXPECT_EQ(reading.origin, Origin::Stored);
}

TEST_F(ReadingTest, AServiceThatDoesNotTellTheDefaultIsNotMadeToSaySo) {
  pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>(
      [](const auto&, auto& response) { response.add_values("1500"); });
  EXPECT_EQ(read().origin, Origin::NotTold);
}

TEST_F(ReadingTest, AValueThatIsEmptyIsKnown) {
  answerReadsWith(pb, {}, false);
  EXPECT_TRUE(read());
  EXPECT_TRUE(read().value.empty());
  EXPECT_EQ(read().text(), "");
  answerReadsWith(pb, {""}, true);
  EXPECT_TRUE(read());
  EXPECT_EQ(read().origin, Origin::Default);
}

TEST_F(ReadingTest, EachRefusalHasAReasonOfItsOwn) {
  const struct {
    CommonIF::eErrorType refusal;
    Absence absence;
    eErrorT error;
    const char* words;
  } kCases[] = {
      {CommonIF::ERROR_NOT_FOUND, Absence::Unknown, eErrNotFound, "net.mtu: no such variable"},
      {CommonIF::ERROR_DENIED, Absence::Denied, eErrDenied,
       "net.mtu: the role is too low to read it"},
      {CommonIF::ERROR_UNAVAILABLE, Absence::ProviderAway, eErrUnavailable,
       "net.mtu: its provider went away"},
      {CommonIF::ERROR_TIMED_OUT, Absence::ProviderTimedOut, eErrTimedOut,
       "net.mtu: its provider does not answer"},
      {CommonIF::ERROR_STORAGE, Absence::Failed, eErrStorage,
       "net.mtu: the service cannot read it"},
  };
  for (const auto& c : kCases) {
    refuseWith(c.refusal);
    const Reading reading = read();
    EXPECT_FALSE(reading) << c.words;
    EXPECT_EQ(reading.absence, c.absence) << c.words;
    EXPECT_EQ(reading.error, c.error) << c.words;
    EXPECT_EQ(reading.callStatus, 0) << c.words;
    EXPECT_EQ(reading.reason, c.words);
  }
}

TEST_F(ReadingTest, TheServicesOwnWordsComeFirst) {
  refuseWith(CommonIF::ERROR_NOT_FOUND, "net.mtu went with the last release");
  EXPECT_EQ(read().reason, "net.mtu went with the last release");
}

TEST_F(ReadingTest, ADeniedReadShowsNothingOfWhatWasReadBefore) {
  answerReadsWith(pb, {"1500"});
  EXPECT_TRUE(read());
  refuseWith(CommonIF::ERROR_DENIED);
  const Reading reading = read();
  EXPECT_FALSE(reading);
  EXPECT_TRUE(reading.value.empty());
  EXPECT_EQ(reading.origin, Origin::None);
}

TEST_F(ReadingTest, WithoutTheServiceWhatWasToldLastIsTheValueAndSaysSo) {
  answerReadsWith(pb, {"1500"}, true);
  EXPECT_TRUE(read());
  pb.failAll(3);
  const Reading reading = read();
  EXPECT_TRUE(reading);
  EXPECT_EQ(reading.text(), "1500");
  EXPECT_EQ(reading.origin, Origin::LastKnown);
  EXPECT_EQ(reading.absence, Absence::ServiceAway);
  EXPECT_EQ(reading.callStatus, 3);
  EXPECT_EQ(reading.reason, "net.mtu: the service does not answer");
}

TEST_F(ReadingTest, WithoutTheServiceAndWithoutAValueThereIsTheReasonAlone) {
  pb.failAll();
  const Reading reading = read();
  EXPECT_FALSE(reading);
  EXPECT_TRUE(reading.value.empty());
  EXPECT_EQ(reading.absence, Absence::ServiceAway);
}

TEST_F(ReadingTest, WithoutAnEndpointNobodyIsAsked) {
  Link unattached(0, "", "");
  AppCfgManager early(&unattached);
  const Reading reading = readWithReason(mtu, &early);
  EXPECT_FALSE(reading);
  EXPECT_EQ(reading.absence, Absence::NoEndpoint);
  EXPECT_EQ(reading.reason, "net.mtu: there is no endpoint to ask the service by");
  early.updateConfigVar(mtu, {"1500"});
  EXPECT_EQ(readWithReason(mtu, &early).origin, Origin::LastKnown);
}

TEST_F(ReadingTest, WhatItReadsIsCachedAndKeptCurrent) {
  answerReadsWith(pb, {"1500"});
  EXPECT_TRUE(read());
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  EXPECT_EQ(reads(), 1U);
  EXPECT_TRUE(link->isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
}

TEST_F(ReadingTest, AVariableThatIsNeverCachedHasNothingThatWasToldLast) {
  const ConfigVar foreign(99, "net", 0, "mtu", 1);
  answerReadsWith(pb, {"1500"}, true);
  EXPECT_EQ(readWithReason(foreign, manager.get()).origin, Origin::Default);
  pb.failAll();
  EXPECT_FALSE(readWithReason(foreign, manager.get()));
}

}  // namespace
