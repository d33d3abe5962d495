// Keys as paths, and back.
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <type_traits>
#include <utility>

#include "appconfig/wire/protobuf_message_helper.h"
#include "tests/appconfig/wire/messages.h"

namespace AppConfig {
namespace {

using namespace std::string_literals;
using Helper = ProtobufMessageHelper;

constexpr int kUntouched = 77;

ConfigIF::Inst pathOf(const ConfigVar& var) {
  ConfigIF::Inst inst;
  Helper::addVarName(&inst, var);
  return inst;
}

// What getConfigVarName makes of a path, the parts being preset to what shows that they are left.
struct Parsed {
  explicit Parsed(const ConfigIF::Inst& inst, std::string presetGroup = "")
      : group(std::move(presetGroup)),
        status(Helper::getConfigVarName(group, groupInstance, name, nameInstance, inst)) {}
  std::string group;
  int groupInstance = kUntouched;
  std::string name = "untouched";
  int nameInstance = kUntouched;
  int status;
};

void expectKey(const Parsed& parsed, const std::string& group, int groupInstance,
               const std::string& name, int nameInstance) {
  EXPECT_EQ(parsed.status, 0);
  EXPECT_EQ(parsed.group, group);
  EXPECT_EQ(parsed.groupInstance, groupInstance);
  EXPECT_EQ(parsed.name, name);
  EXPECT_EQ(parsed.nameInstance, nameInstance);
}

void expectUnparseable(const ConfigIF::Inst& inst) {
  const Parsed parsed(inst);
  EXPECT_EQ(parsed.status, -25);
  EXPECT_EQ(parsed.group, "");
  EXPECT_EQ(parsed.groupInstance, kUntouched);
  EXPECT_EQ(parsed.name, "untouched");
  EXPECT_EQ(parsed.nameInstance, kUntouched);
}

// --- Writing ---

TEST(PathWritingTest, AKeyWithNamespace0GivesAGroupNodeAndANameNode) {
  expectSame(pathOf({"network", 0, "ipaddr", 1}), instOf({{"network", 0}, {"ipaddr", 1}}));
}

TEST(PathWritingTest, AKeyWithNamespace3GivesALeadingCfgNodeThatCarriesIt) {
  expectSame(pathOf({3, "network", 0, "ipaddr", 1}),
             instOf({{"cfg", 3}, {"network", 0}, {"ipaddr", 1}}));
}

TEST(PathWritingTest, Namespace1IsTheFirstOneThatIsWritten) {
  expectSame(pathOf({1, "a", 0, "b", 0}), instOf({{"cfg", 1}, {"a", 0}, {"b", 0}}));
}

TEST(PathWritingTest, AKeyWithANegativeNamespaceWritesNoCfgNode) {
  expectSame(pathOf({-1, "network", 0, "ipaddr", 1}), instOf({{"network", 0}, {"ipaddr", 1}}));
}

TEST(PathWritingTest, AKeyWithAnEmptyGroupStillWritesAnEmptyNamedGroupNode) {
  expectSame(pathOf({"", 4, "ipaddr", 1}), instOf({{"", 4}, {"ipaddr", 1}}));
}

TEST(PathWritingTest, AKeyWithAnEmptyNameStillWritesAnEmptyNamedLeaf) {
  expectSame(pathOf({"network", 0, "", 1}), instOf({{"network", 0}, {"", 1}}));
}

TEST(PathWritingTest, AGroupWithDotsIsOneNode) {
  expectSame(pathOf({"network.eth.v4", 2, "ipaddr", 0}),
             instOf({{"network.eth.v4", 2}, {"ipaddr", 0}}));
}

TEST(PathWritingTest, NamesAreWrittenInLowerCase) {
  expectSame(pathOf({"Network", 0, "IPAddr", 1}), instOf({{"network", 0}, {"ipaddr", 1}}));
}

TEST(PathWritingTest, BothFieldsOfEveryNodeArePresentEvenWhenEmptyOrZero) {
  const ConfigIF::Inst inst = pathOf({2, "", 0, "", 0});
  ASSERT_EQ(inst.path_size(), 3);
  for (const ConfigIF::Node& node : inst.path()) {
    EXPECT_TRUE(node.has_name());
    EXPECT_TRUE(node.has_instance());
  }
}

TEST(PathWritingTest, TheScopeStaysAbsent) {
  EXPECT_FALSE(pathOf({2, "network", 0, "ipaddr", 0}).has_scope());
}

TEST(PathWritingTest, NodesAreAppendedToThePathThatIsThere) {
  ConfigIF::Inst inst = instOf({{"before", 9}});
  Helper::addVarName(&inst, {"a", 1, "b", 2});
  expectSame(inst, instOf({{"before", 9}, {"a", 1}, {"b", 2}}));
}

// --- Reading ---

TEST(PathReadingTest, IntermediateNodesAreJoinedWithDotsAndTheLastOnesInstanceCounts) {
  const ConfigIF::Inst inst = instOf({{"cfg", 3}, {"a", 1}, {"b", 2}, {"leaf", 5}});
  expectKey(Parsed(inst), "a.b", 2, "leaf", 5);
  EXPECT_EQ(Helper::getConfigVarNamespace(inst), 3);
}

TEST(PathReadingTest, NamesAreReadInLowerCase) {
  expectKey(Parsed(instOf({{"A", 1}, {"Leaf", 2}})), "a", 1, "leaf", 2);
  expectKey(Parsed(instOf({{"cfg", 3}, {"A", 1}, {"Bc", 2}, {"LEAF", 5}})), "a.bc", 2, "leaf", 5);
}

TEST(PathReadingTest, ALeafAloneLeavesTheGroupEmptyAndTheGroupInstanceAsPassedIn) {
  expectKey(Parsed(instOf({{"leaf", 4}})), "", kUntouched, "leaf", 4);
}

TEST(PathReadingTest, ANamespaceAndALeafLeaveTheGroupAsPassedIn) {
  const ConfigIF::Inst inst = instOf({{"cfg", 3}, {"leaf", 4}});
  expectKey(Parsed(inst), "", kUntouched, "leaf", 4);
  expectKey(Parsed(inst, "Mine"), "Mine", kUntouched, "leaf", 4);
}

TEST(PathReadingTest, AGroupPassedInBecomesTheBeginningOfTheGroup) {
  expectKey(Parsed(instOf({{"b", 1}, {"leaf", 4}}), "A"), "a.b", 1, "leaf", 4);
}

TEST(PathReadingTest, AnEmptyPathNamesNoVariable) { expectUnparseable(instOf({})); }

TEST(PathReadingTest, ANamespaceAloneNamesNoVariable) { expectUnparseable(instOf({{"cfg", 3}})); }

TEST(PathReadingTest, CfgInAnyOtherSpellingIsAnOrdinaryGroupNode) {
  const ConfigIF::Inst inst = instOf({{"CFG", 3}, {"x", 1}});
  expectKey(Parsed(inst), "cfg", 3, "x", 1);
  EXPECT_EQ(Helper::getConfigVarNamespace(inst), 0);
}

TEST(PathReadingTest, CfgHasToBeTheWholeName) {
  for (const std::string& name : {"cf"s, "cfgs"s, "cfg\0"s, ""s}) {
    const ConfigIF::Inst inst = instOf({{name, 3}, {"x", 1}});
    expectKey(Parsed(inst), name, 3, "x", 1);
    EXPECT_EQ(Helper::getConfigVarNamespace(inst), 0);
  }
}

TEST(PathReadingTest, CfgIsANamespaceInTheFirstNodeOnly) {
  const ConfigIF::Inst later = instOf({{"a", 1}, {"cfg", 2}, {"x", 3}});
  expectKey(Parsed(later), "a.cfg", 2, "x", 3);
  EXPECT_EQ(Helper::getConfigVarNamespace(later), 0);
  const ConfigIF::Inst twice = instOf({{"cfg", 1}, {"cfg", 2}, {"x", 3}});
  expectKey(Parsed(twice), "cfg", 2, "x", 3);
  EXPECT_EQ(Helper::getConfigVarNamespace(twice), 1);
}

TEST(PathReadingTest, AnEmptyFirstGroupNodeAddsNoDotAndALaterOneDoes) {
  expectKey(Parsed(instOf({{"", 1}, {"b", 2}, {"x", 3}})), "b", 2, "x", 3);
  expectKey(Parsed(instOf({{"a", 1}, {"", 2}, {"x", 3}})), "a.", 2, "x", 3);
}

TEST(PathReadingTest, AnAbsentNameOrInstanceReadsAsEmptyAndZero) {
  ConfigIF::Inst inst;
  inst.add_path();
  inst.add_path();
  expectKey(Parsed(inst), "", 0, "", 0);
}

TEST(PathReadingTest, TheScopeMakesNoDifference) {
  ConfigIF::Inst inst = instOf({{"cfg", 3}, {"a", 1}, {"x", 2}});
  inst.set_scope(ConfigIF::SCOPE_NAMESPACE);
  expectKey(Parsed(inst), "a", 1, "x", 2);
  EXPECT_EQ(Helper::getConfigVarNamespace(inst), 3);
}

TEST(PathReadingTest, AnEmptyPathHasNamespaceZero) {
  EXPECT_EQ(Helper::getConfigVarNamespace(instOf({})), 0);
}

TEST(PathReadingTest, ANamespaceAloneIsStillTold) {
  EXPECT_EQ(Helper::getConfigVarNamespace(instOf({{"cfg", 3}})), 3);
}

TEST(PathReadingTest, ANamespaceOnTheWireIsToldAsItStands) {
  EXPECT_EQ(Helper::getConfigVarNamespace(instOf({{"cfg", 0}, {"x", 1}})), 0);
  EXPECT_EQ(Helper::getConfigVarNamespace(instOf({{"cfg", -2}, {"x", 1}})), -2);
}

TEST(PathReadingTest, AVeryLongPathIsReadToItsEnd) {
  constexpr int kNodes = 10000;
  ConfigIF::Inst inst;
  std::string group;
  for (int i = 0; i < kNodes; ++i) {
    inst.add_path()->set_name("N");
    group += i == 0 ? "n" : ".n";
  }
  inst.add_path()->set_name("leaf");
  expectKey(Parsed(inst), group, 0, "leaf", 0);
}

// --- There and back ---

const ConfigVar kKeys[] = {
    {"network", 0, "ipaddr", 1},
    {3, "network", 0, "ipaddr", 1},
    {-5, "network", -1, "ipaddr", -2},
    {"network.eth.v4", 2, "ipaddr", 0},
    {"", 7, "ipaddr", 1},
    {"network", 1, "", 8},
    {"", 0, "", 0},
    {"cfg.x", 1, "cfg", 2},
    {std::numeric_limits<int>::max(), "a", std::numeric_limits<int>::min(), "b",
     std::numeric_limits<int>::max()},
    {"zero\0byte"s, 1, "not\xff\xfeutf8"s, 2},
};

TEST(PathRoundTripTest, AKeyReadBackHasTheSameNamesAndInstances) {
  for (const ConfigVar& key : kKeys) {
    const ConfigIF::Inst inst = pathOf(key);
    expectKey(Parsed(inst), key.group(), key.groupInstance(), key.name(), key.nameInstance());
    EXPECT_EQ(Helper::getConfigVarNamespace(inst), key.nameSpace() >= 1 ? key.nameSpace() : 0);
  }
}

TEST(PathRoundTripTest, AKeySurvivesTheWire) {
  for (const ConfigVar& key : kKeys) {
    ConfigIF::Inst inst;
    ASSERT_TRUE(inst.ParseFromString(pathOf(key).SerializeAsString()));
    expectKey(Parsed(inst), key.group(), key.groupInstance(), key.name(), key.nameInstance());
  }
}

TEST(PathRoundTripTest, AGroupThatIsItselfCalledCfgIsTakenForANamespace) {
  // The one key that does not come back: without a namespace its group node stands where the
  // namespace is looked for.
  const ConfigIF::Inst inst = pathOf({"cfg", 3, "x", 1});
  expectKey(Parsed(inst), "", kUntouched, "x", 1);
  EXPECT_EQ(Helper::getConfigVarNamespace(inst), 3);
}

// --- The class itself ---

TEST(ProtobufMessageHelperTest, OneDefaultConstructedInstanceServesEveryCall) {
  ProtobufMessageHelper helper;
  ConfigIF::Inst inst;
  helper.addVarName(&inst, {4, "a", 1, "b", 2});
  EXPECT_EQ(helper.getConfigVarNamespace(inst), 4);
}

TEST(ProtobufMessageHelperTest, ItMayBeDerivedFromAndHoldsNoState) {
  struct NoState {
    virtual ~NoState() = default;
  };
  EXPECT_TRUE(std::has_virtual_destructor_v<ProtobufMessageHelper>);
  EXPECT_EQ(sizeof(ProtobufMessageHelper), sizeof(NoState));
}

}  // namespace
}  // namespace AppConfig
