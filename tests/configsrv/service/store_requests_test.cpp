#include "configsrv/service/internal/store_requests.h"

#include "tests/configsrv/service/requests_fixture.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class StoreRequestsTest : public RequestsFixture {
 protected:
  int works_ = 0;
  int restarts_ = 0;
  StoreRequests requests_{
      frame_,
      {log_, model_, server_, "store.db",
       [this](const CommitQueue::Work&, const std::function<void()>&) { ++works_; },
       [this] { ++restarts_; }}};
};

TEST_F(StoreRequestsTest, TakesTheRequestsAboutTheStoreAsAWholeAndNoOthers) {
  EXPECT_THAT(takenBy(requests_), ElementsAre("StoreSnapshotReq", "StoreRestoreReq"));
  EXPECT_EQ(works_, 0);
}

TEST_F(StoreRequestsTest, WhoIsNotKnownToBeRootOrTheServiceIsDenied) {
  EXPECT_TRUE(handle(requests_, ConfigIF::StoreSnapshotReq()));
  EXPECT_TRUE(handle(requests_, ConfigIF::StoreRestoreReq()));
  EXPECT_EQ(works_, 0);
  EXPECT_EQ(restarts_, 0);
}

}  // namespace
}  // namespace ConfigSrv
