// What people and scripts do at a shell, against the real service: several keys at once, values from
// standard input, slips of the finger.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "tests/support/service_process.h"
#include "tests/support/test_client.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"
#include "tools/appcfg/help.h"
#include "tools/appcfg/progress.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using testing::HasSubstr;
using testing::Not;
using TestSupport::Appcfg;
using TestSupport::Ended;
using TestSupport::Words;
using Json = nlohmann::ordered_json;

const char* const kShellDefinitions = R"(
[variable."net.host"]
type = "string"
default = "gateway"

[variable."net.dns"]
type = "list"
default = ["192.0.2.1", "192.0.2.2"]

[variable."net.eth.mtu"]
type = "int"
default = 1500
group-instances = { from = 0, to = 1 }

[variable."door.pin"]
type = "string"
default = ""
secret = true
read-role = "user"
write-role = "user"

[variable."wifi.psk"]
type = "string"
default = "none"
read-role = "service"
write-role = "user"

[variable."wifi.keys"]
type = "list"
default = []
read-role = "service"
write-role = "user"
)";

std::string withZeros(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += word + '\0';
  return text;
}

class ShellUseTest : public testing::Test {
 protected:
  ShellUseTest() { service_.start(); }

  void expect(const Ended& run, int code, const std::string& out = "") const {
    EXPECT_EQ(run.code, code) << run.err;
    EXPECT_EQ(run.out, out);
    EXPECT_EQ(run.err.empty(), code == kExitOk) << run.err;
  }
  std::string asService(const std::string& key) const {
    return appcfg_({"get", key, "--role", "service"}).out;
  }

  TestSupport::ServiceProcess service_{kShellDefinitions};
  const Appcfg appcfg_{service_.runtimeDir()};
};

// --- several keys ---

TEST_F(ShellUseTest, SeveralKeysArePrintedAsLinesThatAScriptCanSplitAtTheFirstEqualsSign) {
  expect(appcfg_({"set", "net.host", "a=b\nc"}), 0);
  expect(appcfg_({"get", "net.dns", "Net.Host", "net.eth[1].mtu"}), 0,
         "net.dns=[\"192.0.2.1\", \"192.0.2.2\"]\nnet.host=a=b\\nc\nnet.eth[1].mtu=1500\n");
}

TEST_F(ShellUseTest, WithZeroBytesEachElementStandsAsItIsBehindItsKey) {
  expect(appcfg_({"set", "net.host", "a\nb"}), 0);
  expect(appcfg_({"get", "-0", "net.host", "net.dns"}), 0,
         withZeros({"net.host=a\nb", "net.dns=192.0.2.1", "net.dns=192.0.2.2"}));
}

TEST_F(ShellUseTest, AKeyThatIsMissingKeepsNoOtherBack) {
  const Ended run = appcfg_({"get", "net.host", "net.none", "net.eth.mtu"});
  EXPECT_EQ(run.code, kExitNotFound);
  EXPECT_EQ(run.out, "net.host=gateway\nnet.eth.mtu=1500\n");
  EXPECT_THAT(run.err, HasSubstr("cannot read net.none: there is no such variable"));
}

TEST_F(ShellUseTest, OfSeveralThatCannotBeReadEachIsToldAndTheFirstGivesTheCode) {
  const Ended run = appcfg_({"get", "wifi.psk", "net.none", "net.host"});
  EXPECT_EQ(run.code, kExitDenied);
  EXPECT_EQ(run.out, "net.host=gateway\n");
  EXPECT_THAT(run.err, HasSubstr("cannot read 2 of these 3\n"));
  EXPECT_THAT(run.err, HasSubstr("cannot read wifi.psk: the role user may not do this"));
  EXPECT_THAT(run.err, HasSubstr("cannot read net.none: there is no such variable"));
}

TEST_F(ShellUseTest, AKeyThatIsNoneEndsItBeforeAnythingIsPrinted) {
  expect(appcfg_({"get", "net.host", "nodots"}), kExitUsage);
}

TEST_F(ShellUseTest, InJsonSeveralKeysAreOneObjectWithAnErrorWhereThereIsNoValue) {
  const Ended run = appcfg_({"get", "--json", "net.eth.mtu", "net.none"});
  EXPECT_EQ(run.code, kExitNotFound);
  EXPECT_EQ(Json::parse(run.out), Json::parse(R"({"variables":[
              {"key":"net.eth.mtu","value":["1500"],"is_default":true,"error":null},
              {"key":"net.none","value":null,"is_default":null,"error":"not-found"}]})"));
  EXPECT_EQ(Json::parse(run.err)["exit_code"], kExitNotFound);
}

TEST_F(ShellUseTest, MoreKeysThanOneRequestHoldsAreAllRead) {
  Words words = {"get"};
  std::string expected;
  for (int i = 0; i < 300; ++i) {
    words.push_back(i % 2 == 0 ? "net.host" : "net.eth.mtu");
    expected += i % 2 == 0 ? "net.host=gateway\n" : "net.eth.mtu=1500\n";
  }
  expect(appcfg_(words), 0, expected);
}

// --- standard input ---

TEST_F(ShellUseTest, AStringIsAllOfStandardInputWithoutItsLastLineBreak) {
  expect(appcfg_({"set", "net.host", "--stdin"}, "secret\n"), 0);
  expect(appcfg_({"get", "net.host"}), 0, "secret\n");
  expect(appcfg_({"set", "net.host", "--stdin"}, "-----BEGIN\nlines\n\n"), 0);
  expect(appcfg_({"get", "net.host"}), 0, "-----BEGIN\nlines\n\n");
  expect(appcfg_({"set", "net.host", "--stdin"}, "\n"), 0);
  expect(appcfg_({"get", "net.host"}), 0, "\n");
}

TEST_F(ShellUseTest, AListHasOneElementForEachLineOfStandardInput) {
  expect(appcfg_({"set", "net.dns", "--stdin"}, "a\n\nc"), 0);
  expect(appcfg_({"get", "-0", "net.dns"}), 0, withZeros({"a", "", "c"}));
}

TEST_F(ShellUseTest, WithZeroBytesElementsMayHoldLineBreaksAndComeBackAsGetPrintsThem) {
  const std::string elements = withZeros({"a\nb", "c"});
  expect(appcfg_({"set", "net.dns", "--stdin", "--null"}, elements), 0);
  expect(appcfg_({"get", "-0", "net.dns"}), 0, elements);
}

TEST_F(ShellUseTest, ANumberThatBeginsWithADashIsAValueAsBefore) {
  for (const std::string number : {"-5", "-0.5", "-0"}) {
    expect(appcfg_({"set", "net.host", number}), 0);
    EXPECT_EQ(asService("net.host"), number + '\n');
  }
}

TEST_F(ShellUseTest, ALoneDashIsAValueLikeAnyOther) {
  expect(appcfg_({"set", "net.host", "-"}, "not this"), 0);
  expect(appcfg_({"get", "net.host"}), 0, "-\n");
}

TEST_F(ShellUseTest, NothingOnStandardInputEmptiesNothing) {
  expect(appcfg_({"set", "net.host", "--stdin"}), kExitUsage);
  expect(appcfg_({"set", "net.dns", "--stdin"}), kExitUsage);
  EXPECT_EQ(asService("net.host"), "gateway\n");
}

TEST_F(ShellUseTest, AValueIsGivenInOneWayAlone) {
  expect(appcfg_({"set", "net.host", "x", "--stdin"}, "y"), kExitUsage);
  expect(appcfg_({"set", "net.dns", "--empty", "--stdin"}, "y"), kExitUsage);
  expect(appcfg_({"set", "net.host", "x", "--null"}), kExitUsage);
}

TEST_F(ShellUseTest, ValidateTakesStandardInputAsSetDoes) {
  expect(appcfg_({"validate", "net.eth.mtu", "--stdin"}, "9000\n"), 0);
  expect(appcfg_({"validate", "net.eth.mtu", "--stdin"}, "much\n"), kExitInvalidValue);
}

TEST_F(ShellUseTest, WhoMayNotReadASecretCanStillSetItFromStandardInput) {
  expect(appcfg_({"set", "wifi.psk", "--stdin"}, "hunter2\n"), 0);
  EXPECT_EQ(asService("wifi.psk"), "hunter2\n");
  const Ended run = appcfg_({"set", "wifi.keys", "--stdin"}, "a\nb\n");
  EXPECT_EQ(run.code, kExitUsage);
  EXPECT_THAT(run.err, HasSubstr("--null"));
  expect(appcfg_({"set", "wifi.keys", "--stdin", "--null"}, withZeros({"a", "b"})), 0);
  EXPECT_EQ(asService("wifi.keys"), "a\nb\n");
}

TEST_F(ShellUseTest, AVariableThatIsNotThereIsFoundMissingBeforeItsValueIsTakenApart) {
  expect(appcfg_({"set", "net.none", "--stdin"}, "a\nb\n"), kExitNotFound);
}

// --- slips ---

TEST_F(ShellUseTest, AMisspelledVerbIsAnsweredWithTheNearest) {
  const Ended run = appcfg_({"gte", "net.host"});
  EXPECT_EQ(run.code, kExitUsage);
  EXPECT_THAT(run.err, HasSubstr("there is no verb \"gte\"\nappcfg: did you mean get?"));
  const Ended json = appcfg_({"--json", "lsit"});
  EXPECT_THAT(std::string(Json::parse(json.err)["advice"]), HasSubstr("did you mean list?"));
  EXPECT_THAT(appcfg_({"frobnicate"}).err, Not(HasSubstr("did you mean")));
}

TEST_F(ShellUseTest, AtATerminalAMisspelledKeyIsAnsweredWithTheNearest) {
  EXPECT_THAT(appcfg_.atTerminal({"get", "net.hots"}).out, HasSubstr("did you mean net.host?"));
  EXPECT_THAT(appcfg_.atTerminal({"set", "net.eth[1].mut", "1"}).out,
              HasSubstr("did you mean net.eth[1].mtu?"));
  EXPECT_THAT(appcfg_.atTerminal({"list", "net.ehth"}).out, HasSubstr("did you mean net.eth?"));
  EXPECT_EQ(appcfg_.atTerminal({"get", "net.hots"}).code, kExitNotFound);
}

TEST_F(ShellUseTest, NoNameIsSuggestedThatTheRoleMayNotSee) {
  EXPECT_THAT(appcfg_.atTerminal({"get", "wifi.pks"}).out, Not(HasSubstr("did you mean")));
  EXPECT_THAT(appcfg_.atTerminal({"get", "wifi.pks", "--role", "service"}).out,
              HasSubstr("did you mean wifi.psk?"));
}

TEST_F(ShellUseTest, AScriptThatLooksForAVariableCostsNoListing) {
  EXPECT_THAT(appcfg_({"get", "net.hots"}).err, Not(HasSubstr("did you mean")));
}

TEST_F(ShellUseTest, MonitorRefusesANameThatNothingHas) {
  const Ended run = appcfg_({"monitor", "nte"});
  EXPECT_EQ(run.code, kExitNotFound);
  EXPECT_EQ(appcfg_({"watch", "nte"}).code, kExitNotFound);
  EXPECT_THAT(run.err, HasSubstr("there is no such variable or name"));
  EXPECT_EQ(appcfg_({"monitor", "net.eth[7].mtu"}).code, kExitNotFound);
}

TEST_F(ShellUseTest, MonitorTakesANameThatTheRoleMayNotRead) {
  TestSupport::RunningAppcfg monitor(service_.runtimeDir(), {"monitor", "wifi"});
  std::atomic<bool> seen{false};
  std::thread writing([&] {
    for (int i = 0; !seen; ++i) appcfg_({"set", "wifi.psk", std::to_string(i)});
  });
  EXPECT_THAT(monitor.line().value_or("nothing"), HasSubstr("wifi.psk = (masked)"));
  seen = true;
  writing.join();
}

TEST_F(ShellUseTest, AFileThatIsNotThereIsSaidToBeMissing) {
  const Ended run = appcfg_({"import", "/none/of.toml"});
  EXPECT_EQ(run.code, kExitFailed);
  EXPECT_THAT(run.err, HasSubstr("cannot read /none/of.toml: No such file or directory"));
}

// --- tables ---

std::size_t longestLine(const std::string& text) {
  std::size_t longest = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) longest = std::max(longest, line.size());
  return longest;
}

TEST_F(ShellUseTest, AWideValueIsCutAtTheTerminalsEdgeAndNowhereElse) {
  const std::string wide(500, 'x');
  expect(appcfg_({"set", "net.host", wide}), 0);
  expect(appcfg_({"set", "net.dns", wide}), 0);
  const std::string shown = appcfg_.atTerminal({"list", "net"}, 60).out;
  EXPECT_EQ(longestLine(shown), 60U) << shown;
  EXPECT_THAT(shown, HasSubstr("xxx...\n"));
  EXPECT_THAT(shown, HasSubstr("net.eth[1].mtu  1500"));
  EXPECT_THAT(appcfg_({"list", "net"}).out, HasSubstr(wide));
  EXPECT_THAT(appcfg_.atTerminal({"get", "net.host"}, 60).out, HasSubstr(wide));
}

TEST_F(ShellUseTest, TheTableOfClientsKeepsToTheTerminalToo) {
  TestSupport::TestClient client(std::string(120, 'n'), service_.runtimeDir());
  ASSERT_TRUE(client.read("net.host").ok());
  EXPECT_EQ(longestLine(appcfg_.atTerminal({"clients"}, 90).out), 90U);
  EXPECT_THAT(appcfg_({"clients"}).out, HasSubstr(std::string(120, 'n')));
}

TEST_F(ShellUseTest, SecretsAreMaskedInListingsUnlessTheyAreAskedFor) {
  expect(appcfg_({"set", "door.pin", "4711"}), 0);
  EXPECT_EQ(appcfg_({"list", "door"}).out, "door.pin\t(secret)\tchanged\n");
  EXPECT_THAT(appcfg_.atTerminal({"list", "door"}).out, Not(HasSubstr("4711")));
  EXPECT_EQ(appcfg_({"list", "door", "--secrets"}).out, "door.pin\t4711\tchanged\n");
  expect(appcfg_({"get", "door.pin"}), 0, "4711\n");
  const auto inJson = [&](const Words& words) {
    return Json::parse(appcfg_(words).out)["variables"][0];
  };
  EXPECT_TRUE(inJson({"list", "door", "--json"})["value"].is_null());
  EXPECT_EQ(inJson({"list", "door", "--json"})["secret"], true);
  EXPECT_EQ(inJson({"list", "door", "--json", "--secrets"})["value"], Json::array({"4711"}));
  EXPECT_EQ(inJson({"list", "net.host", "--json"})["secret"], false);
}

// --- progress ---

// The service stands still for longer than the first second, in which nothing is shown.
TEST_F(ShellUseTest, AnImportThatTakesItsTimeShowsAtATerminalHowFarItHasCome) {
  const std::string file = service_.directory().file("values.toml");
  TestSupport::writeFile(file, "\"net.host\" = \"a\"\n\"net.eth.mtu\" = 1400\n");
  const auto slowly = [&](const auto& run) {
    EXPECT_EQ(::kill(service_.pid(), SIGSTOP), 0);
    std::thread waking([&] {
      std::this_thread::sleep_for(Progress::kQuiet * 3);
      ::kill(service_.pid(), SIGCONT);
    });
    Ended ended = run();
    waking.join();
    return ended;
  };
  const Ended shown = slowly([&] { return appcfg_.atTerminal({"import", file}); });
  EXPECT_EQ(shown.code, 0);
  EXPECT_THAT(shown.out, HasSubstr("\rappcfg: importing, 1 of 2"));
  EXPECT_EQ(shown.out.back(), '\r');
  expect(appcfg_({"reset", "--recursive", "net"}), 0);
  expect(slowly([&] { return appcfg_({"import", file}); }), 0);
}

TEST_F(ShellUseTest, AnExportThatTakesItsTimeDoesSoToo) {
  ASSERT_EQ(::kill(service_.pid(), SIGSTOP), 0);
  std::thread waking([&] {
    std::this_thread::sleep_for(Progress::kQuiet * 3);
    ::kill(service_.pid(), SIGCONT);
  });
  const Ended shown = appcfg_.atTerminal({"export", "net.host"});
  waking.join();
  EXPECT_THAT(shown.out, HasSubstr("\rappcfg: exporting, 1"));
  EXPECT_THAT(shown.out, HasSubstr("\"net.host\" = \"gateway\""));
}

// --- help ---

TEST_F(ShellUseTest, HelpOfAVerbIsWhatItsOptionPrints) {
  for (const Verb& verb : verbs()) {
    Words words = {"help"};
    for (std::size_t at = 0; at < verb.name.size();) {
      const std::size_t end = std::min(verb.name.find(' ', at), verb.name.size());
      words.push_back(verb.name.substr(at, end - at));
      at = end + 1;
    }
    expect(appcfg_(words), 0, helpText(verb));
  }
  expect(appcfg_({"help"}), 0, helpText());
  expect(appcfg_({"help", "options"}), 0,
         helpText(optionsGetVerb()) + '\n' + helpText(optionsSetVerb()));
}

TEST_F(ShellUseTest, HelpOfAVerbThatIsNoneIsAMistakeWithTheNearest) {
  const Ended run = appcfg_({"help", "wtach"});
  EXPECT_EQ(run.code, kExitUsage);
  EXPECT_THAT(run.err, HasSubstr("did you mean watch?"));
  EXPECT_EQ(Json::parse(appcfg_({"help", "get", "--json"}).out)["help"], helpText(getVerb()));
}

}  // namespace
}  // namespace AppCfgTool
