#include "configsrv/changes/internal/questions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_bounds.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;

constexpr std::uint32_t kValidateRsp = 0x1A0151;
constexpr std::uint32_t kOnChangeRsp = 0x1A0101;

std::string answerWith(std::size_t messages) {
  ConfigIF::DynamicValidateRsp response;
  for (std::size_t i = 0; i < messages; ++i) response.mutable_result()->add_messages("fine");
  return response.SerializeAsString();
}

TEST(QuestionsTest, AnAnswerWithAsManyMessagesAsAResultMayHaveIsTaken) {
  const std::size_t most = PlatformSchema::MessageLimits::kMessages;
  const Answer answer = readAnswer(Phase::Validate, kValidateRsp, answerWith(most));
  EXPECT_FALSE(answer.broken || answer.refused);
  EXPECT_EQ(answer.messages.size(), most);
}

// If it counted as none, the consent of another part of its process would make it one.
TEST(QuestionsTest, AnAnswerThatSaysMoreThanIsTakenCountsAsARefusal) {
  const std::string payload = answerWith(PlatformSchema::MessageLimits::kMessages + 1);
  const Answer validated = readAnswer(Phase::Validate, kValidateRsp, payload);
  EXPECT_TRUE(validated.refused);
  EXPECT_FALSE(validated.broken);
  EXPECT_THAT(validated.messages,
              ElementsAre("the provider's answer cannot be taken: the result of DynamicValidateRsp "
                          "has more than 4096 messages, which is the limit: sum them up"));
  EXPECT_TRUE(readAnswer(Phase::OnChange, kOnChangeRsp, payload).refused);
}

TEST(QuestionsTest, AnAnswerThatIsNoMessageOrAnotherIsBroken) {
  EXPECT_TRUE(readAnswer(Phase::Validate, kValidateRsp, "\xFF\xFF").broken);
  EXPECT_TRUE(readAnswer(Phase::Validate, kValidateRsp, std::string(600, '\xFF')).broken);
  EXPECT_TRUE(readAnswer(Phase::Validate, kOnChangeRsp, answerWith(1)).broken);
  EXPECT_TRUE(readAnswer(Phase::Validate, 0, "").broken);
}

}  // namespace
}  // namespace ConfigSrv
