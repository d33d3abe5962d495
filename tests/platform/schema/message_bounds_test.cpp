#include "platform/schema/message_bounds.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "fuzz/messages.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/internal/unfolding.h"
#include "platform/schema/message_ids.h"

namespace PlatformSchema {
namespace {

using namespace std::string_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::uint32_t kReadReq = 0x1A0110;
constexpr std::uint32_t kBatchReadReq = 0x1A0120;
constexpr std::uint32_t kWriteReq = 0x1A0140;
constexpr std::uint32_t kListRsp = 0x1A0401;

std::string varint(std::uint64_t value) {
  std::string bytes;
  for (; value >= 0x80; value >>= 7) bytes += static_cast<char>(value | 0x80);
  return bytes + static_cast<char>(value);
}

std::string tag(std::uint32_t number, std::uint32_t wireType) {
  return varint(number << 3 | wireType);
}

std::string field(std::uint32_t number, const std::string& content) {
  return tag(number, 2) + varint(content.size()) + content;
}

std::string times(std::size_t count, const std::string& bytes) {
  std::string all;
  all.reserve(count * bytes.size());
  for (std::size_t i = 0; i < count; ++i) all += bytes;
  return all;
}

// One line: "done", "no message", or the problem.
std::string outcome(std::uint32_t messageId, const std::string& payload) {
  const auto message = Fuzz::newMessage(messageId);
  const Base::Status<Reading> read = readMessage(messageId, payload, *message);
  switch (read.code) {
    case Reading::Done:
      return "done";
    case Reading::NoMessage:
      return "no message";
    case Reading::TooMuch:
      return read.text;
  }
  return "?";
}

Unfolding unfolded(std::uint32_t messageId, const std::string& payload) {
  const Shape& shape = *shapeOf(messageId);
  return unfolding(shape, payload, mostMemory(shape, payload.size()));
}

// --- Each limit, in each message that has it ---

struct Limit {
  Counted counted;
  std::size_t most;
  const char* text;
};
const Limit kLimits[] = {
    {Counted::Nodes, MessageLimits::kNodes, "more than 256 nodes, which is the limit: "},
    {Counted::Entries, MessageLimits::kEntries, "more than 1024 variables, which is the limit: "},
    {Counted::Elements, MessageLimits::kElements, "more than 4096 elements, which is the limit: "},
    {Counted::Options, MessageLimits::kOptions, "more than 1024 options, which is the limit: "},
    {Counted::Messages, MessageLimits::kMessages, "more than 4096 messages, which is the limit: "},
};

const Limit& limitOf(Counted counted) { return kLimits[static_cast<std::size_t>(counted) - 1]; }

using Wrap = std::function<std::string(const std::string&)>;
using Visit = std::function<void(const Part&, const Wrap&)>;

// Calls visit for every counted field of a message, with a function that puts the bytes of such
// fields where they stand in the payload.
void forEachCounted(const Shape& shape, const Wrap& wrap, const Visit& visit) {
  for (std::size_t i = 0; i < shape.partCount; ++i) {
    const Part& part = shape.parts[i];
    if (part.counted != Counted::Nothing) visit(part, wrap);
    if (part.message == nullptr) continue;
    const auto inside = [&](const std::string& bytes) { return wrap(field(part.number, bytes)); };
    forEachCounted(*part.message, inside, visit);
  }
}

void forEachCounted(const std::function<void(std::uint32_t, const Part&, const Wrap&)>& visit) {
  const Wrap bare = [](const std::string& bytes) { return bytes; };
  for (const std::uint32_t id : messageIds()) {
    ASSERT_NE(shapeOf(id), nullptr) << messageName(id);
    forEachCounted(*shapeOf(id), bare,
                   [&](const Part& part, const Wrap& wrap) { visit(id, part, wrap); });
  }
}

TEST(MessageBoundsTest, EveryLimitIsReachedInEveryMessageAndNotPassed) {
  std::size_t reached = 0;
  forEachCounted([&](std::uint32_t id, const Part& part, const Wrap& wrap) {
    const Limit& limit = limitOf(part.counted);
    ASSERT_EQ(limit.counted, part.counted);
    const std::string element = field(part.number, "");
    EXPECT_EQ(outcome(id, wrap(times(limit.most, element))), "done") << messageName(id);
    const std::string problem = outcome(id, wrap(times(limit.most + 1, element)));
    EXPECT_THAT(problem, HasSubstr(messageName(id)));
    EXPECT_THAT(problem, HasSubstr(limit.text));
    ++reached;
  });
  EXPECT_GT(reached, 70U);
}

TEST(MessageBoundsTest, APathThatComesInManyPiecesIsCountedAsOne) {
  const std::string node = field(3, field(1, ""));
  EXPECT_EQ(outcome(kReadReq, times(256, node)), "done");
  EXPECT_EQ(
      outcome(kReadReq, times(257, node)),
      "a path of ReadReq has more than 256 nodes, which is the limit: a group and a name are one "
      "node each");
  const std::string deeper = field(3, field(1, field(1, "")));
  EXPECT_EQ(outcome(kWriteReq, times(256, deeper)), "done");
  EXPECT_THAT(outcome(kWriteReq, times(257, deeper)),
              StartsWith("a path of WriteReq has more than"));
}

TEST(MessageBoundsTest, EachPathOfABatchHasNodesOfItsOwn) {
  const std::string longest = field(3, times(256, field(1, "")));
  EXPECT_EQ(outcome(kBatchReadReq, longest + longest), "done");
}

// --- Memory ---

TEST(MessageBoundsTest, ALongBatchOfLongPathsIsTooMuchTogether) {
  const std::string longest = field(3, times(256, field(1, "")));
  const std::string problem = outcome(kBatchReadReq, times(100, longest));
  EXPECT_THAT(problem, StartsWith("BatchReadReq would unfold to more than "));
  EXPECT_THAT(problem, EndsWith(" bytes, which is the limit: send fewer parts at once"));
}

TEST(MessageBoundsTest, AnswersWithRecordsMayUnfoldToMoreButNotWithoutEnd) {
  const std::string record = field(2, times(4'096, field(3, "")));
  EXPECT_EQ(outcome(kListRsp, times(20, record)), "done");
  // Small words make small strings; a record is a large object for two bytes with any.
  EXPECT_THAT(outcome(kListRsp, times(2'000'000, field(2, ""))),
              StartsWith("ListRsp would unfold to more than"));
}

TEST(MessageBoundsTest, WhatIsSentAgainAndAgainCostsEachTime) {
  EXPECT_EQ(outcome(kReadReq, times(1'000, field(3, ""))), "done");
  EXPECT_THAT(outcome(kReadReq, times(100'000, field(3, ""))), HasSubstr("would unfold to"));
  EXPECT_THAT(outcome(kReadReq, times(100'000, field(1, ""))), HasSubstr("would unfold to"));
}

TEST(MessageBoundsTest, FieldsThatAreNotKnownCostAContainerInEachMessage) {
  const std::string unknown = tag(31, 0) + varint(1);
  const std::string one = field(3, times(64, field(1, unknown)));
  EXPECT_EQ(outcome(kBatchReadReq, times(10, one)), "done");
  EXPECT_THAT(outcome(kBatchReadReq, times(200, one)), HasSubstr("would unfold to"));
  const std::size_t with = unfolded(kBatchReadReq, times(10, one)).memory;
  const std::size_t without =
      unfolded(kBatchReadReq, times(10, field(3, times(64, field(1, ""))))).memory;
  EXPECT_GT(with - without, std::size_t{10} * 64 * sizeof(std::string));
}

TEST(MessageBoundsTest, FieldsOfALaterSchemaAreTakenHoweverLong) {
  EXPECT_EQ(outcome(kReadReq, field(31, std::string(1'000'000, 'x'))), "done");
}

TEST(MessageBoundsTest, AnEnumerationOfALaterSchemaCostsAsAnUnknownField) {
  const std::string scope = tag(2, 0) + varint(99);
  const std::size_t with = unfolded(kReadReq, field(3, scope)).memory;
  EXPECT_GT(with, unfolded(kReadReq, field(3, "")).memory + sizeof(std::string));
}

// --- What has to fit ---

TEST(MessageBoundsTest, TheLargestValueWithTheMostElementsFits) {
  ConfigIF::WriteReq request;
  for (int i = 0; i < 4096; ++i) request.mutable_value()->add_values(std::string(256, 'v'));
  EXPECT_EQ(outcome(kWriteReq, request.SerializeAsString()), "done");
}

// The keys that the library writes have four nodes at most: a namespace, a group, a name, and one
// more for a group that came in two.
TEST(MessageBoundsTest, TheLongestBatchOfUsualKeysFits) {
  ConfigIF::BatchReadReq request;
  for (int i = 0; i < 1024; ++i) {
    ConfigIF::Inst* inst = request.add_inst();
    inst->set_scope(ConfigIF::SCOPE_NAMESPACE);
    for (const char* name : {"cfg", "networking", "ethernet", "hardware-address"}) {
      inst->add_path()->set_name(name);
      inst->mutable_path(inst->path_size() - 1)->set_instance(1);
    }
  }
  EXPECT_EQ(outcome(kBatchReadReq, request.SerializeAsString()), "done");
}

// As an older service answers, which knows no pages.
TEST(MessageBoundsTest, AListingOfTwentyThousandVariablesInOneFits) {
  ConfigIF::ListRsp response;
  for (int i = 0; i < 20'000; ++i) {
    ConfigIF::ListRecord* record = response.add_records();
    record->mutable_inst()->add_path()->set_name("group" + std::to_string(i / 100));
    record->mutable_inst()->add_path()->set_name("name" + std::to_string(i));
    for (ConfigIF::Node& node : *record->mutable_inst()->mutable_path()) node.set_instance(0);
    record->set_type(ConfigIF::VALUE_INT);
    record->add_values("0");
    record->set_is_default(true);
    record->set_description("What it is for.");
  }
  EXPECT_EQ(outcome(kListRsp, response.SerializeAsString()), "done");
}

// --- What is no message ---

struct BrokenCase {
  const char* why;
  std::string payload;
};

TEST(MessageBoundsTest, WhatDoesNotFitTogetherIsNoMessage) {
  const std::string rest(600, '\x08');
  const BrokenCase cases[] = {
      {"a path longer than the payload", tag(3, 2) + varint(10'000) + times(300, field(1, ""))},
      {"a node longer than its path", field(3, tag(1, 2) + varint(601)) + rest},
      {"a tag of six bytes", "\xFA\xFF\xFF\xFF\xFF\x01"s + rest},
      {"a number of eleven bytes", tag(9, 0) + std::string(10, '\xFF') + "\x01"s + rest},
      {"field number 0", "\x00\x00"s + rest},
      {"wire type 6", tag(9, 6) + rest},
      {"the end of a group that did not begin", tag(9, 4) + rest},
      {"a group that does not end", tag(9, 3) + times(300, tag(9, 0) + "\x01"s)},
      {"eight bytes of which four are there", times(300, field(1, "")) + tag(9, 1) + "1234"s},
      {"four bytes of which none are there", times(300, field(1, "")) + tag(9, 5)},
  };
  for (const BrokenCase& c : cases) {
    ASSERT_GE(c.payload.size(), kNotLookedAt) << c.why;
    EXPECT_EQ(outcome(kReadReq, c.payload), "no message") << c.why;
    EXPECT_EQ(unfolded(kReadReq, c.payload).result, Unfolding::Result::Broken) << c.why;
    // No stricter than the parser.
    EXPECT_FALSE(Fuzz::newMessage(kReadReq)->ParseFromString(c.payload)) << c.why;
  }
}

TEST(MessageBoundsTest, GroupsThatAreNotKnownArePassedOver) {
  const auto nested = [](std::size_t depth, const std::string& inside) {
    return times(depth, tag(9, 3)) + inside + times(depth, tag(9, 4));
  };
  const std::string some = tag(8, 0) + varint(5) + tag(7, 1) + "12345678"s + tag(6, 5) + "1234"s;
  EXPECT_EQ(outcome(kReadReq, nested(90, times(40, some))), "done");
  EXPECT_EQ(outcome(kReadReq, nested(101, times(40, some))), "no message");
}

TEST(MessageBoundsTest, TheLookTakesNoMoreStepsThanThePayloadHasBytes) {
  forEachCounted([](std::uint32_t id, const Part& part, const Wrap& wrap) {
    const std::string payload = wrap(times(200, field(part.number, "")));
    const Unfolding found = unfolded(id, payload);
    EXPECT_GE(found.steps, 200U) << messageName(id);
    EXPECT_LE(found.steps, payload.size()) << messageName(id);
  });
}

TEST(MessageBoundsTest, NorDoesItTakeOneForATagThatIsNotThere) {
  const Unfolding found = unfolded(kReadReq, tag(9, 3));
  EXPECT_EQ(found.result, Unfolding::Result::Broken);
  EXPECT_EQ(found.steps, 1U);
}

// What is not looked at holds less than any limit allows: a part has two bytes.
TEST(MessageBoundsTest, WhatIsTooShortToBeLookedAtPassesNoLimit) {
  const std::size_t mostParts = (kNotLookedAt - 1) / 2;
  for (const Limit& limit : kLimits) EXPECT_LT(mostParts, limit.most);
  EXPECT_EQ(outcome(kReadReq, field(3, times(252, field(1, "")))), "done");
}

// --- Payloads ---

TEST(MessageBoundsTest, AValueMayBeLongerThanABatchAndABatchThanTheRest) {
  for (const std::uint32_t id : messageIds()) {
    const std::string name = messageName(id);
    std::size_t most = 65'536;
    if (name == "WriteReq" || name == "ValidateReq" || name == "SetAttributeOptionsReq")
      most = 2'162'688;
    if (name == "BatchReadReq" || name == "SetAccessLevelsReq" ||
        name == "BatchGetValueOptionsAccessReq" || name == "DynamicValidateRsp" ||
        name == "OnChangeRsp")
      most = 1'048'576;
    EXPECT_EQ(maxPayloadBytes(id), most) << name;
    EXPECT_TRUE(checkPayloadBytes(id, most).ok()) << name;
    EXPECT_FALSE(checkPayloadBytes(id, most + 1).ok()) << name;
    EXPECT_EQ(checkPayloadBytes(id, most + 1).text,
              name + " has " + std::to_string(most + 1) + " bytes, and " + std::to_string(most) +
                  " bytes at most are allowed: send less at once");
  }
  EXPECT_EQ(maxPayloadBytes(kNoMessageId), 65'536U);
}

}  // namespace
}  // namespace PlatformSchema
