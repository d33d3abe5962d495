#include "fuzz/wire_fields.h"

#include <gtest/gtest.h>

namespace {

using Fuzz::readFields;
using Fuzz::WireField;
using Fuzz::writeFields;
using Form = WireField::Form;

TEST(WireFieldsTest, FieldsOfEachFormAreReadAsTheyWereWritten) {
  const Fuzz::WireFields written = {{1, Form::Varint, ~std::uint64_t{0}, {}},
                                    {2, Form::Fixed64, 1, {}},
                                    {536870911, Form::Fixed32, 0xffffffff, {}},
                                    {4, Form::Bytes, 0, "abc"}};
  const auto read = readFields(writeFields(written));
  ASSERT_TRUE(read.has_value());
  ASSERT_EQ(read->size(), written.size());
  for (std::size_t i = 0; i < written.size(); ++i) {
    EXPECT_EQ((*read)[i].number, written[i].number);
    EXPECT_EQ((*read)[i].form, written[i].form);
    EXPECT_EQ((*read)[i].value, written[i].value);
    EXPECT_EQ((*read)[i].bytes, written[i].bytes);
  }
}

TEST(WireFieldsTest, AnEmptyPayloadHasNoFields) {
  ASSERT_TRUE(readFields("").has_value());
  EXPECT_TRUE(readFields("")->empty());
}

TEST(WireFieldsTest, WhatIsNoSequenceOfWholeFieldsIsNotRead) {
  const std::string kBroken[] = {
      "\x08",                                               // no value
      "\x0a\x02x",                                          // a byte is missing
      "\x0d\x01\x02\x03",                                   // three bytes of four
      std::string("\x00\x01", 2),                           // field 0
      "\x0b\x0c",                                           // a group
      "\x0e",                                               // a form that there is not
      "\x08\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x01"};  // a number of eleven bytes
  for (const std::string& broken : kBroken) EXPECT_FALSE(readFields(broken).has_value()) << broken;
}

}  // namespace
