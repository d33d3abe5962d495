#include "configsrv/store/stored_variable.h"

#include <gtest/gtest.h>

namespace ConfigSrv {
namespace {

const ConfigVar kKey("group", 0, "name", 0);

// Everything set, at revisions 1, 2 and 3.
StoredVariable full() {
  StoredVariable variable(kKey);
  variable.value = {"a"};
  variable.options = {"a", "b"};
  variable.defaultIndex = 1;
  variable.readRole = 2;
  variable.writeRole = 4;
  variable.valueChangedAt = 1;
  variable.optionsChangedAt = 2;
  variable.accessChangedAt = 3;
  return variable;
}

template <typename What>
StoredVariable after(What what) {
  StoredVariable variable = full();
  applyChange({kKey, std::move(what)}, 9, &variable);
  return variable;
}

TEST(StoredVariableTest, AValueIsSetAndItsRevisionWithIt) {
  StoredVariable expected = full();
  expected.value = {"x", "y"};
  expected.valueChangedAt = 9;
  EXPECT_EQ(after(StoreChange::SetValue{{"x", "y"}}), expected);
}

TEST(StoredVariableTest, AResetValueIsAbsentAndKeepsARevision) {
  StoredVariable expected = full();
  expected.value.reset();
  expected.valueChangedAt = 9;
  EXPECT_EQ(after(StoreChange::ResetValue{}), expected);
}

TEST(StoredVariableTest, OptionsAloneLeaveTheDefaultIndex) {
  StoredVariable expected = full();
  expected.options = {"z"};
  expected.optionsChangedAt = 9;
  EXPECT_EQ(after(StoreChange::SetOptions{{{"z"}}, {}}), expected);
}

TEST(StoredVariableTest, ADefaultIndexAloneLeavesTheOptions) {
  StoredVariable expected = full();
  expected.defaultIndex = 0;
  expected.optionsChangedAt = 9;
  EXPECT_EQ(after(StoreChange::SetOptions{{}, 0}), expected);
}

TEST(StoredVariableTest, OneRoleLeavesTheOther) {
  StoredVariable expected = full();
  expected.writeRole = 0;
  expected.accessChangedAt = 9;
  EXPECT_EQ(after(StoreChange::SetAccess{{}, 0}), expected);
}

TEST(StoredVariableTest, ResetAttributesLeaveTheValue) {
  StoredVariable expected(kKey);
  expected.value = {"a"};
  expected.valueChangedAt = 1;
  expected.optionsChangedAt = 9;
  expected.accessChangedAt = 9;
  EXPECT_EQ(after(StoreChange::ResetAttributes{}), expected);
}

TEST(StoredVariableTest, WhatIsForgottenGoesBeforeAnythingIsSetAndIsNotMarkedAsChanged) {
  StoredVariable expected = full();
  expected.value.reset();
  expected.options.reset();
  expected.defaultIndex = 0;
  expected.optionsChangedAt = 9;
  StoredVariable variable = full();
  applyChange({kKey, StoreChange::SetOptions{{}, 0}, {true, true}}, 9, &variable);
  EXPECT_EQ(variable, expected);
}

TEST(StoredVariableTest, AbsentAndEmptyAreNotEqual) {
  StoredVariable absent(kKey);
  StoredVariable empty(kKey);
  empty.value.emplace();
  EXPECT_NE(absent, empty);
  EXPECT_NE(absent, StoredVariable(ConfigVar("group", 0, "name", 1)));
}

}  // namespace
}  // namespace ConfigSrv
