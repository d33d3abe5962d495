// The shared library in a program that loads and unloads what uses it.
#include <dlfcn.h>

#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

constexpr int kRounds = 100;

bool isMapped(const std::string& library) {
  return readFile("/proc/self/maps").find(library) != std::string::npos;
}

using LoadingTest = IntegrationTest;

TEST_F(LoadingTest, APlugInComesAndGoesAHundredTimesAndTheLibraryStays) {
  void* endpoint = nullptr;
  for (int round = 0; round < kRounds; ++round) {
    void* const plugIn = dlopen(APPCONFIG_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(plugIn, nullptr) << dlerror();
    using Use = int (*)(const char*, int, void**);
    const auto use = reinterpret_cast<Use>(dlsym(plugIn, "useLibrary"));
    ASSERT_NE(use, nullptr) << dlerror();
    EXPECT_EQ(use(service_.runtimeDir().c_str(), round, &endpoint), 0) << "in round " << round;
    ASSERT_EQ(dlclose(plugIn), 0);
    EXPECT_FALSE(isMapped("bounded_failure_plugin"));
    EXPECT_TRUE(isMapped("libappconfig.so"));
    // The delivery thread runs on, in code that is there.
    EXPECT_TRUE(client_.write("net.name", "between " + std::to_string(round)).ok());
  }
}

TEST_F(LoadingTest, TheLibraryAloneComesAndGoesWithoutATrace) {
  for (int round = 0; round < kRounds; ++round) {
    void* const library = dlopen(APPCONFIG_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    ASSERT_EQ(dlclose(library), 0);
  }
  EXPECT_TRUE(isMapped("libappconfig.so"));
}

}  // namespace
}  // namespace TestSupport
