// Who is told of changes, and when.
#include <future>
#include <thread>

#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using ConfigIF::CALLBACK_VALUE_CHANGED;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

using NoticeTest = IntegrationTest;

TEST_F(NoticeTest, AnotherProcessIsToldOfAChange) {
  ASSERT_TRUE(other_.registerFor(CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(other_.waitForNotice("value net.mtu = 1400"));
}

TEST_F(NoticeTest, TheWriterIsToldToo) {
  ASSERT_TRUE(client_.registerFor(CALLBACK_VALUE_CHANGED, "net").ok());
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(client_.waitForNotice("value net.mtu = 1400"));
}

TEST_F(NoticeTest, AnUnchangedWriteNotifiesNobody) {
  ASSERT_TRUE(other_.registerFor(CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  ASSERT_TRUE(client_.write("net.mtu", "1500").ok());
  catchUp(other_);
  EXPECT_THAT(other_.notices(), ElementsAre("value test.marker = 1"));
}

TEST_F(NoticeTest, AVariableOfANamespaceIsAnnouncedWithIt) {
  ASSERT_TRUE(other_.registerFor(CALLBACK_VALUE_CHANGED, "engine.speed").ok());
  ASSERT_TRUE(client_.write("3:engine.speed", "7").ok());
  EXPECT_TRUE(other_.waitForNotice("value 3:engine.speed = 7"));
}

TEST_F(NoticeTest, WhatWasWithdrawnIsNotTold) {
  ASSERT_TRUE(other_.registerFor(CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  ConfigIF::UnregisterClientCallbackReq request;
  request.set_name("net.mtu");
  request.set_type(CALLBACK_VALUE_CHANGED);
  request.set_endpoint_name("link of other");
  ConfigIF::UnregisterClientCallbackRsp response;
  ASSERT_TRUE(other_.request(request, &response).ok());
  EXPECT_EQ(other_.request(request, &response).error, CommonIF::ERROR_NOT_FOUND);
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  catchUp(other_);
  EXPECT_THAT(other_.notices(), Not(Contains("value net.mtu = 1400")));
}

TEST_F(NoticeTest, WithdrawingEverythingOfOneClientLeavesOthersAlone) {
  ASSERT_TRUE(other_.registerFor(CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  ASSERT_TRUE(client_.registerFor(CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  ConfigIF::UnregisterAllClientCallbacksReq request;
  request.set_client_name(other_.name());
  ConfigIF::UnregisterAllClientCallbacksRsp response;
  // The name is the other's; the registrations would have to be one's own.
  ASSERT_TRUE(client_.call(request, &response).ok());
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(other_.waitForNotice("value net.mtu = 1400"));
  ASSERT_TRUE(other_.call(request, &response).ok());
  ASSERT_TRUE(client_.write("net.mtu", "1300").ok());
  EXPECT_TRUE(client_.waitForNotice("value net.mtu = 1300"));
  catchUp(other_);
  EXPECT_THAT(other_.notices(), Not(Contains("value net.mtu = 1300")));
}

TEST_F(NoticeTest, AChangeBetweenAReadAndItsRegistrationIsTold) {
  other_.endpoint().addRemoteEndpoint(TestClient::kService, -1);
  ASSERT_TRUE(other_.endpoint().waitUntilConnected(TestClient::kService, kPatience));
  // On another thread, for a client's own requests tell it the newest revision.
  ASSERT_TRUE(other_.read("net.mtu").ok());
  std::thread([this] { ASSERT_TRUE(client_.write("net.mtu", "1400").ok()); }).join();
  ASSERT_TRUE(other_.registerFor(CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  EXPECT_TRUE(other_.waitForNotice("value net.mtu = 1400"));
}

TEST_F(NoticeTest, ARegistrationSurvivesARestartOfTheService) {
  ASSERT_TRUE(other_.registerFor(CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  service_.kill();
  service_.start();
  ASSERT_TRUE(other_.endpoint().waitUntilConnected(TestClient::kService, kPatience));
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(other_.waitForNotice("value net.mtu = 1400"));
}

TEST_F(NoticeTest, WhatChangedBecauseOfNewDefinitionsIsToldAfterTheRestart) {
  ASSERT_TRUE(other_.registerFor(CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  ASSERT_EQ(service_.terminate(), 0);
  service_.redefine("[variable.\"net.mtu\"]\ntype = \"int\"\ndefault = 1280\n");
  service_.start();
  EXPECT_TRUE(other_.waitForNotice("value net.mtu = 1280"));
}

TEST_F(NoticeTest, TwoWritersAtOnceLeaveEverybodyWithTheSameLastValue) {
  ASSERT_TRUE(other_.registerFor(CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  const auto writeMany = [this](const std::string& name, int first) {
    TestClient writer(name, service_.runtimeDir());
    for (int i = 0; i < 50; ++i)
      ASSERT_TRUE(writer.write("net.mtu", std::to_string(first + i)).ok());
  };
  std::thread first(writeMany, "first", 1000);
  std::thread second(writeMany, "second", 2000);
  first.join();
  second.join();
  const std::string last = client_.read("net.mtu").values.at(0);
  EXPECT_TRUE(last == "1049" || last == "2049");
  catchUp(other_);
  const std::vector<std::string> notices = other_.notices();
  ASSERT_GE(notices.size(), 2u);
  EXPECT_EQ(notices[notices.size() - 2], "value net.mtu = " + last);
}

TEST_F(NoticeTest, OptionsAccessLevelsAndSubmitsAreTold) {
  for (const ConfigIF::CallbackType type :
       {ConfigIF::CALLBACK_OPTIONS_CHANGED, ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED,
        ConfigIF::CALLBACK_SUBMIT})
    ASSERT_TRUE(other_.registerFor(type, "net.mode").ok());
  ConfigIF::Inst inst;
  inst.add_path()->set_name("net");
  inst.add_path()->set_name("mode");

  ConfigIF::SetAttributeOptionsReq options;
  *options.mutable_inst() = inst;
  options.add_options("auto");
  ConfigIF::SetAttributeOptionsRsp optionsResponse;
  ASSERT_TRUE(client_.request(options, &optionsResponse).ok());
  EXPECT_TRUE(other_.waitForNotice("options net.mode = auto"));

  ConfigIF::SetAccessLevelsReq access;
  *access.add_inst() = inst;
  access.set_write_role(CommonIF::SECURITY_ROLE_PUBLIC);
  ConfigIF::SetAccessLevelsRsp accessResponse;
  ASSERT_TRUE(client_.request(access, &accessResponse).ok());
  EXPECT_TRUE(other_.waitForNotice("access net.mode"));

  ConfigIF::SubmitReq submit;
  *submit.mutable_inst() = inst;
  ConfigIF::SubmitRsp submitResponse;
  ASSERT_TRUE(client_.request(submit, &submitResponse).ok());
  EXPECT_TRUE(other_.waitForNotice("submit net.mode"));
}

TEST_F(NoticeTest, ARegistrationPastALimitIsRefused) {
  EXPECT_EQ(other_.registerFor(CALLBACK_VALUE_CHANGED, std::string(1025, 'a')).error,
            CommonIF::ERROR_LIMIT);
}

}  // namespace
}  // namespace TestSupport
