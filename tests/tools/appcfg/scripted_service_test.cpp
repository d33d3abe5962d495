// appcfg against a service whose answers the test writes: what it sends, and what it makes of
// answers that a healthy service does not give at will.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/message_ids.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"

namespace AppCfgTool {
namespace {

using AppConfig::ProtobufMessageHelper;
using google::protobuf::MessageLite;
using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::Appcfg;
using TestSupport::Ended;
using TestSupport::Serving;
using TestSupport::Words;
using Json = nlohmann::ordered_json;

constexpr auto kUser = CommonIF::SECURITY_ROLE_USER;

ConfigVar key(const std::string& text) {
  ConfigVar var("", 0, "", 0);
  EXPECT_TRUE(AppConfig::parseKey(text, var).ok()) << text;
  return var;
}

class ScriptedServiceTest : public testing::Test {
 protected:
  ScriptedServiceTest() {
    answerBy([this](PbUtility::Server& server, const Serving::Request& request) {
      const std::lock_guard<std::mutex> guard(mutex_);
      const auto answer = answers_.find(request.messageId);
      if (answer != answers_.end()) server.respond(request.id, *answer->second, 7);
    });
  }

  // Set on the serving thread, which is the one that calls it.
  void answerBy(std::function<void(PbUtility::Server&, const Serving::Request&)> task) {
    serving_->onServer([&](PbUtility::Server&) { serving_->onRequestDo = std::move(task); });
  }

  // Response for every request of this sort.
  template <class Request, class Response>
  void answer(const Response& response) {
    const std::lock_guard<std::mutex> guard(mutex_);
    answers_[PlatformSchema::messageIdOf(Request())] = std::make_unique<Response>(response);
  }

  template <class Request, class Response>
  void refuse(CommonIF::eErrorType error, const std::string& message = "because") {
    Response response;
    response.mutable_result()->set_error(error);
    response.mutable_result()->add_messages(message);
    answer<Request>(response);
  }

  // Runs it and compares the only request that came of it, field presence included.
  void expectSent(const Words& words, const MessageLite& request) {
    const std::size_t before = serving_->requests().size();
    appcfg_(words);
    const auto requests = serving_->requests();
    ASSERT_EQ(requests.size(), before + 1) << words.front();
    EXPECT_EQ(requests.back().messageId, PlatformSchema::messageIdOf(request)) << words.front();
    EXPECT_EQ(requests.back().payload, request.SerializeAsString()) << words.front();
    EXPECT_EQ(requests.back().peer.name, "appcfg");
  }

  Json printed(const Words& words) {
    const Ended run = appcfg_(words);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.err, "");
    return Json::parse(run.out, nullptr, false);
  }

  TestSupport::TempDir dir_;
  std::mutex mutex_;
  std::map<std::uint32_t, std::unique_ptr<MessageLite>> answers_;
  std::unique_ptr<Serving> serving_ = std::make_unique<Serving>(dir_.path());
  const Appcfg appcfg_{dir_.path()};
};

// --- What is sent ---

TEST_F(ScriptedServiceTest, EachVerbSendsTheRequestThatItsWordsAskFor) {
  answer<ConfigIF::ReadReq>(ConfigIF::ReadRsp());
  expectSent({"get", "Net.Eth[1].MTU"},
             ProtobufMessageHelper::getReadRequest("appcfg", kUser, key("net.eth[1].mtu")));
  expectSent({"is-default", "3:a.b"},
             ProtobufMessageHelper::getReadRequest("appcfg", kUser, key("3:a.b")));
  answer<ConfigIF::WriteReq>(ConfigIF::WriteRsp());
  expectSent({"set", "a.b", "x", "", "z"},
             ProtobufMessageHelper::getWriteRequest("appcfg", kUser, key("a.b"),
                                                    std::list<std::string>{"x", "", "z"}));
  expectSent({"set", "a.b", "--empty"}, ProtobufMessageHelper::getWriteRequest(
                                            "appcfg", kUser, key("a.b"), std::list<std::string>{}));
  answer<ConfigIF::ValidateReq>(ConfigIF::ValidateRsp());
  expectSent({"validate", "a.b", "x"},
             ProtobufMessageHelper::getValidateRequest("appcfg", kUser, key("a.b"), "x"));
}

TEST_F(ScriptedServiceTest, ResetSendsAVariableOrANameOrTheEmptyName) {
  answer<ConfigIF::ResetValueReq>(ConfigIF::ResetValueRsp());
  expectSent({"reset", "a.b[2]"},
             ProtobufMessageHelper::getResetValueRequest("appcfg", kUser, key("a.b[2]")));
  answer<ConfigIF::ResetNodeValueReq>(ConfigIF::ResetNodeValueRsp());
  expectSent({"reset", "-r", "A.b"},
             ProtobufMessageHelper::getResetNodeValueRequest("appcfg", kUser, "a.b"));
  expectSent({"reset", "--all", "--yes"},
             ProtobufMessageHelper::getResetNodeValueRequest("appcfg", kUser, ""));
}

TEST_F(ScriptedServiceTest, OptionsAndAccessSendWhatIsGivenAndNothingElse) {
  answer<ConfigIF::GetAttributeOptionsReq>(ConfigIF::GetAttributeOptionsRsp());
  expectSent({"options", "get", "a.b"},
             ProtobufMessageHelper::getGetOptionsRequest("appcfg", kUser, key("a.b")));
  answer<ConfigIF::GetDefaultOptionsReq>(ConfigIF::GetDefaultOptionsRsp());
  expectSent({"options", "get", "--defined", "a.b[1]"},
             ProtobufMessageHelper::getGetDefaultOptionsRequest("appcfg", kUser, "a.b"));
  answer<ConfigIF::SetAttributeOptionsReq>(ConfigIF::SetAttributeOptionsRsp());
  const unsigned int index = 0;
  expectSent({"options", "set", "a.b", "x", "y"},
             ProtobufMessageHelper::getSetOptionsRequest("appcfg", kUser, key("a.b"), {"x", "y"},
                                                         nullptr));
  expectSent(
      {"options", "set", "a.b", "x", "--default-index", "0"},
      ProtobufMessageHelper::getSetOptionsRequest("appcfg", kUser, key("a.b"), {"x"}, &index));
  expectSent({"options", "set", "a.b", "--empty"},
             ProtobufMessageHelper::getSetOptionsRequest("appcfg", kUser, key("a.b"), {}, nullptr));
  answer<ConfigIF::GetAccessLevelsReq>(ConfigIF::GetAccessLevelsRsp());
  expectSent({"access", "get", "a.b"},
             ProtobufMessageHelper::getGetAccessLevelsReq("appcfg", kUser, key("a.b")));
  answer<ConfigIF::SetAccessLevelsReq>(ConfigIF::SetAccessLevelsRsp());
  const auto service = CommonIF::SECURITY_ROLE_SERVICE;
  expectSent({"access", "set", "a.b", "3:c.d", "--write", "service"},
             ProtobufMessageHelper::getSetAccessLevelsReq(
                 "appcfg", kUser, {key("a.b"), key("3:c.d")}, nullptr, &service));
  expectSent({"access", "set", "a.b", "--read", "service"},
             ProtobufMessageHelper::getSetAccessLevelsReq("appcfg", kUser, {key("a.b")}, &service,
                                                          nullptr));
}

TEST_F(ScriptedServiceTest, ListSendsTheNameWithoutInstanceAndNamespace) {
  ConfigIF::ListReq request;
  request.set_client_name("appcfg");
  request.set_role(kUser);
  request.set_at_most(1000);
  expectSent({"list", "--timeout", "0.2"}, request);
  request.set_prefix("net.eth");
  expectSent({"list", "3:Net.eth[1]", "--timeout", "0.2"}, request);
}

TEST_F(ScriptedServiceTest, TheRoleAndTheNamespaceOfTheSettingsAreSent) {
  expectSent({"get", "a.b", "--role", "installer", "--namespace", "4", "--timeout", "0.2"},
             ProtobufMessageHelper::getReadRequest("appcfg", CommonIF::SECURITY_ROLE_INSTALLER,
                                                   key("4:a.b")));
  expectSent({"get", "5:a.b", "--namespace", "4", "--timeout", "0.2"},
             ProtobufMessageHelper::getReadRequest("appcfg", kUser, key("5:a.b")));
}

// --- Failures ---

TEST_F(ScriptedServiceTest, EachErrorOfTheServiceEndsSetWithItsCodeAndAMessageOfItsOwn) {
  std::map<std::string, int> messages;
  for (int error = 1; error <= CommonIF::eErrorType_MAX; ++error) {
    const auto type = static_cast<CommonIF::eErrorType>(error);
    refuse<ConfigIF::WriteReq, ConfigIF::WriteRsp>(type, "the reason");
    const Ended run = appcfg_({"set", "net.mtu", "1"});
    EXPECT_EQ(run.code, exitCodeOf(type)) << error;
    EXPECT_EQ(run.out, "") << error;
    EXPECT_THAT(run.err, StartsWith("appcfg: cannot set net.mtu: ")) << error;
    EXPECT_THAT(run.err, HasSubstr("\nappcfg: the reason\n")) << error;
    EXPECT_EQ(++messages[run.err], 1) << run.err;
  }
}

TEST_F(ScriptedServiceTest, AFailureInJsonIsAnObjectOnStandardError) {
  refuse<ConfigIF::WriteReq, ConfigIF::WriteRsp>(CommonIF::ERROR_VETOED, "too \xff much");
  const Ended run = appcfg_({"set", "net.mtu", "1", "--json"});
  EXPECT_EQ(run.code, kExitVetoed);
  EXPECT_EQ(run.out, "");
  const Json failure = Json::parse(run.err);
  EXPECT_EQ(failure["error"], "vetoed");
  EXPECT_EQ(failure["exit_code"], 6);
  EXPECT_EQ(failure["key"], "net.mtu");
  EXPECT_EQ(failure["reasons"][0]["base64"], "dG9vIP8gbXVjaA==");
}

TEST_F(ScriptedServiceTest, NoAnswerInTimeIsATimeout) {
  const Ended run = appcfg_({"get", "a.b", "--timeout", "0.2"});
  EXPECT_EQ(run.code, kExitTimedOut);
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(run.err, HasSubstr("cannot read a.b"));
}

TEST_F(ScriptedServiceTest, AServiceThatGoesAwayBeforeItAnswersIsUnreachable) {
  TestSupport::RunningAppcfg appcfg(dir_.path(), {"set", "a.b", "x"});
  ASSERT_TRUE(TestSupport::eventually([&] { return !serving_->requests().empty(); }));
  serving_.reset();
  EXPECT_EQ(appcfg.wait(), kExitUnreachable);
  EXPECT_THAT(appcfg.err(), HasSubstr("not known"));
}

TEST_F(ScriptedServiceTest, ARequestThatTheServiceWillNotTakeIsAnotherFailure) {
  answerBy([](PbUtility::Server& server, const Serving::Request& request) {
    server.refuse(request.id, CommonIF::ERROR_LIMIT, "no room");
  });
  const Ended run = appcfg_({"get", "a.b"});
  EXPECT_EQ(run.code, kExitFailed);
  EXPECT_THAT(run.err, HasSubstr("no room"));
}

TEST_F(ScriptedServiceTest, AValueAsLargeAsACommandLineArrivesWhole) {
  // Several elements, for the system limits the length of each.
  Words words = {"set", "a.b"};
  words.insert(words.end(), 15, std::string(100 * 1024, 'x'));
  answer<ConfigIF::WriteReq>(ConfigIF::WriteRsp());
  EXPECT_EQ(appcfg_(words).code, 0);
  ConfigIF::WriteReq request;
  ASSERT_TRUE(request.ParseFromString(serving_->requests().back().payload));
  EXPECT_EQ(request.value().values_size(), 15);
  EXPECT_EQ(request.value().values(14), words.back());
}

TEST_F(ScriptedServiceTest, ValidateExitsAsSetWouldAndPrintsItsVerdictInJsonAlone) {
  answer<ConfigIF::ValidateReq>(ConfigIF::ValidateRsp());
  EXPECT_EQ(appcfg_({"validate", "a.b", "1"}).out, "");
  EXPECT_EQ(printed({"validate", "a.b", "1", "--json"}),
            Json::parse(R"({"key":"a.b","valid":true,"error":null,"reasons":[]})"));
  refuse<ConfigIF::ValidateReq, ConfigIF::ValidateRsp>(CommonIF::ERROR_VETOED, "why");
  const Ended vetoed = appcfg_({"validate", "a.b", "1", "--json"});
  EXPECT_EQ(vetoed.code, kExitVetoed);
  EXPECT_EQ(Json::parse(vetoed.out),
            Json::parse(R"({"key":"a.b","valid":false,"error":"vetoed","reasons":["why"]})"));
  refuse<ConfigIF::ValidateReq, ConfigIF::ValidateRsp>(CommonIF::ERROR_INVALID_VALUE);
  EXPECT_EQ(appcfg_({"validate", "a.b", "1"}).code, kExitInvalidValue);
}

TEST_F(ScriptedServiceTest, ValidateHasNoVerdictAboutAVariableThatIsNotThere) {
  refuse<ConfigIF::ValidateReq, ConfigIF::ValidateRsp>(CommonIF::ERROR_NOT_FOUND);
  const Ended run = appcfg_({"validate", "a.b", "1", "--json"});
  EXPECT_EQ(run.code, kExitNotFound);
  EXPECT_EQ(run.out, "");
}

// --- Answers ---

TEST_F(ScriptedServiceTest, GetPrintsBytesAsTheyAreAndJsonGivesThemAForm) {
  ConfigIF::ReadRsp response;
  response.add_values("plain");
  response.add_values(std::string("a\0\xff", 3));
  response.add_values("");
  answer<ConfigIF::ReadReq>(response);
  EXPECT_EQ(appcfg_({"get", "a.b"}).out, std::string("plain\na\0\xff\n\n", 11));
  EXPECT_EQ(appcfg_({"get", "-0", "a.b"}).out, std::string("plain\0a\0\xff\0\0", 11));
  EXPECT_EQ(
      printed({"get", "a.b", "--json"}),
      Json::parse(R"({"key":"a.b","value":["plain",{"base64":"YQD/"},""],"is_default":false})"));
}

TEST_F(ScriptedServiceTest, GetOfAValueWithoutElementsPrintsNothing) {
  ConfigIF::ReadRsp response;
  response.set_is_default(true);
  answer<ConfigIF::ReadReq>(response);
  const Ended run = appcfg_({"get", "a.b"});
  EXPECT_EQ(run.code, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(printed({"get", "a.b", "--json"}),
            Json::parse(R"({"key":"a.b","value":[],"is_default":true})"));
}

TEST_F(ScriptedServiceTest, SetSaysInJsonWhetherAnythingChanged) {
  ConfigIF::WriteRsp response;
  answer<ConfigIF::WriteReq>(response);
  EXPECT_EQ(appcfg_({"set", "a.b", "1"}).out, "");
  EXPECT_EQ(printed({"set", "a.b", "1", "--json"}),
            Json::parse(R"({"key":"a.b","value":["1"],"changed":true})"));
  response.mutable_result()->set_flag(true);
  answer<ConfigIF::WriteReq>(response);
  EXPECT_EQ(printed({"set", "a.b", "1", "--json"})["changed"], false);
}

TEST_F(ScriptedServiceTest, ResetSaysInJsonHowManyChanged) {
  answer<ConfigIF::ResetValueReq>(ConfigIF::ResetValueRsp());
  EXPECT_EQ(appcfg_({"reset", "a.b"}).out, "");
  EXPECT_EQ(printed({"reset", "a.b", "--json"}), Json::parse(R"({"name":"a.b","changed":1})"));
  ConfigIF::ResetNodeValueRsp response;
  response.set_changed(4);
  answer<ConfigIF::ResetNodeValueReq>(response);
  EXPECT_EQ(printed({"reset", "-r", "a", "--json"}), Json::parse(R"({"name":"a","changed":4})"));
}

ConfigIF::ListRsp listing() {
  ConfigIF::ListRsp response;
  ConfigIF::ListRecord* record = response.add_records();
  ProtobufMessageHelper::addVarName(record->mutable_inst(), key("net.eth[1].mtu"));
  record->set_type(ConfigIF::VALUE_INT);
  record->add_values("1500");
  record->set_is_default(true);
  record->set_description("Largest frame");
  record = response.add_records();
  ProtobufMessageHelper::addVarName(record->mutable_inst(), key("3:net.names"));
  record->set_type(ConfigIF::VALUE_LIST);
  record->add_values("a\tb");
  record->add_values("c");
  return response;
}

TEST_F(ScriptedServiceTest, ListIsThreeColumnsForPrograms) {
  answer<ConfigIF::ListReq>(listing());
  const Ended run = appcfg_({"list"});
  EXPECT_EQ(run.out,
            "net.eth[1].mtu\t1500\tdefault\n"
            "3:net.names\t[\"a\\tb\", \"c\"]\tchanged\n");
  EXPECT_EQ(run.err, "");
}

// The first page of it is one variable, and names it as the place where the next one begins.
TEST_F(ScriptedServiceTest, ListAsksForPageAfterPageAndPutsThemTogether) {
  answerBy([](PbUtility::Server& server, const Serving::Request& request) {
    ConfigIF::ListReq asked;
    ASSERT_TRUE(asked.ParseFromString(request.payload));
    ConfigIF::ListRsp page = listing();
    page.mutable_records()->DeleteSubrange(asked.has_after() ? 0 : 1, 1);
    page.set_hidden(2);
    if (!asked.has_after()) *page.mutable_next() = page.records(0).inst();
    server.respond(request.id, page, 7);
  });
  const Ended run = appcfg_({"list"});
  EXPECT_EQ(run.out,
            "net.eth[1].mtu\t1500\tdefault\n"
            "3:net.names\t[\"a\\tb\", \"c\"]\tchanged\n");
  EXPECT_THAT(run.err, HasSubstr("4 more are hidden"));
  ASSERT_EQ(serving_->requests().size(), 2U);
  ConfigIF::ListReq second;
  ASSERT_TRUE(second.ParseFromString(serving_->requests()[1].payload));
  EXPECT_EQ(second.after().SerializeAsString(), listing().records(0).inst().SerializeAsString());
  EXPECT_EQ(second.at_most(), 1000U);
}

TEST_F(ScriptedServiceTest, AListingThatLeadsBackIsAFailureAndNotForEver) {
  ConfigIF::ListRsp page = listing();
  *page.mutable_next() = page.records(0).inst();
  answer<ConfigIF::ListReq>(page);
  const Ended run = appcfg_({"list"});
  EXPECT_EQ(run.code, kExitFailed);
  EXPECT_THAT(run.err, HasSubstr("leads back"));
  EXPECT_EQ(serving_->requests().size(), 2U);
}

TEST_F(ScriptedServiceTest, RolesOfMoreVariablesThanARequestTakesAreSetByTwo) {
  answerBy([](PbUtility::Server& server, const Serving::Request& request) {
    ConfigIF::SetAccessLevelsReq asked;
    ASSERT_TRUE(asked.ParseFromString(request.payload));
    ConfigIF::SetAccessLevelsRsp response;
    for (const ConfigIF::Inst& inst : asked.inst()) *response.add_records()->mutable_inst() = inst;
    server.respond(request.id, response, 7);
  });
  Words words{"access", "set", "--read", "service", "--json"};
  for (int i = 0; i < 1'025; ++i) words.push_back("a.b" + std::to_string(i));
  EXPECT_EQ(printed(words)["variables"].size(), 1'025U);
  EXPECT_EQ(serving_->requests().size(), 2U);
}

TEST_F(ScriptedServiceTest, ListInJsonIsOneObject) {
  answer<ConfigIF::ListReq>(listing());
  EXPECT_EQ(printed({"list", "--json"}), Json::parse(R"({"variables":[
      {"key":"net.eth[1].mtu","type":"int","value":["1500"],"is_default":true,
       "secret":false,"description":"Largest frame"},
      {"key":"3:net.names","type":"list","value":["a\tb","c"],"is_default":false,
       "secret":false,"description":""}],"hidden":0})"));
}

TEST_F(ScriptedServiceTest, ListKeepsToTheInstanceAndTheNamespaceAskedFor) {
  answer<ConfigIF::ListReq>(listing());
  EXPECT_EQ(appcfg_({"list", "net.eth[1]"}).out, "net.eth[1].mtu\t1500\tdefault\n");
  EXPECT_EQ(appcfg_({"list", "net.eth[2]"}).code, kExitNotFound);
  EXPECT_EQ(appcfg_({"list", "0:net"}).out, "net.eth[1].mtu\t1500\tdefault\n");
  EXPECT_THAT(appcfg_({"list", "--namespace", "3"}).out, StartsWith("3:net.names\t"));
}

TEST_F(ScriptedServiceTest, ListTellsOnStandardErrorThatVariablesAreHidden) {
  ConfigIF::ListRsp response = listing();
  response.set_hidden(2);
  answer<ConfigIF::ListReq>(response);
  const Ended run = appcfg_({"list"});
  EXPECT_EQ(run.code, 0);
  EXPECT_THAT(run.err, HasSubstr("2 more are hidden"));
  EXPECT_EQ(printed({"list", "--json"})["hidden"], 2);
}

TEST_F(ScriptedServiceTest, ANameThatShowsNothingIsNotFoundOrDenied) {
  ConfigIF::ListRsp response;
  answer<ConfigIF::ListReq>(response);
  EXPECT_EQ(appcfg_({"list", "nothing"}).code, kExitNotFound);
  EXPECT_EQ(appcfg_({"list"}).code, 0);
  response.set_hidden(1);
  answer<ConfigIF::ListReq>(response);
  EXPECT_EQ(appcfg_({"list", "secret"}).code, kExitDenied);
}

TEST_F(ScriptedServiceTest, DescribeInJsonHasTheSameFieldsWhetherTheyAreSetOrNot) {
  answer<ConfigIF::ReadReq>(ConfigIF::ReadRsp());
  answer<ConfigIF::ReadAttributesReq>(ConfigIF::ReadAttributesRsp());
  EXPECT_EQ(printed({"describe", "a.b", "--json"}), Json::parse(R"({"key":"a.b","type":"string",
      "description":"","value":[],"is_default":false,"default":[],"options":[],
      "default_index":null,"min":null,"max":null,"max_length":null,"max_elements":null,
      "pattern":null,"read_role":"public","write_role":"public","has_provider":false,
      "secret":false,"changed_at":null,"defined_in":"","defined_at_line":0})"));
}

ConfigIF::ReadAttributesRsp fullAttributes() {
  ConfigIF::ReadAttributesRsp response;
  ConfigIF::Attributes* a = response.mutable_attributes();
  a->set_type(ConfigIF::VALUE_ENUMERATION);
  a->set_description("How");
  a->add_default_values("x");
  a->add_options("x");
  a->add_options("y");
  a->set_default_index(1);
  a->set_min(-1);
  a->set_max(9);
  a->set_max_length(10);
  a->set_max_elements(11);
  a->set_pattern("[a-z]");
  a->set_read_role(CommonIF::SECURITY_ROLE_SERVICE);
  a->set_write_role(CommonIF::SECURITY_ROLE_INSTALLER);
  a->set_changed_at(5);
  a->set_defined_in("10-net.toml");
  a->set_defined_at_line(12);
  a->set_has_provider(true);
  a->set_secret(true);
  return response;
}

TEST_F(ScriptedServiceTest, DescribeShowsAllThatTheServiceTells) {
  ConfigIF::ReadRsp value;
  value.add_values("y");
  answer<ConfigIF::ReadReq>(value);
  answer<ConfigIF::ReadAttributesReq>(fullAttributes());
  EXPECT_EQ(printed({"describe", "a.b", "--json"}),
            Json::parse(R"({"key":"a.b","type":"enumeration",
      "description":"How","value":["y"],"is_default":false,"default":["x"],"options":["x","y"],
      "default_index":1,"min":-1,"max":9,"max_length":10,"max_elements":11,
      "pattern":"[a-z]","read_role":"service","write_role":"installer","has_provider":true,
      "secret":true,"changed_at":5,"defined_in":"10-net.toml","defined_at_line":12})"));
  EXPECT_EQ(appcfg_({"describe", "a.b"}).out,
            "key            a.b\n"
            "type           enumeration\n"
            "description    How\n"
            "value          y\n"
            "default        x\n"
            "least          -1\n"
            "most           9\n"
            "longest        10 bytes\n"
            "most elements  11\n"
            "pattern        [a-z]\n"
            "options        x\n"
            "               y [default]\n"
            "read role      service\n"
            "write role     installer\n"
            "provider       registered\n"
            "secret         masked in logs\n"
            "changed at     revision 5\n"
            "defined in     10-net.toml:12\n");
}

TEST_F(ScriptedServiceTest, OptionsAndRolesArePrinted) {
  ConfigIF::GetAttributeOptionsRsp options;
  options.add_options("dhcp");
  options.add_options("static");
  options.set_default_index(1);
  answer<ConfigIF::GetAttributeOptionsReq>(options);
  EXPECT_EQ(appcfg_({"options", "get", "a.b"}).out, "dhcp\nstatic\n");
  EXPECT_EQ(printed({"options", "get", "a.b", "--json"}),
            Json::parse(R"({"key":"a.b","options":["dhcp","static"],"default_index":1})"));
  answer<ConfigIF::GetAttributeOptionsReq>(ConfigIF::GetAttributeOptionsRsp());
  EXPECT_EQ(printed({"options", "get", "a.b", "--json"}),
            Json::parse(R"({"key":"a.b","options":[],"default_index":null})"));
  ConfigIF::GetAccessLevelsRsp access;
  access.set_read_role(CommonIF::SECURITY_ROLE_INSTALLER);
  access.set_write_role(CommonIF::SECURITY_ROLE_FACTORY);
  answer<ConfigIF::GetAccessLevelsReq>(access);
  EXPECT_EQ(appcfg_({"access", "get", "a.b"}).out, "read\tinstaller\nwrite\tfactory\n");
  EXPECT_EQ(printed({"access", "get", "a.b", "--json"}),
            Json::parse(R"({"key":"a.b","read":"installer","write":"factory"})"));
}

TEST_F(ScriptedServiceTest, OptionsSetSaysInJsonWhatTheyAre) {
  answer<ConfigIF::SetAttributeOptionsReq>(ConfigIF::SetAttributeOptionsRsp());
  EXPECT_EQ(appcfg_({"options", "set", "a.b", "x"}).out, "");
  EXPECT_EQ(printed({"options", "set", "a.b", "x", "y", "--json"}),
            Json::parse(R"({"key":"a.b","options":["x","y"],"changed":true})"));
}

TEST_F(ScriptedServiceTest, AccessSetNamesEachVariableThatWasRefused) {
  ConfigIF::SetAccessLevelsRsp response;
  response.mutable_result()->set_error(CommonIF::ERROR_NOT_FOUND);
  ProtobufMessageHelper::addVarName(response.add_records()->mutable_inst(), key("a.b"));
  ConfigIF::AccessLevelsRecord* refused = response.add_records();
  ProtobufMessageHelper::addVarName(refused->mutable_inst(), key("c.d"));
  refused->set_error(CommonIF::ERROR_NOT_FOUND);
  answer<ConfigIF::SetAccessLevelsReq>(response);
  const Ended run = appcfg_({"access", "set", "a.b", "c.d", "--read", "user", "--json"});
  EXPECT_EQ(run.code, kExitNotFound);
  EXPECT_EQ(Json::parse(run.out), Json::parse(R"({"variables":[{"key":"a.b","error":null},
      {"key":"c.d","error":"not-found"}]})"));
  const Ended text = appcfg_({"access", "set", "a.b", "c.d", "--read", "user"});
  EXPECT_EQ(text.out, "");
  EXPECT_THAT(text.err, HasSubstr("c.d"));
  EXPECT_THAT(text.err, testing::Not(HasSubstr("a.b")));
}

TEST_F(ScriptedServiceTest, StatusShowsEveryFigure) {
  ConfigIF::StatusRsp status;
  status.set_version("1.2");
  status.set_pid(10);
  status.set_uptime_seconds(11);
  status.set_revision(12);
  status.set_variables(13);
  status.set_changed_variables(14);
  status.set_clients(15);
  status.set_registrations(16);
  status.set_reads(17);
  status.set_commits(18);
  status.set_unchanged_writes(19);
  status.set_refused_writes(20);
  status.set_notices(21);
  status.set_store_writes(22);
  status.set_store_bytes(23);
  status.set_snapshots(24);
  status.set_failed_snapshots(25);
  status.set_definitions_dir("/etc/defs");
  status.set_store_file("/var/store");
  answer<ConfigIF::StatusReq>(status);
  EXPECT_EQ(printed({"status", "--json"}), Json::parse(R"({"service":"ConfigSrvc","version":"1.2",
      "pid":10,"uptime_seconds":11,"revision":12,"variables":13,"changed_variables":14,
      "clients":15,"registrations":16,"reads":17,"commits":18,"unchanged_writes":19,
      "refused_writes":20,"notices":21,"store_writes":22,"store_bytes":23,"snapshots":24,
      "failed_snapshots":25,"definitions_dir":"/etc/defs","store_file":"/var/store",
      "last_good_definitions":false,"last_good_roles":false,"mistakes":[]})"));
  const std::string text = appcfg_({"status"}).out;
  for (int figure = 10; figure <= 25; ++figure)
    EXPECT_THAT(text, HasSubstr(std::to_string(figure)));
  EXPECT_THAT(text, HasSubstr("/etc/defs"));
  EXPECT_THAT(text, HasSubstr("/var/store"));
}

}  // namespace
}  // namespace AppCfgTool
