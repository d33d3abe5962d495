#include "configsrv/store/internal/row_codec.h"

#include <gtest/gtest.h>

#include <random>

namespace ConfigSrv {
namespace {

using Strings = std::vector<std::string>;

const Strings kLists[] = {
    {},
    {""},
    {"", ""},
    {"one"},
    {"one", "two", ""},
    {std::string("a\0b", 3), "\xff\xfe", "\n"},
    {std::string(70000, 'x'), "after a long one"},
};

TEST(RowCodecTest, EveryListComesBackAsItWas) {
  for (const Strings& strings : kLists) {
    EXPECT_EQ(decodeStrings<Strings>(encodeStrings(strings)), strings);
  }
}

TEST(RowCodecTest, AnEmptyListAndAListOfOneEmptyStringDiffer) {
  EXPECT_EQ(encodeStrings(Strings{}), "");
  EXPECT_EQ(encodeStrings(Strings{""}), std::string(4, '\0'));
}

TEST(RowCodecTest, ALengthIsFourBytesLowestFirst) {
  EXPECT_EQ(encodeStrings(Strings{std::string(258, 'x')}).substr(0, 4), std::string("\2\1\0\0", 4));
}

TEST(RowCodecTest, ACutInsideAnElementIsRefused) {
  const std::string whole = encodeStrings(Strings{"one", "two"});
  for (std::size_t length = 1; length < whole.size(); ++length) {
    if (length == 7) continue;  // The end of "one": a list too.
    EXPECT_FALSE(decodeStrings<Strings>(whole.substr(0, length))) << length;
  }
}

TEST(RowCodecTest, ALengthBeyondTheEndIsRefused) {
  EXPECT_FALSE(decodeStrings<Strings>(std::string("\xff\xff\xff\xff", 4)));
  EXPECT_FALSE(decodeStrings<Strings>(std::string("\4\0\0\0abc", 7)));
}

TEST(RowCodecTest, AnyBytesAreAListOrRefused) {
  std::mt19937 random(1);
  for (int i = 0; i < 20000; ++i) {
    std::string bytes(random() % 24, '\0');
    for (char& c : bytes) c = static_cast<char>(random() % 5);
    const std::optional<Strings> strings = decodeStrings<Strings>(bytes);
    if (strings) {
      EXPECT_EQ(encodeStrings(*strings), bytes);
    }
  }
}

TEST(RowCodecTest, TheChecksumIsCrc32c) { EXPECT_EQ(crc32c("123456789"), 0xE3069283U); }

// Bit by bit, as CRC-32C is defined (RFC 3720, B.4).
std::uint32_t crcBitByBit(std::string_view bytes) {
  std::uint32_t crc = 0xFFFFFFFFU;
  for (const char c : bytes) {
    crc ^= static_cast<unsigned char>(c);
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1U) != 0 ? 0x82F63B78U : 0);
  }
  return ~crc;
}

TEST(RowCodecTest, TheChecksumIsTheSameForEveryLengthAndPlace) {
  std::mt19937 random(2);
  std::string bytes(64, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  for (std::size_t from = 0; from < 8; ++from) {
    for (std::size_t length = 0; length + from <= bytes.size(); ++length) {
      const std::string_view part = std::string_view(bytes).substr(from, length);
      ASSERT_EQ(crc32c(part), crcBitByBit(part)) << from << ", " << length;
    }
  }
}

// A store that was written before must be readable, and by the version that wrote it too.
TEST(RowCodecTest, TheChecksumOfARowIsThatOfItsPartsOneAfterAnother) {
  StoredVariable variable(ConfigVar(1, "group", 2, "name", 3));
  variable.readRole = 4;
  variable.valueChangedAt = 5;
  using namespace std::string_literals;
  const std::string value = "a value of more than eight bytes";
  const std::string row = "\1\0\0\0\5\0\0\0group\2\0\0\0\4\0\0\0name\3\0\0\0\1\x20\0\0\0"s + value +
                          "\0\0\0\0\0\0\1\4\0\0\0\0\0\0\0\0\5\0\0\0\0\0\0\0"s +
                          std::string(16, '\0');
  EXPECT_EQ(rowChecksum(variable, value, std::nullopt), crcBitByBit(row));
}

TEST(RowCodecTest, TheChecksumSeesEveryField) {
  StoredVariable base(ConfigVar(1, "group", 2, "name", 3));
  base.defaultIndex = 0;
  const std::uint32_t sum = rowChecksum(base, std::string("v"), std::string("o"));
  EXPECT_EQ(sum, rowChecksum(base, std::string("v"), std::string("o")));
  EXPECT_NE(sum, rowChecksum(base, std::string("w"), std::string("o")));
  EXPECT_NE(sum, rowChecksum(base, std::nullopt, std::string("o")));
  EXPECT_NE(sum, rowChecksum(base, std::string("v"), std::nullopt));
  const auto differs = [&](auto change) {
    StoredVariable other = base;
    change(&other);
    return rowChecksum(other, std::string("v"), std::string("o")) != sum;
  };
  EXPECT_TRUE(differs([](StoredVariable* v) { v->key = ConfigVar(0, "group", 2, "name", 3); }));
  EXPECT_TRUE(differs([](StoredVariable* v) { v->key = ConfigVar(1, "groupn", 2, "ame", 3); }));
  EXPECT_TRUE(differs([](StoredVariable* v) { v->key = ConfigVar(1, "group", -2, "name", 3); }));
  EXPECT_TRUE(differs([](StoredVariable* v) { v->key = ConfigVar(1, "group", 2, "name", 4); }));
  EXPECT_TRUE(differs([](StoredVariable* v) { v->defaultIndex.reset(); }));
  EXPECT_TRUE(differs([](StoredVariable* v) { v->readRole = 0; }));
  EXPECT_TRUE(differs([](StoredVariable* v) { v->writeRole = 0; }));
  EXPECT_TRUE(differs([](StoredVariable* v) { v->valueChangedAt = 1; }));
  EXPECT_TRUE(differs([](StoredVariable* v) { v->optionsChangedAt = 1; }));
  EXPECT_TRUE(differs([](StoredVariable* v) { v->accessChangedAt = std::uint64_t{1} << 40; }));
}

}  // namespace
}  // namespace ConfigSrv
