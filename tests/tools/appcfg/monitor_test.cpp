// clients and monitor against the real configsrvd.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/service_process.h"
#include "tests/support/test_client.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"

namespace AppCfgTool {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using TestSupport::Appcfg;
using TestSupport::RunningAppcfg;
using TestSupport::Words;
using Json = nlohmann::ordered_json;

const char* const kMonitorDefinitions = R"(
[variable."net.host"]
type = "string"
default = "gateway"

[variable."net.password"]
type = "string"
default = "1234"
secret = true

[variable."other.x"]
type = "string"
default = ""

[variable."net.eth.mtu"]
type = "int"
default = 1500
group-instances = { from = 0, to = 1 }
)";

class MonitorTest : public testing::Test {
 protected:
  MonitorTest() { service_.start(); }

  // A monitor begins some time after its start, and after a restart of the service. When this
  // returns, it has, and its next line is about what happens next.
  void waitUntilItBegins(RunningAppcfg& monitor, const std::string& mark) {
    std::atomic<bool> begun{false};
    std::thread writing([&] {
      for (int i = 0; !begun; ++i) client_.write("net.host", mark + "-probe" + std::to_string(i));
    });
    EXPECT_THAT(lineWith(monitor, mark + "-probe"), HasSubstr("WriteReq"));
    begun = true;
    writing.join();
    ASSERT_TRUE(client_.write("net.host", mark + "-begun").ok());
    EXPECT_THAT(lineWith(monitor, mark + "-begun"), HasSubstr("WriteReq"));
    EXPECT_THAT(monitor.line().value_or("(none)"), HasSubstr("WriteRsp"));
  }

  // The next line that contains this.
  std::string lineWith(RunningAppcfg& monitor, const std::string& text) {
    std::optional<std::string> line = monitor.line();
    while (line && line->find(text) == std::string::npos) line = monitor.line();
    return line.value_or("(none)");
  }

  TestSupport::ServiceProcess service_{kMonitorDefinitions};
  TestSupport::TestClient client_{"client", service_.runtimeDir()};
  const Appcfg appcfg_{service_.runtimeDir()};
};

TEST_F(MonitorTest, ClientsTellsWhoIsConnectedWhatItRegisteredAndProvides) {
  client_.provide("net",
                  [](const TestSupport::ProviderQuestion&) { return TestSupport::consent(); });
  const Json clients = Json::parse(appcfg_({"clients", "--json"}).out)["clients"];
  ASSERT_EQ(clients.size(), 2U);
  EXPECT_EQ(clients[0], Json::parse(R"({"name":"client","pid":)" + std::to_string(::getpid()) +
                                    R"(,"uid":)" + std::to_string(::getuid()) +
                                    R"(,"registrations":2,"delivery":true,"waiting_notices":0,
                                    "provides":["net"]})"));
  EXPECT_EQ(clients[1]["name"], "appcfg");
  EXPECT_EQ(clients[1]["delivery"], false);
  const std::string table = appcfg_({"clients"}).out;
  EXPECT_THAT(table, HasSubstr("name"));
  EXPECT_THAT(table, MatchesRegex("name .*\nclient .*  yes  .*  net\nappcfg .*  no  .*  -\n"));
  service_.kill();
  EXPECT_EQ(appcfg_({"clients"}).code, kExitUnreachable);
}

TEST_F(MonitorTest, MonitorPrintsALineForEachEventUntilItIsInterrupted) {
  ASSERT_TRUE(client_.read("net.host").ok());
  RunningAppcfg monitor(service_.runtimeDir(), {"monitor"});
  waitUntilItBegins(monitor, "first");
  ASSERT_TRUE(client_.write("net.host", "a\nb").ok());
  const std::string who = " client\\[" + std::to_string(::getpid()) + "\\] ";
  EXPECT_THAT(lineWith(monitor, "a\\nb"),
              MatchesRegex("[0-9][0-9]:[0-9][0-9]:[0-9][0-9][.][0-9]+" + who +
                           "request WriteReq net.host = a\\\\nb"));
  EXPECT_THAT(lineWith(monitor, "response"),
              MatchesRegex(".*" + who + "response WriteRsp net.host: ok"));
  EXPECT_EQ(client_.write("no.such", "x").error, CommonIF::ERROR_NOT_FOUND);
  EXPECT_THAT(lineWith(monitor, "request"), HasSubstr("WriteReq no.such = (masked)"));
  EXPECT_THAT(lineWith(monitor, "response"), HasSubstr("WriteRsp no.such: not-found: "));
  EXPECT_EQ(monitor.stop(SIGINT), 0);
  EXPECT_EQ(monitor.err(), "");
}

TEST_F(MonitorTest, MonitorInJsonIsAnObjectForEachEvent) {
  ASSERT_TRUE(client_.read("net.host").ok());
  RunningAppcfg monitor(service_.runtimeDir(), {"monitor", "--json"});
  waitUntilItBegins(monitor, "first");
  ASSERT_TRUE(client_.write("net.password", "topsecret").ok());
  Json event = Json::parse(lineWith(monitor, "net.password"));
  EXPECT_GT(event["time_us"], 0);
  event.erase("time_us");
  EXPECT_EQ(event, Json::parse(R"({"event":"request","client":"client","pid":)" +
                               std::to_string(::getpid()) +
                               R"(,"message":"WriteReq","key":"net.password","value":null,
                               "masked":true,"error":null,"text":null})"));
  event = Json::parse(lineWith(monitor, "net.password"));
  EXPECT_EQ(event["event"], "response");
  EXPECT_EQ(event["error"], "ok");
  EXPECT_EQ(event["value"], Json::array());
}

TEST_F(MonitorTest, MonitorOfAPrefixOrInstanceShowsThatAlone) {
  ASSERT_TRUE(client_.read("net.host").ok());
  RunningAppcfg monitor(service_.runtimeDir(), {"monitor", "net"});
  waitUntilItBegins(monitor, "first");
  ASSERT_TRUE(client_.write("other.x", "hidden").ok());
  ASSERT_TRUE(client_.write("net.eth.mtu", "1400").ok());
  EXPECT_THAT(lineWith(monitor, "request"), HasSubstr("WriteReq net.eth.mtu = 1400"));
  ASSERT_EQ(appcfg_({"reset", "-r", "net.eth"}).code, 0);
  EXPECT_THAT(lineWith(monitor, "request"), HasSubstr("ResetNodeValueReq net.eth"));
}

TEST_F(MonitorTest, MonitorBeginsWithTheServiceAndLivesThroughItsRestart) {
  service_.kill();
  RunningAppcfg monitor(service_.runtimeDir(), {"monitor"});
  EXPECT_TRUE(monitor.waitForErr("waiting for it"));
  for (const std::string text : {"first", "second"}) {
    service_.start();
    waitUntilItBegins(monitor, text);
    service_.kill();
  }
  EXPECT_EQ(monitor.stop(SIGTERM), 0);
}

TEST_F(MonitorTest, MonitorEndsWithItsReader) {
  RunningAppcfg monitor(service_.runtimeDir(), {"monitor"});
  ASSERT_TRUE(client_.write("net.host", "x").ok());
  monitor.closeOut();
  EXPECT_EQ(monitor.wait(), 0);
}

}  // namespace
}  // namespace AppCfgTool
