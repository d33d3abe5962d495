// Numbers at the edges of 32 and 64 bits, from the definition to the application: a text means the same
// on a machine of either word size.
#include <climits>

#include "tests/integration/application.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

constexpr const char* kNumbers = R"(
[variable."wide.number"]
type = "int"
min = -9223372036854775808
max = 9223372036854775807
default = 0

[variable."wide.port"]
instances = [-2147483648, 2147483647]
type = "int"
default = 7
)";

class NumberEdgesTest : public testing::Test {
 protected:
  NumberEdgesTest() {
    service_.start();
    config_->setPbInterface(&endpoint_);
  }

  ServiceProcess service_{kNumbers};
  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  AppConfig::AppCfgManager* config_ = AppConfig::AppCfgManager::getInstance();
};

TEST_F(NumberEdgesTest, ANumberOf64BitsKeepsItsTextAndReadsAsTheNearestOf32) {
  const struct {
    const char* text;
    int asInt;
  } cases[] = {
      {"2147483647", INT_MAX},          {"2147483648", INT_MAX},           {"4294967295", INT_MAX},
      {"4294967296", INT_MAX},          {"-2147483648", INT_MIN},          {"-2147483649", INT_MIN},
      {"9223372036854775807", INT_MAX}, {"-9223372036854775808", INT_MIN}, {"0x7fffffff", INT_MAX},
      {"0xffffffff", INT_MAX},
  };
  for (const auto& c : cases) {
    ConfigResult result;
    EXPECT_TRUE(config_->setConfigVar("wide", 0, "number", 0, c.text, &result)) << c.text;
    // The notice of the write before this one may still be on its way to the cache.
    EXPECT_TRUE(eventually([&] {
      return config_->getConfigVar("wide", 0, "number", 0) == c.text &&
             config_->getConfigVarInt("wide", 0, "number", 0) == c.asInt;
    })) << c.text;
  }
}

TEST_F(NumberEdgesTest, ANumberPast64BitsIsRefused) {
  for (const char* text : {"9223372036854775808", "-9223372036854775809", "18446744073709551616"}) {
    ConfigResult result;
    EXPECT_FALSE(config_->setConfigVar("wide", 0, "number", 0, text, &result)) << text;
    EXPECT_EQ(result.error(), eErrInvalidValue) << text;
  }
}

TEST_F(NumberEdgesTest, TheOutermostInstancesAreVariablesOfTheirOwn) {
  ConfigResult result;
  EXPECT_TRUE(config_->setConfigVar("wide", 0, "port", INT_MAX, 1, &result));
  EXPECT_TRUE(config_->setConfigVar("wide", 0, "port", INT_MIN, 2, &result));
  EXPECT_EQ(config_->getConfigVarInt("wide", 0, "port", INT_MAX), 1);
  EXPECT_EQ(config_->getConfigVarInt("wide", 0, "port", INT_MIN), 2);
  EXPECT_EQ(config_->getConfigVar("wide", 0, "port", INT_MAX - 1), "");
}

}  // namespace
}  // namespace TestSupport
