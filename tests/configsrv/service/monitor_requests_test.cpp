#include "configsrv/service/internal/monitor_requests.h"

#include "tests/configsrv/service/requests_fixture.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;

class MonitorRequestsTest : public RequestsFixture {
 protected:
  MonitorRequestsTest() { monitor_.remove(kWatcher); }

  MonitorRequests requests_{frame_, monitor_};
};

TEST_F(MonitorRequestsTest, TakesTheRequestToWatchAndNoOther) {
  EXPECT_THAT(takenBy(requests_), ElementsAre("MonitorReq"));
  EXPECT_FALSE(monitor_.isActive());
}

TEST_F(MonitorRequestsTest, WhoAsksWatchesUntilAStopAndMayStopTwice) {
  ConfigIF::MonitorReq request;
  EXPECT_TRUE(handle(requests_, request));
  EXPECT_TRUE(monitor_.isActive());
  request.set_stop(true);
  EXPECT_TRUE(handle(requests_, request));
  EXPECT_TRUE(handle(requests_, request));
  EXPECT_FALSE(monitor_.isActive());
}

TEST_F(MonitorRequestsTest, ANameThatIsTooLongIsNotWatched) {
  ConfigIF::MonitorReq request;
  request.set_prefix(std::string(Monitor::kMaxPrefixBytes + 1, 'a'));
  EXPECT_TRUE(handle(requests_, request));
  EXPECT_FALSE(monitor_.isActive());
}

}  // namespace
}  // namespace ConfigSrv
