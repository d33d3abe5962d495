#include <climits>
#include <locale>
#include <sstream>

#include "tests/appconfig/manager/manager_fixture.h"

namespace {

using TestSupport::answerReadsWith;
using TestSupport::SentRequest;
using TestSupport::Value;

// The global C++ locale groups digits while one of these lives.
class GroupingLocale {
 public:
  GroupingLocale() : before_(std::locale::global(std::locale(std::locale(), new Grouping))) {}
  ~GroupingLocale() { std::locale::global(before_); }
  GroupingLocale(const GroupingLocale&) = delete;
  GroupingLocale& operator=(const GroupingLocale&) = delete;

 private:
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };

  const std::locale before_;
};

class WritesTest : public TestSupport::ManagerTest {
 protected:
  // What the last write carried, which has to be about mtu.
  Value written() {
    const SentRequest last = pb.takeSent().back();
    const auto request = last.as<ConfigIF::WriteReq>();
    Value value;
    Helper::getConfigVarValue(value, request.value());
    expectRequest(last, Helper::getWriteRequest(self, role, mtu, value));
    return value;
  }
};

TEST_F(WritesTest, APlainWriteIsOneWayAndLeavesTheCache) {
  answerReadsWith(pb, {"1500"});
  manager->getConfigVar(mtu);
  pb.takeSent();
  EXPECT_TRUE(manager->setConfigVar(mtu, Value{"1400"}));
  EXPECT_TRUE(pb.sent().back().isOneWay);
  EXPECT_EQ(written(), Value{"1400"});
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  EXPECT_EQ(reads(), 0U);
}

TEST_F(WritesTest, APlainWriteThatCannotBeSentReturnsFalse) {
  pb.failAll();
  EXPECT_FALSE(manager->setConfigVar(mtu, Value{"1400"}));
}

TEST_F(WritesTest, AnAcceptedReportingWriteIsReadBackWithoutAskingTheService) {
  ConfigResult result;
  EXPECT_TRUE(manager->setConfigVar(mtu, Value{"a", "b"}, &result));
  EXPECT_EQ(result.error(), eErrNone);
  Value out;
  EXPECT_EQ(manager->getConfigVar(mtu, out), (Value{"a", "b"}));
  EXPECT_EQ(reads(), 0U);
}

TEST_F(WritesTest, AReportingWriteLeavesTheDefaultFlag) {
  answerReadsWith(pb, {"1500"}, true);
  manager->getConfigVar(mtu);
  manager->setConfigVar(mtu, "1400", nullptr);
  EXPECT_TRUE(manager->isDefault("net", 0, "mtu", 1));
}

TEST_F(WritesTest, ARejectedReportingWriteChangesNothingInTheCache) {
  manager->updateConfigVar(mtu, {"1500"});
  refuseAll<ConfigIF::WriteReq, ConfigIF::WriteRsp>();
  ConfigResult result;
  EXPECT_FALSE(manager->setConfigVar(mtu, Value{"1400"}, &result));
  EXPECT_EQ(result.error(), eErrDenied);
  EXPECT_EQ(result.resultMessages(), Value{"no"});
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  pb.failAll();
  EXPECT_FALSE(manager->setConfigVar(name, Value{"eth"}, nullptr));
  EXPECT_FALSE(isCached(name));
}

TEST_F(WritesTest, AReportingWriteOfAForeignNamespaceSucceedsAndStoresNothing) {
  EXPECT_TRUE(manager->setConfigVar(ConfigVar(7, "net", 0, "mtu", 1), Value{"1400"}, nullptr));
  EXPECT_EQ(manager->removeVars(""), 0U);
}

TEST_F(WritesTest, AReportingWriteOfTheLinksOwnNamespaceIsStoredUnderNone) {
  useNamespace(3);
  EXPECT_TRUE(manager->setConfigVar(ConfigVar(3, "net", 0, "mtu", 1), Value{"1400"}, nullptr));
  EXPECT_EQ(cachedValue(mtu), Value{"1400"});
}

TEST_F(WritesTest, AnEmptyListIsWrittenAndMakesTheValueUnknown) {
  manager->updateConfigVar(mtu, {"1500"});
  EXPECT_TRUE(manager->setConfigVar(mtu, Value{}, nullptr));
  EXPECT_EQ(pb.sent().front().as<ConfigIF::WriteReq>().value().values_size(), 0);
  EXPECT_TRUE(isCached(mtu));
  EXPECT_EQ(cachedValue(mtu), Value{});
}

// Overloads of int and bool alone would leave the compiler without a choice.
TEST_F(WritesTest, IntegersOfEveryWidthAreWrittenInDecimals) {
  manager->setConfigVar(mtu, 1400U);
  EXPECT_EQ(written(), Value{"1400"});
  manager->setConfigVar(mtu, -5L);
  EXPECT_EQ(written(), Value{"-5"});
  manager->setConfigVar(mtu, 18446744073709551615ULL, nullptr);
  EXPECT_EQ(written(), Value{"18446744073709551615"});
  manager->setConfigVar("net", 0, "mtu", 1, std::int64_t{-9000000000});
  EXPECT_EQ(written(), Value{"-9000000000"});
  manager->setConfigVar("net", 0, "mtu", 1, std::size_t{7}, nullptr);
  EXPECT_EQ(written(), Value{"7"});
  manager->setConfigVar(mtu, std::uint16_t{8});
  EXPECT_EQ(written(), Value{"8"});
}

TEST_F(WritesTest, TextsAndBoolsGoWhereTheyWent) {
  char text[] = "changeable";
  manager->setConfigVar(mtu, text);
  EXPECT_EQ(written(), Value{"changeable"});
  manager->setConfigVar(mtu, static_cast<char*>(text), nullptr);
  EXPECT_EQ(written(), Value{"changeable"});
  const bool isOn = true;
  manager->setConfigVar(mtu, isOn, nullptr);
  EXPECT_EQ(written(), Value{"True"});
}

TEST_F(WritesTest, PlainWritesSpellBoolsInLowerCase) {
  manager->setConfigVar(mtu, true);
  EXPECT_EQ(written(), Value{"true"});
  manager->setConfigVar(mtu, false);
  EXPECT_EQ(written(), Value{"false"});
  manager->setConfigVar("net", 0, "mtu", 1, true);
  EXPECT_EQ(written(), Value{"true"});
}

TEST_F(WritesTest, ReportingWritesSpellBoolsWithACapital) {
  ConfigResult result;
  manager->setConfigVar(mtu, true, &result);
  EXPECT_EQ(pb.takeSent().front().as<ConfigIF::WriteReq>().value().values(0), "True");
  EXPECT_TRUE(manager->getConfigVarBool(mtu));
  manager->setConfigVar(mtu, false, &result);
  EXPECT_EQ(written(), Value{"False"});
  manager->setConfigVar("net", 0, "mtu", 1, false, &result);
  EXPECT_EQ(written(), Value{"False"});
}

TEST_F(WritesTest, IntsAreWrittenInPlainDecimals) {
  const struct {
    int number;
    const char* text;
  } cases[] = {{-42, "-42"},
               {0, "0"},
               {1234567, "1234567"},
               {INT_MIN, "-2147483648"},
               {INT_MAX, "2147483647"}};
  for (const auto& c : cases) {
    manager->setConfigVar(mtu, c.number);
    EXPECT_EQ(written(), Value{c.text});
    manager->setConfigVar(mtu, c.number, nullptr);
    EXPECT_EQ(written(), Value{c.text});
    EXPECT_EQ(manager->getConfigVarInt(mtu), c.number);
  }
}

TEST_F(WritesTest, NoLocaleGroupsTheDigitsOfAnInt) {
  const GroupingLocale grouping;
  std::ostringstream grouped;
  grouped << 1234567;
  ASSERT_EQ(grouped.str(), "1.234.567");
  manager->setConfigVar(mtu, 1234567);
  EXPECT_EQ(written(), Value{"1234567"});
  manager->setConfigVar(mtu, -1234567, nullptr);
  EXPECT_EQ(written(), Value{"-1234567"});
  EXPECT_EQ(manager->getConfigVar(mtu), "-1234567");
  EXPECT_EQ(manager->getConfigVarInt(mtu), -1234567);
}

TEST_F(WritesTest, TextsAreWrittenUnchanged) {
  manager->setConfigVar(mtu, "TrUe ");
  EXPECT_EQ(written(), Value{"TrUe "});
  manager->setConfigVar(mtu, "text", nullptr);
  EXPECT_EQ(written(), Value{"text"});
  manager->setConfigVar(mtu, std::string("a\0b", 3));
  EXPECT_EQ(written(), Value{std::string("a\0b", 3)});
  manager->setConfigVar(mtu, std::string(), nullptr);
  EXPECT_EQ(written(), Value{""});
}

TEST_F(WritesTest, EverySetterExistsByParts) {
  ConfigResult result;
  EXPECT_TRUE(manager->setConfigVar("NET", 0, "MTU", 1, Value{"a", "b"}));
  EXPECT_EQ(written(), (Value{"a", "b"}));
  EXPECT_TRUE(manager->setConfigVar("NET", 0, "MTU", 1, 7));
  EXPECT_EQ(written(), Value{"7"});
  EXPECT_TRUE(manager->setConfigVar("NET", 0, "MTU", 1, "c"));
  EXPECT_EQ(written(), Value{"c"});
  EXPECT_TRUE(manager->setConfigVar("NET", 0, "MTU", 1, std::string("d")));
  EXPECT_EQ(written(), Value{"d"});
  EXPECT_FALSE(isCached(mtu));
  EXPECT_TRUE(manager->setConfigVar("NET", 0, "MTU", 1, Value{"e"}, &result));
  EXPECT_EQ(written(), Value{"e"});
  EXPECT_TRUE(manager->setConfigVar("NET", 0, "MTU", 1, 8, &result));
  EXPECT_EQ(written(), Value{"8"});
  EXPECT_TRUE(manager->setConfigVar("NET", 0, "MTU", 1, "f", &result));
  EXPECT_EQ(written(), Value{"f"});
  EXPECT_TRUE(manager->setConfigVar("NET", 0, "MTU", 1, std::string("g"), &result));
  EXPECT_EQ(written(), Value{"g"});
  EXPECT_EQ(manager->getConfigVar(mtu), "g");
}

TEST_F(WritesTest, ValidationAsksTheServiceAndLeavesTheCache) {
  manager->updateConfigVar(mtu, {"1500"});
  ConfigResult result;
  EXPECT_TRUE(manager->isValid(mtu, Value{"1400"}, &result));
  expectRequest(pb.takeSent().back(), Helper::getValidateRequest(self, role, mtu, Value{"1400"}));
  refuseAll<ConfigIF::ValidateReq, ConfigIF::ValidateRsp>();
  EXPECT_FALSE(manager->isValid("NET", 0, "mtu", 1, Value{"1400"}, &result));
  EXPECT_EQ(result.error(), eErrDenied);
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
}

TEST_F(WritesTest, AResetLeavesTheCachedValueAndFlag) {
  answerReadsWith(pb, {"1400"}, false);
  manager->getConfigVar(mtu);
  pb.takeSent();
  EXPECT_TRUE(manager->resetValue("NET", 0, "mtu", 1));
  expectRequest(pb.takeSent().front(), Helper::getResetValueRequest(self, role, mtu));
  EXPECT_EQ(manager->getConfigVar(mtu), "1400");
  EXPECT_FALSE(manager->isDefault("net", 0, "mtu", 1));
  EXPECT_EQ(reads(), 0U);
  refuseAll<ConfigIF::ResetValueReq, ConfigIF::ResetValueRsp>();
  EXPECT_FALSE(manager->resetValue("net", 0, "mtu", 1));
}

TEST_F(WritesTest, StoresOfAForeignNamespaceDoNothing) {
  const ConfigVar foreign(7, "net", 0, "mtu", 1);
  manager->updateConfigVar(foreign, {"1400"});
  manager->updateIsDefault(foreign, true);
  EXPECT_EQ(manager->removeVars(""), 0U);
}

TEST_F(WritesTest, StoresOfTheLinksOwnNamespaceAndOfNoneFillOneEntry) {
  useNamespace(3);
  manager->updateConfigVar(ConfigVar(3, "net", 0, "mtu", 1), {"1400"});
  manager->updateIsDefault(mtu, true);
  EXPECT_EQ(manager->removeVars(""), 1U);
}

TEST_F(WritesTest, StoringAValueLeavesTheFlagAndStoringTheFlagTheValue) {
  manager->updateIsDefault(mtu, true);
  manager->updateConfigVar(mtu, {"1400"});
  EXPECT_TRUE(manager->isDefault("net", 0, "mtu", 1));
  manager->updateIsDefault(mtu, false);
  EXPECT_EQ(manager->getConfigVar(mtu), "1400");
  EXPECT_TRUE(pb.sent().empty());
}

}  // namespace
