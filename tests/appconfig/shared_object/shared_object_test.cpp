// libappconfig.so in programs that are nothing of ours: they link or load it, beside messages and a
// message layer of their own.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>

#include "tests/support/service_process.h"

namespace TestSupport {
namespace {

constexpr const char* kMtu = "[variable.\"net.mtu\"]\ntype = \"int\"\ndefault = 1500\n";

class SharedObjectTest : public testing::Test {
 protected:
  SharedObjectTest() { service_.start(); }

  // The exit code; what the program prints stands in the test's output.
  int run(const std::string& commandLine) {
    ::setenv("APPCONFIG_RUNTIME_DIR", service_.runtimeDir().c_str(), 1);
    const int status = std::system((PROGRAM_DIR "/" + commandLine).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  ServiceProcess service_{kMtu};
};

TEST_F(SharedObjectTest, AProgramMayHaveMessagesOfTheSameNames) {
  EXPECT_EQ(run("own_schema_user"), 0);
}

TEST_F(SharedObjectTest, APluginMayBringItInForItselfAlone) {
  EXPECT_EQ(run("plugin_host " PLUGIN " local"), 0);
}

TEST_F(SharedObjectTest, APluginMayBringItInForTheWholeProgram) {
  EXPECT_EQ(run("plugin_host " PLUGIN " global"), 0);
}

TEST_F(SharedObjectTest, AMessageLayerOfTheProgramTakesThePlaceOfOurs) {
  EXPECT_EQ(run("own_message_layer"), 0);
}

}  // namespace
}  // namespace TestSupport
