#include "configsrv/service/internal/tool_requests.h"

#include "tests/configsrv/service/requests_fixture.h"
#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ToolRequestsTest : public RequestsFixture {
 protected:
  static std::unique_ptr<Store> openStore(const std::string& file) {
    StoreOptions options;
    options.file = file;
    return Store::open(options).store;
  }

  TestSupport::TempDir directory_;
  const ServiceOptions options_{};
  const Standing standing_{};
  const std::unique_ptr<Store> store_ = openStore(directory_.file("store.db"));
  ReadRequests reads_{frame_, model_, subscriptions_};
  ToolRequests requests_{frame_,
                         {options_, standing_, model_, subscriptions_, announcer_, changes_, reads_,
                          server_, *store_}};
};

TEST_F(ToolRequestsTest, TakesTheRequestsOfToolsAndNoOthers) {
  EXPECT_THAT(takenBy(requests_), ElementsAre("ListReq", "StatusReq", "ClientsReq"));
}

TEST_F(ToolRequestsTest, TheStateAndTheClientsAreToldToEverybody) {
  EXPECT_TRUE(handle(requests_, ConfigIF::StatusReq()));
  EXPECT_EQ(answer(), "StatusRsp");
  EXPECT_TRUE(handle(requests_, ConfigIF::ClientsReq()));
  EXPECT_EQ(answer(), "ClientsRsp");
}

TEST_F(ToolRequestsTest, AListingAfterAPathThatNamesNoVariableIsABadRequest) {
  ConfigIF::ListReq request;
  EXPECT_TRUE(handle(requests_, request));
  EXPECT_EQ(answer(), "ListRsp");
  request.mutable_after();
  EXPECT_TRUE(handle(requests_, request));
  EXPECT_THAT(answer(), HasSubstr("ListRsp " + std::to_string(eErrInvalidRequest)));
}

}  // namespace
}  // namespace ConfigSrv
