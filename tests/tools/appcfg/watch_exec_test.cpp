// watch --exec against the real service: which programs run, when, and with what.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <memory>

#include "tests/support/service_process.h"
#include "tests/support/test_client.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"

namespace AppCfgTool {
namespace {

using testing::HasSubstr;
using TestSupport::eventually;
using TestSupport::RunningAppcfg;
using TestSupport::Words;

const char* const kWatchedDefinitions = R"(
[variable."net.host"]
type = "string"
default = "gateway"

[variable."net.probe"]
type = "string"
default = ""

[variable."net.dns"]
type = "list"
default = []

[variable."net.mtu"]
type = "int"
default = 1500
)";

class WatchExecTest : public testing::Test {
 protected:
  WatchExecTest() { service_.start(); }

  std::string file(const std::string& name) const { return service_.directory().file(name); }
  bool exists(const std::string& name) const { return ::access(file(name).c_str(), F_OK) == 0; }

  // A watch that runs a shell's script. What changes while it begins is not news to it; when this
  // returns, it follows.
  std::unique_ptr<RunningAppcfg> follow(const std::string& script) {
    const std::string probed =
        "if [ $APPCFG_KEY = net.probe ]; then touch " + file("probed") + "; exit; fi; ";
    auto watch = std::make_unique<RunningAppcfg>(
        service_.runtimeDir(), Words{"watch", "net", "--exec", "sh", "--", "-c", probed + script});
    EXPECT_TRUE(changeUntil([&] { return exists("probed"); }));
    return watch;
  }
  // Changes a variable again and again until something has come of it.
  template <class Condition>
  bool changeUntil(const Condition& condition) {
    int i = 0;
    return eventually([&] {
      set("net.probe", std::to_string(++i));
      return condition();
    });
  }
  void set(const std::string& key, const std::string& value) {
    EXPECT_TRUE(client_.write(key, value).ok());
  }

  TestSupport::ServiceProcess service_{kWatchedDefinitions};
  TestSupport::TestClient client_{"test", service_.runtimeDir()};
};

TEST_F(WatchExecTest, EachChangeRunsItWithKeyAndValueInItsEnvironment) {
  const auto watch = follow("echo \"$APPCFG_KEY is $APPCFG_VALUE, $APPCFG_ELEMENTS\"");
  set("net.host", "a b'$(false)");
  EXPECT_EQ(watch->line(), "net.host is a b'$(false), 1");
  EXPECT_TRUE(client_.write("net.dns", std::vector<std::string>{"x", "y"}).ok());
  EXPECT_EQ(watch->line(), "net.dns is x");
  EXPECT_EQ(watch->line(), "y, 2");
  EXPECT_TRUE(client_.write("net.dns", std::vector<std::string>{}).ok());
  EXPECT_EQ(watch->line(), "net.dns is , 0");
  EXPECT_EQ(watch->stop(SIGTERM), 0);
}

TEST_F(WatchExecTest, ItsWordsAreNotReadByAShell) {
  const std::string name = "$APPCFG_KEY; *";
  const RunningAppcfg watch(service_.runtimeDir(),
                            {"watch", "net", "--exec", "touch", "--", file(name)});
  EXPECT_TRUE(changeUntil([&] { return exists(name); }));
}

// The first run waits for a file; what changes meanwhile is not worked through one by one.
TEST_F(WatchExecTest, ASlowProgramGetsTheNewestValues) {
  const auto watch = follow("touch " + file("began") + "; until [ -e " + file("go") +
                            " ]; do sleep 0.02; done; echo $APPCFG_KEY=$APPCFG_VALUE");
  set("net.host", "first");
  ASSERT_TRUE(eventually([&] { return exists("began"); }));
  for (int i = 1; i <= 100; ++i) set("net.mtu", std::to_string(i));
  TestSupport::writeFile(file("go"), "");
  EXPECT_EQ(watch->line(), "net.host=first");
  int runs = 1;
  while (watch->line() != "net.mtu=100" && runs < 100) ++runs;
  EXPECT_LT(runs, 50);
}

TEST_F(WatchExecTest, AProgramThatFailsIsToldAndRunAgainForTheNextChange) {
  const auto watch = follow("echo $APPCFG_VALUE; exit 3");
  set("net.host", "a");
  EXPECT_EQ(watch->line(), "a");
  EXPECT_TRUE(watch->waitForErr("appcfg: sh ended with 3, for net.host\n"));
  set("net.host", "b");
  EXPECT_EQ(watch->line(), "b");
  EXPECT_EQ(watch->stop(SIGINT), 0);
}

TEST_F(WatchExecTest, AProgramThatCannotBeStartedIsTheEnd) {
  RunningAppcfg watch(service_.runtimeDir(), {"watch", "net", "--exec", file("none")});
  EXPECT_TRUE(changeUntil([&] { return !watch.err().empty(); }));
  EXPECT_EQ(watch.wait(), kExitFailed);
  EXPECT_THAT(watch.err(), HasSubstr("cannot run " + file("none") + ": No such file or directory"));
}

TEST_F(WatchExecTest, WhoEndsItEndsTheProgramToo) {
  const auto watch = follow("trap 'touch " + file("ended") + "; exit' TERM; touch " +
                            file("began") + "; while :; do sleep 0.02; done");
  set("net.host", "a");
  ASSERT_TRUE(eventually([&] { return exists("began"); }));
  EXPECT_EQ(watch->stop(SIGTERM), 0);
  EXPECT_TRUE(eventually([&] { return exists("ended"); }));
}

TEST_F(WatchExecTest, AValueThatNoEnvironmentHoldsIsLeftOutOfIt) {
  const auto watch = follow("echo ${APPCFG_VALUE-unset} $APPCFG_ELEMENTS");
  set("net.host", std::string("a\0b", 3));
  EXPECT_EQ(watch->line(), "unset 1");
}

TEST_F(WatchExecTest, PresentValuesRunNothingAndNothingIsPrinted) {
  const auto watch = follow("echo $APPCFG_KEY >> " + file("log.txt"));
  set("net.host", "a");
  ASSERT_TRUE(eventually([&] { return exists("log.txt"); }));
  watch->stop(SIGTERM);
  EXPECT_EQ(TestSupport::readFile(file("log.txt")), "net.host\n");
  EXPECT_FALSE(watch->line().has_value());
}

}  // namespace
}  // namespace AppCfgTool
