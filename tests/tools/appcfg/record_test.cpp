#include "tools/appcfg/record.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace AppCfgTool {
namespace {

using namespace std::string_literals;

TEST(RecordTest, FieldsStandInTheOrderInWhichTheyWereAdded) {
  Record record;
  record.text("key", "net.mtu").list("value", {"1500"}).flag("is_default", true).none("error");
  EXPECT_EQ(toJson(record), R"({"key":"net.mtu","value":["1500"],"is_default":true,"error":null})");
}

TEST(RecordTest, NumbersKeepAll64Bits) {
  Record record;
  record.number("min", INT64_MIN).count("revision", UINT64_MAX);
  EXPECT_EQ(toJson(record), R"({"min":-9223372036854775808,"revision":18446744073709551615})");
}

TEST(RecordTest, BytesThatAreNoUtf8AreBase64) {
  Record record;
  record.text("a", "\xff").list("b", {"text", "\xc3(", ""});
  EXPECT_EQ(toJson(record), R"({"a":{"base64":"/w=="},"b":["text",{"base64":"wyg="},""]})");
}

TEST(RecordTest, LineBreaksAndZeroBytesAreEscapedText) {
  Record record;
  record.text("a", "x\ny\0z"s);
  EXPECT_EQ(toJson(record), R"({"a":"x\ny\u0000z"})");
}

TEST(RecordTest, RecordsNest) {
  Record inner;
  inner.text("key", "a.b");
  Record record;
  EXPECT_EQ(toJson(record.records("variables", {inner, inner})),
            R"({"variables":[{"key":"a.b"},{"key":"a.b"}]})");
}

TEST(RecordTest, NothingInItIsAnEmptyObject) { EXPECT_EQ(toJson(Record()), "{}"); }

TEST(RecordTest, AnEmptyListStaysAList) {
  Record record;
  EXPECT_EQ(toJson(record.list("value", {})), R"({"value":[]})");
}

}  // namespace
}  // namespace AppCfgTool
