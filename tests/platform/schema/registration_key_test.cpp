#include "platform/schema/registration_key.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"

namespace PlatformSchema {
namespace {

template <typename Request>
Request filled(const std::string& client, const std::string& name, ConfigIF::CallbackType type,
               const std::string& identity) {
  Request request;
  request.set_client_name(client);
  request.set_name(name);
  request.set_type(type);
  request.set_endpoint_name(identity);
  return request;
}

ConfigIF::RegisterClientCallbackReq registration(const std::string& name = "net.mtu") {
  return filled<ConfigIF::RegisterClientCallbackReq>("ui", name, ConfigIF::CALLBACK_SUBMIT, "link");
}

template <typename Request>
std::string keyOf(const Request& request) {
  return registrationKey(messageIdOf(request), request.SerializeAsString());
}

TEST(RegistrationKeyTest, AWithdrawalHasTheKeyOfWhatItWithdraws) {
  const auto withdrawal = filled<ConfigIF::UnregisterClientCallbackReq>(
      "ui", "net.mtu", ConfigIF::CALLBACK_SUBMIT, "link");
  EXPECT_EQ(keyOf(withdrawal), keyOf(registration()));
}

TEST(RegistrationKeyTest, AnEmptyNameThatIsPresentIsTheAbsentOne) {
  ConfigIF::RegisterClientCallbackReq absent = registration();
  absent.clear_name();
  const auto withdrawal =
      filled<ConfigIF::UnregisterClientCallbackReq>("ui", "", ConfigIF::CALLBACK_SUBMIT, "link");
  EXPECT_EQ(keyOf(withdrawal), keyOf(absent));
}

TEST(RegistrationKeyTest, TheRoleDoesNotCount) {
  ConfigIF::RegisterClientCallbackReq other = registration();
  other.set_role(CommonIF::SECURITY_ROLE_FACTORY);
  EXPECT_EQ(keyOf(other), keyOf(registration()));
}

TEST(RegistrationKeyTest, ClientNameTypeAndIdentityAllCount) {
  const auto make = filled<ConfigIF::RegisterClientCallbackReq>;
  const std::set<std::string> keys = {
      keyOf(registration()), keyOf(registration("net")),
      keyOf(make("ux", "net.mtu", ConfigIF::CALLBACK_SUBMIT, "link")),
      keyOf(make("ui", "net.mtu", ConfigIF::CALLBACK_ON_CHANGE, "link")),
      keyOf(make("ui", "net.mtu", ConfigIF::CALLBACK_SUBMIT, "lank"))};
  EXPECT_EQ(keys.size(), 5U);
}

TEST(RegistrationKeyTest, WithdrawingAllHasTheStartOfEveryKeyOfItsClientAndOfNoOther) {
  ConfigIF::UnregisterAllClientCallbacksReq all;
  all.set_client_name("ui");
  EXPECT_EQ(keyOf(registration()).rfind(keyOf(all), 0), 0U);
  // A client whose name begins the same is another client.
  all.set_client_name("u");
  EXPECT_NE(keyOf(registration()).rfind(keyOf(all), 0), 0U);
}

TEST(RegistrationKeyTest, AMonitorTakesThePlaceOfTheSameClientsFormerOneAndOfNoRegistration) {
  ConfigIF::MonitorReq monitor;
  monitor.set_client_name("ui");
  ConfigIF::MonitorReq stop = monitor;
  stop.set_stop(true);
  EXPECT_EQ(keyOf(stop), keyOf(monitor));
  EXPECT_NE(keyOf(monitor), keyOf(registration()));
  stop.set_client_name("other");
  EXPECT_NE(keyOf(stop), keyOf(monitor));
}

TEST(RegistrationKeyTest, OnlyAProvidersRegistrationForChangesIsToldOfValuesToCome) {
  const auto isTold = [](ConfigIF::CallbackType type) {
    const auto request = filled<ConfigIF::RegisterClientCallbackReq>("ui", "net.mtu", type, "link");
    return isToldOnChange(messageIdOf(request), request.SerializeAsString());
  };
  EXPECT_TRUE(isTold(ConfigIF::CALLBACK_ON_CHANGE));
  EXPECT_FALSE(isTold(ConfigIF::CALLBACK_DYNAMIC_VALIDATE));
  EXPECT_FALSE(isTold(ConfigIF::CALLBACK_VALUE_CHANGED));
  EXPECT_FALSE(isToldOnChange(0x1A0210, "\xFF\xFF\xFF"));
  EXPECT_FALSE(isToldOnChange(messageIdOf(ConfigIF::MonitorReq()), ""));
}

TEST(RegistrationKeyTest, WhatCoversARegistrationIsEachNameAboveItForTheSameCallerAndType) {
  const auto covering = [](const google::protobuf::MessageLite& request) {
    return coveringKeys(messageIdOf(request), request.SerializeAsString());
  };
  const std::vector<std::string> expected = {keyOf(registration("net.eth.mtu")),
                                             keyOf(registration("net.eth")),
                                             keyOf(registration("net")), keyOf(registration(""))};
  EXPECT_EQ(covering(registration("net.eth.mtu")), expected);
  EXPECT_EQ(covering(registration("")), std::vector<std::string>{keyOf(registration(""))});
  ConfigIF::MonitorReq monitor;
  monitor.set_prefix("net.mtu");
  EXPECT_EQ(covering(monitor), std::vector<std::string>{keyOf(monitor)});
  EXPECT_TRUE(covering(ConfigIF::ReadReq()).empty());
  EXPECT_TRUE(coveringKeys(0x1A0210, "\xFF\xFF\xFF").empty());
}

template <typename Response>
std::optional<std::string> refusalFor(CommonIF::eErrorType error,
                                      const std::vector<std::string>& texts = {}) {
  Response response;
  if (error != CommonIF::ERROR_NONE) response.mutable_result()->set_error(error);
  for (const std::string& text : texts) response.mutable_result()->add_messages(text);
  return refusalForRoom(messageIdOf(response), response.SerializeAsString());
}

TEST(RegistrationKeyTest, OnlyALimitIsARefusalForWantOfRoom) {
  using Registered = ConfigIF::RegisterClientCallbackRsp;
  EXPECT_EQ(refusalFor<Registered>(CommonIF::ERROR_LIMIT, {"full", "of user 7"}),
            "full; of user 7");
  EXPECT_EQ(refusalFor<ConfigIF::MonitorRsp>(CommonIF::ERROR_LIMIT),
            "a limit of the service is reached");
  EXPECT_EQ(refusalFor<Registered>(CommonIF::ERROR_NONE), std::nullopt);
  EXPECT_EQ(refusalFor<Registered>(CommonIF::ERROR_NONE, {"welcome"}), std::nullopt);
  EXPECT_EQ(refusalFor<Registered>(CommonIF::ERROR_DENIED, {"no"}), std::nullopt);
  EXPECT_EQ(refusalFor<ConfigIF::WriteRsp>(CommonIF::ERROR_LIMIT), std::nullopt);
  EXPECT_EQ(refusalForRoom(0x1A0211, "\xFF\xFF\xFF"), std::nullopt);
}

TEST(RegistrationKeyTest, OtherMessagesAndRubbishHaveNone) {
  EXPECT_EQ(keyOf(ConfigIF::ReadReq()), "");
  EXPECT_EQ(registrationKey(0x1A0210, "\xFF\xFF\xFF"), "");
  EXPECT_EQ(registrationKey(0x1A0220, "\xFF\xFF\xFF"), "");
  EXPECT_EQ(registrationKey(0x1A0230, "\xFF\xFF\xFF"), "");
}

}  // namespace
}  // namespace PlatformSchema
