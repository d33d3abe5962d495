// appcfg against the real configsrvd, as on a device.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/service_process.h"
#include "tests/support/test_client.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::Appcfg;
using TestSupport::Ended;
using TestSupport::RunningAppcfg;
using TestSupport::Words;
using Json = nlohmann::ordered_json;

const char* const kDefinitions = R"(
[variable."net.host"]
type = "string"
default = "gateway"
description = "Name of the device"

[variable."net.dns"]
type = "list"
default = ["192.0.2.1"]

[variable."net.eth.mtu"]
type = "int"
default = 1500
min = 576
max = 9000
group-instances = { from = 0, to = 1 }

[variable."net.offset"]
type = "int"
default = 0

[variable."net.mode"]
type = "enumeration"
options = ["dhcp", "static"]
default = "dhcp"

[variable."lab.secret"]
type = "string"
default = ""
read-role = "service"
write-role = "service"

[variable."lab.serial"]
type = "string"
default = "1"
read-only = true

[variable."engine.speed"]
namespace = 3
type = "int"
default = 7
)";

// How the command line of one verb ends here, and with what.
struct Expected {
  Words words;
  int code;
  std::string out;
};

class RealServiceTest : public testing::Test {
 protected:
  RealServiceTest() { service_.start(); }

  void expect(const Words& words, int code, const std::string& out = "") {
    const Ended run = appcfg_(words);
    EXPECT_EQ(run.code, code) << testing::PrintToString(words) << run.err;
    EXPECT_EQ(run.out, out) << testing::PrintToString(words);
    EXPECT_EQ(run.err.empty(), code == kExitOk || code == kExitNo) << run.err;
  }

  Json json(const Words& words) {
    const Ended run = appcfg_(words);
    EXPECT_EQ(run.code, 0) << run.err;
    return Json::parse(run.out, nullptr, false);
  }

  TestSupport::ServiceProcess service_{kDefinitions};
  const Appcfg appcfg_{service_.runtimeDir()};
};

TEST_F(RealServiceTest, AValueThatWasSetIsReadBack) {
  expect({"get", "net.host"}, 0, "gateway\n");
  expect({"set", "net.host", "router"}, 0);
  expect({"get", "Net.HOST"}, 0, "router\n");
  service_.kill();
  service_.start();
  expect({"get", "net.host"}, 0, "router\n");
}

TEST_F(RealServiceTest, AnyBytesThatACommandLineCanHoldAreKept) {
  for (const std::string value :
       {"", " ", "a\nb", "Z\xc3\xbcrich", "\xff\xfe", "[a,b]", "{}", "-5", "'\"$", "x\\n"}) {
    expect({"set", "net.host", value}, 0);
    expect({"get", "net.host"}, 0, value + '\n');
  }
  expect({"set", "net.host", "--", "--json"}, 0);
  expect({"get", "net.host"}, 0, "--json\n");
  expect({"set", "net.offset", "--", "-5"}, 0);
  expect({"get", "net.offset"}, 0, "-5\n");
}

TEST_F(RealServiceTest, AListHasAnyNumberOfElements) {
  expect({"set", "net.dns", "a", "", "c"}, 0);
  expect({"get", "net.dns"}, 0, "a\n\nc\n");
  expect({"set", "net.dns", "--empty"}, 0);
  expect({"get", "net.dns"}, 0, "");
  EXPECT_EQ(json({"get", "net.dns", "--json"})["value"], Json::array());
  expect({"set", "net.dns", ""}, 0);
  expect({"get", "net.dns"}, 0, "\n");
  expect({"set", "net.host", "two", "elements"}, kExitInvalidValue);
  expect({"set", "net.host", "--empty"}, kExitInvalidValue);
}

TEST_F(RealServiceTest, BytesThatAreNoUtf8AreBase64InJson) {
  expect({"set", "net.host", "\xff\xfe"}, 0);
  EXPECT_EQ(json({"get", "net.host", "--json"}),
            Json::parse(R"({"key":"net.host","value":[{"base64":"//4="}],"is_default":false})"));
}

TEST_F(RealServiceTest, EachFailureHasItsExitCodeAndPrintsNoValue) {
  expect({"get", "no.such"}, kExitNotFound);
  expect({"set", "no.such", "x"}, kExitNotFound);
  expect({"describe", "no.such"}, kExitNotFound);
  expect({"list", "nothing"}, kExitNotFound);
  expect({"get", "lab.secret"}, kExitDenied);
  expect({"set", "lab.secret", "x"}, kExitDenied);
  expect({"set", "lab.serial", "x"}, kExitDenied);
  expect({"list", "lab.secret"}, kExitDenied);
  expect({"set", "net.eth.mtu", "575"}, kExitInvalidValue);
  expect({"set", "net.eth.mtu", "many"}, kExitInvalidValue);
  expect({"set", "net.mode", "other"}, kExitInvalidValue);
  expect({"validate", "net.eth.mtu", "575"}, kExitInvalidValue);
  service_.kill();
  expect({"get", "net.host"}, kExitUnreachable);
}

TEST_F(RealServiceTest, AMessageSaysWhatFailedAndWhy) {
  const Ended run = appcfg_({"set", "net.eth[1].mtu", "575"});
  EXPECT_THAT(run.err, StartsWith("appcfg: cannot set net.eth[1].mtu: "));
  EXPECT_THAT(run.err, HasSubstr("576"));
  EXPECT_THAT(run.err, HasSubstr("'appcfg describe net.eth[1].mtu'"));
}

TEST_F(RealServiceTest, ARoleOpensWhatIsClosedToOthers) {
  expect({"set", "lab.secret", "x", "--role", "service"}, 0);
  expect({"get", "lab.secret", "--role", "service"}, 0, "x\n");
}

TEST_F(RealServiceTest, AProvidersVetoEndsSetAndValidateWithItsReason) {
  TestSupport::TestClient provider("provider", service_.runtimeDir());
  provider.provide("net.host", [](const TestSupport::ProviderQuestion&) {
    return TestSupport::veto("the cable is too short");
  });
  const Ended set = appcfg_({"set", "net.host", "x"});
  EXPECT_EQ(set.code, kExitVetoed);
  EXPECT_THAT(set.err, HasSubstr("the cable is too short"));
  const Ended validated = appcfg_({"validate", "net.host", "x", "--json"});
  EXPECT_EQ(validated.code, kExitVetoed);
  EXPECT_EQ(Json::parse(validated.out)["error"], "vetoed");
  expect({"get", "net.host"}, 0, "gateway\n");
}

TEST_F(RealServiceTest, IsDefaultAnswersWithItsExitCode) {
  expect({"is-default", "net.host"}, 0);
  expect({"set", "net.host", "x"}, 0);
  expect({"is-default", "net.host"}, kExitNo);
  const Ended run = appcfg_({"is-default", "net.host", "--json"});
  EXPECT_EQ(run.code, kExitNo);
  EXPECT_EQ(Json::parse(run.out), Json::parse(R"({"key":"net.host","is_default":false})"));
}

TEST_F(RealServiceTest, ResetGoesBackToTheDefaults) {
  expect({"set", "net.host", "x"}, 0);
  expect({"reset", "net.host"}, 0);
  expect({"get", "net.host"}, 0, "gateway\n");
  EXPECT_EQ(json({"reset", "net.host", "--json"})["changed"], 0);
  expect({"set", "net.eth.mtu", "600"}, 0);
  expect({"set", "net.eth[1].mtu", "700"}, 0);
  EXPECT_EQ(json({"reset", "-r", "net.eth", "--json"})["changed"], 2);
  expect({"get", "net.eth[1].mtu"}, 0, "1500\n");
  expect({"set", "net.host", "x"}, 0);
  expect({"reset", "--all", "--yes", "--role", "service"}, 0);
  expect({"get", "net.host"}, 0, "gateway\n");
  expect({"reset", "-r", "nothing"}, kExitNotFound);
}

TEST_F(RealServiceTest, SetSaysInJsonWhetherAnythingChanged) {
  EXPECT_EQ(json({"set", "net.host", "x", "--json"})["changed"], true);
  EXPECT_EQ(json({"set", "net.host", "x", "--json"})["changed"], false);
}

TEST_F(RealServiceTest, ListShowsWhatTheRoleMaySeeAndSaysHowMuchItMayNot) {
  expect({"set", "net.host", "x"}, 0);
  const Ended run = appcfg_({"list"});
  EXPECT_EQ(run.code, 0);
  EXPECT_EQ(run.out,
            "lab.serial\t1\tdefault\n"
            "net.dns\t192.0.2.1\tdefault\n"
            "net.host\tx\tchanged\n"
            "net.mode\tdhcp\tdefault\n"
            "net.offset\t0\tdefault\n"
            "net.eth.mtu\t1500\tdefault\n"
            "net.eth[1].mtu\t1500\tdefault\n"
            "3:engine.speed\t7\tdefault\n");
  EXPECT_THAT(run.err, HasSubstr("1 more"));
  expect({"list", "net.eth[1]"}, 0, "net.eth[1].mtu\t1500\tdefault\n");
  expect({"list", "3:engine"}, 0, "3:engine.speed\t7\tdefault\n");
  EXPECT_EQ(json({"list", "net.host", "--json"}), Json::parse(R"({"variables":[{"key":"net.host",
      "type":"string","value":["x"],"is_default":false,"secret":false,"description":"Name of the device"}],
      "hidden":0})"));
}

TEST_F(RealServiceTest, DescribeTellsTheDefinition) {
  const Json described = json({"describe", "net.eth[1].mtu", "--json"});
  EXPECT_EQ(described["key"], "net.eth[1].mtu");
  EXPECT_EQ(described["type"], "int");
  EXPECT_EQ(described["value"], Json::array({"1500"}));
  EXPECT_EQ(described["default"], Json::array({"1500"}));
  EXPECT_EQ(described["min"], 576);
  EXPECT_EQ(described["max"], 9000);
  EXPECT_EQ(described["write_role"], "user");
  EXPECT_THAT(appcfg_({"describe", "net.eth[1].mtu"}).out, HasSubstr("\nmost        9000\n"));
}

TEST_F(RealServiceTest, OptionsLimitTheValue) {
  expect({"options", "get", "net.mode"}, 0, "dhcp\nstatic\n");
  expect({"options", "set", "net.mode", "dhcp", "bridge", "--default-index", "1"}, 0);
  EXPECT_EQ(json({"options", "get", "net.mode", "--json"}),
            Json::parse(R"({"key":"net.mode","options":["dhcp","bridge"],"default_index":1})"));
  expect({"options", "get", "--defined", "net.mode"}, 0, "dhcp\nstatic\n");
  expect({"set", "net.mode", "static"}, kExitInvalidValue);
  expect({"set", "net.mode", "bridge"}, 0);
  expect({"options", "set", "net.mode", "dhcp"}, kExitInvalidValue);
}

TEST_F(RealServiceTest, AccessLevelsGuardTheValue) {
  expect({"access", "get", "net.host"}, 0, "read\tpublic\nwrite\tuser\n");
  expect({"access", "set", "net.host", "--write", "installer", "--role", "installer"}, 0);
  EXPECT_EQ(json({"access", "get", "net.host", "--json"}),
            Json::parse(R"({"key":"net.host","read":"public","write":"installer"})"));
  expect({"set", "net.host", "x"}, kExitDenied);
  expect({"set", "net.host", "x", "--role", "installer"}, 0);
  expect({"access", "set", "no.such", "--read", "user"}, kExitNotFound);
}

TEST_F(RealServiceTest, ANamespaceIsPartOfTheKeyOrAnOption) {
  expect({"get", "engine.speed"}, kExitNotFound);
  expect({"get", "3:engine.speed"}, 0, "7\n");
  expect({"get", "engine.speed", "--namespace", "3"}, 0, "7\n");
}

TEST_F(RealServiceTest, StatusTellsOfTheProcessAndItsVariables) {
  const Json status = json({"status", "--json"});
  EXPECT_EQ(status["service"], "ConfigSrvc");
  EXPECT_EQ(status["pid"], service_.pid());
  EXPECT_EQ(status["variables"], 9);
  EXPECT_EQ(status["store_file"], service_.storeFile());
  EXPECT_THAT(appcfg_({"status"}).out, HasSubstr(std::to_string(service_.pid())));
}

// --- watch and wait ---

TEST_F(RealServiceTest, WatchSeesAChangeFromAnotherProcess) {
  RunningAppcfg watch(service_.runtimeDir(), {"watch", "net.host"});
  EXPECT_EQ(watch.line(), "net.host = gateway");
  expect({"set", "net.host", "a\nb"}, 0);
  EXPECT_EQ(watch.line(), "net.host = a\\nb");
  expect({"reset", "net.host"}, 0);
  EXPECT_EQ(watch.line(), "net.host = gateway");
  EXPECT_EQ(watch.stop(SIGTERM), 0);
  EXPECT_EQ(watch.err(), "");
}

TEST_F(RealServiceTest, WatchInJsonIsAnObjectForEachChange) {
  RunningAppcfg watch(service_.runtimeDir(), {"watch", "net.host", "--json"});
  EXPECT_EQ(Json::parse(watch.line().value_or("")),
            Json::parse(R"({"key":"net.host","value":["gateway"]})"));
  expect({"set", "net.host", "\xff"}, 0);
  EXPECT_EQ(Json::parse(watch.line().value_or("")),
            Json::parse(R"({"key":"net.host","value":[{"base64":"/w=="}]})"));
}

TEST_F(RealServiceTest, WatchLivesThroughRestartsAndTellsWhatChangedMeanwhile) {
  RunningAppcfg watch(service_.runtimeDir(), {"watch", "net.host", "net.offset"});
  EXPECT_EQ(watch.line(), "net.host = gateway");
  EXPECT_EQ(watch.line(), "net.offset = 0");
  for (int i = 1; i <= 3; ++i) {
    service_.kill();
    service_.start();
    // The first may be written before the watch is back, the second may find it back.
    expect({"set", "net.host", std::to_string(i)}, 0);
    EXPECT_EQ(watch.line(), "net.host = " + std::to_string(i));
    expect({"set", "net.offset", std::to_string(i)}, 0);
    EXPECT_EQ(watch.line(), "net.offset = " + std::to_string(i));
  }
  EXPECT_EQ(watch.stop(SIGINT), 0);
}

TEST_F(RealServiceTest, WatchEndsWithTheLastValueWhateverIsWrittenWhileItStarts) {
  TestSupport::TestClient writer("writer", service_.runtimeDir());
  for (int round = 0; round < 10; ++round) {
    const std::string last = "last" + std::to_string(round);
    std::thread writing([&] {
      for (int i = 0; i < 50; ++i) writer.write("net.host", std::to_string(i));
      writer.write("net.host", last);
    });
    RunningAppcfg watch(service_.runtimeDir(), {"watch", "net.host"});
    std::optional<std::string> line = watch.line();
    while (line && line != "net.host = " + last) line = watch.line();
    EXPECT_TRUE(line.has_value()) << "round " << round;
    writing.join();
  }
}

TEST_F(RealServiceTest, WatchOfANamespaceSeesItsChanges) {
  RunningAppcfg watch(service_.runtimeDir(), {"watch", "3:engine"});
  EXPECT_EQ(watch.line(), "3:engine.speed = 7");
  expect({"set", "3:engine.speed", "8"}, 0);
  EXPECT_EQ(watch.line(), "3:engine.speed = 8");
}

TEST_F(RealServiceTest, WatchOfANameThatNothingHasIsNotFound) {
  expect({"watch", "nothing"}, kExitNotFound);
}

TEST_F(RealServiceTest, WaitEndsWhenAnotherProcessWritesTheValue) {
  RunningAppcfg wait(service_.runtimeDir(), {"wait", "net.host", "ready"});
  expect({"set", "net.host", "almost"}, 0);
  expect({"set", "net.host", "ready"}, 0);
  EXPECT_EQ(wait.line(), "ready");
  EXPECT_EQ(wait.wait(), 0);
  expect({"wait", "net.host", "ready"}, 0, "ready\n");
}

TEST_F(RealServiceTest, WaitTakesANumberInWhateverTextItComes) {
  RunningAppcfg wait(service_.runtimeDir(), {"wait", "net.offset", "24"});
  EXPECT_EQ(appcfg_({"set", "net.offset", "025"}).code, 0);
  EXPECT_EQ(appcfg_({"set", "net.offset", "030"}).code, 0);
  EXPECT_EQ(wait.line(), "030");
  EXPECT_EQ(wait.wait(), 0);
  expect({"wait", "net.offset", "0x18"}, 0, "030\n");
}

TEST_F(RealServiceTest, SetSaysWhatANumberIsReadAsWhenThatIsNotItsText) {
  const Ended set = appcfg_({"set", "net.offset", "030"});
  EXPECT_EQ(set.code, 0);
  EXPECT_EQ(set.err, "appcfg: net.offset: 030 is read as 24\n");
  EXPECT_EQ(appcfg_({"set", "net.offset", "24"}).err, "");
  EXPECT_EQ(appcfg_({"set", "net.host", "030"}).err, "") << "a string is read as it is";
}

TEST_F(RealServiceTest, ANumberThatMeansTheDefaultIsTheDefaultAndIsResetToItsText) {
  EXPECT_EQ(appcfg_({"set", "net.offset", "0x0"}).code, 0);
  expect({"is-default", "net.offset"}, 0);
  expect({"get", "net.offset"}, 0, "0x0\n");
  expect({"reset", "net.offset"}, 0);
  expect({"get", "net.offset"}, 0, "0\n");
}

TEST_F(RealServiceTest, WaitLivesThroughARestart) {
  RunningAppcfg wait(service_.runtimeDir(), {"wait", "net.host", "ready", "--timeout", "20"});
  service_.kill();
  service_.start();
  expect({"set", "net.host", "ready"}, 0);
  EXPECT_EQ(wait.line(), "ready");
  EXPECT_EQ(wait.wait(), 0);
}

TEST_F(RealServiceTest, WatchAndWaitBeginWhenTheServiceDoes) {
  service_.kill();
  RunningAppcfg watch(service_.runtimeDir(), {"watch", "net.host"});
  RunningAppcfg wait(service_.runtimeDir(), {"wait", "net.host", "gateway"});
  EXPECT_TRUE(watch.waitForErr("waiting for it"));
  EXPECT_TRUE(wait.waitForErr("waiting for it"));
  service_.start();
  EXPECT_EQ(watch.line(), "net.host = gateway");
  EXPECT_EQ(wait.line(), "gateway");
  EXPECT_EQ(wait.wait(), 0);
}

TEST_F(RealServiceTest, WaitEndsWithEightWhenNothingComes) {
  expect({"wait", "net.host", "never", "--timeout", "0.2"}, kExitTimedOut);
  expect({"wait", "net.host", "--timeout", "0.2"}, kExitTimedOut);
}

}  // namespace
}  // namespace AppCfgTool
