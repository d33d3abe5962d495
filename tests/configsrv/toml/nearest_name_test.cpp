#include "configsrv/toml/nearest_name.h"

#include <gtest/gtest.h>

#include <string>

namespace ConfigSrv {
namespace {

TEST(NearestNameTest, FindsWhatWasMisspelled) {
  const std::vector<std::string_view> names = {"default", "default-index", "min", "max",
                                               "read-role"};
  EXPECT_EQ(nearestName("defualt", names), "default");
  EXPECT_EQ(nearestName("default_index", names), "default-index");
  EXPECT_EQ(nearestName("raed-role", names), "read-role");
  EXPECT_EQ(nearestName("maxx", names), "max");
  EXPECT_EQ(nearestName("mxa", names), "max");
  EXPECT_EQ(nearestName("mi", names), "min");
}

TEST(NearestNameTest, IsEmptyWhenNothingIsNear) {
  EXPECT_EQ(nearestName("colour", {"default", "min"}), "");
  EXPECT_EQ(nearestName("", {"default"}), "");
  EXPECT_EQ(nearestName("default", {}), "");
  EXPECT_EQ(nearestName(std::string(100000, 'd'), {"default"}), "");
}

}  // namespace
}  // namespace ConfigSrv
