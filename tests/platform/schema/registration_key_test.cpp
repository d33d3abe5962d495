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

TEST(RegistrationKeyTest, OtherMessagesAndRubbishHaveNone) {
  EXPECT_EQ(keyOf(ConfigIF::ReadReq()), "");
  EXPECT_EQ(registrationKey(0x1A0210, "\xFF\xFF\xFF"), "");
  EXPECT_EQ(registrationKey(0x1A0220, "\xFF\xFF\xFF"), "");
  EXPECT_EQ(registrationKey(0x1A0230, "\xFF\xFF\xFF"), "");
}

}  // namespace
}  // namespace PlatformSchema
