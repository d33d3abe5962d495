// Requests: each one compared whole, so that a field too many or too few is seen.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "appconfig/wire/protobuf_message_helper.h"
#include "tests/appconfig/wire/messages.h"

namespace AppConfig {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using Helper = ProtobufMessageHelper;
using Role = CommonIF::eSecurityRole;
using StringList = std::list<std::string>;

constexpr char kClient[] = "/engine/web-ui";
constexpr Role kRole = CommonIF::SECURITY_ROLE_INSTALLER;
constexpr char kRoleCheck[] = "CHECK failed: CommonIF::eSecurityRole_IsValid(value): ";
constexpr char kTypeCheck[] = "CHECK failed: ConfigIF::CallbackType_IsValid(value): ";

const ConfigVar kVar(3, "Network", 0, "IPAddr", 1);
const Path kPath = {{"cfg", 3}, {"network", 0}, {"ipaddr", 1}};

// A value whose elements a reader of text would change.
const StringList kValues = {"b", "", "a\0b"s, "\xff\xfe"s};

// Only the second has a namespace.
const std::list<ConfigVar> kVars = {
    {"Zeta", 1, "a", 2}, {2, "network.eth", 3, "mtu", 4}, {-1, "", 0, "c", 0}};

void setVars(google::protobuf::RepeatedPtrField<ConfigIF::Inst>* insts) {
  setPath(insts->Add(), {{"zeta", 1}, {"a", 2}});
  setPath(insts->Add(), {{"cfg", 2}, {"network.eth", 3}, {"mtu", 4}});
  setPath(insts->Add(), {{"", 0}, {"c", 0}});
}

// A request of which only client and role are filled.
template <class Request>
Request begun() {
  Request request;
  request.set_client_name(kClient);
  request.set_role(kRole);
  return request;
}

template <class Request>
Request withPath() {
  auto request = begun<Request>();
  setPath(request.mutable_inst(), kPath);
  return request;
}

template <class Request>
Request withVars() {
  auto request = begun<Request>();
  setVars(request.mutable_inst());
  return request;
}

template <class Request>
Request withName(const std::string& name) {
  auto request = begun<Request>();
  request.set_name(name);
  return request;
}

template <class Request>
Request withValue(const StringList& values) {
  auto request = begun<Request>();
  setPath(request.mutable_value()->mutable_inst(), kPath);
  for (const std::string& s : values) request.mutable_value()->add_values(s);
  return request;
}

template <class Request>
Request withCallback() {
  auto request = begun<Request>();
  request.set_type(ConfigIF::CALLBACK_OPTIONS_CHANGED);
  request.set_endpoint_name("PlatCfgSvc-web-ui-12");
  return request;
}

// --- Values ---

TEST(ValueRequestTest, AReadCarriesClientRoleAndPath) {
  expectSame(Helper::getReadRequest(kClient, kRole, kVar), withPath<ConfigIF::ReadReq>());
}

TEST(ValueRequestTest, AResetCarriesClientRoleAndPath) {
  expectSame(Helper::getResetValueRequest(kClient, kRole, kVar),
             withPath<ConfigIF::ResetValueReq>());
}

TEST(ValueRequestTest, AWriteCarriesEveryElementOfTheListInOrder) {
  expectSame(Helper::getWriteRequest(kClient, kRole, kVar, kValues),
             withValue<ConfigIF::WriteReq>(kValues));
}

TEST(ValueRequestTest, AWriteOfOneStringIsAWriteOfAListOfOne) {
  expectSame(Helper::getWriteRequest(kClient, kRole, kVar, "10\0.1"s),
             withValue<ConfigIF::WriteReq>({"10\0.1"s}));
}

TEST(ValueRequestTest, AWriteOfAnEmptyStringCarriesOneEmptyElement) {
  expectSame(Helper::getWriteRequest(kClient, kRole, kVar, ""s),
             withValue<ConfigIF::WriteReq>({""}));
}

TEST(ValueRequestTest, AWriteOfAnEmptyListCarriesTheVariableWithoutElements) {
  expectSame(Helper::getWriteRequest(kClient, kRole, kVar, StringList{}),
             withValue<ConfigIF::WriteReq>({}));
}

TEST(ValueRequestTest, AValidationCarriesTheCandidateValue) {
  expectSame(Helper::getValidateRequest(kClient, kRole, kVar, kValues),
             withValue<ConfigIF::ValidateReq>(kValues));
}

TEST(ValueRequestTest, AValidationOfOneStringIsAValidationOfAListOfOne) {
  expectSame(Helper::getValidateRequest(kClient, kRole, kVar, "x"s),
             withValue<ConfigIF::ValidateReq>({"x"}));
}

TEST(ValueRequestTest, AKeyWithoutANamespaceGivesTwoNodes) {
  ConfigIF::ReadReq expected = begun<ConfigIF::ReadReq>();
  setPath(expected.mutable_inst(), {{"network", 0}, {"ipaddr", 1}});
  expectSame(Helper::getReadRequest(kClient, kRole, {"network", 0, "ipaddr", 1}), expected);
}

TEST(ValueRequestTest, AnEmptyClientNameIsSent) {
  const ConfigIF::ReadReq request = Helper::getReadRequest("", kRole, kVar);
  EXPECT_TRUE(request.has_client_name());
  EXPECT_EQ(request.client_name(), "");
}

TEST(ValueRequestTest, TheSchemasDefaultRoleIsSentToo) {
  EXPECT_TRUE(Helper::getReadRequest(kClient, ConfigIF::ReadReq().role(), kVar).has_role());
}

TEST(ValueRequestTest, TheListGivenStaysTheCallers) {
  const StringList values = kValues;
  Helper::getWriteRequest(kClient, kRole, kVar, values);
  EXPECT_EQ(values, kValues);
}

TEST(ValueRequestTest, AValueSurvivesTheWire) {
  ConfigIF::WriteReq received;
  ASSERT_TRUE(received.ParseFromString(
      Helper::getWriteRequest(kClient, kRole, kVar, kValues).SerializeAsString()));
  StringList values;
  Helper::getConfigVarValue(values, received.value());
  EXPECT_EQ(values, kValues);
}

TEST(ValueRequestTest, AReadIsTheseBytes) {
  const std::string bytes =
      "\x0A\x02ui"                   // client
      "\x10\x0A"                     // role: public
      "\x1A\x10"                     // variable, two nodes
      "\x0A\x07\x0A\x03net\x10\x00"  // net/0
      "\x0A\x05\x0A\x01m\x10\x01"s;  // m/1
  const ConfigIF::ReadReq request =
      Helper::getReadRequest("ui", CommonIF::SECURITY_ROLE_PUBLIC, {"net", 0, "m", 1});
  EXPECT_EQ(hexOf(request.SerializeAsString()), hexOf(bytes));
}

TEST(ValueRequestTest, AResetOfANodeCarriesTheNameUnchanged) {
  expectSame(Helper::getResetNodeValueRequest(kClient, kRole, "Network.ETH"),
             withName<ConfigIF::ResetNodeValueReq>("Network.ETH"));
}

TEST(ValueRequestTest, AResetOfANodeSendsAnEmptyName) {
  expectSame(Helper::getResetNodeValueRequest(kClient, kRole, ""),
             withName<ConfigIF::ResetNodeValueReq>(""));
}

// --- Several variables ---

TEST(BatchRequestTest, ABatchOverThreeKeysAddsACfgNodeToTheOneWithANamespaceAlone) {
  const ConfigIF::BatchReadReq read = Helper::getBatchReadRequest(kClient, kRole, kVars);
  expectSame(read, withVars<ConfigIF::BatchReadReq>());
  ASSERT_EQ(read.inst_size(), 3);
  EXPECT_EQ(read.inst(0).path_size(), 2);
  EXPECT_EQ(read.inst(1).path_size(), 3);
  EXPECT_EQ(read.inst(2).path_size(), 2);
  expectSame(Helper::getBatchGetValueOptionsAccessReq(kClient, kRole, kVars),
             withVars<ConfigIF::BatchGetValueOptionsAccessReq>());
}

TEST(BatchRequestTest, AnEmptyListOfKeysGivesNoInst) {
  expectSame(Helper::getBatchReadRequest(kClient, kRole, {}), begun<ConfigIF::BatchReadReq>());
  expectSame(Helper::getBatchGetValueOptionsAccessReq(kClient, kRole, {}),
             begun<ConfigIF::BatchGetValueOptionsAccessReq>());
  expectSame(Helper::getSetAccessLevelsReq(kClient, kRole, {}, nullptr, nullptr),
             begun<ConfigIF::SetAccessLevelsReq>());
}

TEST(BatchRequestTest, AKeyNamedTwiceIsSentTwice) {
  ConfigIF::BatchReadReq expected = begun<ConfigIF::BatchReadReq>();
  setPath(expected.add_inst(), kPath);
  setPath(expected.add_inst(), kPath);
  expectSame(Helper::getBatchReadRequest(kClient, kRole, {kVar, kVar}), expected);
}

TEST(BatchRequestTest, AThousandKeysKeepTheirOrder) {
  std::list<ConfigVar> vars;
  ConfigIF::BatchReadReq expected = begun<ConfigIF::BatchReadReq>();
  for (int i = 1000; i > 0; --i) {
    vars.emplace_back("g", i, "n", -i);
    setPath(expected.add_inst(), {{"g", i}, {"n", -i}});
  }
  expectSame(Helper::getBatchReadRequest(kClient, kRole, vars), expected);
}

// --- Options ---

TEST(OptionsRequestTest, AskingForOptionsCarriesClientRoleAndPath) {
  expectSame(Helper::getGetOptionsRequest(kClient, kRole, kVar),
             withPath<ConfigIF::GetAttributeOptionsReq>());
}

TEST(OptionsRequestTest, SettingOptionsWithoutAnIndexCarriesNoDefaultIndex) {
  const auto request = Helper::getSetOptionsRequest(kClient, kRole, kVar, kValues, nullptr);
  EXPECT_FALSE(request.has_default_index());
  auto expected = withPath<ConfigIF::SetAttributeOptionsReq>();
  for (const std::string& s : kValues) expected.add_options(s);
  expectSame(request, expected);
}

TEST(OptionsRequestTest, SettingOptionsWithAPointerToZeroCarriesIndexZero) {
  const unsigned int zero = 0;
  const auto request = Helper::getSetOptionsRequest(kClient, kRole, kVar, {"a", "b"}, &zero);
  EXPECT_TRUE(request.has_default_index());
  auto expected = withPath<ConfigIF::SetAttributeOptionsReq>();
  expected.set_default_index(0);
  expected.add_options("a");
  expected.add_options("b");
  expectSame(request, expected);
}

TEST(OptionsRequestTest, AnIndexPastTheOptionsIsSentAsGiven) {
  unsigned int index = 0xFFFFFFFFu;
  const auto request = Helper::getSetOptionsRequest(kClient, kRole, kVar, {}, &index);
  auto expected = withPath<ConfigIF::SetAttributeOptionsReq>();
  expected.set_default_index(0xFFFFFFFFu);
  expectSame(request, expected);
}

TEST(OptionsRequestTest, AskingForDefaultOptionsCarriesTheDottedNameUnchanged) {
  for (const std::string& name : {"Network.IPAddr"s, ".ipaddr"s, "network"s, ""s}) {
    expectSame(Helper::getGetDefaultOptionsRequest(kClient, kRole, name),
               withName<ConfigIF::GetDefaultOptionsReq>(name));
  }
}

// --- Access levels ---

TEST(AccessLevelsRequestTest, AskingForAccessLevelsCarriesClientRoleAndPath) {
  expectSame(Helper::getGetAccessLevelsReq(kClient, kRole, kVar),
             withPath<ConfigIF::GetAccessLevelsReq>());
}

TEST(AccessLevelsRequestTest, WithoutRolesOnlyClientRoleAndVariablesAreCarried) {
  const auto request = Helper::getSetAccessLevelsReq(kClient, kRole, kVars, nullptr, nullptr);
  EXPECT_FALSE(request.has_read_role());
  EXPECT_FALSE(request.has_write_role());
  expectSame(request, withVars<ConfigIF::SetAccessLevelsReq>());
}

TEST(AccessLevelsRequestTest, EachGivenRoleIsCarriedAlone) {
  const Role role = CommonIF::SECURITY_ROLE_FACTORY;
  auto expectedRead = withVars<ConfigIF::SetAccessLevelsReq>();
  expectedRead.set_read_role(role);
  expectSame(Helper::getSetAccessLevelsReq(kClient, kRole, kVars, &role, nullptr), expectedRead);
  auto expectedWrite = withVars<ConfigIF::SetAccessLevelsReq>();
  expectedWrite.set_write_role(role);
  expectSame(Helper::getSetAccessLevelsReq(kClient, kRole, kVars, nullptr, &role), expectedWrite);
}

TEST(AccessLevelsRequestTest, BothRolesAreCarriedEvenWhenTheyAreTheSchemasDefault) {
  const Role read = CommonIF::SECURITY_ROLE_PUBLIC;
  const Role write = CommonIF::SECURITY_ROLE_SERVICE;
  auto expected = withVars<ConfigIF::SetAccessLevelsReq>();
  expected.set_read_role(read);
  expected.set_write_role(write);
  expectSame(Helper::getSetAccessLevelsReq(kClient, kRole, kVars, &read, &write), expected);
}

// --- Attributes and whole records ---

TEST(AttributesRequestTest, AskingForAttributesCarriesClientRoleAndPath) {
  expectSame(Helper::getReadAttributesRequest(kClient, kRole, kVar),
             withPath<ConfigIF::ReadAttributesReq>());
}

TEST(AttributesRequestTest, AskingForAWholeRecordCarriesClientRoleAndPath) {
  expectSame(Helper::getGetValueOptionsAccessRequest(kClient, kRole, kVar),
             withPath<ConfigIF::GetValueOptionsAccessReq>());
}

TEST(AttributesRequestTest, AResetOfAttributesCarriesTheNameUnchanged) {
  for (const std::string& name : {"Network.IPAddr"s, ""s}) {
    expectSame(Helper::getResetAttributeRequest(kClient, kRole, name),
               withName<ConfigIF::ResetAttributeReq>(name));
  }
}

// --- Callback registrations ---

TEST(CallbackRequestTest, ARegistrationCarriesNameTypeAndEndpoint) {
  auto expected = withCallback<ConfigIF::RegisterClientCallbackReq>();
  expected.set_name("network.ipaddr");
  expectSame(Helper::getRegClientCallbackRequest(kClient, kRole, "network.ipaddr",
                                                 ConfigIF::CALLBACK_OPTIONS_CHANGED,
                                                 "PlatCfgSvc-web-ui-12"),
             expected);
}

TEST(CallbackRequestTest, ARegistrationWithAnEmptyDottedNameLeavesTheNameAbsent) {
  const auto request = Helper::getRegClientCallbackRequest(
      kClient, kRole, "", ConfigIF::CALLBACK_OPTIONS_CHANGED, "PlatCfgSvc-web-ui-12");
  EXPECT_FALSE(request.has_name());
  expectSame(request, withCallback<ConfigIF::RegisterClientCallbackReq>());
}

TEST(CallbackRequestTest, AnUnregistrationCarriesNameTypeAndEndpoint) {
  auto expected = withCallback<ConfigIF::UnregisterClientCallbackReq>();
  expected.set_name("network.ipaddr");
  expectSame(Helper::getUnregClientCallbackRequest(kClient, kRole, "network.ipaddr",
                                                   ConfigIF::CALLBACK_OPTIONS_CHANGED,
                                                   "PlatCfgSvc-web-ui-12"),
             expected);
}

TEST(CallbackRequestTest, AnUnregistrationWithAnEmptyDottedNameSendsItPresentAndEmpty) {
  const auto request = Helper::getUnregClientCallbackRequest(
      kClient, kRole, "", ConfigIF::CALLBACK_OPTIONS_CHANGED, "PlatCfgSvc-web-ui-12");
  EXPECT_TRUE(request.has_name());
  auto expected = withCallback<ConfigIF::UnregisterClientCallbackReq>();
  expected.set_name("");
  expectSame(request, expected);
}

TEST(CallbackRequestTest, AnEmptyEndpointNameIsSentInBothDirections) {
  const auto type = ConfigIF::CALLBACK_SUBMIT;
  EXPECT_TRUE(
      Helper::getRegClientCallbackRequest(kClient, kRole, "a", type, "").has_endpoint_name());
  EXPECT_TRUE(
      Helper::getUnregClientCallbackRequest(kClient, kRole, "a", type, "").has_endpoint_name());
}

TEST(CallbackRequestTest, EveryCallbackTypeOfTheSchemaIsSentUnchanged) {
  for (int i = ConfigIF::CallbackType_MIN; i <= ConfigIF::CallbackType_MAX; ++i) {
    const auto type = static_cast<ConfigIF::CallbackType>(i);
    const auto reg = Helper::getRegClientCallbackRequest(kClient, kRole, "a", type, "e");
    const auto unreg = Helper::getUnregClientCallbackRequest(kClient, kRole, "a", type, "e");
    EXPECT_TRUE(reg.has_type());
    EXPECT_EQ(reg.type(), type);
    EXPECT_TRUE(unreg.has_type());
    EXPECT_EQ(unreg.type(), type);
  }
}

TEST(CallbackRequestTest, UnregisteringAllCarriesTheClientNameAndNothingElse) {
  ConfigIF::UnregisterAllClientCallbacksReq expected;
  expected.set_client_name(kClient);
  expectSame(Helper::getUnregAllClientCallbacksRequest(kClient), expected);
}

// --- Every request that carries a role ---

struct Builder {
  const char* name;
  std::function<void(Role)> build;
  std::function<Role(Role)> roleOf;
};

#define BUILDER(operation, ...)                                                            \
  {                                                                                        \
#operation, [](Role role) { Helper::operation(kClient, role, __VA_ARGS__); },            \
        [](Role role) { return Helper::operation(kClient, role, __VA_ARGS__).role(); } \
  }

const std::vector<Builder>& builders() {
  static const std::vector<Builder> all = {
      BUILDER(getReadRequest, kVar),
      BUILDER(getResetValueRequest, kVar),
      BUILDER(getWriteRequest, kVar, kValues),
      BUILDER(getWriteRequest, kVar, "x"s),
      BUILDER(getValidateRequest, kVar, kValues),
      BUILDER(getValidateRequest, kVar, "x"s),
      BUILDER(getBatchReadRequest, kVars),
      BUILDER(getResetNodeValueRequest, "a"),
      BUILDER(getGetOptionsRequest, kVar),
      BUILDER(getSetOptionsRequest, kVar, kValues, nullptr),
      BUILDER(getGetDefaultOptionsRequest, "a"),
      BUILDER(getGetAccessLevelsReq, kVar),
      BUILDER(getSetAccessLevelsReq, kVars, nullptr, nullptr),
      BUILDER(getReadAttributesRequest, kVar),
      BUILDER(getResetAttributeRequest, "a"),
      BUILDER(getGetValueOptionsAccessRequest, kVar),
      BUILDER(getBatchGetValueOptionsAccessReq, kVars),
      BUILDER(getRegClientCallbackRequest, "a", ConfigIF::CALLBACK_SUBMIT, "e"),
      BUILDER(getUnregClientCallbackRequest, "a", ConfigIF::CALLBACK_SUBMIT, "e"),
  };
  return all;
}

#undef BUILDER

// A number between two roles, and 0, which a zero-initialised variable would hold.
const Role kNoRole = static_cast<Role>(25);
const Role kZeroRole = static_cast<Role>(0);
const auto kNoType = static_cast<ConfigIF::CallbackType>(ConfigIF::CallbackType_MAX + 1);

TEST(RequestTest, EveryRoleOfTheSchemaIsSentUnchanged) {
  for (int number = CommonIF::eSecurityRole_MIN; number <= CommonIF::eSecurityRole_MAX; ++number) {
    if (!CommonIF::eSecurityRole_IsValid(number)) continue;
    const Role role = static_cast<Role>(number);
    for (const Builder& b : builders()) EXPECT_EQ(b.roleOf(role), role) << b.name;
  }
}

TEST(RequestDeathTest, ARoleThatTheSchemaDoesNotKnowEndsTheProcessInEveryRequest) {
  for (const Builder& b : builders()) {
    EXPECT_DEATH(b.build(kNoRole), HasSubstr(kRoleCheck)) << b.name;
  }
}

TEST(RequestDeathTest, ARoleThatWasNeverSetEndsTheProcess) {
  EXPECT_DEATH(Helper::getReadRequest(kClient, kZeroRole, kVar), HasSubstr(kRoleCheck));
}

TEST(RequestDeathTest, AReadOrWriteRoleIsCheckedLikeTheRequestersOwn) {
  EXPECT_DEATH(Helper::getSetAccessLevelsReq(kClient, kRole, kVars, &kNoRole, nullptr),
               HasSubstr(kRoleCheck));
  EXPECT_DEATH(Helper::getSetAccessLevelsReq(kClient, kRole, kVars, nullptr, &kNoRole),
               HasSubstr(kRoleCheck));
}

TEST(RequestDeathTest, ACallbackTypeThatTheSchemaDoesNotKnowEndsTheProcess) {
  EXPECT_DEATH(Helper::getRegClientCallbackRequest(kClient, kRole, "a", kNoType, "e"),
               HasSubstr(kTypeCheck));
  EXPECT_DEATH(Helper::getUnregClientCallbackRequest(kClient, kRole, "a", kNoType, "e"),
               HasSubstr(kTypeCheck));
}

TEST(RequestDeathTest, TheRoleIsCheckedBeforeTheCallbackType) {
  EXPECT_DEATH(Helper::getRegClientCallbackRequest(kClient, kNoRole, "a", kNoType, "e"),
               HasSubstr(kRoleCheck));
}

TEST(RequestDeathTest, ACatchAllDoesNotKeepTheProcessAlive) {
  const auto buildBelowACatchAll = [] {
    try {
      Helper::getReadRequest(kClient, kNoRole, kVar);
    } catch (...) {
    }
  };
  EXPECT_DEATH(buildBelowACatchAll(), HasSubstr(kRoleCheck));
}

}  // namespace
}  // namespace AppConfig
