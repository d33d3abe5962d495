#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/messaging/endpoint.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"

namespace PbUtility {
namespace {

using TestSupport::Serving;

int readStatus(Endpoint& endpoint) {
  ConfigIF::ReadRsp response;
  return endpoint.sendWaitResponse(ConfigIF::ReadReq(), &response, "ConfigSrvc");
}

TEST(EndpointForkTest, AChildOpensConnectionsOfItsOwnAndTheParentsGoOn) {
  TestSupport::TempDir dir;
  Serving serving(dir.path());
  EndpointOptions options;
  options.runtimeDir = dir.path();
  Endpoint endpoint("parent", options);
  ASSERT_TRUE(endpoint.waitUntilConnected("ConfigSrvc", TestSupport::kPatience));
  ASSERT_EQ(readStatus(endpoint), 0);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(readStatus(endpoint) == 0 ? 42 : 1);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 42);
  EXPECT_EQ(readStatus(endpoint), 0);
  const auto requests = serving.requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[1].peer.pid, child);
  EXPECT_EQ(requests[2].id.connection, requests[0].id.connection);
}

TEST(EndpointForkTest, ARegistrationOfTheParentIsMadeByTheChildTooOnceItUsesItsEndpoint) {
  TestSupport::TempDir dir;
  Serving serving(dir.path());
  EndpointOptions options;
  options.runtimeDir = dir.path();
  Endpoint endpoint("parent", options);
  ConfigIF::RegisterClientCallbackReq registration;
  registration.set_client_name("parent");
  ConfigIF::RegisterClientCallbackRsp response;
  ASSERT_EQ(endpoint.sendWaitResponse(registration, &response, "ConfigSrvc"), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const bool stands = endpoint.waitUntilConnected("ConfigSrvc", TestSupport::kPatience);
    ::_exit(stands ? 42 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 42);
  bool byChild = false;
  for (const Serving::Request& request : serving.requests()) {
    byChild = byChild || (request.messageId == 0x1A0210 && request.peer.pid == child);
  }
  EXPECT_TRUE(byChild);
}

TEST(EndpointForkTest, ADeadServiceRaisesNoSignal) {
  TestSupport::TempDir dir;
  EndpointOptions options;
  options.runtimeDir = dir.path();
  // The default action of SIGPIPE ends the process, and with it this test.
  ::signal(SIGPIPE, SIG_DFL);
  Endpoint endpoint("ui", options);
  {
    Serving serving(dir.path());
    ASSERT_EQ(readStatus(endpoint), 0);
  }
  EXPECT_EQ(endpoint.send(ConfigIF::ReadReq(), "ConfigSrvc", nullptr), kCallNoService);
  EXPECT_EQ(readStatus(endpoint), kCallNoService);
}

}  // namespace
}  // namespace PbUtility
