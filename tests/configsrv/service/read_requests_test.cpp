#include "configsrv/service/internal/read_requests.h"

#include "tests/configsrv/service/requests_fixture.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ReadRequestsTest : public RequestsFixture {
 protected:
  template <typename Request>
  static Request about(const std::string& key) {
    Request request;
    *request.mutable_inst() = instOf(key);
    return request;
  }

  ReadRequests reads_{frame_, model_, subscriptions_};
};

TEST_F(ReadRequestsTest, TakesTheRequestsThatReadAndNoOthers) {
  EXPECT_THAT(takenBy(reads_),
              ElementsAre("ReadReq", "BatchReadReq", "ReadAttributesReq", "GetAttributeOptionsReq",
                          "GetDefaultOptionsReq", "GetAccessLevelsReq", "GetValueOptionsAccessReq",
                          "BatchGetValueOptionsAccessReq"));
  EXPECT_EQ(reads_.reads(), 0U);
}

TEST_F(ReadRequestsTest, AValueIsAnsweredAndCounted) {
  EXPECT_TRUE(handle(reads_, about<ConfigIF::ReadReq>("net.mtu")));
  EXPECT_EQ(answer(), "ReadRsp = 1500");
  EXPECT_TRUE(handle(reads_, about<ConfigIF::GetValueOptionsAccessReq>("net.mtu")));
  EXPECT_EQ(answer(), "GetValueOptionsAccessRsp = 1500");
  EXPECT_EQ(reads_.reads(), 2U);
}

TEST_F(ReadRequestsTest, EachVariableOfABatchIsCounted) {
  ConfigIF::BatchReadReq request;
  *request.add_inst() = instOf("net.mtu");
  *request.add_inst() = instOf("net.mode");
  EXPECT_TRUE(handle(reads_, request));
  EXPECT_EQ(answer(), "BatchReadRsp");
  EXPECT_EQ(reads_.reads(), 2U);
}

TEST_F(ReadRequestsTest, OptionsAreReadByPathAndTheDefaultOnesByName) {
  EXPECT_TRUE(handle(reads_, about<ConfigIF::GetAttributeOptionsReq>("net.mode")));
  EXPECT_EQ(answer(), "GetAttributeOptionsRsp = auto = manual");
  ConfigIF::GetDefaultOptionsReq request;
  request.set_name("Net.Mode");
  EXPECT_TRUE(handle(reads_, request));
  EXPECT_EQ(answer(), "GetDefaultOptionsRsp = auto = manual");
}

TEST_F(ReadRequestsTest, WhatTheRoleMayNotReadIsDeniedAndItsAccessLevelsAreNot) {
  EXPECT_TRUE(handle(reads_, about<ConfigIF::ReadReq>("net.hidden")));
  EXPECT_THAT(answer(), HasSubstr("reading needs the role factory, not user"));
  EXPECT_TRUE(handle(reads_, about<ConfigIF::GetAccessLevelsReq>("net.hidden")));
  EXPECT_EQ(answer(), "GetAccessLevelsRsp");
}

}  // namespace
}  // namespace ConfigSrv
