#include "configsrv/service/internal/change_requests.h"

#include <fstream>
#include <sstream>

#include "tests/configsrv/service/requests_fixture.h"
#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ChangeRequestsTest : public RequestsFixture {
 protected:
  static ConfigIF::WriteReq write(const std::string& key, const std::string& value) {
    ConfigIF::WriteReq request;
    *request.mutable_value()->mutable_inst() = instOf(key);
    request.mutable_value()->add_values(value);
    return request;
  }

  ChangeRequests requests_{frame_, log_, model_, changes_, slices_, nullptr};
};

TEST_F(ChangeRequestsTest, TakesTheRequestsThatChangeAndNoOthers) {
  EXPECT_THAT(takenBy(requests_),
              ElementsAre("WriteReq", "ValidateReq", "ResetValueReq", "ResetNodeValueReq",
                          "ResetAttributeReq", "SetAttributeOptionsReq", "SetAccessLevelsReq"));
  EXPECT_EQ(changes_.underWay(), 0U);
}

TEST_F(ChangeRequestsTest, AWriteIsAnsweredOnceItIsDurable) {
  EXPECT_TRUE(handle(requests_, write("net.mtu", "1400")));
  EXPECT_EQ(answer(), "no answer");
  host_.finishCommit();
  EXPECT_EQ(answer(), "WriteRsp");
}

TEST_F(ChangeRequestsTest, AValueThatMayNotBeIsRefusedAndNothingCommitted) {
  EXPECT_TRUE(handle(requests_, write("net.mtu", "1")));
  EXPECT_THAT(answer(), HasSubstr("WriteRsp " + std::to_string(eErrInvalidValue)));
  EXPECT_TRUE(host_.commits.empty());
}

TEST_F(ChangeRequestsTest, APathThatNamesNoVariableIsABadRequest) {
  EXPECT_TRUE(handle(requests_, ConfigIF::WriteReq()));
  EXPECT_EQ(answer(),
            "WriteRsp " + std::to_string(eErrInvalidRequest) + ": the path names no variable");
}

TEST_F(ChangeRequestsTest, AResetOfANameThatNothingHasIsNotFoundAndOfOneThatNobodyChangedIsDone) {
  ConfigIF::ResetNodeValueReq reset;
  reset.set_name("dev");
  EXPECT_TRUE(handle(requests_, reset));
  EXPECT_THAT(answer(), HasSubstr("no variable is named so"));
  reset.set_name("net");
  EXPECT_TRUE(handle(requests_, reset));
  takeTurns();
  EXPECT_EQ(answer(), "ResetNodeValueRsp");
}

TEST_F(ChangeRequestsTest, AChangeWhoseRoleIsDeniedIsRecordedAndAValidationIsNot) {
  const TestSupport::TempDir directory;
  const std::string file = directory.file("audit");
  AuditTrail audit(file, log_);
  RequestFrame frame(log_, access_, model_, tap_, true);
  ChangeRequests requests(frame, log_, model_, changes_, slices_, &audit);
  ConfigIF::WriteReq denied = write("net.mtu", "1400");
  denied.set_role(CommonIF::SECURITY_ROLE_FACTORY);
  EXPECT_TRUE(handle(requests, denied));
  EXPECT_THAT(answer(), HasSubstr("WriteRsp " + std::to_string(eErrDenied)));
  ConfigIF::ValidateReq validate;
  validate.set_role(CommonIF::SECURITY_ROLE_FACTORY);
  EXPECT_TRUE(handle(requests, validate));
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  EXPECT_THAT(text.str(), HasSubstr("\"variable\":\"net.mtu\""));
  EXPECT_THAT(text.str(), HasSubstr("\"uid\":1000"));
  const std::string recorded = text.str();
  EXPECT_EQ(std::count(recorded.begin(), recorded.end(), '\n'), 1);
}

}  // namespace
}  // namespace ConfigSrv
