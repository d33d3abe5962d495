#include "configsrv/changes/announcer.h"

#include "platform/messaging/wire/frame.h"
#include "tests/configsrv/changes/changes_fixture.h"

namespace ConfigSrv {
namespace {

using AppConfig::eRoleFactory;
using AppConfig::eRoleUser;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::keyOf;

class AnnouncerTest : public ChangesFixture {
 protected:
  void bringUpToDate(ConfigIF::CallbackType type, const std::string& name, std::uint64_t known,
                     AppConfig::SecurityRole role = eRoleUser) {
    for (const Variable* variable : model_.covered(name))
      announcer_.bringUpToDate(kWriter, {name, type, "link", "client", role}, *variable, known);
  }
};

TEST_F(AnnouncerTest, ARegistrationThatKnowsEverythingIsToldNothing) {
  written("net.mtu", "1400");
  bringUpToDate(ConfigIF::CALLBACK_VALUE_CHANGED, "net", PbUtility::kRevisionNow);
  bringUpToDate(ConfigIF::CALLBACK_VALUE_CHANGED, "net", 101);
  EXPECT_THAT(host_.notices, IsEmpty());
}

TEST_F(AnnouncerTest, ARegistrationIsToldWhatChangedAfterTheRevisionItKnows) {
  written("net.mtu", "1400");
  written("net.name", "x");
  bringUpToDate(ConfigIF::CALLBACK_VALUE_CHANGED, "net", 101);
  EXPECT_THAT(host_.notices, ElementsAre("value 1/link net.name = x"));
}

TEST_F(AnnouncerTest, ARegistrationThatKnowsTheVeryFirstRevisionIsToldWhatChangedSinceAlone) {
  written("net.mtu", "1400");
  bringUpToDate(ConfigIF::CALLBACK_VALUE_CHANGED, "net", 0);
  EXPECT_THAT(host_.notices, ElementsAre("value 1/link net.mtu = 1400"));
}

TEST_F(AnnouncerTest, ARegistrationThatKnowsNothingIsToldEverythingItMayRead) {
  written("net.mtu", "1400");
  bringUpToDate(ConfigIF::CALLBACK_VALUE_CHANGED, "net", PbUtility::kRevisionNone);
  EXPECT_THAT(
      host_.notices,
      ElementsAre("value 1/link net.admin = x (default)", "value 1/link net.mode = auto (default)",
                  "value 1/link net.mtu = 1400", "value 1/link net.name = gateway (default)",
                  "value 1/link net.serial = 1234 (default)"));
}

TEST_F(AnnouncerTest, AProvidersRegistrationIsToldValuesToo) {
  written("net.mtu", "1400");
  bringUpToDate(ConfigIF::CALLBACK_ON_CHANGE, "net.mtu", 100);
  bringUpToDate(ConfigIF::CALLBACK_DYNAMIC_VALIDATE, "net.mtu", 100);
  EXPECT_THAT(host_.notices,
              ElementsAre("value 1/link net.mtu = 1400", "value 1/link net.mtu = 1400"));
  EXPECT_EQ(host_.coalescingKeys[0], host_.coalescingKeys[1]);
}

TEST_F(AnnouncerTest, OptionsAndAccessLevelsAreToldToTheirOwnRegistrations) {
  submit(writer(), {keyOf("net.mode"), StoreChange::SetOptions{{{"auto"}}, {}}});
  host_.finishCommit();
  submit(writer(eRoleFactory), {keyOf("net.mtu"), StoreChange::SetAccess{eRoleUser, {}}});
  host_.finishCommit();
  bringUpToDate(ConfigIF::CALLBACK_OPTIONS_CHANGED, "net.mode", 100);
  bringUpToDate(ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED, "net.mtu", 100);
  bringUpToDate(ConfigIF::CALLBACK_SUBMIT, "net", PbUtility::kRevisionNone);
  bringUpToDate(ConfigIF::CALLBACK_ATTRIBUTE_CHANGED, "net", PbUtility::kRevisionNone);
  EXPECT_THAT(host_.notices, ElementsAre("options 1/link net.mode = auto [0]",
                                         "access 1/link net.mtu read 20 write 20"));
}

TEST_F(AnnouncerTest, AVariableThatBecameReadableCountsAsChanged) {
  submit(writer(eRoleFactory), {keyOf("net.secret"), StoreChange::SetAccess{eRoleUser, {}}});
  host_.finishCommit();
  bringUpToDate(ConfigIF::CALLBACK_VALUE_CHANGED, "net.secret", 100);
  EXPECT_THAT(host_.notices, ElementsAre("value 1/link net.secret = hidden (default)"));
}

TEST_F(AnnouncerTest, ARoleThatMayNotReadIsToldNothing) {
  written("net.secret", "x");
  bringUpToDate(ConfigIF::CALLBACK_VALUE_CHANGED, "net.secret", PbUtility::kRevisionNone);
  EXPECT_THAT(host_.notices, IsEmpty());
}

TEST_F(AnnouncerTest, AValueNoticeCarriesIdentityValueAndDefaultFlagAndNoScopeWithoutANamespace) {
  class Keeper : public ScriptedHost {
   public:
    void notify(PbUtility::PeerId, const google::protobuf::MessageLite& notice, const std::string&,
                Knows) override {
      bytes = notice.SerializeAsString();
    }
    std::string bytes;
  } keeper;
  Announcer announcer(model_, subscriptions_, keeper);
  announcer.bringUpToDate(
      kWriter, {"net.mtu", ConfigIF::CALLBACK_VALUE_CHANGED, "link", "client", eRoleUser},
      *model_.find(keyOf("net.mtu")), PbUtility::kRevisionNone);
  ConfigIF::ConfigChangedNtfy expected;
  expected.set_callback_identity("link");
  for (const char* step : {"net", "mtu"}) {
    ConfigIF::Node* node = expected.mutable_value()->mutable_inst()->add_path();
    node->set_name(step);
    node->set_instance(0);
  }
  expected.mutable_value()->add_values("1500");
  expected.set_is_default(true);
  EXPECT_EQ(keeper.bytes, expected.SerializeAsString());
}

TEST_F(AnnouncerTest, NoticesOfDifferentKindsIdentitiesOrVariablesDoNotReplaceEachOther) {
  registerFor(kWriter, ConfigIF::CALLBACK_VALUE_CHANGED, "net", eRoleFactory, "one");
  registerFor(kWriter, ConfigIF::CALLBACK_VALUE_CHANGED, "net", eRoleFactory, "two");
  registerFor(kWriter, ConfigIF::CALLBACK_OPTIONS_CHANGED, "net", eRoleFactory, "one");
  announcer_.valueChanged(variable("net.mtu"));
  announcer_.valueChanged(variable("net.name"));
  announcer_.optionsChanged(variable("net.mtu"));
  const std::set<std::string> different(host_.coalescingKeys.begin(), host_.coalescingKeys.end());
  EXPECT_EQ(different.size(), 5u);
}

// An identity is the client's own, and may begin with a digit.
TEST_F(AnnouncerTest, NorDoThoseWhoseVariablesNumberReadsOnIntoTheIdentity) {
  using TestSupport::defined;
  const Model model(Definitions({defined("v.00"), defined("v.01"), defined("v.02"), defined("v.03"),
                                 defined("v.04"), defined("v.05"), defined("v.06"), defined("v.07"),
                                 defined("v.08"), defined("v.09"), defined("v.10")}));
  Announcer announcer(model, subscriptions_, host_);
  const auto tell = [&](const std::string& name, const std::string& identity) {
    announcer.bringUpToDate(kWriter,
                            {name, ConfigIF::CALLBACK_VALUE_CHANGED, identity, "client", eRoleUser},
                            *model.find(keyOf(name)), PbUtility::kRevisionNone);
  };
  tell("v.01", "0");
  tell("v.10", "");
  ASSERT_EQ(host_.coalescingKeys.size(), 2U);
  EXPECT_NE(host_.coalescingKeys[0], host_.coalescingKeys[1]);
}

TEST_F(AnnouncerTest, EachSubmitIsToldAndNoneReplacesAnother) {
  registerFor(kWriter, ConfigIF::CALLBACK_SUBMIT, "net");
  announcer_.submitted(variable("net.mtu"), ConfigIF::SUBMIT_APPLY);
  announcer_.submitted(variable("net.mtu"), ConfigIF::SUBMIT_DISCARD);
  EXPECT_THAT(host_.notices, ElementsAre("SubmitNtfy 1", "SubmitNtfy 1"));
  EXPECT_THAT(host_.coalescingKeys, ElementsAre("", ""));
}

}  // namespace
}  // namespace ConfigSrv
