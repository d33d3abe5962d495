// With a service that tells how new each state is, nothing older ever replaces something newer in
// the cache, whichever way and in whatever order answers and notices come.

#include <algorithm>
#include <functional>
#include <optional>
#include <vector>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/manager/fresh_read.h"
#include "appconfig/registry/registration.h"
#include "appconfig/service/platform_cfg_service.h"
#include "tests/support/recording_handlers.h"
#include "tests/support/scripted_service.h"

namespace {

using AppConfig::AppCfgManager;
using TestSupport::changeNotice;
using TestSupport::instValue;
using TestSupport::ScriptedPbUtils;
using TestSupport::Value;

struct State {
  std::string value;
  std::uint64_t changedAt;
  std::uint64_t epoch = 7;
  bool isDefault = false;
};

template <typename Message>
void stamp(const State& state, Message& message) {
  message.set_epoch(state.epoch);
  message.set_changed_at(state.changedAt);
}

// Messages reach the process-wide links alone, so these tests work on the local one; each case on a
// variable of its own, of which nothing is remembered.
class StampedTest : public ::testing::Test {
 protected:
  using Action = std::function<void()>;

  StampedTest() {
    manager->setPbInterface(&pb);
    hold({"1500", 10});
  }

  // What reads are answered with, and what the service makes of writes, from now on.
  static void hold(const State& state) {
    answerReads(state, [] {});
    pb.answer<ConfigIF::WriteReq, ConfigIF::WriteRsp>(
        [state](const auto&, auto& response) { stamp(state, response); });
  }
  // The answers to the next requests are these, and before they arrive the action happens.
  static void answerReads(const State& state, const Action& action) {
    pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>([=](const auto&, auto& response) {
      response.add_values(state.value);
      response.set_is_default(state.isDefault);
      stamp(state, response);
      action();
    });
  }
  static void answerWrites(const State& state, const Action& action) {
    pb.answer<ConfigIF::WriteReq, ConfigIF::WriteRsp>([=](const auto&, auto& response) {
      stamp(state, response);
      action();
    });
  }

  void notice(const State& state) const {
    ConfigIF::ConfigChangedNtfy message = changeNotice(mtu, {state.value});
    message.set_is_default(state.isDefault);
    stamp(state, message);
    pb.deliver(TestSupport::kConfigChangedId, message);
  }
  void askOnChange(const std::string& value, const State& held) const {
    ConfigIF::OnChangeReq question;
    *question.mutable_value() = instValue(mtu, {value});
    stamp(held, question);
    pb.deliver(TestSupport::kOnChangeId, question);
    TestSupport::takeReplies();
  }

  static std::size_t reads() { return pb.sentOf<ConfigIF::ReadReq>().size(); }
  // The value, if it is answered by the cache; else "asked".
  std::string cached() const {
    const std::size_t before = reads();
    std::string value = manager->getConfigVar(mtu);
    return reads() == before ? value : "asked";
  }
  bool isDefault() const { return manager->isDefault("net", 0, "mtu", mtu.nameInstance()); }

  static int nextInstance() {
    static int last = 0;
    return ++last;
  }

  // One for all cases, as the link keeps pointing to it.
  static ScriptedPbUtils pb;
  AppCfgManager* const manager = AppCfgManager::getLocalCfgManager();
  const ConfigVar mtu{"net", 0, "mtu", nextInstance()};
};

ScriptedPbUtils StampedTest::pb;

TEST_F(StampedTest, ANoticeOlderThanWhatWasReadIsNotStored) {
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  notice({"1400", 9, 7, true});
  EXPECT_EQ(cached(), "1500");
  EXPECT_FALSE(isDefault());
}

TEST_F(StampedTest, ANoticeOlderThanWhatWasWrittenIsNotStored) {
  hold({"mine", 12});
  EXPECT_TRUE(manager->setConfigVar(mtu, "mine", nullptr));
  notice({"former", 11});
  EXPECT_EQ(cached(), "mine");
}

TEST_F(StampedTest, HandlersHearEveryNoticeInOrderAlsoOfWhatIsNotStored) {
  TestSupport::RecordingConsumer consumer;
  registerHandler("net", "mtu", &consumer, manager);
  hold({"mine", 12});
  EXPECT_TRUE(manager->setConfigVar(mtu, "mine", nullptr));
  for (const State& state : {State{"a", 9}, State{"b", 11}, State{"mine", 12}}) notice(state);
  const std::vector<std::string> lines = consumer.lines.take();
  unregisterHandler("net", "mtu", &consumer, manager);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_NE(lines[0].find("{a}"), std::string::npos);
  EXPECT_NE(lines[1].find("{b}"), std::string::npos);
  EXPECT_NE(lines[2].find("{mine}"), std::string::npos);
}

TEST_F(StampedTest, ANewerNoticeIsStoredAndItsFlagToo) {
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  notice({"1400", 11, 7, true});
  EXPECT_EQ(cached(), "1400");
  EXPECT_TRUE(isDefault());
}

TEST_F(StampedTest, TheNoticeOfAWriteBringsTheFlagThatTheWriteDidNotLearn) {
  hold({"mine", 12});
  EXPECT_TRUE(manager->setConfigVar(mtu, "mine", nullptr));
  EXPECT_FALSE(isDefault());
  notice({"mine", 12, 7, true});
  EXPECT_TRUE(isDefault());
  EXPECT_EQ(cached(), "mine");
}

TEST_F(StampedTest, AnAnswerOlderThanANoticeThatCameMeanwhileIsNotStored) {
  answerReads({"old", 10}, [this] { notice({"new", 11}); });
  EXPECT_EQ(manager->getConfigVar(mtu), "old");
  EXPECT_EQ(cached(), "new");
}

TEST_F(StampedTest, AnAnswerNewerThanANoticeThatCameMeanwhileIsStored) {
  answerReads({"new", 12, 7, true}, [this] { notice({"old", 11}); });
  EXPECT_EQ(manager->getConfigVar(mtu), "new");
  EXPECT_EQ(cached(), "new");
  EXPECT_TRUE(isDefault());
}

TEST_F(StampedTest, AWriteIsStoredWhateverOlderNoticesCameMeanwhile) {
  answerWrites({"mine", 12}, [this] {
    notice({"a", 10});
    notice({"b", 11});
  });
  EXPECT_TRUE(manager->setConfigVar(mtu, "mine", nullptr));
  EXPECT_EQ(cached(), "mine");
}

TEST_F(StampedTest, AWriteDoesNotReplaceTheNewerNoticeOfAnother) {
  answerWrites({"mine", 12}, [this] { notice({"theirs", 13}); });
  EXPECT_TRUE(manager->setConfigVar(mtu, "mine", nullptr));
  EXPECT_EQ(cached(), "theirs");
}

TEST_F(StampedTest, OfTwoAnswersTheNewerStaysInEitherOrder) {
  answerReads({"old", 10}, [this] {
    hold({"new", 11});
    EXPECT_EQ(manager->getConfigVar(mtu), "new");
  });
  EXPECT_EQ(manager->getConfigVar(mtu), "old");
  EXPECT_EQ(cached(), "new");
}

TEST_F(StampedTest, AnAnswerThatEndsAfterAnOlderOneReplacesIt) {
  answerReads({"new", 11}, [this] {
    hold({"old", 10});
    EXPECT_EQ(manager->getConfigVar(mtu), "old");
  });
  EXPECT_EQ(manager->getConfigVar(mtu), "new");
  EXPECT_EQ(cached(), "new");
}

TEST_F(StampedTest, WhatWasForgottenByHandDoesNotComeBackOlder) {
  hold({"new", 11});
  EXPECT_EQ(manager->getConfigVar(mtu), "new");
  manager->removeVars("");
  notice({"old", 10});
  EXPECT_EQ(cached(), "asked");
  manager->removeVars("");
  answerReads({"old", 10}, [] {});
  EXPECT_EQ(manager->getConfigVar(mtu), "old");
  EXPECT_EQ(cached(), "asked") << "the older answer was not kept";
}

TEST_F(StampedTest, WhatWasForgottenByHandIsCachedAgainByTheSameState) {
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  manager->removeVars("");
  EXPECT_EQ(cached(), "asked");
  EXPECT_EQ(cached(), "1500");
}

TEST_F(StampedTest, ALaterEpochIsNewerWhateverItsRevisions) {
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  notice({"restored", 3, 8});
  EXPECT_EQ(cached(), "restored");
  notice({"before", 99, 7});
  EXPECT_EQ(cached(), "restored");
}

TEST_F(StampedTest, AnAnswerOfAnEarlierEpochIsNotStored) {
  answerReads({"before", 99, 7}, [this] { notice({"restored", 3, 8}); });
  EXPECT_EQ(manager->getConfigVar(mtu), "before");
  EXPECT_EQ(cached(), "restored");
}

TEST_F(StampedTest, AVariableThatWasNeverChangedHasARevisionToo) {
  hold({"default", 0, 7, true});
  EXPECT_EQ(manager->getConfigVar(mtu), "default");
  notice({"set", 1});
  EXPECT_EQ(cached(), "set");
  notice({"default", 0, 7, true});
  EXPECT_EQ(cached(), "set");
  EXPECT_FALSE(isDefault());
}

TEST_F(StampedTest, ATentativeValueIsCachedAndGivesWayToWhatComesOfIt) {
  const State held{"1500", 10};
  hold(held);
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  askOnChange("1400", held);
  EXPECT_EQ(cached(), "1400");
  notice(held);
  EXPECT_EQ(cached(), "1500") << "the change failed";
  askOnChange("1300", held);
  notice({"1300", 11});
  EXPECT_EQ(cached(), "1300") << "the change was made";
}

TEST_F(StampedTest, ATentativeValueDoesNotReplaceWhatIsNewerThanWhatHeldWhenItWasAsked) {
  hold({"1300", 11});
  EXPECT_EQ(manager->getConfigVar(mtu), "1300");
  askOnChange("1400", {"1500", 10});
  EXPECT_EQ(cached(), "1300");
}

TEST_F(StampedTest, AReadOfWhatHeldDoesNotReplaceTheTentativeValue) {
  answerReads({"1500", 10}, [this] { askOnChange("1400", {"1500", 10}); });
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  EXPECT_EQ(cached(), "1400");
}

TEST_F(StampedTest, WhatTheApplicationStoresItselfIsStoredAndANewerNoticeReplacesIt) {
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  manager->updateConfigVar(mtu, {"own"});
  EXPECT_EQ(cached(), "own");
  notice({"old", 9});
  EXPECT_EQ(cached(), "own");
  notice({"new", 11});
  EXPECT_EQ(cached(), "new");
}

TEST_F(StampedTest, AFreshReadAsksAlsoWhenAValueIsCachedAndCachesWhatItLearns) {
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  hold({"1400", 11});
  Value value{"left"};
  const std::size_t before = reads();
  EXPECT_TRUE(AppConfig::readFresh(mtu, value, manager));
  EXPECT_EQ(value, Value{"1400"});
  EXPECT_EQ(reads(), before + 1);
  EXPECT_EQ(cached(), "1400");
}

TEST_F(StampedTest, AFreshReadOfWhatCannotBeReadIsFalseAndEmptyAndLeavesTheCache) {
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>([](const auto&, auto& response) {
    TestSupport::refuse(response.mutable_result(), CommonIF::ERROR_DENIED);
  });
  Value value{"left"};
  EXPECT_FALSE(AppConfig::readFresh(mtu, value, manager));
  EXPECT_TRUE(value.empty());
  EXPECT_EQ(cached(), "1500");
}

TEST_F(StampedTest, AFreshReadWithoutAFacadeAsksThePrimaryOne) {
  Value value;
  EXPECT_TRUE(AppConfig::readFresh(mtu, value));
  EXPECT_EQ(value, Value{"1500"});
}

// What one facade has been told is no reason for another to take less, also where its cache stood.
TEST_F(StampedTest, AFacadeThatTakesTheMemoryOfAnEndedOneKnowsNothingOfWhatThatWasTold) {
  std::optional<AppCfgManager> facade(AppConfig::PlatformCfgService::getLocalCfgService());
  const AppCfgManager* const place = &*facade;
  hold({"1400", 11});
  EXPECT_EQ(facade->getConfigVar(mtu), "1400");
  facade.emplace(AppConfig::PlatformCfgService::getLocalCfgService());
  ASSERT_EQ(&*facade, place);
  hold({"1300", 9});
  EXPECT_EQ(facade->getConfigVar(mtu), "1300");
  const std::size_t before = reads();
  EXPECT_EQ(facade->getConfigVar(mtu), "1300");
  EXPECT_EQ(reads(), before) << "what is older than the ended one's was not cached";
}

// --- Options and roles ---

class StampedOptionsTest : public StampedTest {
 protected:
  static void answerOptions(
      const Value& options, unsigned index, std::uint64_t changedAt, const Action& action = [] {}) {
    pb.answer<ConfigIF::GetAttributeOptionsReq, ConfigIF::GetAttributeOptionsRsp>(
        [=](const auto&, auto& response) {
          for (const std::string& option : options) response.add_options(option);
          response.set_default_index(index);
          stamp({"", changedAt}, response);
          action();
        });
  }
  void optionsNotice(const Value& options, unsigned index, std::uint64_t changedAt) const {
    ConfigIF::OptionsChangedNtfy message = TestSupport::optionsNotice(mtu, options);
    message.set_default_index(index);
    stamp({"", changedAt}, message);
    pb.deliver(TestSupport::kOptionsChangedId, message);
  }
  std::vector<std::string> options() const {
    std::vector<std::string> known;
    return manager->getConfigOptions(mtu, known);
  }
  unsigned index() const {
    unsigned known = 99;
    manager->getConfigOptionDefaultIndex(mtu, known);
    return known;
  }
};

using Options = std::vector<std::string>;

TEST_F(StampedOptionsTest, OlderOptionsNeverReplaceNewerOnes) {
  answerOptions({"a", "b"}, 1, 20);
  EXPECT_EQ(options(), (Options{"a", "b"}));
  optionsNotice({"old"}, 0, 19);
  EXPECT_EQ(options(), (Options{"a", "b"}));
  EXPECT_EQ(index(), 1U);
  optionsNotice({"c", "d", "e"}, 2, 21);
  EXPECT_EQ(options(), (Options{"c", "d", "e"}));
  EXPECT_EQ(index(), 2U);
}

TEST_F(StampedOptionsTest, AnAnswerNewerThanTheNoticeMeanwhileIsStored) {
  answerOptions({"new"}, 0, 20, [this] { optionsNotice({"a", "old"}, 1, 19); });
  EXPECT_EQ(options(), Options{"new"});
  EXPECT_EQ(options(), Options{"new"});
  EXPECT_EQ(index(), 0U);
}

TEST_F(StampedOptionsTest, AnIndexThatWasSetIsNotReplacedByAnOlderNotice) {
  answerOptions({"a", "b"}, 0, 20);
  EXPECT_EQ(options(), (Options{"a", "b"}));
  pb.answer<ConfigIF::SetAttributeOptionsReq, ConfigIF::SetAttributeOptionsRsp>(
      [](const auto&, auto& response) {
        stamp({"", 22}, response);
      });
  EXPECT_TRUE(manager->setConfigOptions("net", 0, "mtu", mtu.nameInstance(), {"a", "b", "c"}, 2));
  optionsNotice({"b", "a"}, 1, 21);
  EXPECT_EQ(index(), 2U);
  EXPECT_EQ(options(), (Options{"b", "a"})) << "the options come with their notice";
  optionsNotice({"a", "b", "c"}, 2, 22);
  EXPECT_EQ(options(), (Options{"a", "b", "c"}));
}

TEST_F(StampedOptionsTest, ANewValueSaysNothingOfTheOptions) {
  answerOptions({"a", "b"}, 1, 5);
  EXPECT_EQ(options(), (Options{"a", "b"}));
  notice({"new", 30});
  optionsNotice({"c"}, 0, 6);
  EXPECT_EQ(options(), Options{"c"});
}

TEST_F(StampedTest, OlderRolesNeverReplaceNewerOnes) {
  pb.answer<ConfigIF::GetAccessLevelsReq, ConfigIF::GetAccessLevelsRsp>(
      [](const auto&, auto& response) {
        response.set_read_role(CommonIF::SECURITY_ROLE_INSTALLER);
        response.set_write_role(CommonIF::SECURITY_ROLE_FACTORY);
        stamp({"", 20}, response);
      });
  const auto rolesNotice = [this](CommonIF::eSecurityRole both, std::uint64_t changedAt) {
    ConfigIF::AccessLevelChangedNtfy message;
    message.set_callback_identity(TestSupport::linkName(0));
    AppConfig::ProtobufMessageHelper::addVarName(message.mutable_inst(), mtu);
    message.set_read_role(both);
    message.set_write_role(both);
    stamp({"", changedAt}, message);
    pb.deliver(TestSupport::kAccessLevelsChangedId, message);
  };
  const auto roles = [this] {
    AppConfig::SecurityRole read = AppConfig::eRolePublic;
    AppConfig::SecurityRole write = AppConfig::eRolePublic;
    EXPECT_TRUE(manager->getAccessLevels(mtu, &read, &write));
    return std::make_pair(read, write);
  };
  using Roles = std::pair<AppConfig::SecurityRole, AppConfig::SecurityRole>;
  EXPECT_EQ(roles(), Roles(AppConfig::eRoleInstaller, AppConfig::eRoleFactory));
  rolesNotice(CommonIF::SECURITY_ROLE_PUBLIC, 19);
  EXPECT_EQ(roles(), Roles(AppConfig::eRoleInstaller, AppConfig::eRoleFactory));
  rolesNotice(CommonIF::SECURITY_ROLE_USER, 21);
  EXPECT_EQ(roles(), Roles(AppConfig::eRoleUser, AppConfig::eRoleUser));
}

// Every order in which the notices and answers of four states can come to the cache: the last value
// that is told is never older than one told before.
TEST_F(StampedTest, InEveryOrderOfArrivalTheNewestStays) {
  std::vector<std::uint64_t> order{10, 11, 12, 13};
  do {
    manager->removeVars("");
    static std::uint64_t epoch = 100;
    ++epoch;
    std::uint64_t newest = 0;
    for (std::size_t i = 0; i < order.size(); ++i) {
      const State state{std::to_string(order[i]), order[i], epoch};
      hold(state);
      Value value;
      switch ((order[i] + i) % 3) {
        case 0:
          notice(state);
          break;
        case 1:
          AppConfig::readFresh(mtu, value, manager);
          break;
        default:
          manager->setConfigVar(mtu, state.value, nullptr);
      }
      newest = std::max(newest, order[i]);
      EXPECT_EQ(cached(), std::to_string(newest));
    }
  } while (std::next_permutation(order.begin(), order.end()));
}

}  // namespace
