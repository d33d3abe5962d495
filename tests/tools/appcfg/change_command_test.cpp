#include "tools/appcfg/change_command.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <fstream>
#include <sstream>

#include "base/unique_fd.h"
#include "tests/support/temp_dir.h"

namespace AppCfgTool {
namespace {

class ChangeCommandTest : public testing::Test {
 protected:
  ChangeCommand writes(const std::string& what) {
    return ChangeCommand(output_, {"sh", "-c", "echo \"" + what + "\" >> " + file_});
  }
  void runAll(ChangeCommand& command) {
    while (command.isWaiting()) EXPECT_TRUE(command.runNext(-1).ok());
  }
  std::string written() const {
    std::ostringstream text;
    text << std::ifstream(file_).rdbuf();
    return text.str();
  }

  TestSupport::TempDir dir_;
  const std::string file_ = dir_.file("written");
  Output output_{false};
  const ConfigVar mtu_{"net", 0, "mtu", 0};
  const ConfigVar host_{"net", 0, "host", 0};
};

TEST_F(ChangeCommandTest, AVariableWaitsOnceInItsPlaceWithItsNewestValue) {
  ChangeCommand command = writes("$APPCFG_KEY=$APPCFG_VALUE");
  command.add(mtu_, {"1"});
  command.add(host_, {"a"});
  command.add(mtu_, {"2"});
  runAll(command);
  EXPECT_EQ(written(), "net.mtu=2\nnet.host=a\n");
}

TEST_F(ChangeCommandTest, InstancesAreVariablesOfTheirOwn) {
  ChangeCommand command = writes("$APPCFG_KEY");
  command.add(ConfigVar("net", 1, "mtu", 0), {"1"});
  command.add(mtu_, {"1"});
  runAll(command);
  EXPECT_EQ(written(), "net[1].mtu\nnet.mtu\n");
}

TEST_F(ChangeCommandTest, WhatTheEnvironmentCannotHoldIsLeftOutEvenIfItWasThereBefore) {
  ::setenv("APPCFG_VALUE", "of another one", 1);
  ChangeCommand command = writes("${APPCFG_VALUE-unset} $APPCFG_ELEMENTS");
  command.add(mtu_, {std::string(ChangeCommand::kLongestValue, 'x')});
  runAll(command);
  EXPECT_EQ(written().size(), ChangeCommand::kLongestValue + 3);
  command.add(mtu_, {std::string(ChangeCommand::kLongestValue + 1, 'x')});
  command.add(host_, {std::string(1, '\0')});
  runAll(command);
  EXPECT_EQ(written().substr(ChangeCommand::kLongestValue + 3), "unset 1\nunset 1\n");
  ::unsetenv("APPCFG_VALUE");
}

TEST_F(ChangeCommandTest, AStopEndsTheWaitAndTheProgram) {
  const Base::UniqueFd stop(::eventfd(1, EFD_CLOEXEC));
  ChangeCommand command(output_, {"sleep", "1000"});
  command.add(mtu_, {"1"});
  EXPECT_EQ(command.runNext(stop.get()).code, kExitNo);
}

TEST_F(ChangeCommandTest, AProgramThatIsNotThereIsAFailureWithItsName) {
  ChangeCommand command(output_, {"/none/of/these"});
  command.add(mtu_, {"1"});
  const Outcome outcome = command.runNext(-1);
  EXPECT_EQ(outcome.code, kExitFailed);
  EXPECT_EQ(outcome.text, "cannot run /none/of/these: No such file or directory");
}

}  // namespace
}  // namespace AppCfgTool
