// What a mutation promises holds for whatever chance makes of it: each case is tried with many seeds.
#include "fuzz/mutators.h"

#include <gmock/gmock.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>
#include <gtest/gtest.h>

#include <set>

#include "fuzz/wire_fields.h"
#include "platform/messaging/wire/frame.h"

namespace {

using Fuzz::Chance;
using Fuzz::InputShape;
using Fuzz::Piece;
using Fuzz::StepForm;
using Fuzz::WireField;
using PbUtility::FrameHeader;

constexpr unsigned kSeeds = 3000;
constexpr std::size_t kMost = 400;

// Two fields, one of them a message within a message.
std::string someMessage() {
  const std::string inner =
      Fuzz::writeFields({{1, WireField::Form::Bytes, 0, "net"}, {2, {}, 7, {}}});
  const std::string middle = Fuzz::writeFields({{1, WireField::Form::Bytes, 0, inner}});
  return Fuzz::writeFields({{1, WireField::Form::Bytes, 0, "ui"},
                            {2, WireField::Form::Varint, 50, {}},
                            {3, WireField::Form::Bytes, 0, middle}});
}

// The library that reads messages has the last word.
bool isMessage(const std::string& bytes) {
  using google::protobuf::internal::WireFormatLite;
  google::protobuf::io::CodedInputStream stream(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                                static_cast<int>(bytes.size()));
  return WireFormatLite::SkipMessage(&stream) && stream.ConsumedEntireMessage() &&
         Fuzz::readFields(bytes).has_value();
}

std::string frameOf(std::uint32_t sequence, const std::string& payload) {
  FrameHeader header;
  header.messageId = 0x1A0110;
  header.sequence = sequence;
  header.payloadBytes = static_cast<std::uint32_t>(payload.size());
  PbUtility::FrameHeaderBytes bytes;
  encodeHeader(header, bytes.data());
  return std::string(bytes.begin(), bytes.end()) + payload;
}

// A head of one byte: even ones have a piece.
StepForm evenHasPiece(std::string_view bytes) {
  return bytes.front() % 2 == 0 ? StepForm{1, Piece::Message} : StepForm{1};
}

std::string step(char head, const std::string& piece) {
  return std::string(1, head) + static_cast<char>(piece.size()) + '\0' + piece;
}

// The pieces of a script that is whole to its last byte; nothing of another one.
bool readPieces(std::string_view script, std::vector<std::string>& pieces) {
  while (!script.empty()) {
    const bool hasPiece = script.front() % 2 == 0;
    script.remove_prefix(1);
    if (!hasPiece) continue;
    if (script.size() < 2) return false;
    const std::size_t size = static_cast<unsigned char>(script[0]) |
                             std::size_t{static_cast<unsigned char>(script[1])} << 8;
    if (script.size() - 2 < size) return false;
    pieces.emplace_back(script.substr(2, size));
    script.remove_prefix(2 + size);
  }
  return true;
}

TEST(MutatorsTest, AMutatedMessageIsAMessageAndMostlyAnotherOne) {
  std::string message = someMessage();
  std::size_t changed = 0;
  for (unsigned seed = 1; seed <= kSeeds; ++seed) {
    Chance chance(seed);
    const std::string next = Fuzz::mutateMessage(message, kMost, chance);
    ASSERT_TRUE(isMessage(next)) << seed;
    ASSERT_LE(next.size(), kMost) << seed;
    if (next != message) ++changed;
    message = next.empty() ? someMessage() : next;  // Changes of changes.
  }
  EXPECT_GT(changed, kSeeds / 2);
}

TEST(MutatorsTest, FieldsDeepInsideAreChangedAndTheLengthsAroundThemAreRight) {
  const std::string message = someMessage();
  bool isReached = false;
  for (unsigned seed = 1; seed <= kSeeds && !isReached; ++seed) {
    Chance chance(seed);
    const auto fields = Fuzz::readFields(Fuzz::mutateMessage(message, kMost, chance));
    ASSERT_TRUE(fields.has_value());
    if (fields->size() != 3 || fields->back().number != 3) continue;
    const auto middle = Fuzz::readFields(fields->back().bytes);
    if (!middle || middle->size() != 1) continue;
    const auto inner = Fuzz::readFields(middle->front().bytes);
    isReached =
        inner && inner->size() == 2 && inner->back().number == 2 && inner->back().value != 7;
  }
  EXPECT_TRUE(isReached);
}

TEST(MutatorsTest, ABrokenMessageIsMostlyNone) {
  std::size_t broken = 0;
  for (unsigned seed = 1; seed <= kSeeds; ++seed) {
    Chance chance(seed);
    const std::string bytes = Fuzz::breakMessage(someMessage(), kMost, chance);
    ASSERT_LE(bytes.size(), kMost);
    if (!isMessage(bytes)) ++broken;
  }
  EXPECT_GT(broken, kSeeds / 2);
}

TEST(MutatorsTest, ABrokenMessageMayHaveOneFalseLengthDeepInside) {
  bool isReached = false;
  for (unsigned seed = 1; seed <= kSeeds && !isReached; ++seed) {
    Chance chance(seed);
    const auto fields = Fuzz::readFields(Fuzz::breakMessage(someMessage(), kMost, chance));
    isReached = fields && fields->size() == 3 && !Fuzz::readFields(fields->back().bytes);
  }
  EXPECT_TRUE(isReached);
}

TEST(MutatorsTest, ACrossedMessageHasFieldsOfBoth) {
  const std::string other = Fuzz::writeFields({{9, WireField::Form::Varint, 1, {}}});
  for (unsigned seed = 1; seed <= 100; ++seed) {
    Chance chance(seed);
    const std::string crossed = Fuzz::crossMessages(someMessage(), other, kMost, chance);
    ASSERT_TRUE(isMessage(crossed));
    ASSERT_EQ(Fuzz::readFields(crossed)->size(), 4U);
  }
}

TEST(MutatorsTest, FramesChangeInNumberOrderAndEachFieldOfTheirHeaders) {
  const std::string frames = frameOf(1, someMessage()) + frameOf(2, "");
  std::set<std::string> seen;
  for (unsigned seed = 1; seed <= kSeeds; ++seed) {
    Chance chance(seed);
    const std::string next = Fuzz::mutateFrames(frames, kMost, chance);
    ASSERT_LE(next.size(), kMost);
    if (next.size() == frames.size()) {
      for (std::size_t at = 0; at < PbUtility::kFrameHeaderBytes; ++at)
        if (next[at] != frames[at]) seen.insert("byte " + std::to_string(at));
    }
    if (next == frameOf(2, "") + frameOf(1, someMessage())) seen.insert("swapped");
    if (next == frameOf(1, someMessage())) seen.insert("dropped");
    if (next == frames + frameOf(2, "")) seen.insert("doubled");
  }
  EXPECT_THAT(seen, testing::IsSupersetOf({"byte 0", "byte 1", "byte 2", "byte 4", "byte 8",
                                           "byte 12", "byte 16", "swapped", "dropped", "doubled"}));
}

TEST(MutatorsTest, APayloadThatGrowsOrShrinksHasItsLengthInItsHeader) {
  const std::string frame = frameOf(1, someMessage());
  std::size_t fitting = 0;
  for (unsigned seed = 1; seed <= kSeeds; ++seed) {
    Chance chance(seed);
    const std::string next = Fuzz::mutateFrames(frame, kMost, chance);
    FrameHeader header;
    if (next.size() == frame.size() || next.size() < PbUtility::kFrameHeaderBytes) continue;
    if (!decodeHeader(reinterpret_cast<const unsigned char*>(next.data()), header).ok()) continue;
    if (header.payloadBytes == next.size() - PbUtility::kFrameHeaderBytes) ++fitting;
  }
  EXPECT_GT(fitting, kSeeds / 20);
}

TEST(MutatorsTest, StepsStayWholeAndTheirPiecesMostlyMessages) {
  const std::string script = step(2, someMessage()) + '\1' + step(4, someMessage()) + '\3';
  std::size_t messages = 0;
  std::size_t pieces = 0;
  for (unsigned seed = 1; seed <= kSeeds; ++seed) {
    Chance chance(seed);
    const std::string next = Fuzz::mutateSteps(script, evenHasPiece, kMost, chance);
    std::vector<std::string> found;
    ASSERT_TRUE(readPieces(next, found)) << seed;
    ASSERT_LE(next.size(), kMost);
    pieces += found.size();
    for (const std::string& piece : found) {
      if (isMessage(piece)) ++messages;
    }
  }
  EXPECT_GT(messages * 100, pieces * 90);
}

TEST(MutatorsTest, CrossedScriptsAreWhole) {
  const std::string a = step(2, "") + '\1' + step(4, someMessage());
  const std::string b = std::string("\5\7") + step(6, someMessage());
  for (unsigned seed = 1; seed <= kSeeds; ++seed) {
    Chance chance(seed);
    std::vector<std::string> pieces;
    ASSERT_TRUE(readPieces(Fuzz::crossSteps(a, b, evenHasPiece, kMost, chance), pieces)) << seed;
  }
}

TEST(MutatorsTest, NoShapeMakesMoreThanItMayAndAnEmptyInputIsNoTrouble) {
  const InputShape kShapes[] = {{2, InputShape::Rest::Message},
                                {2, InputShape::Rest::FramesOrMessage},
                                {1, InputShape::Rest::Steps, evenHasPiece},
                                {0, InputShape::Rest::CutFrames}};
  const std::string inputs[] = {"", "x", "\1\2" + frameOf(3, someMessage()),
                                std::string(60, '\xff')};
  for (const InputShape& shape : kShapes) {
    for (unsigned seed = 1; seed <= kSeeds; ++seed) {
      Chance chance(seed);
      const std::string& input = inputs[seed % 4];
      const std::size_t most = input.size() + seed % 50;
      ASSERT_LE(Fuzz::mutateInput(shape, input, most, chance).size(), most);
      ASSERT_LE(Fuzz::crossInputs(shape, input, inputs[seed / 4 % 4], most, chance).size(), most);
    }
  }
}

TEST(MutatorsTest, TheSameSeedMakesTheSameChange) {
  for (unsigned seed = 1; seed <= 100; ++seed) {
    Chance once(seed);
    Chance again(seed);
    EXPECT_EQ(Fuzz::mutateFrames(frameOf(1, someMessage()), kMost, once),
              Fuzz::mutateFrames(frameOf(1, someMessage()), kMost, again));
  }
}

}  // namespace
