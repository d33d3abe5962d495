#include "configsrv/monitor/internal/facts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"
#include "tests/support/definition_builder.h"

namespace ConfigSrv {
namespace {

using AppConfig::ProtobufMessageHelper;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::keyOf;

std::optional<Facts> factsIn(const google::protobuf::MessageLite& message) {
  return factsOf(PlatformSchema::messageIdOf(message), message.SerializeAsString());
}

TEST(FactsTest, AWriteIsAboutItsVariableAndCarriesItsValue) {
  const std::optional<Facts> facts = factsIn(ProtobufMessageHelper::getWriteRequest(
      "c", CommonIF::SECURITY_ROLE_USER, keyOf("net.mtu"), "9"));
  ASSERT_TRUE(facts);
  ASSERT_EQ(facts->variables.size(), 1U);
  EXPECT_EQ(facts->variables.front().dottedName(), "net.mtu");
  EXPECT_THAT(facts->values, ElementsAre("9"));
  EXPECT_FALSE(facts->name);
}

TEST(FactsTest, ABatchIsAboutAllOfItsVariables) {
  const std::optional<Facts> facts = factsIn(ProtobufMessageHelper::getBatchReadRequest(
      "c", CommonIF::SECURITY_ROLE_USER, {keyOf("net.mtu"), keyOf("other.x")}));
  ASSERT_TRUE(facts);
  EXPECT_EQ(facts->variables.size(), 2U);
}

TEST(FactsTest, ANameIsOneAlsoWhenItIsEmptyWhereverItStands) {
  ConfigIF::ResetNodeValueReq reset;
  reset.set_name("net");
  EXPECT_EQ(factsIn(reset)->name, "net");
  ConfigIF::ListReq list;
  list.set_prefix("dev");
  EXPECT_EQ(factsIn(list)->name, "dev");
  EXPECT_EQ(factsIn(ConfigIF::ListReq())->name, "");
}

TEST(FactsTest, AResponseTellsHowItEndedAndTheFirstReason) {
  ConfigIF::WriteRsp response;
  response.mutable_result()->set_error(CommonIF::ERROR_VETOED);
  response.mutable_result()->add_messages("first");
  response.mutable_result()->add_messages("second");
  const std::optional<Facts> facts = factsIn(response);
  EXPECT_EQ(facts->error, CommonIF::ERROR_VETOED);
  EXPECT_EQ(facts->text, "first");
}

TEST(FactsTest, OptionsAndTheValueOfARecordAreValuesToo) {
  ConfigIF::GetAttributeOptionsRsp options;
  options.add_options("auto");
  EXPECT_THAT(factsIn(options)->values, ElementsAre("auto"));
  ConfigIF::GetValueOptionsAccessRsp record;
  record.mutable_record()->add_values("9");
  EXPECT_THAT(factsIn(record)->values, ElementsAre("9"));
}

TEST(FactsTest, APathThatNamesNoVariableIsAboutNone) {
  EXPECT_THAT(factsIn(ConfigIF::ReadReq())->variables, IsEmpty());
}

TEST(FactsTest, MessagesAboutWatchingAndWhatIsNoMessageHaveNone) {
  EXPECT_FALSE(factsIn(ConfigIF::MonitorReq()));
  EXPECT_FALSE(factsIn(ConfigIF::MonitorNtfy()));
  EXPECT_FALSE(factsOf(PlatformSchema::kWriteReq, "\xff"));
  EXPECT_FALSE(factsOf(PlatformSchema::kNoMessageId, ""));
}

}  // namespace
}  // namespace ConfigSrv
