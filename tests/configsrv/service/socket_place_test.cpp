#include "configsrv/service/internal/socket_place.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace ConfigSrv {
namespace {

ServiceOptions optionsIn(const std::string& runtimeDir, const std::string& prefix = "") {
  ServiceOptions options;
  options.runtimeDir = runtimeDir;
  options.endpointPrefix = prefix;
  return options;
}

TEST(SocketPlaceTest, FilesOfARunStandBesideTheSocketUnderItsName) {
  EXPECT_EQ(besideSocket(optionsIn("/run/x"), ""), "/run/x/ConfigSrvc");
  EXPECT_EQ(besideSocket(optionsIn("/run/x"), ".witness"), "/run/x/ConfigSrvc.witness");
  EXPECT_EQ(besideSocket(optionsIn("/run/x", "engine"), ""), "/run/x/engine/ConfigSrvc");
}

TEST(SocketPlaceTest, APrefixThatWouldLeaveTheDirectoryHasNoPlace) {
  EXPECT_EQ(besideSocket(optionsIn("/run/x", "../y"), ".witness"), "");
}

TEST(SocketPlaceTest, ASocketThatWasHandedOverIsDescribedAsSuch) {
  ServiceOptions options = optionsIn("/run/x", "engine");
  EXPECT_EQ(describeSocket(options), "/run/x/engine/ConfigSrvc");
  options.listenFd = 3;
  EXPECT_EQ(describeSocket(options), "the socket that was handed over");
}

TEST(SocketPlaceTest, AClientMayBeOwedANoticeForEachVariable) {
  const std::size_t most = PbUtility::ServerOptions().maxNotices;
  EXPECT_EQ(serverOptions(optionsIn("/run/x"), 5, 10).maxNotices, most);
  EXPECT_EQ(serverOptions(optionsIn("/run/x"), 5, most).maxNotices, 2 * most);
}

// In a process of its own, as ctest runs it: the limit is the process's.
TEST(SocketPlaceTest, ThereAreNoMoreConnectionsThanDescriptors) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit few = before;
  few.rlim_cur = 264;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  EXPECT_EQ(serverOptions(optionsIn("/run/x"), 5, 10).maxConnections, 200U);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

}  // namespace
}  // namespace ConfigSrv
