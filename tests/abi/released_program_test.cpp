// Programs that were compiled with the headers of a release, with today's library and service. Their
// handlers and their message layer have each of their operations called, by its place in the table:
// an operation that moved is one that is not called, or with another one's arguments.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/service_process.h"

namespace TestSupport {
namespace {

constexpr const char* kDefinitions = R"(
[variable."net.mtu"]
type = "int"
default = 1500

[variable."net.mode"]
type = "enumeration"
options = ["auto", "manual"]
default = "auto"
write-role = "installer"
)";

class ReleasedProgramTest : public testing::Test {
 protected:
  ReleasedProgramTest() {
    service_.start();
    ::setenv("APPCONFIG_RUNTIME_DIR", service_.runtimeDir().c_str(), 1);
  }
  ServiceProcess service_{kDefinitions};
};

TEST_F(ReleasedProgramTest, TheProgramOfRelease010RunsAsItDidThen) {
  // What nobody can ask of the library, the program has the command line do.
  EXPECT_EQ(std::system(PROGRAM_DIR "/released_program_0_1_0 '" APPCFG_PROGRAM " submit net.mtu'"),
            0)
      << service_.log();
}

TEST_F(ReleasedProgramTest, TheMessageLayerOfRelease010IsAskedForWhatItWasAskedForThen) {
  EXPECT_EQ(std::system(PROGRAM_DIR "/released_message_layer_0_1_0"), 0) << service_.log();
}

}  // namespace
}  // namespace TestSupport
