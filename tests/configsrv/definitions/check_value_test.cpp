#include <gtest/gtest.h>

#include "configsrv/definitions/definitions.h"
#include "configsrv/definitions/pattern.h"

namespace ConfigSrv {
namespace {

using Value = std::list<std::string>;

VariableShape shapeOf(ValueType type) {
  VariableShape shape;
  shape.type = type;
  return shape;
}

VariableShape intBetween(std::optional<std::int64_t> min, std::optional<std::int64_t> max) {
  VariableShape shape = shapeOf(ValueType::Int);
  shape.min = min;
  shape.max = max;
  return shape;
}

VariableShape matching(ValueType type, const std::string& pattern) {
  VariableShape shape = shapeOf(type);
  std::string reason;
  shape.pattern = Pattern::compile(pattern, reason);
  EXPECT_EQ(reason, "");
  return shape;
}

// The reason; none when it fits.
std::string check(const VariableShape& shape, const std::vector<std::string>& options,
                  const Value& value) {
  const Base::Status<> fits = checkValue(shape, options, value);
  EXPECT_EQ(fits.ok(), fits.text.empty());
  return fits.text;
}

std::string check(const VariableShape& shape, const Value& value) {
  return check(shape, shape.options, value);
}

TEST(CheckValueTest, AllButAListHaveExactlyOneElement) {
  for (const ValueType type :
       {ValueType::String, ValueType::Int, ValueType::Bool, ValueType::Enumeration}) {
    const std::string start = "a value of type " + std::string(valueTypeName(type));
    EXPECT_EQ(check(shapeOf(type), {}), start + " has exactly one element, not 0");
    EXPECT_EQ(check(shapeOf(type), {"1", "2"}), start + " has exactly one element, not 2");
  }
  EXPECT_EQ(check(shapeOf(ValueType::List), {}), "");
  EXPECT_EQ(check(shapeOf(ValueType::List), {"", "b"}), "");
}

TEST(CheckValueTest, AnIntIsWhatStrtolReadsToItsEnd) {
  const VariableShape shape = shapeOf(ValueType::Int);
  for (const char* good : {"0", "-0", "+5", "-5", "2147483647", "-2147483648", "0x7fffffff", "0X1F",
                           "-0x80000000", "017", "-017", "00", "000000000000000000001"}) {
    EXPECT_EQ(check(shape, {good}), "") << good;
  }
  for (const char* bad : {"", "+", "-", "--5", "+-5", " 5", "5 ", "5\n", "five", "0x", "0xg", "08",
                          "5.0", "1e3", "0b1", "5,000"}) {
    EXPECT_NE(check(shape, {bad}).find(" is no whole number: "), std::string::npos) << bad;
  }
  EXPECT_NE(check(shape, {std::string("5\0", 2)}), "");
}

TEST(CheckValueTest, OptionsOfAnIntAndABoolAreHeldAgainstTheMeaningOfTheValue) {
  VariableShape number = intBetween({}, {});
  const std::vector<std::string> numbers = {"0x10", "24"};
  for (const char* good : {"16", "020", "0x10", "24", "030", "+24"})
    EXPECT_TRUE(checkValue(number, numbers, {good}).ok()) << good;
  for (const char* bad : {"10", "20", "-16"})
    EXPECT_FALSE(checkValue(number, numbers, {bad}).ok()) << bad;
  VariableShape flag;
  flag.type = ValueType::Bool;
  EXPECT_TRUE(checkValue(flag, {"true"}, {"True"}).ok());
  EXPECT_FALSE(checkValue(flag, {"true"}, {"False"}).ok());
  VariableShape text;
  EXPECT_FALSE(checkValue(text, {"16"}, {"0x10"}).ok());
}

TEST(CheckValueTest, ValuesOfAnIntAndABoolAreTheSameByMeaningAndOthersByText) {
  EXPECT_TRUE(isSameValue(ValueType::Int, {"030"}, {"24"}));
  EXPECT_FALSE(isSameValue(ValueType::Int, {"030"}, {"30"}));
  EXPECT_TRUE(isSameValue(ValueType::Bool, {"True"}, {"true"}));
  EXPECT_FALSE(isSameValue(ValueType::Bool, {"True"}, {"false"}));
  for (const ValueType type : {ValueType::String, ValueType::Enumeration, ValueType::List}) {
    EXPECT_FALSE(isSameValue(type, {"030"}, {"24"}));
    EXPECT_FALSE(isSameValue(type, {"True"}, {"true"}));
    EXPECT_TRUE(isSameValue(type, {"x"}, {"x"}));
  }
  EXPECT_FALSE(isSameValue(ValueType::List, {}, {""}));
}

TEST(CheckValueTest, AnIntHas32BitsUnlessItsLimitsSayOtherwise) {
  EXPECT_EQ(check(intBetween({}, {}), {"2147483648"}),
            "\"2147483648\" is more than 2147483647, the largest value allowed");
  EXPECT_EQ(check(intBetween({}, {}), {"0xffffffff"}),
            "\"0xffffffff\" is more than 2147483647, the largest value allowed");
  EXPECT_EQ(check(intBetween(0, 5000000000), {"5000000000"}), "");
  EXPECT_EQ(check(intBetween(INT64_MIN, INT64_MAX), {"-9223372036854775808"}), "");
  EXPECT_EQ(check(intBetween(INT64_MIN, INT64_MAX), {"9223372036854775807"}), "");
  EXPECT_EQ(check(intBetween(INT64_MIN, INT64_MAX), {"9223372036854775808"}),
            "\"9223372036854775808\" is outside 64 bits");
  EXPECT_EQ(check(intBetween(INT64_MIN, INT64_MAX), {"-9223372036854775809"}),
            "\"-9223372036854775809\" is outside 64 bits");
  EXPECT_NE(check(intBetween({}, {}), {std::string(1000, '9')}).find(" is outside 64 bits"),
            std::string::npos);
}

TEST(CheckValueTest, LimitsAreIncludedInTheRangeAndNamedInTheReason) {
  const VariableShape mtu = intBetween(576, 9000);
  EXPECT_EQ(check(mtu, {"576"}), "");
  EXPECT_EQ(check(mtu, {"9000"}), "");
  EXPECT_EQ(check(mtu, {"70000"}), "\"70000\" is more than 9000, the largest value allowed");
  EXPECT_EQ(check(mtu, {"0x10"}), "\"0x10\" is less than 576, the smallest value allowed");
}

TEST(CheckValueTest, ABoolIsTrueOrFalseInAnyCase) {
  const VariableShape shape = shapeOf(ValueType::Bool);
  for (const char* good : {"true", "false", "TRUE", "False", "tRuE"}) {
    EXPECT_EQ(check(shape, {good}), "") << good;
  }
  for (const char* bad : {"", "1", "0", "yes", "true ", "t"}) {
    EXPECT_EQ(check(shape, {bad}), '"' + std::string(bad) + "\" is neither true nor false");
  }
}

TEST(CheckValueTest, AStringMayHoldAnyBytes) {
  EXPECT_EQ(check(shapeOf(ValueType::String), {std::string("a\0\xff\n", 4)}), "");
  EXPECT_EQ(check(shapeOf(ValueType::String), {""}), "");
}

TEST(CheckValueTest, LengthIsCountedInBytes) {
  VariableShape shape = shapeOf(ValueType::String);
  shape.maxLength = 3;
  EXPECT_EQ(check(shape, {"abc"}), "");
  EXPECT_EQ(check(shape, {"abcd"}), "\"abcd\" has 4 bytes, and 3 bytes at most are allowed");
  EXPECT_EQ(check(shape, {"\xc3\xa9\xc3\xa9"}),
            "\"\\xc3\\xa9\\xc3\\xa9\" has 4 bytes, and 3 bytes at most are allowed");
}

TEST(CheckValueTest, AStringMatchesItsPatternAsAWhole) {
  const VariableShape shape = matching(ValueType::String, "[a-z]+");
  EXPECT_EQ(check(shape, {"abc"}), "");
  EXPECT_EQ(check(shape, {"abc!"}), "\"abc!\" does not match the pattern \"[a-z]+\"");
  EXPECT_EQ(check(shape, {std::string("abc\0", 4)}),
            "\"abc\\x00\" does not match the pattern \"[a-z]+\"");
}

TEST(CheckValueTest, AStringThatIsTooLongForAnyPatternIsToldSo) {
  const std::string reason =
      check(matching(ValueType::String, "a*"), {std::string(kMaxMatchedBytes + 1, 'a')});
  EXPECT_NE(reason.find("has 1025 bytes, and with a pattern 1024 bytes at most are allowed"),
            std::string::npos);
}

TEST(CheckValueTest, EachElementOfAListIsHeldAgainstTheLimits) {
  VariableShape shape = matching(ValueType::List, "[a-z]*");
  shape.maxLength = 3;
  shape.maxElements = 2;
  EXPECT_EQ(check(shape, {"abc", ""}), "");
  EXPECT_EQ(check(shape, {"abc", "abcd"}), "\"abcd\" has 4 bytes, and 3 bytes at most are allowed");
  EXPECT_EQ(check(shape, {"abc", "1"}), "\"1\" does not match the pattern \"[a-z]*\"");
  EXPECT_EQ(check(shape, {"a", "b", "c"}),
            "the list has 3 elements, and 2 elements at most are allowed");
}

TEST(CheckValueTest, OptionsAreThePresentOnesAndMetExactly) {
  VariableShape shape = shapeOf(ValueType::Enumeration);
  shape.options = {"dhcp"};
  EXPECT_EQ(check(shape, {"static", "off"}, {"static"}), "");
  EXPECT_EQ(check(shape, {"static", "off"}, {"dhcp"}),
            "\"dhcp\" is none of the options: \"static\", \"off\"");
  EXPECT_EQ(check(shape, {"static", "off"}, {"Static"}),
            "\"Static\" is none of the options: \"static\", \"off\"");
  EXPECT_EQ(check(shape, {}, {"dhcp"}), "the variable has no options at present");
}

TEST(CheckValueTest, OptionsOfOtherTypesHoldForEveryElement) {
  EXPECT_EQ(check(shapeOf(ValueType::Int), {"1", "2"}, {"3"}),
            "\"3\" is none of the options: \"1\", \"2\"");
  EXPECT_EQ(check(shapeOf(ValueType::List), {"a", "b"}, {"b", "a", "b"}), "");
  EXPECT_EQ(check(shapeOf(ValueType::List), {"a", "b"}, {"a", "c"}),
            "\"c\" is none of the options: \"a\", \"b\"");
  EXPECT_EQ(check(shapeOf(ValueType::String), {}, {"anything"}), "");
}

TEST(CheckValueTest, EveryValueHasALargestSizeWhateverItsDefinition) {
  EXPECT_EQ(check(shapeOf(ValueType::String), {std::string(kMaxValueBytes, 'x')}), "");
  EXPECT_EQ(check(shapeOf(ValueType::String), {std::string(kMaxValueBytes + 1, 'x')}),
            "the value has 1048577 bytes, and 1048576 bytes at most are allowed");
  EXPECT_EQ(check(shapeOf(ValueType::List), Value(kMaxElements, "x")), "");
  EXPECT_EQ(check(shapeOf(ValueType::List), Value(kMaxElements + 1, "x")),
            "the list has 4097 elements, and 4096 elements at most are allowed");
}

TEST(CheckValueTest, AReasonIsOnePrintableLineOfModestLength) {
  const std::string value = std::string("\0\n\x1b\xff\\", 5) + std::string(100000, 'x');
  const std::string reason = check(shapeOf(ValueType::Int), {value});
  EXPECT_EQ(reason.substr(0, 22), "\"\\x00\\x0a\\x1b\\xff\\x5cx");
  EXPECT_LT(reason.size(), 300U);
  const std::vector<std::string> many(1000, std::string(1000, 'o'));
  EXPECT_LT(check(shapeOf(ValueType::Enumeration), many, {"x"}).size(), 2500U);
}

TEST(CheckValueTest, TheReasonOfASecretDoesNotRepeatTheValue) {
  for (VariableShape shape : {intBetween(0, 5), matching(ValueType::String, "[a-z]+"),
                              shapeOf(ValueType::Bool), shapeOf(ValueType::Enumeration)}) {
    shape.secret = true;
    const std::string reason = check(
        shape, shape.type == ValueType::Enumeration ? std::vector<std::string>{"a"} : shape.options,
        {"12345678"});
    EXPECT_EQ(reason.substr(0, 10), "the value ") << reason;
    EXPECT_EQ(reason.find("12345678"), std::string::npos) << reason;
  }
}

}  // namespace
}  // namespace ConfigSrv
