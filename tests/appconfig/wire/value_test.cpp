// Value lists in messages, and back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <string>

#include "appconfig/wire/protobuf_message_helper.h"

namespace AppConfig {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Helper = ProtobufMessageHelper;
using StringList = std::list<std::string>;

// Elements that a reader of text would change: empty, a zero byte, no UTF-8, blanks, every byte.
StringList awkwardValues() {
  std::string everyByte;
  for (int byte = 0; byte < 256; ++byte) everyByte += static_cast<char>(byte);
  return {"", "\0"s, "a\0b"s, "\xff\xfe\xc3"s, " padded ", "line\nline\r\n", everyByte, ""};
}

StringList valuesIn(const ConfigIF::InstValue& value) {
  StringList out;
  EXPECT_EQ(Helper::getConfigVarValue(out, value), 0);
  return out;
}

TEST(ValueTest, AStringBecomesOneMoreElement) {
  ConfigIF::InstValue value;
  Helper::addVarValue(&value, "first"s);
  Helper::addVarValue(&value, "second"s);
  EXPECT_THAT(value.values(), ElementsAre("first", "second"));
}

TEST(ValueTest, AListIsAppendedInItsOrder) {
  ConfigIF::InstValue value;
  value.add_values("before");
  Helper::addVarValue(&value, StringList{"b", "a", "b"});
  EXPECT_THAT(value.values(), ElementsAre("before", "b", "a", "b"));
}

TEST(ValueTest, AnEmptyListAddsNothingAndAnEmptyStringIsAnElement) {
  ConfigIF::InstValue value;
  Helper::addVarValue(&value, StringList{});
  EXPECT_EQ(value.values_size(), 0);
  Helper::addVarValue(&value, ""s);
  EXPECT_THAT(value.values(), ElementsAre(""));
}

TEST(ValueTest, AddingAValueLeavesTheVariableAbsent) {
  ConfigIF::InstValue value;
  Helper::addVarValue(&value, "x"s);
  EXPECT_FALSE(value.has_inst());
}

TEST(ValueTest, ReadingReplacesWhatTheListHeld) {
  ConfigIF::InstValue value;
  value.add_values("new");
  StringList out{"old", "older", "oldest"};
  EXPECT_EQ(Helper::getConfigVarValue(out, value), 0);
  EXPECT_THAT(out, ElementsAre("new"));
}

TEST(ValueTest, ReadingNoValueEmptiesTheListAndSucceeds) {
  StringList out{"old"};
  EXPECT_EQ(Helper::getConfigVarValue(out, ConfigIF::InstValue()), 0);
  EXPECT_THAT(out, IsEmpty());
}

TEST(ValueTest, AStringListIsReadInOrderAndReplacesWhatTheListHeld) {
  ConfigIF::OptionsChangedNtfy notice;
  for (const char* option : {"c", "", "a"}) notice.add_options(option);
  StringList out{"old"};
  EXPECT_EQ(Helper::getStringList(out, notice.options()), 0);
  EXPECT_THAT(out, ElementsAre("c", "", "a"));
}

TEST(ValueTest, AnEmptyStringListEmptiesTheListAndSucceeds) {
  StringList out{"old"};
  EXPECT_EQ(Helper::getStringList(out, ConfigIF::OptionsChangedNtfy().options()), 0);
  EXPECT_THAT(out, IsEmpty());
}

TEST(ValueTest, ZeroBytesAndInvalidUtf8PassUnchanged) {
  ConfigIF::InstValue value;
  Helper::addVarValue(&value, awkwardValues());
  EXPECT_EQ(valuesIn(value), awkwardValues());
}

TEST(ValueTest, ZeroBytesAndInvalidUtf8SurviveTheWire) {
  ConfigIF::InstValue sent;
  for (const std::string& s : awkwardValues()) Helper::addVarValue(&sent, s);
  ConfigIF::InstValue received;
  ASSERT_TRUE(received.ParseFromString(sent.SerializeAsString()));
  EXPECT_EQ(valuesIn(received), awkwardValues());
}

TEST(ValueTest, ALongListKeepsEveryElementInItsPlace) {
  constexpr int kElements = 10000;
  StringList values;
  for (int i = 0; i < kElements; ++i) values.push_back(std::to_string(i));
  ConfigIF::InstValue value;
  Helper::addVarValue(&value, values);
  EXPECT_EQ(valuesIn(value), values);
}

TEST(ValueTest, ALongStringPassesWhole) {
  const std::string megabyte(1u << 20, 'x');
  ConfigIF::InstValue value;
  Helper::addVarValue(&value, megabyte);
  EXPECT_EQ(valuesIn(value), StringList{megabyte});
}

}  // namespace
}  // namespace AppConfig
