#include "appconfig/cache/config_value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace AppConfig {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(!std::is_polymorphic_v<ConfigValue>);

SecurityRole role(int number) { return static_cast<SecurityRole>(number); }

// The options of a record, with whatever reading them put on standard output.
std::pair<std::vector<std::string>, std::string> optionsAndOutput(const ConfigValue& record) {
  ::testing::internal::CaptureStdout();
  std::vector<std::string> options = record.getOptions();
  return {std::move(options), ::testing::internal::GetCapturedStdout()};
}

TEST(ConfigValueTest, ADefaultRecordKnowsNothing) {
  const ConfigValue record;
  EXPECT_FALSE(record.hasValue());
  EXPECT_FALSE(record.hasAccessLevels());
  EXPECT_FALSE(record.hasOptions());
  EXPECT_FALSE(record.isDefault());
  EXPECT_EQ(record.defaultIndex(), 0u);
  EXPECT_THAT(record.getValue(), IsEmpty());
  EXPECT_EQ(record.readRole(), 0);
  EXPECT_EQ(record.writeRole(), 0);
}

TEST(ConfigValueTest, ADefaultRecordLetsEveryRoleFromZeroOnReadAndWrite) {
  const ConfigValue record;
  EXPECT_TRUE(record.canRead(role(0)));
  EXPECT_TRUE(record.canWrite(role(0)));
  EXPECT_FALSE(record.canRead(role(-1)));
  EXPECT_FALSE(record.canWrite(role(-1)));
}

TEST(ConfigValueTest, AccessLevelsAreKnownOnlyWhenBothRolesAre) {
  ConfigValue record;
  record.readRole(role(3));
  EXPECT_FALSE(record.hasAccessLevels());
  record.writeRole(role(1));
  EXPECT_TRUE(record.hasAccessLevels());
  EXPECT_EQ(record.readRole(), 3);
  EXPECT_EQ(record.writeRole(), 1);
}

TEST(ConfigValueTest, LevelsWithOnlyTheWriteHalfLeaveTheReadRoleAndItsFlag) {
  ConfigValue record;
  record.accessLevels({role(4), role(2), false, true});
  EXPECT_EQ(record.readRole(), 0);
  EXPECT_FALSE(record.accessLevels().readRoleSet);
  EXPECT_EQ(record.writeRole(), 2);
  EXPECT_TRUE(record.accessLevels().writeRoleSet);
  record.readRole(role(3));
  record.accessLevels({role(1), role(1), false, true});
  EXPECT_EQ(record.readRole(), 3);
  EXPECT_TRUE(record.accessLevels().readRoleSet);
  EXPECT_EQ(record.writeRole(), 1);
}

TEST(ConfigValueTest, LevelsWithOnlyTheReadHalfLeaveTheWriteRoleAndItsFlag) {
  ConfigValue record;
  record.accessLevels({role(4), role(2), true, false});
  EXPECT_EQ(record.readRole(), 4);
  EXPECT_TRUE(record.accessLevels().readRoleSet);
  EXPECT_EQ(record.writeRole(), 0);
  EXPECT_FALSE(record.accessLevels().writeRoleSet);
}

TEST(ConfigValueTest, LevelsWithNeitherHalfChangeNothing) {
  ConfigValue record;
  record.accessLevels({role(3), role(2), true, true});
  record.accessLevels({role(1), role(1), false, false});
  const ConfigAccessLevels levels = record.accessLevels();
  EXPECT_EQ(levels.readRole, 3);
  EXPECT_EQ(levels.writeRole, 2);
  EXPECT_TRUE(levels.readRoleSet);
  EXPECT_TRUE(levels.writeRoleSet);
}

TEST(ConfigValueTest, AHigherRoleMayDoWhatALowerOneMay) {
  ConfigValue record;
  record.readRole(role(2));
  record.writeRole(role(3));
  EXPECT_FALSE(record.canRead(role(1)));
  EXPECT_TRUE(record.canRead(role(2)));
  EXPECT_TRUE(record.canRead(role(4)));
  EXPECT_FALSE(record.canWrite(role(2)));
  EXPECT_TRUE(record.canWrite(role(3)));
}

TEST(ConfigValueTest, AddingAnOptionTwiceLeavesOne) {
  ConfigValue record;
  record.addOption("a");
  EXPECT_TRUE(record.hasOptions());
  record.addOption("a");
  EXPECT_THAT(record.getOptions(), ElementsAre("a"));
}

TEST(ConfigValueTest, OptionsThatDifferInCaseAreTwoOptions) {
  ConfigValue record;
  record.addOption("a");
  record.addOption("A");
  EXPECT_THAT(record.getOptions(), ElementsAre("a", "A"));
}

TEST(ConfigValueTest, AddingSeveralOptionsAppendsTheNewOnesInOrder) {
  ConfigValue record;
  record.setOptions({"b"});
  record.addOptions({"c", "b", "a", "c"});
  EXPECT_THAT(record.getOptions(), ElementsAre("b", "c", "a"));
}

TEST(ConfigValueTest, AddingAnEmptyListMakesTheOptionsKnown) {
  ConfigValue record;
  record.addOptions({});
  EXPECT_TRUE(record.hasOptions());
  EXPECT_THAT(optionsAndOutput(record).first, IsEmpty());
}

TEST(ConfigValueTest, StoringAnEmptyOptionListMakesItKnownAndReadingItSaysItIsEmpty) {
  ConfigValue record;
  record.setOptions({});
  EXPECT_TRUE(record.hasOptions());
  const auto [options, output] = optionsAndOutput(record);
  EXPECT_THAT(options, IsEmpty());
  EXPECT_EQ(output, "empty in getOptions\n");
}

TEST(ConfigValueTest, EveryReadOfAnEmptyOptionListSaysSo) {
  const ConfigValue unknown;
  EXPECT_EQ(optionsAndOutput(unknown).second, "empty in getOptions\n");
  EXPECT_EQ(optionsAndOutput(unknown).second, "empty in getOptions\n");
}

TEST(ConfigValueTest, ReadingOptionsThatAreThereSaysNothing) {
  ConfigValue record;
  record.setOptions({"a"});
  EXPECT_EQ(optionsAndOutput(record).second, "");
}

TEST(ConfigValueTest, DuplicatesInAStoredListStay) {
  ConfigValue record;
  const std::vector<std::string> options = {"a", "a"};
  record.setOptions(options);
  EXPECT_THAT(record.getOptions(), ElementsAre("a", "a"));
  record.deleteOption("a");
  EXPECT_THAT(record.getOptions(), ElementsAre("a"));
}

TEST(ConfigValueTest, RemovingTheLastOptionLeavesAKnownEmptyList) {
  ConfigValue record;
  record.setOptions({"a"});
  record.deleteOption("a");
  EXPECT_TRUE(record.hasOptions());
  EXPECT_THAT(optionsAndOutput(record).first, IsEmpty());
}

TEST(ConfigValueTest, RemovingAnAbsentOptionChangesNothing) {
  ConfigValue record;
  record.deleteOption("a");
  EXPECT_FALSE(record.hasOptions());
  record.setOptions({"a", "b", "c"});
  record.deleteOption("B");
  EXPECT_THAT(record.getOptions(), ElementsAre("a", "b", "c"));
}

TEST(ConfigValueTest, RemovingAnOptionMovesTheLaterOnesForward) {
  ConfigValue record;
  record.setOptions({"a", "b", "c"});
  record.deleteOption("b");
  EXPECT_THAT(record.getOptions(), ElementsAre("a", "c"));
}

TEST(ConfigValueTest, ADefaultIndexPastTheEndOutlivesEveryOptionOperation) {
  ConfigValue record;
  record.setOptions({"a", "b"});
  record.defaultIndex(5);
  record.setOptions({"c", "d"});
  EXPECT_EQ(record.defaultIndex(), 5u);
  record.deleteOption("c");
  EXPECT_EQ(record.defaultIndex(), 5u);
  record.addOptions({"e"});
  EXPECT_EQ(record.defaultIndex(), 5u);
  record.clearOptions();
  EXPECT_EQ(record.defaultIndex(), 5u);
}

TEST(ConfigValueTest, ClearingTheOptionsMakesThemUnknown) {
  ConfigValue record;
  record.setOptions({"a"});
  record.clearOptions();
  EXPECT_FALSE(record.hasOptions());
  EXPECT_THAT(optionsAndOutput(record).first, IsEmpty());
}

TEST(ConfigValueTest, StoringAnEmptyValueMakesItUnknown) {
  ConfigValue record;
  record.setValue({"1500"});
  EXPECT_TRUE(record.hasValue());
  EXPECT_EQ(record.getSinglestringValue(), "1500");
  record.setValue({});
  EXPECT_FALSE(record.hasValue());
  EXPECT_EQ(record.getSinglestringValue(), "");
}

TEST(ConfigValueTest, AnEmptyStringIsAValue) {
  ConfigValue record;
  record.setValue({""});
  EXPECT_TRUE(record.hasValue());
  EXPECT_EQ(record.getSinglestringValue(), "");
}

TEST(ConfigValueTest, TheSingleStringIsTheFirstOfAList) {
  ConfigValue record;
  const std::list<std::string> value = {"first", "second"};
  record.setValue(value);
  EXPECT_EQ(record.getSinglestringValue(), "first");
  EXPECT_THAT(record.getValue(), ElementsAre("first", "second"));
}

TEST(ConfigValueTest, StoringAValueLeavesTheDefaultFlagAsItWas) {
  ConfigValue record;
  record.isDefault(true);
  record.setValue({"1500"});
  EXPECT_TRUE(record.isDefault());
  record.isDefault(false);
  const std::list<std::string> value = {"9000"};
  record.setValue(value);
  EXPECT_FALSE(record.isDefault());
}

TEST(ConfigValueTest, ACopyTakesEveryField) {
  ConfigValue record;
  record.setValue({"x", "y"});
  record.accessLevels({role(1), role(2), true, true});
  record.setOptions({"x", "y"});
  record.isDefault(true);
  record.defaultIndex(1);
  ConfigValue assigned;
  assigned = record;
  for (const ConfigValue& copy : {ConfigValue(record), assigned}) {
    EXPECT_THAT(copy.getValue(), ElementsAre("x", "y"));
    EXPECT_TRUE(copy.hasAccessLevels());
    EXPECT_EQ(copy.readRole(), 1);
    EXPECT_EQ(copy.writeRole(), 2);
    EXPECT_TRUE(copy.hasOptions());
    EXPECT_THAT(copy.getOptions(), ElementsAre("x", "y"));
    EXPECT_TRUE(copy.isDefault());
    EXPECT_EQ(copy.defaultIndex(), 1u);
  }
}

}  // namespace
}  // namespace AppConfig
