// Who watches the service, and who is connected, over real sockets.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "platform/schema/message_ids.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using ConfigIF::MonitorNtfy;
using testing::ElementsAre;
using testing::HasSubstr;

std::string textOf(const MonitorNtfy& event) {
  std::string text = std::to_string(event.event()) + ' ' + event.client();
  if (event.has_message()) text += ' ' + event.message();
  for (const ConfigIF::Node& node : event.inst().path()) text += '/' + node.name();
  if (event.masked()) text += " masked";
  for (const std::string& value : event.values()) text += " = " + value;
  if (event.has_error()) text += " error " + std::to_string(event.error());
  if (event.has_text()) text += " text";
  return text;
}

// An endpoint that watches; events as texts.
class Watcher {
 public:
  explicit Watcher(const std::string& runtimeDir, const std::string& name = "watcher")
      : endpoint_(name, options(runtimeDir)) {
    const std::uint32_t id = PlatformSchema::messageIdOf(MonitorNtfy());
    const MSG_Callback table[] = {{&Watcher::receive, this, id, id, 0}, {}};
    endpoint_.addHandlers(table);
    endpoint_.addRemoteEndpoint(TestClient::kService, -1);
  }

  CommonIF::eErrorType watch(const std::string& prefix = "",
                             CommonIF::eSecurityRole role = CommonIF::SECURITY_ROLE_USER,
                             bool stop = false) {
    ConfigIF::MonitorReq request;
    request.set_client_name("watcher");
    request.set_role(role);
    request.set_prefix(prefix);
    if (stop) request.set_stop(true);
    ConfigIF::MonitorRsp response;
    EXPECT_EQ(endpoint_.sendWaitResponse(request, &response, TestClient::kService), 0);
    EXPECT_TRUE(endpoint_.waitUntilConnected(TestClient::kService, kPatience));
    return response.result().error();
  }

  // Waits for the event and returns all before it.
  std::vector<std::string> until(const std::string& text) {
    std::unique_lock<std::mutex> lock(mutex_);
    std::vector<std::string> before;
    while (came_.wait_for(lock, kPatience, [this] { return !events_.empty(); })) {
      const std::string event = events_.front();
      events_.pop_front();
      if (event == text) return before;
      before.push_back(event);
    }
    ADD_FAILURE() << text << " did not come: " << testing::PrintToString(before);
    return before;
  }

 private:
  static PbUtility::EndpointOptions options(const std::string& runtimeDir) {
    PbUtility::EndpointOptions options;
    options.runtimeDir = runtimeDir;
    return options;
  }
  static void receive(void* self, const MSG_Message* message) {
    auto* watcher = static_cast<Watcher*>(self);
    MonitorNtfy event;
    EXPECT_TRUE(event.ParseFromArray(MSG_GetPayload(message), MSG_GetPayloadBytes(message)));
    EXPECT_GT(event.time_us(), 0U);
    const std::lock_guard<std::mutex> guard(watcher->mutex_);
    watcher->events_.push_back(textOf(event));
    watcher->came_.notify_all();
  }

  // Guards events_.
  std::mutex mutex_;
  std::condition_variable came_;
  std::deque<std::string> events_;
  // Last: its thread ends before what it uses.
  PbUtility::Endpoint endpoint_;
};

class MonitorTest : public IntegrationTest {
 protected:
  MonitorTest() { EXPECT_TRUE(client_.read("test.marker").ok()); }
  Watcher watcher_{service_.runtimeDir()};
};

TEST_F(MonitorTest, AMonitorIsToldOfRequestsAnswersQuestionsAndNotices) {
  other_.provide("net.mtu", [](const ProviderQuestion& question) {
    return question.values.at(0) == "70" ? veto("no") : consent();
  });
  ASSERT_TRUE(client_.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  ASSERT_EQ(watcher_.watch("net"), CommonIF::ERROR_NONE);
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  EXPECT_THAT(
      watcher_.until("2 client ConfigChangedNtfy/net/mtu = 1400"),
      ElementsAre("0 client WriteReq/net/mtu = 1400", "3 other DynamicValidateReq/net/mtu = 1400",
                  "4 other DynamicValidateRsp/net/mtu", "3 other OnChangeReq/net/mtu = 1400",
                  "4 other OnChangeRsp/net/mtu", "1 client WriteRsp/net/mtu",
                  // It is no default any more, which a question does not say.
                  "2 other ConfigChangedNtfy/net/mtu = 1400"));
  ASSERT_FALSE(client_.write("net.mtu", "70").ok());
  EXPECT_THAT(watcher_.until("1 client WriteRsp/net/mtu error 5 text"),
              testing::Contains("4 other DynamicValidateRsp/net/mtu error 5 text"));
  ASSERT_TRUE(client_.read("net.mtu").ok());
  EXPECT_THAT(watcher_.until("1 client ReadRsp/net/mtu = 1400"),
              ElementsAre("0 client ReadReq/net/mtu"));
}

TEST_F(MonitorTest, ValuesThatItsRoleMayNotReadAreMaskedInEveryEvent) {
  client_.actAs(CommonIF::SECURITY_ROLE_FACTORY);
  ASSERT_TRUE(client_.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "net.secret").ok());
  ASSERT_EQ(watcher_.watch("net.secret"), CommonIF::ERROR_NONE);
  ASSERT_TRUE(client_.write("net.secret", "hush").ok());
  EXPECT_THAT(watcher_.until("2 client ConfigChangedNtfy/net/secret masked"),
              ElementsAre("0 client WriteReq/net/secret masked", "1 client WriteRsp/net/secret"));
  ASSERT_TRUE(client_.read("net.secret").ok());
  watcher_.until("1 client ReadRsp/net/secret masked");
  ASSERT_EQ(watcher_.watch("net.secret", CommonIF::SECURITY_ROLE_FACTORY), CommonIF::ERROR_NONE);
  ASSERT_TRUE(client_.read("net.secret").ok());
  watcher_.until("1 client ReadRsp/net/secret = hush");
}

TEST_F(MonitorTest, AMonitorIsNeverToldOfMonitors) {
  Watcher second(service_.runtimeDir(), "second");
  ASSERT_EQ(watcher_.watch(), CommonIF::ERROR_NONE);
  ASSERT_EQ(second.watch(), CommonIF::ERROR_NONE);
  ASSERT_TRUE(client_.read("net.name").ok());
  for (const std::string& event : watcher_.until("1 client ReadRsp/net/name = gateway")) {
    EXPECT_THAT(event, testing::Not(HasSubstr("Monitor")));
  }
  EXPECT_THAT(second.until("1 client ReadRsp/net/name = gateway"),
              ElementsAre("0 client ReadReq/net/name"));
}

TEST_F(MonitorTest, ClientsThatComeAndGoAreTold) {
  ASSERT_EQ(watcher_.watch(), CommonIF::ERROR_NONE);
  {
    TestClient guest("guest", service_.runtimeDir());
    ASSERT_TRUE(guest.read("net.name").ok());
  }
  watcher_.until("5 guest");
  watcher_.until("6 guest");
}

TEST_F(MonitorTest, AMonitorThatStoppedOrWentIsToldNothingAndNobodyElseIsHarmed) {
  ASSERT_EQ(watcher_.watch("net"), CommonIF::ERROR_NONE);
  {
    Watcher second(service_.runtimeDir(), "second");
    ASSERT_EQ(second.watch(), CommonIF::ERROR_NONE);
  }
  ASSERT_EQ(watcher_.watch("net", CommonIF::SECURITY_ROLE_USER, true), CommonIF::ERROR_NONE);
  ASSERT_TRUE(client_.write("net.name", "untold").ok());
  ASSERT_EQ(watcher_.watch("net"), CommonIF::ERROR_NONE);
  ASSERT_TRUE(client_.read("net.name").ok());
  EXPECT_THAT(watcher_.until("1 client ReadRsp/net/name = untold"),
              ElementsAre("0 client ReadReq/net/name"));
}

TEST_F(MonitorTest, AMonitorIsToldAgainAfterARestartWithoutAsking) {
  ASSERT_EQ(watcher_.watch("net"), CommonIF::ERROR_NONE);
  service_.kill();
  service_.start();
  // It is back some time after the service is.
  std::atomic<bool> told{false};
  std::thread reading([&] {
    while (!told) client_.read("net.name");
  });
  watcher_.until("1 client ReadRsp/net/name = gateway");
  told = true;
  reading.join();
}

TEST_F(MonitorTest, ClientsAreToldInTheOrderInWhichTheyCame) {
  other_.provide("net", [](const ProviderQuestion&) { return consent(); });
  ASSERT_TRUE(other_.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "test").ok());
  ConfigIF::ClientsRsp response;
  ASSERT_TRUE(client_.request(ConfigIF::ClientsReq(), &response).ok());
  std::vector<ConfigIF::ClientRecord> records(response.records().begin(), response.records().end());
  ConfigIF::ClientRecord expected;
  expected.set_name("other");
  expected.set_pid(static_cast<std::uint64_t>(getpid()));
  expected.set_uid(getuid());
  expected.set_registrations(3);
  expected.set_delivery(true);
  expected.set_waiting_notices(0);
  expected.add_provides("net");
  const auto named = [&](const char* name) {
    return std::find_if(records.begin(), records.end(),
                        [&](const ConfigIF::ClientRecord& r) { return r.name() == name; });
  };
  ASSERT_NE(named("other"), records.end());
  EXPECT_LT(named("client"), named("other"));
  EXPECT_EQ(named("other")->SerializeAsString(), expected.SerializeAsString());
}

}  // namespace
}  // namespace TestSupport
