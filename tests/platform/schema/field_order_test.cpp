// Field numbers, checked on bytes written by hand: what is on the wire today stays readable, and a
// message written today is read by clients that were built before.
#include <gtest/gtest.h>

#include <string>

#include "platform/schema/common_if.pb.h"
#include "platform/schema/config_if.pb.h"

namespace {

using namespace std::string_literals;

// One field: its tag byte (number * 8 + 2), its length, its bytes. Short fields only.
std::string lengthDelimited(int number, const std::string& bytes) {
  return std::string(1, static_cast<char>(number * 8 + 2)) +
         std::string(1, static_cast<char>(bytes.size())) + bytes;
}

// One field: its tag byte (number * 8), its value below 128.
std::string varint(int number, int value) {
  return std::string(1, static_cast<char>(number * 8)) + std::string(1, static_cast<char>(value));
}

std::string node(const std::string& name, int instance) {
  return lengthDelimited(1, lengthDelimited(1, name) + varint(2, instance));
}

const std::string kClientAndRole =
    lengthDelimited(1, "ui") + varint(2, CommonIF::SECURITY_ROLE_SERVICE);
const std::string kInst = node("network", 0) + node("ipaddr", 1);
const std::string kInstValue =
    lengthDelimited(1, kInst) + lengthDelimited(2, "a\0b"s) + lengthDelimited(2, "");

template <class Request>
void expectClientAndRoleFirst() {
  Request request;
  request.set_client_name("ui");
  request.set_role(CommonIF::SECURITY_ROLE_SERVICE);
  EXPECT_EQ(request.SerializeAsString(), kClientAndRole) << request.GetTypeName();
}

void fill(ConfigIF::Inst* inst) {
  ConfigIF::Node* group = inst->add_path();
  group->set_name("network");
  group->set_instance(0);
  ConfigIF::Node* name = inst->add_path();
  name->set_name("ipaddr");
  name->set_instance(1);
}

template <class Request>
void expectInstThird() {
  Request request;
  ASSERT_TRUE(request.ParseFromString(kClientAndRole + lengthDelimited(3, kInst)));
  Request expected;
  expected.set_client_name("ui");
  expected.set_role(CommonIF::SECURITY_ROLE_SERVICE);
  fill(expected.mutable_inst());
  EXPECT_EQ(request.SerializeAsString(), expected.SerializeAsString()) << request.GetTypeName();
}

template <class Request>
void expectInstValueThird() {
  Request request;
  ASSERT_TRUE(request.ParseFromString(kClientAndRole + lengthDelimited(3, kInstValue)));
  Request expected;
  expected.set_client_name("ui");
  expected.set_role(CommonIF::SECURITY_ROLE_SERVICE);
  fill(expected.mutable_value()->mutable_inst());
  expected.mutable_value()->add_values("a\0b"s);
  expected.mutable_value()->add_values("");
  EXPECT_EQ(request.SerializeAsString(), expected.SerializeAsString()) << request.GetTypeName();
}

template <class Response>
void expectReturnMessageAlone() {
  Response response;
  response.mutable_result()->set_flag(true);
  EXPECT_EQ(response.SerializeAsString(), lengthDelimited(1, varint(2, 1)))
      << response.GetTypeName();
}

TEST(FieldOrderTest, EveryRequestBeginsWithClientNameAndRole) {
  expectClientAndRoleFirst<ConfigIF::ReadReq>();
  expectClientAndRoleFirst<ConfigIF::WriteReq>();
  expectClientAndRoleFirst<ConfigIF::ValidateReq>();
  expectClientAndRoleFirst<ConfigIF::ResetValueReq>();
  expectClientAndRoleFirst<ConfigIF::ResetNodeValueReq>();
  expectClientAndRoleFirst<ConfigIF::BatchReadReq>();
  expectClientAndRoleFirst<ConfigIF::GetAttributeOptionsReq>();
  expectClientAndRoleFirst<ConfigIF::SetAttributeOptionsReq>();
  expectClientAndRoleFirst<ConfigIF::GetDefaultOptionsReq>();
  expectClientAndRoleFirst<ConfigIF::GetAccessLevelsReq>();
  expectClientAndRoleFirst<ConfigIF::SetAccessLevelsReq>();
  expectClientAndRoleFirst<ConfigIF::ReadAttributesReq>();
  expectClientAndRoleFirst<ConfigIF::ResetAttributeReq>();
  expectClientAndRoleFirst<ConfigIF::GetValueOptionsAccessReq>();
  expectClientAndRoleFirst<ConfigIF::BatchGetValueOptionsAccessReq>();
  expectClientAndRoleFirst<ConfigIF::RegisterClientCallbackReq>();
  expectClientAndRoleFirst<ConfigIF::UnregisterClientCallbackReq>();
  expectClientAndRoleFirst<ConfigIF::SubmitReq>();
  expectClientAndRoleFirst<ConfigIF::ListReq>();
  expectClientAndRoleFirst<ConfigIF::StatusReq>();
}

TEST(FieldOrderTest, AWithdrawalOfAllRegistrationsHasTheClientNameFirst) {
  ConfigIF::UnregisterAllClientCallbacksReq request;
  request.set_client_name("ui");
  EXPECT_EQ(request.SerializeAsString(), lengthDelimited(1, "ui"));
}

TEST(FieldOrderTest, ReadAndResetCarryTheVariableThird) {
  expectInstThird<ConfigIF::ReadReq>();
  expectInstThird<ConfigIF::ResetValueReq>();
}

TEST(FieldOrderTest, WriteAndValidateCarryTheVariableWithItsValueThird) {
  expectInstValueThird<ConfigIF::WriteReq>();
  expectInstValueThird<ConfigIF::ValidateReq>();
}

TEST(FieldOrderTest, AProvidersAnswerIsAReturnMessageAlone) {
  expectReturnMessageAlone<ConfigIF::DynamicValidateRsp>();
  expectReturnMessageAlone<ConfigIF::OnChangeRsp>();
}

TEST(FieldOrderTest, AReturnMessageHasErrorFlagMessagesThenContextAndClientAfterOneOther) {
  const std::string bytes = varint(1, CommonIF::ERROR_VETOED) + varint(2, 1) +
                            lengthDelimited(3, "one") + lengthDelimited(3, "two") +
                            lengthDelimited(5, "context") + lengthDelimited(6, "client");
  ConfigIF::ReturnMessage message;
  ASSERT_TRUE(message.ParseFromString(bytes));
  EXPECT_EQ(message.error(), CommonIF::ERROR_VETOED);
  EXPECT_TRUE(message.flag());
  ASSERT_EQ(message.messages_size(), 2);
  EXPECT_EQ(message.messages(0), "one");
  EXPECT_EQ(message.messages(1), "two");
  EXPECT_EQ(message.server_context(), "context");
  EXPECT_EQ(message.client_name(), "client");
  EXPECT_FALSE(message.has_revision());
  EXPECT_EQ(message.SerializeAsString(), bytes);
}

TEST(FieldOrderTest, AnErrorNumberFromALaterSchemaReadsAsAbsentAndIsPassedOn) {
  const std::string bytes = varint(1, CommonIF::eErrorType_MAX + 1);
  ConfigIF::ReturnMessage message;
  ASSERT_TRUE(message.ParseFromString(bytes));
  EXPECT_FALSE(message.has_error());
  EXPECT_EQ(message.error(), CommonIF::ERROR_NONE);
  EXPECT_EQ(message.SerializeAsString(), bytes);
}

TEST(FieldOrderTest, ANewFieldFromALaterSchemaIsPassedOver) {
  ConfigIF::ReadReq request;
  ASSERT_TRUE(request.ParseFromString(kClientAndRole + lengthDelimited(15, "later")));
  EXPECT_EQ(request.client_name(), "ui");
  EXPECT_EQ(request.role(), CommonIF::SECURITY_ROLE_SERVICE);
}

TEST(FieldOrderTest, ScopeTwoMeansANamespacesLinksAndZeroIsTheDefault) {
  EXPECT_EQ(static_cast<int>(ConfigIF::SCOPE_NAMESPACE), 2);
  EXPECT_EQ(static_cast<int>(ConfigIF::Inst().scope()), 0);
}

}  // namespace
