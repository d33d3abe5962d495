#include <signal.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/service/platform_cfg_service.h"
#include "tests/support/recording_handlers.h"
#include "tests/support/scripted_service.h"

namespace {

using AppConfig::AppCfgManager;
using AppConfig::ConfigValue;
using AppConfig::PlatformCfgService;
using TestSupport::changeNotice;
using TestSupport::instValue;
using TestSupport::linkName;
using TestSupport::optionsNotice;
using TestSupport::RecordingConsumer;
using TestSupport::RecordingProvider;
using TestSupport::ScriptedPbUtils;
using TestSupport::SentReply;
using TestSupport::takeReplies;
using TestSupport::Value;
using Helper = AppConfig::ProtobufMessageHelper;
using Lines = std::vector<std::string>;

// Messages reach the process-wide links alone, so these tests work on the local one. ctest gives
// each case a process of its own.
class DispatchTest : public ::testing::Test {
 protected:
  DispatchTest() {
    manager->setPbInterface(&pb);
    link->registerHandler("net", "mtu", &consumer);
    pb.takeSent();
    takeReplies();
  }

  ~DispatchTest() override {
    link->unregisterHandler("net", "mtu", &consumer);
    for (RecordingProvider* provider : {&first, &second})
      link->unregisterHandler("net", "mtu", provider);
    manager->removeVars("");
    EXPECT_EQ(TestSupport::openReplies(), 0);
  }

  void useProviders() {
    link->registerHandler("net", "mtu", &first);
    link->registerHandler("net", "mtu", &second);
  }

  // "" when nothing is cached.
  std::string cached(const ConfigVar& var) {
    const auto position = manager->retrieveConfigVar(var);
    return hasEntry(var) ? position->second.getSinglestringValue() : "";
  }

  bool hasEntry(const ConfigVar& var) {
    // A facade of a foreign namespace is nobody's: the end is where that lookup ends.
    return manager->retrieveConfigVar(var) !=
           manager->retrieveConfigVar(ConfigVar(99, "net", 0, "mtu", 1));
  }

  ConfigValue record() { return manager->retrieveConfigVar(mtu)->second; }

  template <typename Question>
  Question question(const ConfigVar& var, const Value& value) {
    Question asked;
    asked.set_server_context("change 17");
    asked.set_client_name("/ui");
    asked.set_role(CommonIF::SECURITY_ROLE_INSTALLER);
    *asked.mutable_value() = instValue(var, value);
    return asked;
  }

  // The one reply, which has to be of this type.
  template <typename Response>
  ConfigIF::ReturnMessage onlyReply() {
    const std::vector<SentReply> replies = takeReplies();
    EXPECT_EQ(replies.size(), 1U);
    if (replies.empty()) return {};
    EXPECT_EQ(replies.front().type, Response().GetTypeName());
    return replies.front().as<Response>().result();
  }

  ConfigIF::ReturnMessage askedToValidate(const ConfigIF::DynamicValidateReq& asked) {
    pb.deliver(TestSupport::kDynamicValidateId, asked);
    return onlyReply<ConfigIF::DynamicValidateRsp>();
  }

  ConfigIF::ReturnMessage askedToChange(const ConfigIF::OnChangeReq& asked) {
    pb.deliver(TestSupport::kOnChangeId, asked);
    return onlyReply<ConfigIF::OnChangeRsp>();
  }

  // One for all cases, as the link keeps pointing to it.
  static ScriptedPbUtils pb;
  AppCfgManager* const manager = AppCfgManager::getLocalCfgManager();
  PlatformCfgService* const link = manager->getPlatformCfgService();
  RecordingConsumer consumer;
  RecordingProvider first;
  RecordingProvider second;
  const ConfigVar mtu{"net", 0, "mtu", 1};
  const std::string identity = linkName(0);
};

ScriptedPbUtils DispatchTest::pb;

// What a result of these questions looks like when nobody adds anything.
ConfigIF::ReturnMessage freshReply() {
  ConfigIF::ReturnMessage message;
  message.set_error(CommonIF::ERROR_NONE);
  message.set_flag(false);
  message.set_server_context("change 17");
  message.set_client_name("/ui");
  return message;
}

void expectSame(const ConfigIF::ReturnMessage& actual, const ConfigIF::ReturnMessage& expected) {
  EXPECT_EQ(actual.SerializeAsString(), expected.SerializeAsString());
}

// --- Value changed ---

TEST_F(DispatchTest, AChangeNoticeReachesTheCacheAndTheConsumers) {
  EXPECT_EQ(pb.deliver(TestSupport::kConfigChangedId, changeNotice(mtu, {"a", "b"})), 1);
  EXPECT_EQ(record().getValue(), (Value{"a", "b"}));
  EXPECT_EQ(consumer.lines.take(), Lines{"changed net[0].mtu[1] {a,b} " + identity});
  EXPECT_TRUE(takeReplies().empty());
}

TEST_F(DispatchTest, AConsumerReadsTheNewValueWithoutAskingTheService) {
  std::string seen;
  consumer.onConfigChanged = [&] { seen = manager->getConfigVar(mtu); };
  pb.deliver(TestSupport::kConfigChangedId, changeNotice(mtu, {"1400"}));
  EXPECT_EQ(seen, "1400");
  EXPECT_TRUE(pb.sent().empty());
}

TEST_F(DispatchTest, AConsumerMayUnregisterItselfAndWriteWhileItIsCalled) {
  consumer.onConfigChanged = [&] {
    link->unregisterHandler("net", "mtu", &consumer);
    EXPECT_TRUE(manager->setConfigVar(mtu, "1300", nullptr));
  };
  pb.deliver(TestSupport::kConfigChangedId, changeNotice(mtu, {"1400"}));
  pb.deliver(TestSupport::kConfigChangedId, changeNotice(mtu, {"1200"}));
  EXPECT_EQ(consumer.lines.take().size(), 1U);
  EXPECT_EQ(cached(mtu), "1200");
}

TEST_F(DispatchTest, AnIdentityThatDiffersByOneCharacterChangesNeitherCacheNorHandlers) {
  std::string longer = identity + "0";
  std::string other = identity;
  other.back() = '1';
  for (const std::string& wrong : {other, longer, identity.substr(1), std::string()}) {
    ConfigIF::ConfigChangedNtfy notice = changeNotice(mtu, {"1400"});
    notice.set_callback_identity(wrong);
    pb.deliver(TestSupport::kConfigChangedId, notice);
    EXPECT_FALSE(hasEntry(mtu)) << wrong;
    EXPECT_TRUE(consumer.lines.take().empty()) << wrong;
  }
}

TEST_F(DispatchTest, AChangeNoticeWithoutAVariableIsDropped) {
  ConfigIF::ConfigChangedNtfy notice = changeNotice(mtu, {"1400"});
  notice.mutable_value()->clear_inst();
  pb.deliver(TestSupport::kConfigChangedId, notice);
  EXPECT_TRUE(consumer.lines.take().empty());
  EXPECT_EQ(manager->removeVars(""), 0U);
}

TEST_F(DispatchTest, AChangeNoticeWithTheDefaultFlagStoresItAndOneWithoutLeavesIt) {
  ConfigIF::ConfigChangedNtfy notice = changeNotice(mtu, {"1500"});
  notice.set_is_default(true);
  pb.deliver(TestSupport::kConfigChangedId, notice);
  EXPECT_TRUE(record().isDefault());
  pb.deliver(TestSupport::kConfigChangedId, changeNotice(mtu, {"1400"}));
  EXPECT_TRUE(record().isDefault());
  notice.set_is_default(false);
  pb.deliver(TestSupport::kConfigChangedId, notice);
  EXPECT_FALSE(record().isDefault());
}

TEST_F(DispatchTest, ANoticeOfANamespaceIsStoredUnderNone) {
  ConfigIF::ConfigChangedNtfy notice = changeNotice(ConfigVar(5, "net", 0, "mtu", 1), {"1400"});
  pb.deliver(TestSupport::kConfigChangedId, notice);
  EXPECT_EQ(cached(mtu), "1400");
  notice.mutable_value()->mutable_inst()->set_scope(ConfigIF::SCOPE_NAMESPACE);
  notice.mutable_value()->set_values(0, "1300");
  pb.deliver(TestSupport::kConfigChangedId, notice);
  EXPECT_EQ(cached(mtu), "1400");  // scope 2 and a namespace that is not this link's
}

TEST_F(DispatchTest, AfterUnregisteringAHandlerAChangeNoticeStillUpdatesTheCache) {
  link->unregisterHandler("net", "mtu", &consumer);
  pb.deliver(TestSupport::kConfigChangedId, changeNotice(mtu, {"1400"}));
  EXPECT_EQ(cached(mtu), "1400");
  EXPECT_TRUE(consumer.lines.take().empty());
}

TEST_F(DispatchTest, TheConsumersOfTheVariableHearBeforeThoseOfItsGroups) {
  std::vector<std::string> order;
  RecordingConsumer ofGroup;
  RecordingConsumer ofVariable;
  ofGroup.onConfigChanged = [&] { order.emplace_back("group"); };
  ofVariable.onConfigChanged = [&] { order.emplace_back("variable"); };
  link->registerHandler("net", "", &ofGroup);
  link->registerHandler("net.eth0", "mtu", &ofVariable);
  pb.deliver(TestSupport::kConfigChangedId,
             changeNotice(ConfigVar("net.eth0", 0, "mtu", 1), {"1400"}));
  EXPECT_EQ(order, (Lines{"variable", "group"}));
  EXPECT_TRUE(consumer.lines.take().empty());  // that of net.mtu
  link->unregisterHandler("net", "", &ofGroup);
  link->unregisterHandler("net.eth0", "mtu", &ofVariable);
}

TEST_F(DispatchTest, AGroupOfSeveralNodesIsOneGroupWithTheLastNodesInstance) {
  RecordingConsumer ofGroup;
  link->registerHandler("net.eth", "", &ofGroup);
  ConfigIF::ConfigChangedNtfy notice;
  notice.set_callback_identity(identity);
  notice.mutable_value()->add_values("1400");
  const std::pair<const char*, int> nodes[] = {{"Net", 3}, {"Eth", 4}, {"MTU", 5}};
  for (const auto& [name, instance] : nodes) {
    ConfigIF::Node* const node = notice.mutable_value()->mutable_inst()->add_path();
    node->set_name(name);
    node->set_instance(instance);
  }
  pb.deliver(TestSupport::kConfigChangedId, notice);
  EXPECT_EQ(ofGroup.lines.take(), Lines{"changed net.eth[4].mtu[5] {1400} " + identity});
  EXPECT_EQ(cached(ConfigVar("net.eth", 4, "mtu", 5)), "1400");
  link->unregisterHandler("net.eth", "", &ofGroup);
}

// --- The other notices ---

TEST_F(DispatchTest, AnOptionsNoticeReachesTheCacheAndTheConsumers) {
  pb.deliver(TestSupport::kOptionsChangedId, optionsNotice(mtu, {"auto", "manual"}));
  EXPECT_EQ(record().getOptions(), (std::vector<std::string>{"auto", "manual"}));
  EXPECT_FALSE(record().hasValue());
  EXPECT_EQ(consumer.lines.take(), Lines{"options net[0].mtu[1] {auto,manual} " + identity});
  EXPECT_TRUE(takeReplies().empty());
}

TEST_F(DispatchTest, AnOptionsNoticeWithAnIndexStoresItAndOneWithoutLeavesIt) {
  ConfigIF::OptionsChangedNtfy notice = optionsNotice(mtu, {"auto", "manual"});
  notice.set_default_index(1);
  pb.deliver(TestSupport::kOptionsChangedId, notice);
  EXPECT_EQ(record().defaultIndex(), 1U);
  pb.deliver(TestSupport::kOptionsChangedId, optionsNotice(mtu, {"manual"}));
  EXPECT_EQ(record().defaultIndex(), 1U);
}

TEST_F(DispatchTest, AnAccessNoticeStoresAndReportsTheTranslatedRoles) {
  ConfigIF::AccessLevelChangedNtfy notice;
  notice.set_callback_identity(identity);
  Helper::addVarName(notice.mutable_inst(), mtu);
  notice.set_read_role(CommonIF::SECURITY_ROLE_SERVICE);
  notice.set_write_role(CommonIF::SECURITY_ROLE_FACTORY);
  pb.deliver(TestSupport::kAccessLevelsChangedId, notice);
  EXPECT_TRUE(record().hasAccessLevels());
  EXPECT_EQ(record().readRole(), AppConfig::eRoleService);
  EXPECT_EQ(record().writeRole(), AppConfig::eRoleFactory);
  EXPECT_EQ(consumer.lines.take(), Lines{"access net[0].mtu[1] 3 4 " + identity});
}

TEST_F(DispatchTest, AnAccessNoticeWithOneRoleLeavesTheOther) {
  ConfigIF::AccessLevelChangedNtfy notice;
  notice.set_callback_identity(identity);
  Helper::addVarName(notice.mutable_inst(), mtu);
  notice.set_read_role(CommonIF::SECURITY_ROLE_INSTALLER);
  pb.deliver(TestSupport::kAccessLevelsChangedId, notice);
  EXPECT_FALSE(record().hasAccessLevels());
  EXPECT_EQ(consumer.lines.take(), Lines{"access net[0].mtu[1] 2 0 " + identity});
  notice.clear_read_role();
  notice.set_write_role(CommonIF::SECURITY_ROLE_FACTORY);
  pb.deliver(TestSupport::kAccessLevelsChangedId, notice);
  EXPECT_TRUE(record().hasAccessLevels());
  EXPECT_EQ(record().readRole(), AppConfig::eRoleInstaller);
}

TEST_F(DispatchTest, ASubmitReachesTheConsumersAndNotTheCache) {
  ConfigIF::SubmitNtfy notice;
  notice.set_callback_identity(identity);
  Helper::addVarName(notice.mutable_inst(), mtu);
  pb.deliver(TestSupport::kSubmitId, notice);
  notice.set_type(ConfigIF::SUBMIT_DISCARD);
  pb.deliver(TestSupport::kSubmitId, notice);
  EXPECT_EQ(consumer.lines.take(),
            (Lines{"submit net[0].mtu[1] 0 " + identity, "submit net[0].mtu[1] 1 " + identity}));
  EXPECT_FALSE(hasEntry(mtu));
}

TEST_F(DispatchTest, AnAttributeNoticeIsConsumedAndDoesNothing) {
  ConfigIF::AttributeChangedNtfy notice;
  notice.set_callback_identity(identity);
  Helper::addVarName(notice.mutable_inst(), mtu);
  EXPECT_EQ(pb.deliver(TestSupport::kAttributeChangedId, notice), 1);
  EXPECT_TRUE(consumer.lines.take().empty());
  EXPECT_FALSE(hasEntry(mtu));
}

TEST_F(DispatchTest, OtherNoticesOfAnotherIdentityOrWithoutAVariableAreDropped) {
  ConfigIF::SubmitNtfy submit;
  submit.set_callback_identity(identity);
  pb.deliver(TestSupport::kSubmitId, submit);
  submit.set_callback_identity("somebody");
  Helper::addVarName(submit.mutable_inst(), mtu);
  pb.deliver(TestSupport::kSubmitId, submit);
  ConfigIF::OptionsChangedNtfy options = optionsNotice(mtu, {"a"});
  options.set_callback_identity("somebody");
  pb.deliver(TestSupport::kOptionsChangedId, options);
  options.set_callback_identity(identity);
  options.clear_inst();
  pb.deliver(TestSupport::kOptionsChangedId, options);
  ConfigIF::AccessLevelChangedNtfy access;
  access.set_callback_identity(identity);
  access.set_read_role(CommonIF::SECURITY_ROLE_SERVICE);
  pb.deliver(TestSupport::kAccessLevelsChangedId, access);
  access.set_callback_identity("somebody");
  Helper::addVarName(access.mutable_inst(), mtu);
  pb.deliver(TestSupport::kAccessLevelsChangedId, access);
  EXPECT_TRUE(consumer.lines.take().empty());
  EXPECT_EQ(manager->removeVars(""), 0U);
}

TEST_F(DispatchTest, NoticesLimitedToAnotherNamespaceAreDropped) {
  ConfigIF::Inst ofFive;
  Helper::addVarName(&ofFive, ConfigVar(5, "net", 0, "mtu", 1));
  ofFive.set_scope(ConfigIF::SCOPE_NAMESPACE);
  ConfigIF::ConfigChangedNtfy change = changeNotice(mtu, {"1400"});
  *change.mutable_value()->mutable_inst() = ofFive;
  ConfigIF::OptionsChangedNtfy options = optionsNotice(mtu, {"a"});
  *options.mutable_inst() = ofFive;
  ConfigIF::AccessLevelChangedNtfy access;
  access.set_callback_identity(identity);
  access.set_read_role(CommonIF::SECURITY_ROLE_SERVICE);
  *access.mutable_inst() = ofFive;
  ConfigIF::SubmitNtfy submit;
  submit.set_callback_identity(identity);
  *submit.mutable_inst() = ofFive;
  EXPECT_EQ(pb.deliver(TestSupport::kConfigChangedId, change), 1);
  EXPECT_EQ(pb.deliver(TestSupport::kOptionsChangedId, options), 1);
  EXPECT_EQ(pb.deliver(TestSupport::kAccessLevelsChangedId, access), 1);
  EXPECT_EQ(pb.deliver(TestSupport::kSubmitId, submit), 1);
  EXPECT_TRUE(consumer.lines.take().empty());
  EXPECT_EQ(manager->removeVars(""), 0U);
  EXPECT_TRUE(takeReplies().empty());
}

// A consumer that looks at the cache when it hears of options and roles.
class LookingConsumer : public RecordingConsumer {
 public:
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {
    look();
  }
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
    look();
  }
  std::function<void()> look;
};

TEST_F(DispatchTest, OptionsAndRolesAreCachedBeforeTheConsumersHear) {
  LookingConsumer looking;
  std::vector<std::string> optionsSeen;
  AppConfig::SecurityRole roleSeen = AppConfig::eRolePublic;
  link->registerHandler("net", "mtu", &looking);
  looking.look = [&] {
    optionsSeen = record().getOptions();
    roleSeen = record().writeRole();
  };
  pb.deliver(TestSupport::kOptionsChangedId, optionsNotice(mtu, {"auto", "manual"}));
  EXPECT_EQ(optionsSeen, (std::vector<std::string>{"auto", "manual"}));
  ConfigIF::AccessLevelChangedNtfy access;
  access.set_callback_identity(identity);
  Helper::addVarName(access.mutable_inst(), mtu);
  access.set_write_role(CommonIF::SECURITY_ROLE_FACTORY);
  pb.deliver(TestSupport::kAccessLevelsChangedId, access);
  EXPECT_EQ(roleSeen, AppConfig::eRoleFactory);
  link->unregisterHandler("net", "mtu", &looking);
}

TEST_F(DispatchTest, EachNoticeReachesOnlyTheConsumersOfItsType) {
  RecordingConsumer optionsOnly;
  link->registerHandlerRequested(mtu, &optionsOnly, ConfigRegistrar::eOptionsChanged);
  pb.deliver(TestSupport::kConfigChangedId, changeNotice(mtu, {"1400"}));
  pb.deliver(TestSupport::kOptionsChangedId, optionsNotice(mtu, {"a"}));
  EXPECT_EQ(optionsOnly.lines.take(), Lines{"options net[0].mtu[1] {a} " + identity});
  link->ConfigRegistrar::unregisterHandler(mtu, &optionsOnly, ConfigRegistrar::eOptionsChanged);
}

TEST_F(DispatchTest, AnotherLinksMessagesAreNobodys) {
  PlatformCfgService other(0, "", "");
  ScriptedPbUtils otherPb;
  other.setPbInterface(&otherPb);
  otherPb.deliver(TestSupport::kConfigChangedId, changeNotice(mtu, {"1400"}));
  EXPECT_FALSE(hasEntry(mtu));
  EXPECT_TRUE(consumer.lines.take().empty());
}

TEST_F(DispatchTest, NoticesForALinkThatIsNoInstanceAreDropped) {
  PlatformCfgService other(0, "", "");
  ScriptedPbUtils otherPb;
  other.setPbInterface(&otherPb);
  other.registerHandler("net", "mtu", &consumer);
  ConfigIF::SubmitNtfy submit;
  submit.set_callback_identity(identity);
  Helper::addVarName(submit.mutable_inst(), mtu);
  ConfigIF::AccessLevelChangedNtfy access;
  access.set_callback_identity(identity);
  access.set_read_role(CommonIF::SECURITY_ROLE_SERVICE);
  Helper::addVarName(access.mutable_inst(), mtu);
  EXPECT_EQ(otherPb.deliver(TestSupport::kOptionsChangedId, optionsNotice(mtu, {"a"})), 1);
  EXPECT_EQ(otherPb.deliver(TestSupport::kAccessLevelsChangedId, access), 1);
  EXPECT_EQ(otherPb.deliver(TestSupport::kSubmitId, submit), 1);
  EXPECT_FALSE(hasEntry(mtu));
  EXPECT_TRUE(consumer.lines.take().empty());
}

// --- Questions to providers ---

TEST_F(DispatchTest, AnAnswerGoesToTheOwnerAndSenderOfTheQuestion) {
  MSG_Message asked;
  asked.id = TestSupport::kDynamicValidateId;
  asked.payload = question<ConfigIF::DynamicValidateReq>(mtu, {"1"}).SerializeAsString();
  asked.owner = std::string(200, 'o');
  asked.sender = 42;
  pb.deliver(asked);
  const std::vector<SentReply> replies = takeReplies();
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].owner, std::string(127, 'o'));  // what 128 bytes hold
  EXPECT_EQ(replies[0].sender, 42U);
  EXPECT_EQ(replies[0].incoming, &asked);
}

TEST_F(DispatchTest, AQuestionNobodyCaresAboutIsAnsweredWithAFreshResult) {
  expectSame(askedToValidate(question<ConfigIF::DynamicValidateReq>(mtu, {"1"})), freshReply());
  expectSame(askedToChange(question<ConfigIF::OnChangeReq>(mtu, {"1"})), freshReply());
}

TEST_F(DispatchTest, AnAnswerWithoutContextAndClientCarriesNone) {
  ConfigIF::DynamicValidateReq bare;
  *bare.mutable_value() = instValue(mtu, {"1"});
  const ConfigIF::ReturnMessage answer = askedToValidate(bare);
  EXPECT_FALSE(answer.has_server_context());
  EXPECT_FALSE(answer.has_client_name());
}

TEST_F(DispatchTest, OfTwoProvidersTheSecondIsNotAskedWhenTheFirstRefuses) {
  useProviders();
  first.verdict = [](ConfigResult* result) {
    result->addResultMessage("too small");
    return result->fillConfigResult(false, eErrVetoed, true);
  };
  const ConfigIF::ReturnMessage answer =
      askedToValidate(question<ConfigIF::DynamicValidateReq>(mtu, {"1", "2"}));
  EXPECT_EQ(first.lines.take(), Lines{"validate net[0].mtu[1] {1,2} 2"});
  EXPECT_TRUE(second.lines.take().empty());
  ConfigIF::ReturnMessage expected = freshReply();
  expected.set_error(CommonIF::ERROR_VETOED);
  expected.set_flag(true);
  expected.add_messages("too small");
  expectSame(answer, expected);
  EXPECT_FALSE(hasEntry(mtu));
}

TEST_F(DispatchTest, ProvidersThatAgreeAreAllAskedInOrderAndShareTheResult) {
  useProviders();
  const auto agree = [](ConfigResult* result) {
    result->addResultMessage("fine");
    return true;
  };
  first.verdict = second.verdict = agree;
  const ConfigIF::ReturnMessage answer =
      askedToValidate(question<ConfigIF::DynamicValidateReq>(mtu, {"1"}));
  EXPECT_EQ(answer.messages_size(), 2);
  EXPECT_EQ(second.lines.take().size(), 1U);
}

TEST_F(DispatchTest, AnOnChangeReachesBothProvidersAfterTheFirstRefusedAndTheCacheIsAhead) {
  useProviders();
  std::string seen;
  first.verdict = [&](ConfigResult* result) {
    seen = cached(mtu);
    return result->fillConfigResult(false, eErrFailed, false);
  };
  const ConfigIF::ReturnMessage answer =
      askedToChange(question<ConfigIF::OnChangeReq>(mtu, {"1400"}));
  EXPECT_EQ(first.lines.take(), Lines{"change net[0].mtu[1] {1400} 2"});
  EXPECT_EQ(second.lines.take(), Lines{"change net[0].mtu[1] {1400} 2"});
  EXPECT_EQ(seen, "1400");
  EXPECT_EQ(answer.error(), CommonIF::ERROR_FAILED);
  EXPECT_EQ(cached(mtu), "1400");
}

TEST_F(DispatchTest, QuestionsOfAnotherNamespaceAreAnsweredNotInterstedAndNotInterested) {
  useProviders();
  auto validate =
      question<ConfigIF::DynamicValidateReq>(ConfigVar(5, "net", 0, "mtu", 1), {"1400"});
  validate.mutable_value()->mutable_inst()->set_scope(ConfigIF::SCOPE_NAMESPACE);
  ConfigIF::ReturnMessage expected = freshReply();
  expected.add_messages("Not intersted");
  expectSame(askedToValidate(validate), expected);

  auto change = question<ConfigIF::OnChangeReq>(ConfigVar(5, "net", 0, "mtu", 1), {"1400"});
  change.mutable_value()->mutable_inst()->set_scope(ConfigIF::SCOPE_NAMESPACE);
  expected.set_messages(0, "Not interested");
  expectSame(askedToChange(change), expected);
  EXPECT_TRUE(first.lines.take().empty());
  EXPECT_FALSE(hasEntry(mtu));
}

TEST_F(DispatchTest, QuestionsForALinkThatIsNoInstanceAreAnsweredTheSameTwoWays) {
  PlatformCfgService other(0, "", "");
  ScriptedPbUtils otherPb;
  other.setPbInterface(&otherPb);
  other.registerHandler("net", "mtu", &first);
  ConfigIF::ReturnMessage expected = freshReply();
  expected.add_messages("Not intersted");
  otherPb.deliver(TestSupport::kDynamicValidateId,
                  question<ConfigIF::DynamicValidateReq>(mtu, {"1"}));
  expectSame(onlyReply<ConfigIF::DynamicValidateRsp>(), expected);
  otherPb.deliver(TestSupport::kOnChangeId, question<ConfigIF::OnChangeReq>(mtu, {"1"}));
  expected.set_messages(0, "Not interested");
  expectSame(onlyReply<ConfigIF::OnChangeRsp>(), expected);
  EXPECT_TRUE(first.lines.take().empty());
}

TEST_F(DispatchTest, AQuestionThatIsNotLimitedToItsNamespaceIsAskedAndItsValueStoredUnderNone) {
  useProviders();
  const ConfigVar ofFive(5, "net", 0, "mtu", 1);
  expectSame(askedToValidate(question<ConfigIF::DynamicValidateReq>(ofFive, {"1400"})),
             freshReply());
  EXPECT_EQ(first.lines.take(), Lines{"validate net[0].mtu[1] {1400} 2"});
  expectSame(askedToChange(question<ConfigIF::OnChangeReq>(ofFive, {"1400"})), freshReply());
  EXPECT_EQ(first.lines.take(), Lines{"change net[0].mtu[1] {1400} 2"});
  EXPECT_EQ(cached(mtu), "1400");
}

TEST_F(DispatchTest, AValidationLeavesTheCachedValue) {
  useProviders();
  manager->updateConfigVar(mtu, {"1500"});
  askedToValidate(question<ConfigIF::DynamicValidateReq>(mtu, {"1400"}));
  EXPECT_EQ(second.lines.take().size(), 1U);
  EXPECT_EQ(cached(mtu), "1500");
}

TEST_F(DispatchTest, AnOnChangeWithoutProvidersStillReachesTheCache) {
  expectSame(askedToChange(question<ConfigIF::OnChangeReq>(mtu, {"a", "b"})), freshReply());
  EXPECT_EQ(record().getValue(), (Value{"a", "b"}));
  EXPECT_TRUE(consumer.lines.take().empty());  // consumers hear when the change is made
}

TEST_F(DispatchTest, AQuestionWithoutARoleIsAskedInThePublicOne) {
  useProviders();
  auto asked = question<ConfigIF::DynamicValidateReq>(mtu, {"1"});
  asked.clear_role();
  askedToValidate(asked);
  EXPECT_EQ(first.lines.take(), Lines{"validate net[0].mtu[1] {1} 0"});
}

TEST_F(DispatchTest, AProviderOfAGroupIsAskedAboutItsVariablesAfterTheirOwn) {
  link->registerHandler("net", "", &second);
  link->registerHandler("net", "mtu", &first);
  first.verdict = [](ConfigResult* result) {
    result->addResultMessage("variable");
    return true;
  };
  second.verdict = [](ConfigResult* result) {
    result->addResultMessage("group");
    return true;
  };
  ConfigIF::ReturnMessage expected = freshReply();
  expected.add_messages("variable");
  expected.add_messages("group");
  expectSame(askedToValidate(question<ConfigIF::DynamicValidateReq>(mtu, {"1"})), expected);
  expectSame(askedToChange(question<ConfigIF::OnChangeReq>(mtu, {"1"})), expected);
  link->unregisterHandler("net", "", &second);
}

TEST_F(DispatchTest, AQuestionWithoutAVariableIsAnsweredUnableToParseVariableName) {
  useProviders();
  ConfigIF::ReturnMessage expected = freshReply();
  expected.add_messages("unable to parse variable name");
  auto validate = question<ConfigIF::DynamicValidateReq>(mtu, {"1"});
  validate.mutable_value()->clear_inst();
  expectSame(askedToValidate(validate), expected);
  auto change = question<ConfigIF::OnChangeReq>(mtu, {"1"});
  change.mutable_value()->clear_inst();
  expectSame(askedToChange(change), expected);
  EXPECT_TRUE(first.lines.take().empty());
}

// --- Broken payloads ---

TEST_F(DispatchTest, ABrokenPayloadPrintsParseErrorAndIsNotAnswered) {
  useProviders();
  MSG_Message broken;
  broken.payload = "\xff\xff\xff";
  for (const std::uint32_t id :
       {TestSupport::kDynamicValidateId, TestSupport::kOnChangeId, TestSupport::kConfigChangedId,
        TestSupport::kAttributeChangedId, TestSupport::kOptionsChangedId, TestSupport::kSubmitId,
        TestSupport::kAccessLevelsChangedId}) {
    broken.id = id;
    testing::internal::CaptureStdout();
    EXPECT_EQ(pb.deliver(broken), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Parse Error\n");
  }
  EXPECT_TRUE(takeReplies().empty());
  EXPECT_TRUE(consumer.lines.take().empty());
  EXPECT_TRUE(first.lines.take().empty());
}

// A path of 257 nodes: of notices about options and about a submit it is field 2.
TEST_F(DispatchTest, APayloadThatUnfoldsToTooMuchCountsAsBroken) {
  std::string nodes;
  for (int i = 0; i < 257; ++i) nodes += std::string("\x0A\0", 2);
  MSG_Message tooMuch;
  tooMuch.payload = "\x12\x82\x04" + nodes;
  for (const std::uint32_t id : {TestSupport::kOptionsChangedId, TestSupport::kSubmitId}) {
    tooMuch.id = id;
    testing::internal::CaptureStdout();
    EXPECT_EQ(pb.deliver(tooMuch), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Parse Error\n");
  }
  tooMuch.payload = "\x12\x80\x04" + nodes.substr(2);
  testing::internal::CaptureStdout();
  EXPECT_EQ(pb.deliver(tooMuch), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// A short one is parsed without being looked through; this one has a field of 600 bytes that nobody
// knows.
TEST_F(DispatchTest, ALongPayloadIsLookedThroughAsTheMessageThatItIs) {
  MSG_Message unknownField;
  unknownField.payload = "\xA2\x06\xD8\x04" + std::string(600, 'x');
  for (const std::uint32_t id :
       {TestSupport::kDynamicValidateId, TestSupport::kOnChangeId, TestSupport::kConfigChangedId,
        TestSupport::kAttributeChangedId, TestSupport::kOptionsChangedId, TestSupport::kSubmitId,
        TestSupport::kAccessLevelsChangedId}) {
    unknownField.id = id;
    testing::internal::CaptureStdout();
    EXPECT_EQ(pb.deliver(unknownField), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << std::hex << id;
  }
  EXPECT_EQ(takeReplies().size(), 2U);
}

TEST_F(DispatchTest, AnEmptyPayloadIsAMessageWithoutFields) {
  MSG_Message empty;
  empty.id = TestSupport::kOnChangeId;
  pb.deliver(empty);
  const auto answer = onlyReply<ConfigIF::OnChangeRsp>();
  ASSERT_EQ(answer.messages_size(), 1);
  EXPECT_EQ(answer.messages(0), "unable to parse variable name");
}

TEST_F(DispatchTest, AnIdOfNoReceiverIsNotTaken) {
  EXPECT_EQ(pb.deliver(0x1A0151, ConfigIF::DynamicValidateRsp()), 0);
  EXPECT_EQ(pb.deliver(0x1A0110, ConfigIF::ReadReq()), 0);
}

// --- Whose notices they are ---

// Each sort of notice about net.mtu under this identity.
template <typename Notice>
Notice noticeUnder(const std::string& identity, const ConfigVar& var) {
  Notice notice;
  notice.set_callback_identity(identity);
  Helper::addVarName(notice.mutable_inst(), var);
  return notice;
}

TEST_F(DispatchTest, ANoticeIsForThisLinkOnlyWhenItsIdentityIsTheLinksWholeName) {
  const std::string shorter = identity.substr(0, identity.size() - 1);
  for (const std::string& wrong : {identity + "1", identity + " ", shorter, std::string()}) {
    ConfigIF::ConfigChangedNtfy changed = changeNotice(mtu, {"1400"});
    changed.set_callback_identity(wrong);
    pb.deliver(TestSupport::kConfigChangedId, changed);
    pb.deliver(TestSupport::kSubmitId, noticeUnder<ConfigIF::SubmitNtfy>(wrong, mtu));
    pb.deliver(TestSupport::kOptionsChangedId,
               noticeUnder<ConfigIF::OptionsChangedNtfy>(wrong, mtu));
    pb.deliver(TestSupport::kAccessLevelsChangedId,
               noticeUnder<ConfigIF::AccessLevelChangedNtfy>(wrong, mtu));
    EXPECT_EQ(consumer.lines.take(), Lines{}) << '"' << wrong << '"';
    EXPECT_FALSE(hasEntry(mtu)) << '"' << wrong << '"';
  }
  pb.deliver(TestSupport::kSubmitId, noticeUnder<ConfigIF::SubmitNtfy>(identity, mtu));
  EXPECT_EQ(consumer.lines.take().size(), 1U);
}

// --- Endpoints that change ---

TEST_F(DispatchTest, AnEndpointThatIsAttachedAgainTellsEachNoticeOnce) {
  ScriptedPbUtils other("other");
  manager->setPbInterface(&other);
  manager->setPbInterface(&pb);
  EXPECT_EQ(pb.deliver(TestSupport::kConfigChangedId, changeNotice(mtu, {"1400"})), 1);
  EXPECT_EQ(consumer.lines.take().size(), 1U);
  EXPECT_TRUE(manager->setConfigVar(mtu, "1300", nullptr));
  EXPECT_FALSE(pb.takeSent().empty());
  EXPECT_TRUE(other.sent().empty());
}

// --- Handlers that throw ---

using DispatchDeathTest = DispatchTest;

TEST_F(DispatchDeathTest, AConsumerThatThrowsEndsTheProgramWhichSaysWhoItWas) {
  // Made here, for the name of a link holds the process's number.
  const auto notice = changeNotice(mtu, {"1400"});
  consumer.onConfigChanged = [] { throw std::runtime_error("no such thing"); };
  EXPECT_EXIT(pb.deliver(TestSupport::kConfigChangedId, notice), testing::KilledBySignal(SIGABRT),
              "appconfig: a handler's configChanged for net.mtu threw: no such thing\n");
  consumer.onConfigChanged = [] { throw 7; };
  EXPECT_EXIT(pb.deliver(TestSupport::kConfigChangedId, notice), testing::KilledBySignal(SIGABRT),
              "threw: something that is no std::exception\n");
}

TEST_F(DispatchDeathTest, AProviderThatThrowsEndsTheProgramWhichSaysWhoItWas) {
  useProviders();
  first.verdict = [](ConfigResult*) -> bool { throw std::runtime_error("no such thing"); };
  EXPECT_EXIT(askedToValidate(question<ConfigIF::DynamicValidateReq>(mtu, {"1"})),
              testing::KilledBySignal(SIGABRT),
              "appconfig: a handler's dynamicValidate for net.mtu threw: no such thing\n");
  EXPECT_EXIT(askedToChange(question<ConfigIF::OnChangeReq>(mtu, {"1"})),
              testing::KilledBySignal(SIGABRT),
              "appconfig: a handler's onChange for net.mtu threw: no such thing\n");
}

// Each of the other operations throws its own name.
class ThrowingConsumer : public RecordingConsumer {
 public:
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {
    throw std::runtime_error("in submit");
  }
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {
    throw std::runtime_error("in optionsChanged");
  }
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
    throw std::runtime_error("in accessLevelsChanged");
  }
};

TEST_F(DispatchDeathTest, EveryOperationOfAConsumerIsNamed) {
  ThrowingConsumer thrower;
  link->registerHandler("net", "mtu", &thrower);
  const auto options = optionsNotice(mtu, {"a"});
  EXPECT_EXIT(pb.deliver(TestSupport::kSubmitId, noticeUnder<ConfigIF::SubmitNtfy>(identity, mtu)),
              testing::KilledBySignal(SIGABRT),
              "a handler's submit for net.mtu threw: in submit\n");
  EXPECT_EXIT(pb.deliver(TestSupport::kOptionsChangedId, options), testing::KilledBySignal(SIGABRT),
              "a handler's optionsChanged for net.mtu threw: in optionsChanged\n");
  EXPECT_EXIT(pb.deliver(TestSupport::kAccessLevelsChangedId,
                         noticeUnder<ConfigIF::AccessLevelChangedNtfy>(identity, mtu)),
              testing::KilledBySignal(SIGABRT),
              "a handler's accessLevelsChanged for net.mtu threw: in accessLevelsChanged\n");
  link->unregisterHandler("net", "mtu", &thrower);
}

class TwoLinksDispatchTest : public DispatchTest {};

// --- Two links on one endpoint; after this the process has two for good ---

TEST_F(TwoLinksDispatchTest, OfTwoLinksOnOneEndpointEachAnswersForItself) {
  ASSERT_TRUE(AppCfgManager::changePrimaryConfigService(5, "", "", &pb));
  AppCfgManager* const primary = AppCfgManager::getInstance();
  primary->getPlatformCfgService()->registerHandler("net", "mtu", &first);
  auto asked = question<ConfigIF::OnChangeReq>(ConfigVar(5, "net", 0, "mtu", 1), {"1400"});
  asked.mutable_value()->mutable_inst()->set_scope(ConfigIF::SCOPE_NAMESPACE);
  EXPECT_EQ(pb.deliver(TestSupport::kOnChangeId, asked), 2);
  const std::vector<SentReply> replies = takeReplies();
  ASSERT_EQ(replies.size(), 2U);
  const auto local = replies[0].as<ConfigIF::OnChangeRsp>().result();
  ASSERT_EQ(local.messages_size(), 1);
  EXPECT_EQ(local.messages(0), "Not interested");
  EXPECT_EQ(replies[1].as<ConfigIF::OnChangeRsp>().result().messages_size(), 0);
  EXPECT_EQ(first.lines.take().size(), 1U);
  EXPECT_EQ(primary->getConfigVar(mtu), "1400");
  EXPECT_FALSE(hasEntry(mtu));  // the local facade's cache
}

TEST_F(TwoLinksDispatchTest, OfTwoLinksOnOneEndpointOnlyTheOneThatIsNamedTakesANotice) {
  ASSERT_TRUE(AppCfgManager::changePrimaryConfigService(5, "", "", &pb));
  pb.deliver(TestSupport::kConfigChangedId, changeNotice(mtu, {"1400"}, 5));
  EXPECT_FALSE(hasEntry(mtu));
  EXPECT_TRUE(consumer.lines.take().empty());
  EXPECT_EQ(AppCfgManager::getInstance()->getConfigVar(mtu), "1400");
}

}  // namespace
