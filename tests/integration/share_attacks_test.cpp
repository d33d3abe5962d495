// One user asks for all there is, of everything that the service keeps for its clients: it is told
// which limit it has reached, root's programs are served as before, and when it is gone, so is what it
// took.
#include <algorithm>

#include "tests/integration/access_fixture.h"
#include "tests/support/load.h"

namespace TestSupport {
namespace {

using PbUtility::ConnectionUse;
using PbUtility::FrameHeader;
using testing::HasSubstr;

constexpr std::size_t kMiB = std::size_t{1} << 20;
#if defined(APPCONFIG_SANITIZE_ADDRESS) || defined(APPCONFIG_SANITIZE_THREAD)
constexpr bool kMemoryIsTheSanitizers = true;
#else
constexpr bool kMemoryIsTheSanitizers = false;
#endif

// As many variables as one provider can be asked about at a time, about.
constexpr std::size_t kProvided = 1000;
constexpr std::size_t kWriters = 18;

ConfigIF::RegisterClientCallbackReq registrationOf(const std::string& name,
                                                   ConfigIF::CallbackType type) {
  ConfigIF::RegisterClientCallbackReq request;
  request.set_client_name("attacker");
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  request.set_type(type);
  request.set_name(name);
  request.set_endpoint_name("link");
  return request;
}

ConfigIF::WriteReq writeOf(const std::string& key, const std::string& value) {
  ConfigIF::WriteReq request;
  request.set_client_name("attacker");
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  const std::size_t dot = key.rfind('.');
  request.mutable_value()->mutable_inst()->add_path()->set_name(key.substr(0, dot));
  request.mutable_value()->mutable_inst()->add_path()->set_name(key.substr(dot + 1));
  request.mutable_value()->add_values(value);
  return request;
}

// The text of the first refusal among the next answers; empty when there is none.
template <typename Response>
std::string firstRefusal(LoadConnection& connection, std::size_t answers) {
  FrameHeader header;
  std::string payload;
  std::string refusal;
  for (std::size_t i = 0; i < answers && connection.receive(header, payload); ++i) {
    Response response;
    if (!response.ParseFromString(payload) || response.result().error() == CommonIF::ERROR_NONE)
      continue;
    if (refusal.empty()) refusal = response.result().messages(0);
  }
  return refusal;
}

// Registers from one endpoint until it is refused, or has as many as one user never should.
std::string registerUntilRefused(LoadConnection& connection, const std::string& prefix) {
  constexpr std::size_t kBatch = 500;
  for (std::size_t batch = 0; batch < 80; ++batch) {
    for (std::size_t i = 0; i < kBatch; ++i)
      connection.add(registrationOf(prefix + std::to_string(batch * kBatch + i),
                                    ConfigIF::CALLBACK_VALUE_CHANGED));
    if (!connection.send()) return "not sent";
    const std::string refusal =
        firstRefusal<ConfigIF::RegisterClientCallbackRsp>(connection, kBatch);
    if (!refusal.empty()) return refusal;
  }
  return "never refused";
}

// Six endpoints that register for all they can.
void attackWithRegistrations(const std::string& socket, Child::Parent& test) {
  std::vector<LoadConnection> endpoints;
  std::string refusals;
  for (std::uint32_t i = 1; i <= 6; ++i) {
    endpoints.emplace_back(socket, "attacker " + std::to_string(i), 1000 + i,
                           ConnectionUse::Requests);
    refusals += registerUntilRefused(endpoints.back(), "name" + std::to_string(i) + "x") + " | ";
  }
  test.say(refusals);
  test.hear();
}

// A provider that never answers, and endpoints that write what it provides.
void attackWithChanges(const std::string& socket, Child::Parent& test) {
  LoadConnection delivery(socket, "silent", 100, ConnectionUse::Delivery);
  LoadConnection provider(socket, "silent", 100, ConnectionUse::Requests);
  provider.add(registrationOf("load", ConfigIF::CALLBACK_DYNAMIC_VALIDATE));
  if (!provider.send() || !firstRefusal<ConfigIF::RegisterClientCallbackRsp>(provider, 1).empty())
    return test.say("the provider was refused");
  std::vector<LoadConnection> writers;
  for (std::uint32_t i = 1; i <= kWriters; ++i) {
    writers.emplace_back(socket, "writer " + std::to_string(i), i, ConnectionUse::Requests);
    for (std::size_t variable = 0; variable < kProvided; ++variable)
      writers.back().add(writeOf(loadVariable(variable), "x"));
    if (!writers.back().send()) return test.say("a writer could not send");
  }
  // Nothing of what waits is answered, so the first answer is a refusal.
  test.say(firstRefusal<ConfigIF::WriteRsp>(writers.back(), 1));
  test.hear();
}

class ShareAttacksTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!canBecomeOthers()) GTEST_SKIP() << "only root can send clients of another user";
    ASSERT_EQ(chmod(service_.directory().path().c_str(), 0711), 0);
    service_.start();
  }
  using Attack = void (*)(const std::string& socket, Child::Parent& test);
  std::unique_ptr<Child> attack(Attack run) {
    return std::make_unique<Child>(
        kNobody, [socket = service_.socket(), run](Child::Parent& test) { run(socket, test); });
  }
  std::size_t resident() const { return residentBytes(service_.pid()); }

  ServiceProcess service_{
      loadDefinitions(kProvided) + "\n[variable.\"other.x\"]\ntype = \"int\"\ndefault = 0\n",
      {"--provider-deadline", "60000"}};
};

TEST_F(ShareAttacksTest, ManyRegistrationsOfOneUserLeaveRootsProgramsTheirs) {
  const std::unique_ptr<Child> attacker = attack(attackWithRegistrations);
  const std::string refusals = attacker->hear();
  EXPECT_THAT(refusals, HasSubstr("bytes of registrations for one user, and user 65534 has"));
  EXPECT_THAT(refusals, testing::Not(HasSubstr("never refused")));
  TestClient reader("reader", service_.runtimeDir());
  EXPECT_TRUE(reader.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "other.x").ok());
  TestClient writer("writer", service_.runtimeDir());
  EXPECT_TRUE(writer.write("other.x", "1").ok());
  EXPECT_TRUE(reader.waitForNotice("value other.x = 1"));
}

TEST_F(ShareAttacksTest, ASilentProviderAndManyWritersOfOneUserLeaveRootsProgramsTheirChanges) {
  const std::unique_ptr<Child> attacker = attack(attackWithChanges);
  EXPECT_THAT(attacker->hear(), HasSubstr("for one user, and user 65534 has its share"));
  TestClient writer("writer", service_.runtimeDir());
  for (const char* value : {"1", "2", "3"}) {
    const Outcome outcome = writer.write("other.x", value);
    EXPECT_TRUE(outcome.ok()) << outcome.text;
  }
}

TEST_F(ShareAttacksTest, MonitorsOfOneUserLeaveRootOne) {
  const Child attacker(kNobody, [this](Child::Parent& test) {
    std::vector<std::unique_ptr<TestClient>> clients;
    std::string refusal;
    int accepted = 0;
    for (int i = 0; i < 16; ++i) {
      clients.push_back(
          std::make_unique<TestClient>("watcher " + std::to_string(i), service_.runtimeDir()));
      ConfigIF::MonitorRsp response;
      const Outcome outcome = clients.back()->request(ConfigIF::MonitorReq(), &response);
      outcome.ok() ? ++accepted : 0;
      if (!outcome.ok()) refusal = outcome.text;
    }
    std::replace(refusal.begin(), refusal.end(), '\n', ' ');
    test.say(std::to_string(accepted) + " accepted; " + refusal);
    test.hear();
  });
  EXPECT_THAT(attacker.hear(), testing::AllOf(HasSubstr("2 accepted"), HasSubstr("has its share")));
  TestClient watcher("watcher", service_.runtimeDir());
  ConfigIF::MonitorRsp response;
  const Outcome outcome = watcher.request(ConfigIF::MonitorReq(), &response);
  EXPECT_TRUE(outcome.ok()) << outcome.text;
}

TEST_F(ShareAttacksTest, WhatOneUserTakesIsBoundedAndGivenBackWhenItIsGone) {
  if (kMemoryIsTheSanitizers) GTEST_SKIP() << "memory is the sanitizer's";
  const std::size_t before = resident();
  std::unique_ptr<Child> registrations = attack(attackWithRegistrations);
  std::unique_ptr<Child> changes = attack(attackWithChanges);
  EXPECT_THAT(registrations->hear(), HasSubstr("has its share"));
  EXPECT_THAT(changes->hear(), HasSubstr("has its share"));
  const std::size_t during = resident();
  EXPECT_LT(during, before + 25 * kMiB);
  registrations.reset();
  changes.reset();
  EXPECT_TRUE(eventually([&] { return resident() < before + before / 5; }))
      << before / 1024 << " KiB before, " << during / 1024 << " during, " << resident() / 1024
      << " after";
  std::printf("%zu KiB before, %zu during, %zu after\n", before / 1024, during / 1024,
              resident() / 1024);
}

class HourlyTest : public AccessTest {
 protected:
  HourlyTest() : AccessTest({"--commits-per-hour", "2", "--bytes-per-hour", "100000"}) {}
};

TEST_F(HourlyTest, AUserHasItsCommitsOfTheHourAndRootHasNoSuchLimit) {
  const std::string heard = asUser(kNobody, "writer", [](TestClient& client) {
    std::string all;
    for (const char* value : {"1400", "1300", "1300", "1200"})
      all += told(client.write("net.mtu", value)) + "; ";
    return all;
  });
  EXPECT_THAT(heard, testing::StartsWith("ok; ok; ok; error 11 net.mtu: no more than 2 durable "
                                         "changes in an hour for one user, and user 65534 has"));
  TestClient root("root", service_.runtimeDir());
  for (const char* value : {"1200", "1100", "1000"}) EXPECT_TRUE(root.write("net.mtu", value).ok());
}

}  // namespace
}  // namespace TestSupport
