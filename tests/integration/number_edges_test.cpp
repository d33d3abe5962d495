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

TEST_F(NumberEdgesTest, ANumberKeepsItsTextAndReadsAsWhatItMeans) {
  const struct {
    const char* text;
    int asInt;
  } cases[] = {
      {"2147483647", INT_MAX},
      {"-2147483648", INT_MIN},
      {"0x7fffffff", INT_MAX},
      {"-0x80000000", INT_MIN},
      {"017777777777", INT_MAX},
      {"030", 24},
      {"+24", 24},
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

TEST_F(NumberEdgesTest, ANumberPast32BitsIsRefused) {
  for (const char* text : {"2147483648", "-2147483649", "0x80000000", "4294967296",
                           "9223372036854775808", "-9223372036854775809", "18446744073709551616"}) {
    ConfigResult result;
    EXPECT_FALSE(config_->setConfigVar("wide", 0, "number", 0, text, &result)) << text;
    EXPECT_EQ(result.error(), eErrInvalidValue) << text;
  }
}

TEST(NumberLimitsTest, ALimitThatTypedReadsWouldCutIsAMistakeInTheDefinitions) {
  ServiceProcess service("[variable.\"a.b\"]\ntype = \"int\"\nmax = 5000000000\n");
  EXPECT_EQ(service.startAndWait(), 3);
  EXPECT_THAT(service.log(), testing::HasSubstr("test.toml:3:1: variable \"a.b\": \"max\" is "
                                                "5000000000, and an int is from -2147483648"));
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
