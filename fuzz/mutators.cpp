// Mutations of frames and of scripts, and which of them an input gets.
//
// Both are lists of parts: they are taken apart, one part is changed, dropped, doubled, moved or taken
// from elsewhere, and they are put together again. What is behind the last whole part (half a frame,
// mostly) stays there.
#include "fuzz/mutators.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>
#include <vector>

#include "platform/messaging/wire/frame.h"
#include "platform/schema/message_ids.h"

namespace Fuzz {
namespace {

using PbUtility::FrameHeader;
using PbUtility::FrameKind;

constexpr std::size_t kMaxPiece = 0xffff;
// Of 8 messages one is broken: the others get past the parser.
constexpr std::size_t kOneBroken = 8;

std::string orElse(std::string changed, std::string_view before, std::size_t most) {
  return changed.size() <= most ? std::move(changed) : std::string(before);
}

std::string mutateOrBreak(std::string_view message, std::size_t most, Chance& chance) {
  return chance.oneIn(kOneBroken) ? breakMessage(message, most, chance)
                                  : mutateMessage(message, most, chance);
}

// What all lists have in common. False: the part itself is to be changed.
template <typename Part>
bool mutateList(std::vector<Part>& parts, std::size_t at, Chance& chance) {
  const auto there = parts.begin() + static_cast<std::ptrdiff_t>(at);
  const std::size_t other = chance.below(parts.size());
  switch (chance.below(8)) {
    case 0:
      parts.erase(there);
      return true;
    case 1:
      parts.insert(parts.begin() + static_cast<std::ptrdiff_t>(other), Part(*there));
      return true;
    case 2:
      std::swap(*there, parts[other]);
      return true;
    default:
      return false;
  }
}

template <typename Part>
std::vector<Part> crossed(const std::vector<Part>& a, const std::vector<Part>& b, Chance& chance) {
  const auto until = static_cast<std::ptrdiff_t>(chance.below(a.size() + 1));
  const auto from = static_cast<std::ptrdiff_t>(chance.below(b.size() + 1));
  std::vector<Part> both(a.begin(), a.begin() + until);
  both.insert(both.end(), b.begin() + from, b.end());
  // What was behind the joint follows sometimes, so that one list stands inside the other.
  if (chance.oneIn(2)) both.insert(both.end(), a.begin() + until, a.end());
  return both;
}

// --- Frames ---

struct FrameParts {
  std::string header;
  std::string payload;
};

// A little-endian number within a header.
struct HeaderField {
  std::size_t at;
  std::size_t bytes;
};
constexpr HeaderField kVersion{0, 1};
constexpr HeaderField kKind{1, 1};
constexpr HeaderField kFlags{2, 2};
constexpr HeaderField kMessageId{4, 4};
constexpr HeaderField kSequence{8, 4};
constexpr HeaderField kPayloadBytes{12, 4};
constexpr HeaderField kRevision{16, 8};

std::uint64_t get(std::string_view header, HeaderField field) {
  std::uint64_t value = 0;
  for (std::size_t i = field.bytes; i-- > 0;)
    value = value << 8 | static_cast<std::uint8_t>(header[field.at + i]);
  return value;
}

void set(std::string& header, HeaderField field, std::uint64_t value) {
  for (std::size_t i = 0; i < field.bytes; ++i, value >>= 8)
    header[field.at + i] = static_cast<char>(value & 0xff);
}

// Takes whole frames from the front; what is left is the rest.
std::vector<FrameParts> takeFrames(std::string_view& bytes) {
  std::vector<FrameParts> frames;
  while (bytes.size() >= PbUtility::kFrameHeaderBytes) {
    const std::string_view header = bytes.substr(0, PbUtility::kFrameHeaderBytes);
    const std::uint64_t length = get(header, kPayloadBytes);
    if (length > bytes.size() - header.size()) break;
    const std::string_view payload = bytes.substr(header.size(), static_cast<std::size_t>(length));
    frames.push_back({std::string(header), std::string(payload)});
    bytes.remove_prefix(header.size() + payload.size());
  }
  return frames;
}

std::string joined(const std::vector<FrameParts>& frames, std::string_view rest) {
  std::string bytes;
  for (const FrameParts& frame : frames) bytes += frame.header + frame.payload;
  return bytes.append(rest);
}

std::uint64_t anyMessageId(Chance& chance) {
  static const std::vector<std::uint32_t> ids = PlatformSchema::messageIds();
  return ids[chance.below(ids.size())] + chance.below(chance.oneIn(4) ? 3 : 1);
}

std::uint64_t anyKind(Chance& chance) { return chance.below(12); }

FrameParts anyFrame(Chance& chance) {
  FrameHeader header;
  header.kind = static_cast<FrameKind>(anyKind(chance));
  header.messageId = static_cast<std::uint32_t>(anyMessageId(chance));
  header.sequence = static_cast<std::uint32_t>(chance.below(4));
  PbUtility::FrameHeaderBytes bytes;
  encodeHeader(header, bytes.data());
  return {std::string(bytes.begin(), bytes.end()), {}};
}

// A length that the payload has not; 16 MiB, and one more, are the limit.
std::uint64_t falseLength(std::uint64_t length, Chance& chance) {
  const std::uint64_t kLengths[] = {0,
                                    length + 1,
                                    length - 1,
                                    PbUtility::kMaxPayloadBytes,
                                    PbUtility::kMaxPayloadBytes + 1,
                                    0xffffffff};
  return kLengths[chance.below(std::size(kLengths))];
}

std::uint64_t anySequence(std::uint64_t sequence, Chance& chance) {
  const std::uint64_t kSequences[] = {0, 1, sequence + 1, sequence - 1, 0xffffffff};
  return kSequences[chance.below(std::size(kSequences))];
}

std::uint64_t anyRevision(Chance& chance) {
  constexpr std::uint64_t kRevisions[] = {0, 1, 7, PbUtility::kRevisionNow,
                                          PbUtility::kRevisionNone};
  return kRevisions[chance.below(std::size(kRevisions))];
}

void mutatePayload(FrameParts& frame, std::size_t most, Chance& chance) {
  frame.payload = mutateOrBreak(frame.payload, most, chance);
  set(frame.header, kPayloadBytes, frame.payload.size());
}

void mutateFrame(FrameParts& frame, std::size_t most, Chance& chance) {
  switch (chance.below(12)) {
    case 0:
    case 1:
      return set(frame.header, kKind, anyKind(chance));
    case 2:
      return set(frame.header, kMessageId, anyMessageId(chance));
    case 3:
      return set(frame.header, kSequence, anySequence(get(frame.header, kSequence), chance));
    case 4:
      return set(frame.header, kPayloadBytes, falseLength(frame.payload.size(), chance));
    case 5:
      return set(frame.header, kFlags, chance.below(chance.oneIn(4) ? 0x10000 : 4));
    case 6:
      return set(frame.header, kRevision, anyRevision(chance));
    case 7:
      return set(frame.header, kVersion, chance.below(3));
    default:
      return mutatePayload(frame, most, chance);
  }
}

// --- Steps ---

struct Step {
  StepForm form;
  std::string head;
  std::string first;
  std::string second;
};

std::string takePiece(Piece form, std::string_view& bytes) {
  if (form == Piece::None || bytes.empty()) return {};
  const auto low = static_cast<std::uint8_t>(bytes[0]);
  const auto high = bytes.size() < 2 ? std::uint8_t{0} : static_cast<std::uint8_t>(bytes[1]);
  bytes.remove_prefix(std::min<std::size_t>(2, bytes.size()));
  const std::string_view piece = bytes.substr(0, low | std::size_t{high} << 8);
  bytes.remove_prefix(piece.size());
  return std::string(piece);
}

std::vector<Step> stepsOf(std::string_view bytes, FormOf formOf) {
  std::vector<Step> steps;
  while (!bytes.empty()) {
    Step step{formOf(bytes), {}, {}, {}};
    step.head = bytes.substr(0, step.form.headBytes);
    bytes.remove_prefix(step.head.size());
    step.head.resize(step.form.headBytes);
    step.first = takePiece(step.form.first, bytes);
    step.second = takePiece(step.form.second, bytes);
    steps.push_back(std::move(step));
  }
  return steps;
}

void appendPiece(Piece form, const std::string& piece, std::string& bytes) {
  if (form == Piece::None) return;
  const std::size_t size = std::min(piece.size(), kMaxPiece);
  bytes += static_cast<char>(size & 0xff);
  bytes += static_cast<char>(size >> 8);
  bytes.append(piece, 0, size);
}

std::string joined(const std::vector<Step>& steps) {
  std::string bytes;
  for (const Step& step : steps) {
    bytes += step.head;
    appendPiece(step.form.first, step.first, bytes);
    appendPiece(step.form.second, step.second, bytes);
  }
  return bytes;
}

std::string mutatePiece(Piece form, const std::string& piece, std::size_t most, Chance& chance) {
  switch (form) {
    case Piece::Message:
      return mutateOrBreak(piece, most, chance);
    case Piece::Frames:
      return mutateFrames(piece, most, chance);
    default:
      return mutateBytes(piece, most, chance);
  }
}

// A head's form may be another one then: its pieces go with it as far as that has some.
void mutateHead(Step& step, FormOf formOf, Chance& chance) {
  char& byte = step.head[chance.below(step.head.size())];
  byte = chance.oneIn(4) ? static_cast<char>(byte + 1) : static_cast<char>(chance.below(256));
  step.form = formOf(step.head + std::string(16, '\0'));
  step.head.resize(step.form.headBytes);
}

void mutateStep(Step& step, FormOf formOf, std::size_t most, Chance& chance) {
  if (step.form.first == Piece::None || chance.oneIn(3)) return mutateHead(step, formOf, chance);
  most = std::min(most, kMaxPiece);
  if (step.form.second != Piece::None && chance.oneIn(2)) {
    step.second = mutatePiece(step.form.second, step.second, most, chance);
  } else {
    step.first = mutatePiece(step.form.first, step.first, most, chance);
  }
}

// --- Frames in pieces ---

constexpr std::size_t kFailures = 253;

// The bytes of all pieces, without their lengths and without failures.
std::string uncut(std::string_view pieces) {
  std::string bytes;
  while (!pieces.empty()) {
    const auto length = static_cast<std::uint8_t>(pieces.front());
    pieces.remove_prefix(1);
    if (length >= kFailures) continue;
    bytes += pieces.substr(0, length);
    pieces.remove_prefix(std::min<std::size_t>(length, pieces.size()));
  }
  return bytes;
}

std::string cut(std::string_view bytes, Chance& chance) {
  std::string pieces;
  while (!bytes.empty()) {
    if (chance.oneIn(16)) pieces += static_cast<char>(kFailures + chance.below(2));
    const std::size_t most = chance.oneIn(4) ? 8 : kFailures;
    const std::size_t length = std::min(chance.below(most), bytes.size());
    pieces += static_cast<char>(length);
    pieces += bytes.substr(0, length);
    bytes.remove_prefix(length);
  }
  return pieces;
}

std::string mutateRest(const InputShape& shape, std::string_view rest, std::size_t most,
                       Chance& chance) {
  switch (shape.rest) {
    case InputShape::Rest::Message:
      return mutateOrBreak(rest, most, chance);
    case InputShape::Rest::FramesOrMessage:
      return chance.oneIn(2) ? mutateFrames(rest, most, chance) : mutateOrBreak(rest, most, chance);
    case InputShape::Rest::Steps:
      return mutateSteps(rest, shape.formOf, most, chance);
    case InputShape::Rest::CutFrames:
      return orElse(cut(mutateFrames(uncut(rest), most, chance), chance), rest, most);
  }
  return std::string(rest);
}

std::string crossRest(const InputShape& shape, std::string_view a, std::string_view b,
                      std::size_t most, Chance& chance) {
  switch (shape.rest) {
    case InputShape::Rest::Steps:
      return crossSteps(a, b, shape.formOf, most, chance);
    case InputShape::Rest::CutFrames:
      return orElse(std::string(a).append(b), a, most);
    default:
      return crossMessages(a, b, most, chance);
  }
}

}  // namespace

std::string mutateFrames(std::string_view bytes, std::size_t most, Chance& chance) {
  std::string_view rest = bytes;
  std::vector<FrameParts> frames = takeFrames(rest);
  if (frames.empty() || chance.oneIn(12)) {
    const std::size_t at = chance.below(frames.size() + 1);
    frames.insert(frames.begin() + static_cast<std::ptrdiff_t>(at), anyFrame(chance));
  } else if (chance.oneIn(16)) {
    // The stream ends within a frame.
    return std::string(bytes.substr(0, chance.below(bytes.size())));
  } else {
    const std::size_t at = chance.below(frames.size());
    if (!mutateList(frames, at, chance)) mutateFrame(frames[at], most, chance);
  }
  return orElse(joined(frames, rest), bytes, most);
}

std::string mutateSteps(std::string_view bytes, FormOf formOf, std::size_t most, Chance& chance) {
  std::vector<Step> steps = stepsOf(bytes, formOf);
  if (steps.empty()) return mutateBytes(bytes, most, chance);
  const std::size_t at = chance.below(steps.size());
  if (!mutateList(steps, at, chance)) mutateStep(steps[at], formOf, most, chance);
  return orElse(joined(steps), bytes, most);
}

std::string crossSteps(std::string_view a, std::string_view b, FormOf formOf, std::size_t most,
                       Chance& chance) {
  return orElse(joined(crossed(stepsOf(a, formOf), stepsOf(b, formOf), chance)), a, most);
}

// The head is changed rarely: what follows it is mostly of its kind.
std::string mutateInput(const InputShape& shape, std::string_view input, std::size_t most,
                        Chance& chance) {
  const std::size_t headBytes = std::min(shape.headBytes, input.size());
  std::string head(input.substr(0, headBytes));
  if (most < headBytes) return std::string(input.substr(0, most));
  if (!head.empty() && chance.oneIn(8)) head = mutateBytes(head, headBytes, chance);
  head.resize(headBytes);
  return head + mutateRest(shape, input.substr(headBytes), most - headBytes, chance);
}

std::string crossInputs(const InputShape& shape, std::string_view a, std::string_view b,
                        std::size_t most, Chance& chance) {
  const std::size_t headBytes = std::min(shape.headBytes, a.size());
  if (most < a.size()) return std::string(a.substr(0, most));
  return std::string(a.substr(0, headBytes))
      .append(crossRest(shape, a.substr(headBytes), b.substr(std::min(headBytes, b.size())),
                        most - headBytes, chance));
}

}  // namespace Fuzz
