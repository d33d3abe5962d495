// appcfg without a service: usage, help, output that cannot be written.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/support/temp_dir.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::Appcfg;
using TestSupport::Ended;
using TestSupport::Words;

class UsageTest : public testing::Test {
 protected:
  void expectMistake(const Words& words) {
    const Ended run = appcfg_(words);
    EXPECT_EQ(run.code, kExitUsage) << testing::PrintToString(words);
    EXPECT_EQ(run.out, "") << testing::PrintToString(words);
    EXPECT_THAT(run.err, StartsWith("appcfg: ")) << testing::PrintToString(words);
  }

  TestSupport::TempDir dir_;
  const Appcfg appcfg_{dir_.path()};
};

TEST_F(UsageTest, HelpAndVersionArePrintedOnStandardOutput) {
  const Ended help = appcfg_({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_EQ(help.err, "");
  for (const Verb& verb : verbs()) EXPECT_THAT(help.out, HasSubstr("\n  " + verb.name + ' '));
  EXPECT_THAT(appcfg_({"set", "--help"}).out, StartsWith("Usage: appcfg set "));
  EXPECT_THAT(appcfg_({"options", "set", "-h"}).out, StartsWith("Usage: appcfg options set "));
  EXPECT_THAT(appcfg_({"--version"}).out, StartsWith("appcfg "));
}

TEST_F(UsageTest, MistakesEndWithTwoBeforeTheServiceIsAsked) {
  const Words cases[] = {
      {},
      {"frobnicate"},
      {"get"},
      {"get", "nodots"},
      {"get", "a..b"},
      {"get", "x:a.b"},
      {"set", "a.b"},
      {"set", "a.b", "x", "--empty"},
      {"validate", "a.b"},
      {"reset"},
      {"reset", "a.b", "--all"},
      {"reset", "--recursive"},
      {"reset", "--recursive", "a[1]"},
      {"reset", "--recursive", "3:a"},
      {"reset", "--recursive", "a", "--namespace", "3"},
      {"reset", "--all", "--yes", "--namespace", "3"},
      {"list", "a..b"},
      {"options"},
      {"options", "set", "a.b"},
      {"options", "set", "a.b", "x", "--empty"},
      {"options", "set", "a.b", "x", "--default-index", "-1"},
      {"options", "set", "a.b", "x", "--default-index", "99999999999"},
      {"access", "set", "a.b"},
      {"access", "set", "a.b", "--read", "king"},
      {"watch", "a..b"},
      {"watch", "3:a", "b"},
      {"wait", "nodots"},
      {"get", "a.b", "--service", "../elsewhere"},
      {"watch", "--service", "../elsewhere"},
      {"wait", "a.b", "--service", "../elsewhere"},
      {"status", "--role", "king"},
  };
  for (const Words& words : cases) expectMistake(words);
}

TEST_F(UsageTest, ResetOfEverythingDoesNotGoOnWhenNobodyCanBeAsked) {
  const Ended run = appcfg_({"reset", "--all"});
  EXPECT_EQ(run.code, kExitUsage);
  EXPECT_THAT(run.err, HasSubstr("--yes"));
}

TEST_F(UsageTest, EachVerbEndsWithSevenWhenNoServiceRuns) {
  const Words cases[] = {
      {"get", "a.b"},
      {"set", "a.b", "x"},
      {"reset", "a.b"},
      {"reset", "-r", "a"},
      {"reset", "--all", "--yes"},
      {"validate", "a.b", "x"},
      {"is-default", "a.b"},
      {"list"},
      {"describe", "a.b"},
      {"options", "get", "a.b"},
      {"options", "set", "a.b", "x"},
      {"access", "get", "a.b"},
      {"access", "set", "a.b", "--read", "user"},
      {"wait", "a.b", "--timeout", "0.1"},
      {"status"},
  };
  for (const Words& words : cases) {
    const Ended run = appcfg_(words);
    EXPECT_EQ(run.code, kExitUnreachable) << testing::PrintToString(words);
    EXPECT_EQ(run.out, "") << testing::PrintToString(words);
    EXPECT_THAT(run.err, HasSubstr(dir_.file("ConfigSrvc"))) << testing::PrintToString(words);
    EXPECT_THAT(run.err, HasSubstr("APPCONFIG_RUNTIME_DIR")) << testing::PrintToString(words);
  }
}

TEST_F(UsageTest, TheRuntimeDirectoryAndTheServiceCanBeGiven) {
  const Ended run = appcfg_({"status", "--runtime-dir", "/nowhere", "--service", "/engine"});
  EXPECT_EQ(run.code, kExitUnreachable);
  EXPECT_THAT(run.err, HasSubstr("/nowhere/engine/ConfigSrvc"));
}

TEST_F(UsageTest, WatchSaysThatItWaitsForTheServiceAndEndsWhenTold) {
  for (const int signal : {SIGINT, SIGTERM}) {
    TestSupport::RunningAppcfg watch(dir_.path(), {"watch"});
    ASSERT_TRUE(watch.waitForErr("waiting for it"));
    EXPECT_EQ(watch.stop(signal), 0);
  }
}

}  // namespace
}  // namespace AppCfgTool
