// A program that was compiled with the headers of a release, with today's library and service.
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

TEST(ReleasedProgramTest, TheProgramOfRelease010RunsAsItDidThen) {
  ServiceProcess service(kDefinitions);
  service.start();
  ::setenv("APPCONFIG_RUNTIME_DIR", service.runtimeDir().c_str(), 1);
  EXPECT_EQ(std::system(PROGRAM_DIR "/released_program_0_1_0"), 0) << service.log();
}

}  // namespace
}  // namespace TestSupport
