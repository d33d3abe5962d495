#include "configsrv/model/model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/definition_builder.h"

namespace ConfigSrv {
namespace {

using AppConfig::eRoleFactory;
using AppConfig::eRolePublic;
using AppConfig::eRoleUser;
using AppConfig::formatKey;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::defined;
using TestSupport::keyOf;

Definitions network() {
  return Definitions({
      defined("net.mtu").ofType(ValueType::Int).between(68, 9000).withDefault({"1500"}),
      defined("net.name").withDefault({"gateway"}),
      defined("net.eth[1].mtu").ofType(ValueType::Int).withDefault({"1400"}),
      defined("net.eth[2].mtu").ofType(ValueType::Int).withDefault({"1300"}),
      defined("net-x.y").withDefault({"between net and net. in byte order"}),
      defined("network.mtu").withDefault({"another group"}),
      defined("3:net.mtu").withDefault({"of a namespace"}),
      defined("net.mode")
          .ofType(ValueType::Enumeration)
          .withDefault({"auto"})
          .withOptions({"auto", "manual"}, 0),
  });
}

std::vector<std::string> keysOf(const std::vector<const Variable*>& variables) {
  std::vector<std::string> keys;
  keys.reserve(variables.size());
  for (const Variable* variable : variables) keys.push_back(formatKey(variable->key()));
  return keys;
}

StoreChange setValue(const std::string& key, std::list<std::string> value) {
  return {keyOf(key), StoreChange::SetValue{std::move(value)}};
}

class ModelTest : public testing::Test {
 protected:
  const Variable& variable(const std::string& key) { return *model_.find(keyOf(key)); }

  Model model_{network()};
};

TEST_F(ModelTest, AVariableIsFoundByItsExactKey) {
  EXPECT_EQ(variable("net.eth[2].mtu").value(), (std::list<std::string>{"1300"}));
  EXPECT_EQ(variable("3:net.mtu").value(), (std::list<std::string>{"of a namespace"}));
}

TEST_F(ModelTest, AnotherInstanceNamespaceOrNameIsNotFound) {
  for (const char* key : {"net.eth[3].mtu", "net.mtu[1]", "2:net.mtu", "net.mt", "ne.mtu"})
    EXPECT_EQ(model_.find(keyOf(key)), nullptr) << key;
  EXPECT_EQ(model_.find(ConfigVar("", 0, "", 0)), nullptr);
}

TEST_F(ModelTest, EveryOneOfManyVariablesIsFound) {
  std::vector<VariableDefinition> many;
  many.reserve(5000);
  for (int i = 0; i < 5000; ++i)
    many.push_back(defined("group" + std::to_string(i % 70) + ".v[" + std::to_string(i) + "]"));
  const Model model((Definitions(many)));
  for (const VariableDefinition& definition : many) {
    const Variable* found = model.find(definition.key);
    ASSERT_NE(found, nullptr) << formatKey(definition.key);
    EXPECT_EQ(formatKey(found->key()), formatKey(definition.key));
  }
}

TEST_F(ModelTest, AnEmptyModelFindsNothing) {
  const Model model{Definitions()};
  EXPECT_EQ(model.find(keyOf("net.mtu")), nullptr);
  EXPECT_THAT(model.covered(""), IsEmpty());
  EXPECT_THAT(model.covered("net"), IsEmpty());
}

TEST_F(ModelTest, AGroupCoversAllBelowItAtDotBoundariesInOrderOfKeys) {
  EXPECT_THAT(keysOf(model_.covered("net")),
              ElementsAre("net.mode", "net.mtu", "net.name", "net.eth[1].mtu", "net.eth[2].mtu",
                          "3:net.mtu"));
}

TEST_F(ModelTest, AFullNameCoversTheVariableInEveryNamespace) {
  EXPECT_THAT(keysOf(model_.covered("net.mtu")), ElementsAre("net.mtu", "3:net.mtu"));
}

TEST_F(ModelTest, AFullNameCoversEveryInstance) {
  EXPECT_THAT(keysOf(model_.covered("net.eth.mtu")),
              ElementsAre("net.eth[1].mtu", "net.eth[2].mtu"));
}

TEST_F(ModelTest, AnEmptyNameCoversEverything) {
  EXPECT_EQ(model_.covered("").size(), model_.size());
}

TEST_F(ModelTest, ANameThatEndsInsideAStepCoversNothing) {
  for (const char* name : {"ne", "net.", "net.m", "net.mtu.", "net.eth.mtu.x", "zzz", "a"})
    EXPECT_THAT(model_.covered(name), IsEmpty()) << name;
}

TEST_F(ModelTest, AnUnchangedVariableIsAsItsDefinitionSays) {
  const Variable& mode = variable("net.mode");
  EXPECT_EQ(mode.value(), (std::list<std::string>{"auto"}));
  EXPECT_TRUE(mode.isDefault());
  EXPECT_THAT(mode.options(), ElementsAre("auto", "manual"));
  EXPECT_EQ(mode.defaultIndex(), 0u);
  EXPECT_EQ(mode.readRole(), eRolePublic);
  EXPECT_EQ(mode.writeRole(), eRoleUser);
  EXPECT_EQ(mode.changedAt(), 0u);
}

TEST_F(ModelTest, AnAppliedValueIsReadWithItsRevision) {
  model_.apply(setValue("net.mtu", {"9000"}), 7);
  EXPECT_EQ(variable("net.mtu").value(), (std::list<std::string>{"9000"}));
  EXPECT_FALSE(variable("net.mtu").isDefault());
  EXPECT_EQ(variable("net.mtu").valueChangedAt(), 7u);
  EXPECT_EQ(variable("net.mtu").optionsChangedAt(), 0u);
  EXPECT_EQ(model_.revision(), 7u);
}

TEST_F(ModelTest, AValueEqualToTheDefaultIsTheDefault) {
  model_.apply(setValue("net.mtu", {"1500"}), 7);
  EXPECT_TRUE(variable("net.mtu").isDefault());
  EXPECT_EQ(model_.changedVariables(), 0u);
}

TEST_F(ModelTest, AnIntThatMeansTheDefaultIsTheDefaultAndKeepsItsText) {
  model_.apply(setValue("net.mtu", {"0x5dc"}), 7);
  EXPECT_TRUE(variable("net.mtu").isDefault());
  EXPECT_FALSE(variable("net.mtu").hasDefaultText());
  EXPECT_EQ(variable("net.mtu").value(), (std::list<std::string>{"0x5dc"}));
  EXPECT_EQ(model_.changedVariables(), 0u);
}

TEST_F(ModelTest, AResetValueIsTheDefaultAndKeepsItsRevision) {
  model_.apply(setValue("net.mtu", {"9000"}), 7);
  model_.apply({keyOf("net.mtu"), StoreChange::ResetValue{}}, 8);
  EXPECT_EQ(variable("net.mtu").value(), (std::list<std::string>{"1500"}));
  EXPECT_TRUE(variable("net.mtu").isDefault());
  EXPECT_EQ(variable("net.mtu").changedAt(), 8u);
}

TEST_F(ModelTest, ChangedVariablesAreCounted) {
  model_.apply(setValue("net.mtu", {"9000"}), 1);
  model_.apply(setValue("net.mtu", {"8000"}), 2);
  model_.apply(setValue("net.name", {"x"}), 3);
  EXPECT_EQ(model_.changedVariables(), 2u);
  model_.apply({keyOf("net.mtu"), StoreChange::ResetValue{}}, 4);
  EXPECT_EQ(model_.changedVariables(), 1u);
}

TEST_F(ModelTest, ChangedOptionsAndRolesReplaceThoseOfTheDefinition) {
  model_.apply({keyOf("net.mode"), StoreChange::SetOptions{{{"auto", "off"}}, 1}}, 3);
  model_.apply({keyOf("net.mode"), StoreChange::SetAccess{eRoleFactory, {}}}, 4);
  const Variable& mode = variable("net.mode");
  EXPECT_THAT(mode.options(), ElementsAre("auto", "off"));
  EXPECT_EQ(mode.defaultIndex(), 1u);
  EXPECT_EQ(mode.readRole(), eRoleFactory);
  EXPECT_EQ(mode.writeRole(), eRoleUser);
  EXPECT_EQ(mode.optionsChangedAt(), 3u);
  EXPECT_EQ(mode.accessChangedAt(), 4u);
  EXPECT_EQ(mode.changedAt(), 4u);
}

TEST_F(ModelTest, WhatTheStoreRemembersIsRestored) {
  StoredVariable stored(keyOf("net.mtu"));
  stored.value = {"9000"};
  stored.valueChangedAt = 5;
  EXPECT_THAT(model_.restore({stored}, 11), IsEmpty());
  EXPECT_EQ(variable("net.mtu").value(), (std::list<std::string>{"9000"}));
  EXPECT_EQ(variable("net.mtu").valueChangedAt(), 5u);
  EXPECT_EQ(model_.revision(), 11u);
  EXPECT_EQ(model_.changedVariables(), 1u);
}

TEST_F(ModelTest, AStoredValueThatTheDefinitionNoLongerAllowsIsLeftOutAndReported) {
  StoredVariable stored(keyOf("net.mtu"));
  stored.value = {"70000"};
  stored.valueChangedAt = 5;
  EXPECT_THAT(model_.restore({stored}, 11), ElementsAre(HasSubstr("net.mtu: the stored value")));
  EXPECT_TRUE(variable("net.mtu").isDefault());
  EXPECT_EQ(variable("net.mtu").valueChangedAt(), 5u);
}

TEST_F(ModelTest, AStoredValueOfAVariableThatBecameReadOnlyIsLeftOut) {
  Model model(Definitions({defined("net.serial").withDefault({"1234"}).readOnly()}));
  StoredVariable stored(keyOf("net.serial"));
  stored.value = {"5678"};
  EXPECT_THAT(model.restore({stored}, 1), ElementsAre(HasSubstr("read-only")));
  EXPECT_TRUE(model.find(keyOf("net.serial"))->isDefault());
}

TEST_F(ModelTest, StoredOptionsThatNoLongerFitAreLeftOutWithTheValueThatNeedsThem) {
  StoredVariable stored(keyOf("net.mode"));
  stored.options = std::vector<std::string>{};
  stored.value = {"other"};
  EXPECT_THAT(model_.restore({stored}, 1),
              ElementsAre(HasSubstr("option list"), HasSubstr("stored value")));
  EXPECT_THAT(variable("net.mode").options(), ElementsAre("auto", "manual"));
  EXPECT_TRUE(variable("net.mode").isDefault());
}

// A new default came with new definitions, and the options were set before.
TEST_F(ModelTest, StoredOptionsWithoutTheDefaultAreLeftOutWhenNoValueIsStored) {
  StoredVariable stored(keyOf("net.mode"));
  stored.options = {"manual", "off"};
  EXPECT_THAT(model_.restore({stored}, 1),
              ElementsAre("net.mode: the stored option list is not used: the default is none of "
                          "the options"));
  EXPECT_THAT(variable("net.mode").options(), ElementsAre("auto", "manual"));
  EXPECT_EQ(variable("net.mode").value(), (std::list<std::string>{"auto"}));
}

TEST_F(ModelTest, StoredOptionsWithoutTheDefaultStayWithAStoredValueThatIsOneOfThem) {
  StoredVariable stored(keyOf("net.mode"));
  stored.options = {"manual", "off"};
  stored.value = {"off"};
  EXPECT_THAT(model_.restore({stored}, 1), IsEmpty());
  EXPECT_THAT(variable("net.mode").options(), ElementsAre("manual", "off"));
  EXPECT_EQ(variable("net.mode").value(), (std::list<std::string>{"off"}));
}

TEST_F(ModelTest, StoredOptionsGoWithAStoredValueThatIsNoneOfThemWhenNeitherIsTheDefault) {
  StoredVariable stored(keyOf("net.mode"));
  stored.options = {"off"};
  stored.value = {"manual"};
  EXPECT_THAT(model_.restore({stored}, 1), ElementsAre(HasSubstr("option list")));
  EXPECT_THAT(variable("net.mode").options(), ElementsAre("auto", "manual"));
  EXPECT_EQ(variable("net.mode").value(), (std::list<std::string>{"manual"}));
}

TEST_F(ModelTest, StoredOptionsThatTheDefinitionsIndexIsPastAreLeftOut) {
  Model model(
      Definitions({defined("net.mode").withDefault({"b"}).withOptions({"a", "b", "c"}, 2)}));
  StoredVariable stored(keyOf("net.mode"));
  stored.options = {"a", "b"};
  EXPECT_THAT(model.restore({stored}, 1), ElementsAre(HasSubstr("index is past the options")));
  EXPECT_EQ(model.find(keyOf("net.mode"))->options().size(), 3u);
}

TEST_F(ModelTest, WhatWasLeftOutIsKnownUntilAChangeMakesTheStoreForgetIt) {
  StoredVariable stored(keyOf("net.mode"));
  stored.options = {"off"};
  stored.value = {"other"};
  model_.restore({stored}, 1);
  EXPECT_TRUE(variable("net.mode").hasLeftOutOptions());
  EXPECT_TRUE(variable("net.mode").hasLeftOutValue());
  model_.apply({keyOf("net.mode"), StoreChange::SetAccess{eRoleUser, {}}}, 2);
  EXPECT_TRUE(variable("net.mode").hasLeftOutOptions());
  model_.apply({keyOf("net.mode"), StoreChange::SetValue{{"manual"}}, {true, true}}, 3);
  EXPECT_FALSE(variable("net.mode").hasLeftOutOptions());
  EXPECT_FALSE(variable("net.mode").hasLeftOutValue());
  EXPECT_FALSE(variable("net.mtu").hasLeftOutValue());
}

TEST_F(ModelTest, AStoredNumberThatIsNoRoleIsLeftOut) {
  StoredVariable stored(keyOf("net.mode"));
  stored.readRole = 17;
  stored.writeRole = eRoleFactory;
  EXPECT_THAT(model_.restore({stored}, 1), ElementsAre(HasSubstr("17 is no role")));
  EXPECT_EQ(variable("net.mode").readRole(), eRolePublic);
  EXPECT_EQ(variable("net.mode").writeRole(), eRoleFactory);
}

TEST_F(ModelTest, AChangeIsGivenTheRowAsItStandsInTheStore) {
  const StoreChange options{keyOf("net.mode"), StoreChange::SetOptions{{{"auto", "off"}}, 0}};
  EXPECT_FALSE(variable("net.mode").rowBefore(options)->exists);
  model_.apply(setValue("net.mode", {"manual"}), 4);
  const std::optional<StoreChange::Row> row = variable("net.mode").rowBefore(options);
  ASSERT_TRUE(row);
  StoredVariable expected(keyOf("net.mode"));
  expected.value = {"manual"};
  expected.valueChangedAt = 4;
  EXPECT_TRUE(row->exists);
  EXPECT_EQ(row->content, expected);
  EXPECT_NE(row->digest, 0U);
}

// Only the store has what was left out, and a change of something else must not lose it.
TEST_F(ModelTest, ARowOfWhichAnythingWasLeftOutIsLeftToTheStore) {
  StoredVariable value(keyOf("net.mtu"));
  value.value = {"no number"};
  StoredVariable options(keyOf("net.mode"));
  options.options = {"off"};
  StoredVariable role(keyOf("net.name"));
  role.writeRole = 17;
  model_.restore({value, options, role}, 1);
  for (const char* key : {"net.mtu", "net.mode", "net.name"})
    EXPECT_FALSE(variable(key).rowBefore({keyOf(key), StoreChange::ResetAttributes{}})) << key;
  model_.apply({keyOf("net.mtu"), StoreChange::SetValue{{"1400"}}, {true, false}}, 2);
  EXPECT_TRUE(variable("net.mtu").rowBefore({keyOf("net.mtu"), StoreChange::ResetValue{}}));
}

TEST_F(ModelTest, StoredVariablesWithoutADefinitionAreReportedTogether) {
  EXPECT_THAT(model_.restore({StoredVariable(keyOf("a.b")), StoredVariable(keyOf("a.c"))}, 1),
              ElementsAre(AllOf(HasSubstr("2 stored variables have no definition"),
                                HasSubstr("a.b, a.c"))));
}

TEST_F(ModelTest, PositionsFollowTheOrderOfTheKeys) {
  const std::vector<const Variable*> all = model_.covered("");
  for (std::uint32_t i = 0; i < all.size(); ++i) EXPECT_EQ(model_.indexOf(*all[i]), i);
}

// Those of the one, sorted, are those of the other.
TEST_F(ModelTest, AWalkBelowANameVisitsExactlyWhatItCovers) {
  for (const char* name :
       {"", "net", "net.mtu", "net.eth", "net.eth.mtu", "ne", "net.", "unknown"}) {
    std::vector<const Variable*> walked;
    const CoveredVariables below = model_.below(name);
    for (std::size_t i = 0; i < below.size(); ++i) walked.push_back(&below[i]);
    std::sort(walked.begin(), walked.end());
    EXPECT_EQ(walked, model_.covered(name)) << name;
  }
}

TEST_F(ModelTest, AVariableIsFoundByItsWholeNameAlone) {
  ASSERT_NE(model_.named("net.mtu"), nullptr);
  EXPECT_EQ(model_.named("net.mtu"), model_.covered("net.mtu").front());
  EXPECT_EQ(model_.named("net"), nullptr);
  EXPECT_EQ(model_.named(""), nullptr);
  EXPECT_EQ(model_.named("net.mt"), nullptr);
}

}  // namespace
}  // namespace ConfigSrv
