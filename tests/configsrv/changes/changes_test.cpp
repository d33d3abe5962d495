#include "configsrv/changes/changes.h"

#include "configsrv/changes/internal/change_shares.h"
#include "tests/configsrv/changes/changes_fixture.h"

namespace ConfigSrv {
namespace {

using AppConfig::eRoleFactory;
using AppConfig::eRoleInstaller;
using AppConfig::eRolePublic;
using AppConfig::eRoleUser;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using TestSupport::keyOf;

class ChangesTest : public ChangesFixture {};

// --- A change without providers ---

TEST_F(ChangesTest, AWriteIsAnsweredAfterItsCommitAndNotBefore) {
  const Changed attempt = write("net.mtu", "1400");
  EXPECT_FALSE(attempt->ended());
  EXPECT_EQ(valueOf("net.mtu"), "1500");
  host_.finishCommit();
  EXPECT_EQ(attempt->error(), eErrNone);
  EXPECT_EQ(attempt->outcome->revision, 101u);
  EXPECT_EQ(valueOf("net.mtu"), "1400");
  EXPECT_EQ(changes_->counters().commits, 1u);
}

TEST_F(ChangesTest, AnUnknownVariableIsNotFoundAndNamed) {
  const Changed attempt = write("net.mtuu", "1400");
  EXPECT_EQ(attempt->error(), eErrNotFound);
  EXPECT_THAT(attempt->text(), HasSubstr("net.mtuu"));
}

struct RefusalCase {
  const char* why;
  const char* key;
  std::list<std::string> value;
  AppConfig::SecurityRole role;
  eErrorT error;
};

const RefusalCase kRefusals[] = {
    {"a role below the write role", "net.admin", {"y"}, eRoleUser, eErrDenied},
    {"the write role itself will do", "net.admin", {"y"}, eRoleInstaller, eErrNone},
    {"nobody writes a read-only variable", "net.serial", {"9"}, eRoleFactory, eErrReadOnly},
    {"who may not write hears no more than that", "net.serial", {"9"}, eRolePublic, eErrDenied},
    {"a value above the limits", "net.mtu", {"9001"}, eRoleUser, eErrInvalidValue},
    {"a value of another type", "net.mtu", {"many"}, eRoleUser, eErrInvalidValue},
    {"two elements for a single value", "net.mtu", {"1", "2"}, eRoleUser, eErrInvalidValue},
    {"no element for a single value", "net.mtu", {}, eRoleUser, eErrInvalidValue},
    {"what is none of the options", "net.mode", {"off"}, eRoleUser, eErrInvalidValue},
    {"more bytes than any value may have",
     "net.name",
     {std::string(kMaxValueBytes + 1, 'x')},
     eRoleUser,
     eErrLimit},
};

TEST_F(ChangesTest, AChangeThatTheVariableDoesNotAllowIsRefusedWithItsReason) {
  for (const RefusalCase& c : kRefusals) {
    const Changed attempt = submit(writer(c.role), setTo(c.key, c.value));
    if (c.error == eErrNone) host_.finishCommit();
    ASSERT_TRUE(attempt->ended()) << c.why;
    EXPECT_EQ(attempt->error(), c.error) << c.why;
    EXPECT_EQ(attempt->text().find(c.key) != std::string::npos, c.error != eErrNone) << c.why;
  }
  EXPECT_THAT(host_.commits, IsEmpty());
}

TEST_F(ChangesTest, AChangeThatChangesNothingCommitsNothingAndNotifiesNobody) {
  registerFor(kWriter, ConfigIF::CALLBACK_VALUE_CHANGED, "net.mtu");
  provide(kProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1500");
  EXPECT_EQ(attempt->error(), eErrNone);
  EXPECT_TRUE(attempt->unchanged());
  EXPECT_THAT(host_.commits, IsEmpty());
  EXPECT_THAT(host_.notices, IsEmpty());
  EXPECT_THAT(host_.questions, IsEmpty());
  EXPECT_EQ(changes_->counters().unchanged, 1u);
}

TEST_F(ChangesTest, AValueThatIsTheDefaultIsStoredAsAReset) {
  written("net.mtu", "1400");
  write("net.mtu", "1500");
  ASSERT_EQ(host_.commits.size(), 1u);
  const StoreChange& stored = host_.commits[0].first.front();
  EXPECT_TRUE(std::holds_alternative<StoreChange::ResetValue>(stored.what));
}

TEST_F(ChangesTest, AResetGoesBackToTheDefault) {
  written("net.mtu", "1400");
  const Changed attempt = submit(writer(), {keyOf("net.mtu"), StoreChange::ResetValue{}});
  host_.finishCommit();
  EXPECT_EQ(attempt->error(), eErrNone);
  EXPECT_EQ(valueOf("net.mtu"), "1500");
  EXPECT_TRUE(variable("net.mtu").isDefault());
}

TEST_F(ChangesTest, AResetOfWhatIsTheDefaultIsUnchanged) {
  EXPECT_TRUE(submit(writer(), {keyOf("net.mtu"), StoreChange::ResetValue{}})->unchanged());
}

TEST_F(ChangesTest, AStoreThatCannotKeepItFailsTheWriteAndChangesNothing) {
  const Changed attempt = write("net.mtu", "1400");
  host_.failCommit();
  EXPECT_EQ(attempt->error(), eErrStorage);
  EXPECT_THAT(attempt->text(), HasSubstr("no space left"));
  EXPECT_EQ(valueOf("net.mtu"), "1500");
}

// --- Notices ---

TEST_F(ChangesTest, EverySubscriberIsToldTheWriterIncluded) {
  registerFor(kWriter, ConfigIF::CALLBACK_VALUE_CHANGED, "net.mtu");
  registerFor(kProvider, ConfigIF::CALLBACK_VALUE_CHANGED, "net");
  registerFor(kSecondProvider, ConfigIF::CALLBACK_VALUE_CHANGED, "network");
  written("net.mtu", "1400");
  EXPECT_THAT(host_.notices,
              ElementsAre("value 1/link net.mtu = 1400", "value 2/link net.mtu = 1400"));
}

TEST_F(ChangesTest, TheWriterIsAnsweredBeforeAnybodyIsTold) {
  registerFor(kProvider, ConfigIF::CALLBACK_VALUE_CHANGED, "net.mtu");
  std::size_t toldBefore = 99;
  changes_->submit({writer(), setTo("net.mtu", {"1400"})},
                   [&](const ChangeOutcome&) { toldBefore = host_.notices.size(); });
  host_.finishCommit();
  EXPECT_EQ(toldBefore, 0u);
  EXPECT_EQ(host_.notices.size(), 1u);
}

TEST_F(ChangesTest, ASubscriberWhoseRoleMayNotReadTheVariableIsNotTold) {
  registerFor(kWriter, ConfigIF::CALLBACK_VALUE_CHANGED, "net.secret", eRoleUser);
  registerFor(kProvider, ConfigIF::CALLBACK_VALUE_CHANGED, "net.secret", eRoleFactory);
  written("net.secret", "x");
  EXPECT_THAT(host_.notices, ElementsAre("value 2/link net.secret = x"));
}

// --- Providers ---

TEST_F(ChangesTest, AProviderIsAskedToValidateThenToldThenTheValueIsCommitted) {
  provide(kProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1400");
  ASSERT_EQ(host_.questions.size(), 1u);
  EXPECT_FALSE(question().onChange);
  EXPECT_THAT(host_.commits, IsEmpty());
  agree();
  ASSERT_EQ(host_.questions.size(), 2u);
  EXPECT_TRUE(question().onChange);
  EXPECT_THAT(host_.commits, IsEmpty());
  agree();
  ASSERT_EQ(host_.commits.size(), 1u);
  host_.finishCommit();
  EXPECT_EQ(attempt->error(), eErrNone);
  EXPECT_THAT(host_.timers, IsEmpty());
}

TEST_F(ChangesTest, AQuestionCarriesWriterRoleVariableAndValue) {
  provide(kProvider, "net.mtu");
  submit({kWriter, "writer", eRoleInstaller, false}, setTo("net.mtu", {"1400"}));
  ConfigIF::DynamicValidateReq expected;
  expected.set_server_context("change 1");
  expected.set_client_name("writer");
  expected.set_role(CommonIF::SECURITY_ROLE_INSTALLER);
  ConfigIF::Node* group = expected.mutable_value()->mutable_inst()->add_path();
  group->set_name("net");
  group->set_instance(0);
  ConfigIF::Node* name = expected.mutable_value()->mutable_inst()->add_path();
  name->set_name("mtu");
  name->set_instance(0);
  expected.mutable_value()->mutable_inst()->set_scope(ConfigIF::SCOPE_NAMESPACE);
  expected.mutable_value()->add_values("1400");
  EXPECT_EQ(question().message.SerializeAsString(), expected.SerializeAsString());
}

TEST_F(ChangesTest, AQuestionAboutAVariableOfANamespaceIsForThatNamespaceAlone) {
  provide(kProvider, "engine.speed");
  write("3:engine.speed", "5");
  const ConfigIF::Inst& inst = question().message.value().inst();
  EXPECT_EQ(inst.scope(), ConfigIF::SCOPE_NAMESPACE);
  EXPECT_EQ(inst.path(0).name(), "cfg");
  EXPECT_EQ(inst.path(0).instance(), 3);
}

TEST_F(ChangesTest, AVetoFailsTheChangeWithTheProvidersReasonsAndAsksNobodyElse) {
  provide(kProvider, "net.mtu");
  provide(kSecondProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1400");
  answer(CommonIF::ERROR_FAILED, "the cable is too old");
  EXPECT_EQ(attempt->error(), eErrVetoed);
  EXPECT_EQ(attempt->text(), "the cable is too old\n");
  questionEnds();
  EXPECT_EQ(host_.questions.size(), 1u);
  EXPECT_EQ(valueOf("net.mtu"), "1500");
  EXPECT_EQ(changes_->counters().refused, 1u);
}

TEST_F(ChangesTest, AVetoWithoutAReasonNamesTheProvider) {
  provide(kProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1400");
  answer(CommonIF::ERROR_VETOED);
  EXPECT_THAT(attempt->text(), HasSubstr("client-2"));
}

TEST_F(ChangesTest, AnErrorCodeThatThisServiceDoesNotKnowIsAVetoAllTheSame) {
  provide(kProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1400");
  ConfigIF::ReturnMessage result;
  result.mutable_unknown_fields()->append("\x08\x63", 2);  // error = 99
  answerWith(result);
  EXPECT_EQ(attempt->error(), eErrVetoed);
}

TEST_F(ChangesTest, TheVetoOfEitherLinkOfAProcessCounts) {
  provide(kProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1400");
  answer(CommonIF::ERROR_NONE, "Not intersted");
  EXPECT_FALSE(attempt->ended());
  answer(CommonIF::ERROR_VETOED, "no");
  EXPECT_EQ(attempt->error(), eErrVetoed);
  EXPECT_EQ(attempt->text(), "no\n");
}

TEST_F(ChangesTest, AProcessWithSeveralRegistrationsIsAskedOncePerPhase) {
  provide(kProvider, "net");
  provide(kProvider, "net.mtu");
  registerFor(kProvider, ConfigIF::CALLBACK_DYNAMIC_VALIDATE, "net.mtu", eRoleUser, "other link");
  write("net.mtu", "1400");
  agree();
  EXPECT_TRUE(question().onChange);
  EXPECT_EQ(host_.questions.size(), 2u);
}

TEST_F(ChangesTest, ProvidersAreAskedOneAfterAnother) {
  provide(kProvider, "net.mtu");
  provide(kSecondProvider, "net.mtu");
  write("net.mtu", "1400");
  std::vector<std::string> asked;
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(host_.questions.size(), static_cast<std::size_t>(i + 1));
    asked.push_back(std::to_string(question().peer) + (question().onChange ? " change" : " may"));
    agree();
  }
  EXPECT_THAT(asked, ElementsAre("2 may", "3 may", "2 change", "3 change"));
  EXPECT_EQ(host_.commits.size(), 1u);
}

TEST_F(ChangesTest, AbstentionsOfAllMeanConsent) {
  provide(kProvider, "net.mtu");
  write("net.mtu", "1400");
  answer(CommonIF::ERROR_NONE, "Not intersted");
  questionEnds();
  answer(CommonIF::ERROR_NONE, "Not interested");
  questionEnds();
  EXPECT_EQ(host_.commits.size(), 1u);
}

TEST_F(ChangesTest, AProviderThatAnswersNothingHasNoObjectionAndIsLogged) {
  provide(kProvider, "net.mtu");
  write("net.mtu", "1400");
  questionEnds();
  EXPECT_THAT(lines_, Contains(HasSubstr("client-2 was asked and gave no answer")));
  EXPECT_TRUE(question().onChange);
}

TEST_F(ChangesTest, AnAnswerThatIsNoneIsLoggedAndDoesNotCount) {
  provide(kProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1400");
  changes_->onAnswer(kProvider, question().number, 0x1A0151, "\xFF\xFF");
  changes_->onAnswer(kProvider, question().number, 0x1A0101, "");
  EXPECT_THAT(lines_, Contains(HasSubstr("sent an answer that is none")).Times(2));
  EXPECT_FALSE(attempt->ended());
}

TEST_F(ChangesTest, AnAnswerOfAnotherPeerDoesNotCount) {
  provide(kProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1400");
  ConfigIF::DynamicValidateRsp veto;
  veto.mutable_result()->set_error(CommonIF::ERROR_VETOED);
  changes_->onAnswer(kSecondProvider, question().number, 0x1A0151, veto.SerializeAsString());
  changes_->onQuestionDone(kSecondProvider, question().number, true);
  EXPECT_FALSE(attempt->ended());
}

TEST_F(ChangesTest, AProviderThatDiesWhileAskedFailsTheChangeAtOnce) {
  provide(kProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1400");
  questionEnds(true);
  EXPECT_EQ(attempt->error(), eErrUnavailable);
  EXPECT_THAT(attempt->text(), HasSubstr("net.mtu"));
  EXPECT_THAT(attempt->text(), HasSubstr("client-2"));
}

TEST_F(ChangesTest, AProviderThatCannotBeReachedFailsTheChangeAtOnce) {
  provide(kProvider, "net.mtu");
  host_.unreachable.insert(kProvider);
  const Changed attempt = write("net.mtu", "1400");
  EXPECT_EQ(attempt->error(), eErrUnavailable);
  EXPECT_THAT(attempt->text(), HasSubstr("client-2"));
}

TEST_F(ChangesTest, AProviderThatMissesItsDeadlineFailsTheChangeAndItsLateAnswerIsIgnored) {
  provide(kProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1400");
  host_.letTimePass();
  EXPECT_EQ(attempt->error(), eErrTimedOut);
  EXPECT_THAT(attempt->text(), HasSubstr("client-2 did not answer within 3000 ms"));
  agree();
  EXPECT_EQ(host_.questions.size(), 1u);
  EXPECT_THAT(host_.commits, IsEmpty());
}

TEST_F(ChangesTest, AnErrorOnChangeFailsTheChangeAndEverybodyToldIsToldTheOldValue) {
  provide(kProvider, "net.mtu");
  registerFor(kProvider, ConfigIF::CALLBACK_VALUE_CHANGED, "net.mtu", eRoleUser, "reader");
  provide(kSecondProvider, "net.mtu");
  const Changed attempt = write("net.mtu", "1400");
  agree();
  agree();
  agree();
  answer(CommonIF::ERROR_FAILED, "cannot");
  EXPECT_EQ(attempt->error(), eErrVetoed);
  EXPECT_THAT(host_.notices, ElementsAre("value 2/link net.mtu = 1500 (default)",
                                         "value 2/reader net.mtu = 1500 (default)",
                                         "value 3/link net.mtu = 1500 (default)"));
}

TEST_F(ChangesTest, AFailedCommitTellsTheOldValueToEverybodyToldTheNewOne) {
  provide(kProvider, "net.mtu");
  write("net.mtu", "1400");
  agree();
  agree();
  host_.failCommit();
  EXPECT_THAT(host_.notices, ElementsAre("value 2/link net.mtu = 1500 (default)"));
}

// The connection may be lost after the first of two: what the peer then asks for must hold both.
TEST_F(ChangesTest, ANoticeThatMayBeOneOfSeveralOfItsChangeDoesNotCountAsAllOfIt) {
  using Knows = Host::Knows;
  registerFor(kWriter, ConfigIF::CALLBACK_VALUE_CHANGED, "net");
  registerFor(kProvider, ConfigIF::CALLBACK_VALUE_CHANGED, "net", eRoleUser, "link");
  registerFor(kProvider, ConfigIF::CALLBACK_VALUE_CHANGED, "net", eRoleUser, "other link");
  written("net.mtu", "1600");
  EXPECT_THAT(host_.known, ElementsAre(Knows::AllOfThis, Knows::AllBefore, Knows::AllBefore));
  host_.known.clear();
  submit(writer(eRoleFactory), {keyOf("net.secret"), StoreChange::SetAccess{eRoleUser, {}}});
  host_.finishCommit();
  EXPECT_THAT(host_.known, ElementsAre(Knows::AllBefore, Knows::AllBefore, Knows::AllBefore));
}

TEST_F(ChangesTest, NorDoesTheFirstOfSeveralToWhoIsToldFirst) {
  using Knows = Host::Knows;
  registerFor(kWriter, ConfigIF::CALLBACK_VALUE_CHANGED, "net", eRoleUser, "link");
  registerFor(kWriter, ConfigIF::CALLBACK_VALUE_CHANGED, "net", eRoleUser, "other link");
  registerFor(kProvider, ConfigIF::CALLBACK_VALUE_CHANGED, "net");
  written("net.mtu", "1600");
  EXPECT_THAT(host_.known, ElementsAre(Knows::AllBefore, Knows::AllBefore, Knows::AllOfThis));
}

// On change it hears the value alone.
TEST_F(ChangesTest, AProviderIsToldWhenTheValueBecomesTheDefaultOrCeasesToBeIt) {
  provide(kProvider, "net.mtu");
  for (const char* value : {"1400", "1300", "1500"}) {
    write("net.mtu", value);
    agree();
    agree();
    host_.finishCommit();
  }
  EXPECT_THAT(host_.notices,
              ElementsAre("value 2/link net.mtu = 1400", "value 2/link net.mtu = 1500 (default)"));
}

// It may have cached the value before, and is told the next one only when that changes.
TEST_F(ChangesTest, AProviderThatCameWhileTheChangeWasOnItsWayIsToldTheValue) {
  written("net.mtu", "1600");
  provide(kProvider, "net.mtu");
  write("net.mtu", "1400");
  agree();
  agree();
  provide(kSecondProvider, "net.mtu");
  registerFor(kWriter, ConfigIF::CALLBACK_ON_CHANGE, "net.mtu");
  registerFor(kWriter, ConfigIF::CALLBACK_VALUE_CHANGED, "net.mtu");
  host_.finishCommit();
  EXPECT_THAT(host_.notices,
              ElementsAre("value 3/link net.mtu = 1400", "value 1/link net.mtu = 1400"));
}

// What it is told when it has connected again is the value that still holds.
TEST_F(ChangesTest, AProviderThatConnectedAgainAfterItWasToldIsToldTheValueOnceMore) {
  written("net.mtu", "1600");
  provide(kProvider, "net.mtu");
  provide(kSecondProvider, "net.mtu");
  write("net.mtu", "1400");
  for (int question = 0; question < 4; ++question) agree();
  changes_->onDeliveryReady(kProvider);
  host_.finishCommit();
  EXPECT_THAT(host_.notices, ElementsAre("value 2/link net.mtu = 1400"));
}

// As it is when a registration of its own is repeated while it is asked.
TEST_F(ChangesTest, AProviderThatIsToldWhatHoldsAfterItWasAskedIsToldTheNewValueOnceMore) {
  written("net.mtu", "1600");
  provide(kProvider, "net.mtu");
  provide(kSecondProvider, "net.mtu");
  write("net.mtu", "1400");
  for (int question = 0; question < 4; ++question) agree();
  changes_->broughtUpToDate(kProvider, *model_.find(keyOf("net.name")));
  changes_->broughtUpToDate(kSecondProvider, *model_.find(keyOf("net.mtu")));
  host_.finishCommit();
  EXPECT_THAT(host_.notices, ElementsAre("value 3/link net.mtu = 1400"));
}

TEST_F(ChangesTest, AVetoBeforeAnybodyWasToldTellsNobody) {
  provide(kProvider, "net.mtu");
  write("net.mtu", "1400");
  answer(CommonIF::ERROR_VETOED);
  EXPECT_THAT(host_.notices, IsEmpty());
}

TEST_F(ChangesTest, AProviderWhoseRoleMayNotReadTheVariableIsNotAsked) {
  provide(kProvider, "net.secret");
  write("net.secret", "x");
  EXPECT_THAT(host_.questions, IsEmpty());
  EXPECT_EQ(host_.commits.size(), 1u);
}

// --- Several changes ---

TEST_F(ChangesTest, ChangesOfOneVariableWaitForEachOtherInOrder) {
  const Changed first = write("net.mtu", "1400");
  const Changed second = write("net.mtu", "1300");
  EXPECT_EQ(host_.commits.size(), 1u);
  host_.finishCommit();
  EXPECT_TRUE(first->ended());
  EXPECT_FALSE(second->ended());
  host_.finishCommit();
  EXPECT_TRUE(second->ended());
  EXPECT_EQ(valueOf("net.mtu"), "1300");
}

TEST_F(ChangesTest, AChangeIsComparedWithTheValueOfItsTurn) {
  write("net.mtu", "1400");
  const Changed same = write("net.mtu", "1400");
  EXPECT_FALSE(same->ended());
  host_.finishCommit();
  EXPECT_TRUE(same->unchanged());
  EXPECT_THAT(host_.commits, IsEmpty());
}

TEST_F(ChangesTest, AChangeIsCheckedAgainInItsTurn) {
  submit(writer(eRoleFactory), {keyOf("net.mtu"), StoreChange::SetAccess{{}, eRoleFactory}});
  const Changed late = write("net.mtu", "1400");
  EXPECT_FALSE(late->ended());
  host_.finishCommit();
  EXPECT_EQ(late->error(), eErrDenied);
}

TEST_F(ChangesTest, ChangesOfOtherVariablesDoNotWait) {
  provide(kProvider, "net.mtu");
  const Changed stuck = write("net.mtu", "1400");
  const Changed other = written("net.name", "x");
  EXPECT_FALSE(stuck->ended());
  EXPECT_TRUE(other->ended());
}

TEST_F(ChangesTest, AThousandWaitingChangesThatChangeNothingEndTogether) {
  write("net.mtu", "1400");
  std::vector<Changed> attempts;
  attempts.reserve(1000);
  for (int i = 0; i < 1000; ++i) attempts.push_back(write("net.mtu", "1400"));
  host_.finishCommit();
  for (const Changed& attempt : attempts) EXPECT_TRUE(attempt->unchanged());
  EXPECT_EQ(changes_->underWay(), 0u);
}

TEST_F(ChangesTest, AChangeMadeFromTheEndOfAnotherTakesItsTurn) {
  Changed second;
  changes_->submit({writer(), setTo("net.mtu", {"1400"})},
                   [&](const ChangeOutcome&) { second = write("net.mtu", "1300"); });
  host_.finishCommit();
  ASSERT_TRUE(second);
  host_.finishCommit();
  EXPECT_EQ(second->error(), eErrNone);
  EXPECT_EQ(valueOf("net.mtu"), "1300");
}

TEST_F(ChangesTest, WhatPassesALimitIsRefusedAndLaterServedAgain) {
  ChangesOptions options;
  options.waitingPerVariable.perProcess = 1;
  options.underWay.perProcess = 3;
  changes_ = std::make_unique<Changes>(model_, subscriptions_, announcer_, host_, log_, options);
  write("net.mtu", "1400");
  write("net.mtu", "1300");
  EXPECT_EQ(write("net.mtu", "1200")->error(), eErrLimit);
  write("net.name", "x");
  EXPECT_EQ(write("net.mode", "manual")->error(), eErrLimit);
  while (!host_.commits.empty()) host_.finishCommit();
  EXPECT_FALSE(write("net.mode", "manual")->ended());
}

TEST_F(ChangesTest, BytesUnderWayAreLimited) {
  ChangesOptions options;
  // The writer's name counts, and the variable's.
  options.bytesUnderWay.perProcess =
      ChangeShares::kChangeBytes + 6 + 7 + ChangeShares::kStringBytes + 10;
  changes_ = std::make_unique<Changes>(model_, subscriptions_, announcer_, host_, log_, options);
  EXPECT_EQ(write("net.name", "12345678901")->error(), eErrLimit);
  EXPECT_FALSE(write("net.name", "1234567890")->ended());
  EXPECT_EQ(write("net.mtu", "1400")->error(), eErrLimit);
  host_.finishCommit();
  EXPECT_FALSE(write("net.mtu", "1400")->ended());
}

// --- Providers that write ---

TEST_F(ChangesTest, AProviderThatWritesTheVariableItIsAskedAboutGetsAConflict) {
  for (const bool insideReceiver : {true, false}) {
    provide(kProvider, "net.mtu");
    const Changed first = write("net.mtu", "1400");
    const Changed own = writeFrom(kProvider, insideReceiver, "net.mtu", "1300");
    EXPECT_EQ(own->error(), eErrConflict);
    EXPECT_FALSE(first->ended());
    answer(CommonIF::ERROR_VETOED);
  }
}

TEST_F(ChangesTest, AProviderThatWritesFromItsHandlerWhatItWouldBeAskedAboutGetsAConflict) {
  provide(kProvider, "net");
  const Changed first = write("net.mtu", "1400");
  const Changed own = writeFrom(kProvider, true, "net.name", "x");
  EXPECT_EQ(own->error(), eErrConflict);
  EXPECT_FALSE(first->ended());
  EXPECT_EQ(host_.questions.size(), 1u);
}

TEST_F(ChangesTest, AProviderMayWriteAnotherVariableFromItsHandler) {
  provide(kProvider, "net.mtu");
  const Changed first = write("net.mtu", "1400");
  const Changed own = writeFrom(kProvider, true, "net.name", "x");
  host_.finishCommit();
  EXPECT_EQ(own->error(), eErrNone);
  EXPECT_FALSE(first->ended());
}

TEST_F(ChangesTest, AProviderMayWriteWhatItProvidesFromAnotherThread) {
  provide(kProvider, "net");
  const Changed own = writeFrom(kProvider, false, "net.name", "x");
  agree();
  agree();
  host_.finishCommit();
  EXPECT_EQ(own->error(), eErrNone);
}

TEST_F(ChangesTest, TwoProvidersThatWouldWaitForEachOtherGetAConflict) {
  provide(kProvider, "net.mtu");
  provide(kSecondProvider, "net.name");
  const Changed first = write("net.mtu", "1400");  // asks kProvider
  // Its handler writes what the other provides, whose handler writes what the first provides.
  const Changed second = writeFrom(kProvider, true, "net.name", "x");
  ASSERT_EQ(question().peer, kSecondProvider);
  const Changed third = writeFrom(kSecondProvider, true, "net.mtu", "1300");
  EXPECT_EQ(third->error(), eErrConflict);
  EXPECT_FALSE(first->ended());
  EXPECT_FALSE(second->ended());
}

TEST_F(ChangesTest, AWriterInsideAReceiverThatWaitsInTheQueueIsNotAsked) {
  provide(kProvider, "net.mtu");
  registerFor(kSecondProvider, ConfigIF::CALLBACK_DYNAMIC_VALIDATE, "net.mtu");
  const Changed first = write("net.mtu", "1400");
  const Changed waiting = writeFrom(kSecondProvider, true, "net.mtu", "1300");
  EXPECT_FALSE(waiting->ended());
  agree();  // The next to be asked about the first change is the one that waits for it.
  EXPECT_EQ(first->error(), eErrConflict);
  EXPECT_FALSE(waiting->ended());
}

TEST_F(ChangesTest, AQuestionToAPeerWhoseHandlerWaitsForSomethingElseIsAskedAndWaits) {
  provide(kProvider, "net.mtu");
  const Changed busy = writeFrom(kProvider, true, "net.name", "x");
  const Changed asking = write("net.mtu", "1400");
  EXPECT_EQ(host_.questions.size(), 1u);
  host_.finishCommit();
  EXPECT_TRUE(busy->ended());
  EXPECT_FALSE(asking->ended());
}

// --- Validation ---

TEST_F(ChangesTest, AValidationAsksAndChangesNothing) {
  provide(kProvider, "net.mtu");
  const Changed attempt = validate(writer(), "net.mtu", {"1400"});
  agree();
  EXPECT_EQ(attempt->error(), eErrNone);
  EXPECT_EQ(host_.questions.size(), 1u);
  EXPECT_THAT(host_.commits, IsEmpty());
  EXPECT_EQ(valueOf("net.mtu"), "1500");
}

TEST_F(ChangesTest, AValidationReportsAVeto) {
  provide(kProvider, "net.mtu");
  const Changed attempt = validate(writer(), "net.mtu", {"1400"});
  answer(CommonIF::ERROR_VETOED, "no");
  EXPECT_EQ(attempt->error(), eErrVetoed);
  EXPECT_EQ(changes_->counters().refused, 0u);
}

TEST_F(ChangesTest, AValidationDoesNotWaitForChangesOnTheirWay) {
  write("net.mtu", "1400");
  EXPECT_EQ(validate(writer(), "net.mtu", {"1300"})->error(), eErrNone);
  EXPECT_EQ(validate(writer(), "net.mtu", {"9001"})->error(), eErrInvalidValue);
}

TEST_F(ChangesTest, AValidationFromInsideTheHandlerThatWouldAnswerItGetsAConflict) {
  provide(kProvider, "net.mtu");
  EXPECT_EQ(validate({kProvider, "client", eRoleUser, true}, "net.mtu", {"1400"})->error(),
            eErrConflict);
}

// --- Options and access levels ---

TEST_F(ChangesTest, ChangedOptionsAreCommittedAndTold) {
  registerFor(kWriter, ConfigIF::CALLBACK_OPTIONS_CHANGED, "net.mode");
  registerFor(kWriter, ConfigIF::CALLBACK_VALUE_CHANGED, "net.mode");
  provide(kProvider, "net.mode");
  const Changed attempt =
      submit(writer(), {keyOf("net.mode"), StoreChange::SetOptions{{{"off", "auto"}}, 1}});
  host_.finishCommit();
  EXPECT_EQ(attempt->error(), eErrNone);
  EXPECT_THAT(host_.notices, ElementsAre("options 1/link net.mode = off auto [1]"));
}

struct OptionsCase {
  const char* why;
  const char* key;
  StoreChange::SetOptions options;
  eErrorT error;
};

const OptionsCase kOptionsCases[] = {
    {"an index past the options", "net.mode", {{{"auto"}}, 1}, eErrInvalidValue},
    {"an index that stays and is among them", "net.mode", {{{"auto"}}, {}}, eErrNone},
    {"the present value not among them", "net.mode", {{{"manual"}}, 0}, eErrInvalidValue},
    {"an enumeration without options",
     "net.mode",
     {std::vector<std::string>{}, 0},
     eErrInvalidValue},
    {"an option that the type does not allow",
     "net.mtu",
     {{{"1500", "many"}}, 0},
     eErrInvalidValue},
    {"an option past the limits", "net.mtu", {{{"1500", "9001"}}, 0}, eErrInvalidValue},
    {"options of a read-only variable", "net.serial", {{{"1234"}}, 0}, eErrReadOnly},
    {"more options than the limit",
     "net.name",
     {std::vector<std::string>(kMaxOptions + 1, "gateway"), 0},
     eErrLimit},
    {"an unknown variable", "net.mtuu", {{{"1"}}, 0}, eErrNotFound},
};

TEST_F(ChangesTest, OptionsThatDoNotFitTheVariableAreRefused) {
  for (const OptionsCase& c : kOptionsCases) {
    const Changed attempt = submit(writer(), {keyOf(c.key), c.options});
    if (c.error == eErrNone) host_.finishCommit();
    ASSERT_TRUE(attempt->ended()) << c.why;
    EXPECT_EQ(attempt->error(), c.error) << c.why;
  }
}

TEST_F(ChangesTest, ARefusalOfOptionsDoesNotRevealTheValue) {
  written("net.secret", "hunter2");
  const Changed attempt =
      submit(writer(eRoleFactory), {keyOf("net.secret"), StoreChange::SetOptions{{{"a"}}, 0}});
  EXPECT_EQ(attempt->error(), eErrInvalidValue);
  EXPECT_THAT(attempt->text(), Not(HasSubstr("hunter2")));
}

// One by one, lists of options that are taken or refused would tell what the value is.
TEST_F(ChangesTest, WhoMayWriteAndNotReadCannotFindOutTheValueByItsOptions) {
  const Changed attempt =
      submit(writer(), {keyOf("net.secret"), StoreChange::SetOptions{{{"hidden"}}, 0}});
  EXPECT_EQ(attempt->error(), eErrDenied);
  EXPECT_THAT(attempt->text(), HasSubstr("changing its options needs the role factory"));
}

TEST_F(ChangesTest, WhoMayWriteAndNotReadIsNotToldTheOptions) {
  submit(writer(eRoleFactory),
         {keyOf("net.secret"), StoreChange::SetOptions{{{"hidden", "other"}}, 0}});
  host_.finishCommit();
  const Changed attempt = validate(writer(), "net.secret", {"guess"});
  EXPECT_EQ(attempt->error(), eErrInvalidValue);
  EXPECT_EQ(attempt->text(), "net.secret: the value is none of its options\n");
  EXPECT_THAT(validate(writer(eRoleFactory), "net.secret", {"guess"})->text(),
              HasSubstr("\"hidden\", \"other\""));
}

TEST_F(ChangesTest, AProviderWhoseUserMayNotWriteTheVariableIsNotAsked) {
  provide(kProvider, "net.mtu");
  host_.strangers = {kProvider};
  EXPECT_EQ(written("net.mtu", "1400")->error(), eErrNone);
  EXPECT_TRUE(host_.questions.empty());
}

TEST_F(ChangesTest, AChangeWaitsForAProviderThatIsExpectedBackAndThenAsksIt) {
  host_.expected = {"net.mtu"};
  const Changed waiting = write("net.mtu", "1400");
  const Changed behind = write("net.mtu", "1300");
  EXPECT_EQ(written("net.name", "x")->error(), eErrNone);
  changes_->providersCame();
  EXPECT_FALSE(waiting->ended());
  provide(kProvider, "net.mtu");
  host_.expected.clear();
  changes_->providersCame();
  ASSERT_EQ(host_.questions.size(), 1u);
  answer(CommonIF::ERROR_VETOED, "no");
  EXPECT_EQ(waiting->error(), eErrVetoed);
  ASSERT_EQ(host_.questions.size(), 2u);
  agree();
  agree();
  host_.finishCommit();
  EXPECT_EQ(behind->error(), eErrNone);
}

TEST_F(ChangesTest, AValidationWaitsForAnExpectedProviderToo) {
  host_.expected = {"net.mtu"};
  const Changed waiting = validate(writer(), "net.mtu", {"1400"});
  EXPECT_FALSE(waiting->ended());
  provide(kProvider, "net.mtu");
  host_.expected.clear();
  changes_->providersCame();
  answer(CommonIF::ERROR_VETOED, "no");
  EXPECT_EQ(waiting->error(), eErrVetoed);
}

TEST_F(ChangesTest, WhatNoProviderIsAskedAboutDoesNotWaitForOne) {
  host_.expected = {"net.mtu", "net.mode"};
  EXPECT_TRUE(write("net.mtu", "1500")->unchanged());
  EXPECT_EQ(write("net.mtu", "1")->error(), eErrInvalidValue);
  const Changed options =
      submit(writer(), {keyOf("net.mode"), StoreChange::SetOptions{{{"auto"}}, {}}});
  host_.finishCommit();
  EXPECT_EQ(options->error(), eErrNone);
}

TEST_F(ChangesTest, AStopEndsWhatWaitsForAProvider) {
  host_.expected = {"net.mtu"};
  const Changed waiting = write("net.mtu", "1400");
  changes_->stop();
  EXPECT_EQ(waiting->error(), eErrUnavailable);
  EXPECT_EQ(changes_->underWay(), 0u);
  changes_->providersCame();
}

class RecordingObserver : public ChangeObserver {
 public:
  std::string changeCommits(const Requester&, const StoreChange& wanted,
                            const Variable& variable) override {
    return AppConfig::formatKey(wanted.key) + " was " + variable.value().front() + ": 0 at ";
  }
  void changeCommitted(const std::string& record, std::uint64_t revision) override {
    records.push_back(record + std::to_string(revision));
  }
  void changeEnds(const Requester&, const StoreChange& wanted, const Variable* variable,
                  const ChangeOutcome& outcome) override {
    records.push_back(AppConfig::formatKey(wanted.key) + " was " +
                      (variable == nullptr ? "nothing" : variable->value().front()) + ": " +
                      std::to_string(outcome.code) + (outcome.unchanged ? " unchanged" : ""));
  }
  std::vector<std::string> records;
};

TEST_F(ChangesTest, AnObserverIsToldOfEachChangeOnceWithTheVariableAsItWas) {
  RecordingObserver observer;
  changes_ = std::make_unique<Changes>(model_, subscriptions_, announcer_, host_, log_,
                                       ChangesOptions{}, &observer);
  written("net.mtu", "1400");
  written("net.mtu", "1300");
  write("net.mtu", "1300");
  write("net.mtu", "1");
  write("net.serial", "x");
  write("net.admin", "y");
  write("net.missing", "z");
  write("net.name", "lost");
  host_.failCommit();
  validate(writer(), "net.mtu", {"1400"});
  EXPECT_THAT(
      observer.records,
      ElementsAre("net.mtu was 1500: 0 at 101", "net.mtu was 1400: 0 at 102",
                  "net.mtu was 1300: 0 unchanged", "net.mtu was 1300: 4", "net.serial was 1234: 6",
                  "net.admin was x: 3", "net.missing was nothing: 2", "net.name was gateway: 12"));
}

TEST_F(ChangesTest, AChangedRoleIsToldTogetherWithTheOtherAsItStands) {
  registerFor(kWriter, ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED, "net.mtu", eRolePublic);
  submit(writer(eRoleInstaller), {keyOf("net.mtu"), StoreChange::SetAccess{{}, eRoleInstaller}});
  host_.finishCommit();
  EXPECT_THAT(host_.notices, ElementsAre("access 1/link net.mtu read 10 write 40"));
}

TEST_F(ChangesTest, WhoMayReadOnlyNowIsToldTheValue) {
  registerFor(kProvider, ConfigIF::CALLBACK_VALUE_CHANGED, "net.secret", eRoleUser);
  registerFor(kSecondProvider, ConfigIF::CALLBACK_VALUE_CHANGED, "net.secret", eRoleFactory);
  submit(writer(eRoleFactory), {keyOf("net.secret"), StoreChange::SetAccess{eRoleUser, {}}});
  host_.finishCommit();
  EXPECT_THAT(host_.notices, ElementsAre("value 2/link net.secret = hidden (default)"));
}

TEST_F(ChangesTest, WhoMayWriteButNotReadCannotGiveThemselvesTheRightToRead) {
  const Changed attempt =
      submit(writer(eRoleUser), {keyOf("net.secret"), StoreChange::SetAccess{eRoleUser, {}}});
  EXPECT_EQ(attempt->error(), eErrDenied);
}

TEST_F(ChangesTest, NobodyCanDemandARoleAboveTheirOwn) {
  const Changed attempt =
      submit(writer(eRoleUser), {keyOf("net.mtu"), StoreChange::SetAccess{{}, eRoleInstaller}});
  EXPECT_EQ(attempt->error(), eErrDenied);
}

// The role that is asked for too much would lead astray: with a lower one it is refused all the same.
TEST_F(ChangesTest, WhoMayNotChangeRolesAtAllIsToldThatBeforeWhichRoleIsTooHigh) {
  const auto change =
      submit(writer(eRoleUser), {keyOf("net.secret"), StoreChange::SetAccess{eRoleFactory, {}}});
  EXPECT_EQ(change->error(), eErrDenied);
  EXPECT_THAT(change->text(), HasSubstr("changing who may use it needs the role factory"));
}

TEST_F(ChangesTest, ResetAttributesGoBackToTheDefinitionAndAreTold) {
  submit(writer(), {keyOf("net.mode"), StoreChange::SetOptions{{{"off", "auto"}}, 1}});
  host_.finishCommit();
  registerFor(kWriter, ConfigIF::CALLBACK_OPTIONS_CHANGED, "net.mode");
  registerFor(kWriter, ConfigIF::CALLBACK_ATTRIBUTE_CHANGED, "net.mode");
  const Changed attempt = submit(writer(), {keyOf("net.mode"), StoreChange::ResetAttributes{}});
  host_.finishCommit();
  EXPECT_EQ(attempt->error(), eErrNone);
  EXPECT_THAT(host_.notices,
              ElementsAre("options 1/link net.mode = auto manual [0]", "AttributeChangedNtfy 1"));
  EXPECT_TRUE(submit(writer(), {keyOf("net.mode"), StoreChange::ResetAttributes{}})->unchanged());
}

// --- What the store remembers and the definitions do not allow ---

// What a service that starts from what was stored, and from what is being committed, has.
class LeftOutTest : public ChangesTest {
 protected:
  void startWith(StoredVariable stored) {
    stored_ = std::make_unique<StoredVariable>(std::move(stored));
    model_.restore({*stored_}, 1);
  }
  const Variable& afterRestart(const std::string& key) {
    for (const StoreChange& change : host_.commits.front().first)
      applyChange(change, 101, stored_.get());
    host_.finishCommit();
    restarted_ = std::make_unique<Model>(definitions());
    restarted_->restore({*stored_}, 101);
    return *restarted_->find(keyOf(key));
  }
  static StoredVariable modeWith(std::vector<std::string> options, std::uint32_t index) {
    StoredVariable stored(keyOf("net.mode"));
    stored.options = std::move(options);
    stored.defaultIndex = index;
    return stored;
  }

 private:
  std::unique_ptr<StoredVariable> stored_;
  std::unique_ptr<Model> restarted_;
};

TEST_F(LeftOutTest, OptionsThatAreSetAreNotLostToAnIndexThatWasLeftOut) {
  startWith(modeWith({"x", "y", "z"}, 2));
  submit(writer(), {keyOf("net.mode"), StoreChange::SetOptions{{{"auto", "off"}}, {}}});
  const Variable& mode = afterRestart("net.mode");
  EXPECT_THAT(mode.options(), ElementsAre("auto", "off"));
  EXPECT_EQ(mode.defaultIndex(), 0u);
}

TEST_F(LeftOutTest, AnIndexThatIsSetIsNotLostToOptionsThatWereLeftOut) {
  startWith(modeWith({"x", "y", "z"}, 2));
  submit(writer(), {keyOf("net.mode"), StoreChange::SetOptions{{}, 1}});
  const Variable& mode = afterRestart("net.mode");
  EXPECT_THAT(mode.options(), ElementsAre("auto", "manual"));
  EXPECT_EQ(mode.defaultIndex(), 1u);
}

TEST_F(LeftOutTest, AValueThatWasLeftOutDoesNotComeBackWithOptionsThatAllowIt) {
  StoredVariable stored(keyOf("net.mode"));
  stored.value = {"off"};
  startWith(std::move(stored));
  submit(writer(), {keyOf("net.mode"), StoreChange::SetOptions{{{"auto", "off"}}, 0}});
  EXPECT_EQ(afterRestart("net.mode").value(), (std::list<std::string>{"auto"}));
}

TEST_F(LeftOutTest, OptionsThatWereLeftOutDoNotComeBackWithAValueThatIsOneOfThem) {
  startWith(modeWith({"manual", "off"}, 0));
  write("net.mode", "manual");
  const Variable& mode = afterRestart("net.mode");
  EXPECT_THAT(mode.options(), ElementsAre("auto", "manual"));
  EXPECT_EQ(mode.value(), (std::list<std::string>{"manual"}));
}

TEST_F(LeftOutTest, TheDefaultIsWrittenOverAValueThatWasLeftOut) {
  StoredVariable stored(keyOf("net.mtu"));
  stored.value = {"70000"};
  startWith(std::move(stored));
  const Changed attempt = write("net.mtu", "1500");
  EXPECT_FALSE(afterRestart("net.mtu").hasLeftOutValue());
  EXPECT_EQ(attempt->error(), eErrNone);
  EXPECT_TRUE(write("net.mtu", "1500")->unchanged());
}

TEST_F(LeftOutTest, AResetEndsAValueThatWasLeftOut) {
  StoredVariable stored(keyOf("net.mtu"));
  stored.value = {"70000"};
  startWith(std::move(stored));
  submit(writer(), {keyOf("net.mtu"), StoreChange::ResetValue{}});
  EXPECT_FALSE(afterRestart("net.mtu").hasLeftOutValue());
}

TEST_F(LeftOutTest, ResetAttributesEndOptionsThatWereLeftOut) {
  startWith(modeWith({"x", "y", "z"}, 2));
  submit(writer(), {keyOf("net.mode"), StoreChange::ResetAttributes{}});
  EXPECT_FALSE(afterRestart("net.mode").hasLeftOutOptions());
  EXPECT_TRUE(submit(writer(), {keyOf("net.mode"), StoreChange::ResetAttributes{}})->unchanged());
}

TEST_F(LeftOutTest, AChangeOfRolesLeavesWhatWasLeftOutForTheDefinitionsToComeBack) {
  startWith(modeWith({"x", "y", "z"}, 2));
  submit(writer(eRoleInstaller), {keyOf("net.mode"), StoreChange::SetAccess{{}, eRoleInstaller}});
  EXPECT_TRUE(afterRestart("net.mode").hasLeftOutOptions());
}

// Definitions may move their own index later.
TEST_F(LeftOutTest, OptionsAreStoredWithTheDefaultIndexThatWasTheirs) {
  startWith(StoredVariable(keyOf("net.mode")));
  submit(writer(), {keyOf("net.mode"), StoreChange::SetOptions{{{"auto"}}, {}}});
  const StoreChange stored = host_.commits.front().first.front();
  EXPECT_EQ(std::get<StoreChange::SetOptions>(stored.what).defaultIndex, 0u);
}

// --- Stopping ---

TEST_F(ChangesTest, AStopFailsWhatWaitsAndLetsCommitsEnd) {
  provide(kProvider, "net.name");
  const Changed committing = write("net.mtu", "1400");
  const Changed waiting = write("net.mtu", "1300");
  const Changed asking = write("net.name", "x");
  changes_->stop();
  EXPECT_EQ(waiting->error(), eErrUnavailable);
  EXPECT_EQ(asking->error(), eErrUnavailable);
  EXPECT_EQ(changes_->underWay(), 1u);
  host_.finishCommit();
  EXPECT_EQ(committing->error(), eErrNone);
  EXPECT_EQ(changes_->underWay(), 0u);
  EXPECT_EQ(write("net.mtu", "1200")->error(), eErrUnavailable);
}

TEST_F(ChangesTest, EachStateOfAChangeIsLoggedInDetail) {
  written("net.mtu", "1400");
  EXPECT_THAT(lines_, Contains(HasSubstr("change 1 of net.mtu by writer: committing -> ended")));
}

TEST_F(ChangesTest, NoLineQuotesAValue) {
  provide(kProvider, "net.name");
  write("net.name", "hunter2");
  agree();
  questionEnds(true);
  EXPECT_THAT(lines_, Not(Contains(HasSubstr("hunter2"))));
}

}  // namespace
}  // namespace ConfigSrv
