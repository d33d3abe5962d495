#include "configsrv/service/internal/requests.h"

#include <algorithm>

#include "tests/configsrv/service/requests_fixture.h"
#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::Contains;
using testing::HasSubstr;

class RequestsTest : public RequestsFixture {
 protected:
  static std::unique_ptr<Store> openStore(const std::string& file) {
    StoreOptions options;
    options.file = file;
    return Store::open(options).store;
  }
  // The line that the log has of a request whose payload is no message.
  std::string refusalOf(std::uint32_t messageId) {
    std::vector<std::string> lines;
    const Log log(LogLevel::Info,
                  [&lines](LogLevel, const std::string& line) { lines.push_back(line); });
    Requests requests({options_,
                       log,
                       standing_,
                       access_,
                       model_,
                       subscriptions_,
                       announcer_,
                       changes_,
                       monitor_,
                       tap_,
                       server_,
                       providers_,
                       nullptr,
                       *store_,
                       {},
                       {}});
    requests.handle({{1, ++sequence_, false}, peer_, messageId, false, 0, "\xff"});
    EXPECT_EQ(lines.size(), 1U);
    return lines.empty() ? "" : lines[0];
  }

  TestSupport::TempDir directory_;
  const ServiceOptions options_{};
  const Standing standing_{};
  const std::unique_ptr<Store> store_ = openStore(directory_.file("store.db"));
  ProviderMemory providers_{"", log_};
};

// What a service asks its clients, and what it is answered, is no request to it.
bool isRequestToTheService(std::uint32_t id) {
  const bool isQuestion =
      id == PlatformSchema::kOnChangeReq || id == PlatformSchema::kDynamicValidateReq;
  return id % 16 == 0 && !isQuestion;
}

TEST_F(RequestsTest, EveryRequestOfTheProtocolIsSomeFamilysAndNothingElseIs) {
  for (const std::uint32_t id : PlatformSchema::messageIds()) {
    const std::string name = PlatformSchema::messageName(id);
    EXPECT_EQ(refusalOf(id),
              isRequestToTheService(id)
                  ? "client \"client\": the payload is no " + name
                  : "client \"client\": " + name + " is no request that this service answers");
  }
}

TEST_F(RequestsTest, ANumberThatNoMessageHasIsRefused) {
  EXPECT_THAT(refusalOf(PlatformSchema::kStoreRestoreRsp + 1),
              HasSubstr("is no request that this service answers"));
}

}  // namespace
}  // namespace ConfigSrv
