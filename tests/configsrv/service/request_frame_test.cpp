#include "tests/configsrv/service/requests_fixture.h"

namespace ConfigSrv {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

// A family of one request that is answered at once and one that is answered later.
class TwoHandlers {
 public:
  explicit TwoHandlers(RequestFrame& frame) : frame_(frame) {}

  bool handle(const Incoming& incoming) {
    switch (incoming.messageId) {
      case PlatformSchema::kBatchReadReq:
        return frame_.answerNow<&TwoHandlers::now>(*this, incoming);
      case PlatformSchema::kWriteReq:
        return frame_.answerLater<ConfigIF::WriteRsp, &TwoHandlers::later>(
            *this, incoming,
            [this](const Call&, const ConfigIF::WriteReq&, const ConfigIF::ReturnMessage& result) {
              denied_ = result.messages(0);
            });
      default:
        return false;
    }
  }

  std::vector<Call> calls_;
  std::string denied_;

 private:
  void now(const Call& call, const ConfigIF::BatchReadReq&, ConfigIF::BatchReadRsp&) {
    calls_.push_back(call);
  }
  void later(const Call& call, const ConfigIF::WriteReq&) { calls_.push_back(call); }

  RequestFrame& frame_;
};

class RequestFrameTest : public RequestsFixture {
 protected:
  TwoHandlers handlers_{frame_};
};

TEST_F(RequestFrameTest, AHandlerIsGivenWhoAsksAsTheKernelAndTheRequestSay) {
  ConfigIF::BatchReadReq request;
  request.set_client_name(std::string(300, 'c'));
  EXPECT_TRUE(handle(handlers_, request));
  EXPECT_EQ(answer(), "BatchReadRsp");
  ASSERT_EQ(handlers_.calls_.size(), 1U);
  const Requester& by = handlers_.calls_[0].by;
  EXPECT_EQ(by.peer, peer_.id);
  EXPECT_EQ(by.owner.uid, kSomebody);
  EXPECT_EQ(by.role, AppConfig::eRoleUser);
  EXPECT_EQ(by.clientName.size(), RequestFrame::kMaxClientName);
  EXPECT_EQ(by.caller, nullptr) << "nobody records changes";
}

TEST_F(RequestFrameTest, WhatIsAnsweredLaterIsNotAnsweredHere) {
  EXPECT_TRUE(handle(handlers_, ConfigIF::WriteReq()));
  EXPECT_THAT(answers_, IsEmpty());
  frame_.respond(handlers_.calls_.at(0).id, ConfigIF::WriteRsp());
  EXPECT_EQ(answer(), "WriteRsp");
}

TEST_F(RequestFrameTest, ARoleThatTheUserMayNotClaimReachesNoHandler) {
  ConfigIF::BatchReadReq read;
  read.set_role(CommonIF::SECURITY_ROLE_FACTORY);
  EXPECT_TRUE(handle(handlers_, read));
  EXPECT_THAT(answer(), HasSubstr("BatchReadRsp " + std::to_string(eErrDenied)));
  ConfigIF::WriteReq write;
  write.set_role(CommonIF::SECURITY_ROLE_FACTORY);
  EXPECT_TRUE(handle(handlers_, write));
  EXPECT_THAT(answer(), HasSubstr("WriteRsp " + std::to_string(eErrDenied)));
  EXPECT_THAT(handlers_.denied_, HasSubstr("may act as user at most"));
  EXPECT_TRUE(handlers_.calls_.empty());
  EXPECT_THAT(lines_, Contains(HasSubstr("client \"client\" (pid 42) denied")));
}

TEST_F(RequestFrameTest, APayloadThatIsNoMessageIsRefusedWithALineInTheLog) {
  EXPECT_TRUE(handle(handlers_, PlatformSchema::kWriteReq, "\xff"));
  EXPECT_TRUE(handlers_.calls_.empty());
  EXPECT_THAT(lines_, Contains(HasSubstr("the payload is no WriteReq")));
}

TEST_F(RequestFrameTest, ARequestThatUnfoldsToTooMuchIsAnsweredWithLimit) {
  ConfigIF::BatchReadReq request;
  for (int i = 0; i < 1025; ++i) request.add_inst();
  EXPECT_TRUE(handle(handlers_, request));
  EXPECT_TRUE(handlers_.calls_.empty());
  EXPECT_THAT(lines_, Contains(HasSubstr("more than 1024 variables")));
}

TEST_F(RequestFrameTest, WhoMakesAChangeIsKeptWhereChangesAreRecorded) {
  RequestFrame recording(log_, access_, model_, tap_, true);
  TwoHandlers handlers(recording);
  EXPECT_TRUE(handle(handlers, ConfigIF::WriteReq()));
  ASSERT_NE(handlers.calls_.at(0).by.caller, nullptr);
  EXPECT_EQ(handlers.calls_[0].by.caller->pid, 42);
}

}  // namespace
}  // namespace ConfigSrv
