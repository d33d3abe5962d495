// The form of the wire (protobuf's): a message is a row of fields, each a tag and a content. The
// tag holds the field's number and its wire type; a string, and a message inside of a message,
// begin with their length. So a walk from field to field, into the messages that the shape knows,
// meets everything that the parser will allocate, and adds up what that takes:
//
//   a message  the object and the first array of each of its repeated fields
//   a string   the object, and its bytes when they do not fit inside
//   repeated   three pointers for each element: the array doubles, and is copied when it does
//   unknown    one container for each message that has such fields, and their bytes three times,
//              for the string that they are appended to doubles as well
//
// A message that is not repeated but sent several times is merged into one by the parser. Here each
// costs as if it were another, and what it counts is counted together: its counts are those of the
// next message around it that is repeated.
#include "platform/schema/internal/unfolding.h"

#include <algorithm>
#include <array>
#include <string>

#include "platform/schema/message_bounds.h"

namespace PlatformSchema {
namespace {

using Bytes = const unsigned char*;
using Counts = std::array<std::uint16_t, kCountedKinds>;
using Result = Unfolding::Result;

constexpr std::size_t kBlock = 16;
constexpr std::size_t kArraySlot = 3 * sizeof(void*);
constexpr std::size_t kStringInside = 15;
constexpr std::size_t kUnknownContainer = sizeof(std::string) + sizeof(void*) + kBlock;
constexpr std::size_t kUnknownGrowth = 3;
// Groups inside of groups; the parser goes no deeper.
constexpr std::size_t kMaxGroups = 100;

enum class WireType : std::uint32_t { Varint, Fixed64, Length, Group, EndGroup, Fixed32 };

WireType typeOf(std::uint32_t tag) { return static_cast<WireType>(tag & 7); }

constexpr std::array<std::size_t, kCountedKinds> kMost = {
    ~std::size_t{0},          MessageLimits::kNodes,   MessageLimits::kEntries,
    MessageLimits::kElements, MessageLimits::kOptions, MessageLimits::kMessages};

std::size_t costOfString(const Part& part, std::size_t length) {
  std::size_t cost = sizeof(std::string) + kBlock + (part.repeated ? kArraySlot : 0);
  if (length > kStringInside) cost += std::max(length, 2 * kStringInside) + 1 + kBlock;
  return cost;
}

std::size_t costOfMessage(const Part& part) {
  return part.message->bytes + (part.repeated ? kArraySlot : 0);
}

const Part* partOf(const Shape& shape, std::uint32_t tag) {
  if (typeOf(tag) != WireType::Length) return nullptr;
  for (const Part* part = shape.parts; part != shape.parts + shape.partCount; ++part) {
    if (part->number == tag >> 3) return part;
  }
  return nullptr;
}

bool isPlainNumber(const Shape& shape, std::uint32_t tag) {
  const std::uint32_t number = tag >> 3;
  return typeOf(tag) == WireType::Varint && number < 32 && (shape.plainNumbers >> number & 1) != 0;
}

class Walk {
 public:
  Walk(std::string_view payload, std::size_t mostMemory)
      : at_(reinterpret_cast<Bytes>(payload.data())), mostMemory_(mostMemory) {}

  // Looks through the inside of a message, which goes until `end`. False when it ended before.
  bool message(const Shape& shape, Bytes end, Counts& counts) {
    bool hasUnknown = false;
    while (at_ != end) {
      const Bytes start = at_;
      std::uint32_t tag = 0;
      if (!readTag(end, tag)) return stop(Result::Broken);
      if (const Part* part = partOf(shape, tag)) {
        if (!take(*part, end, counts)) return false;
        continue;
      }
      if (!passOver(tag, end)) return stop(Result::Broken);
      if (isPlainNumber(shape, tag)) continue;
      const std::size_t container = hasUnknown ? 0 : kUnknownContainer + kBlock;
      hasUnknown = true;
      if (!spend(container + kUnknownGrowth * static_cast<std::size_t>(at_ - start))) return false;
    }
    return true;
  }

  const Unfolding& found() const { return found_; }

 private:
  bool stop(Result result, Counted past = Counted::Nothing) {
    found_.result = result;
    found_.past = past;
    return false;
  }

  bool spend(std::size_t cost) {
    found_.memory += cost;
    return found_.memory <= mostMemory_ || stop(Result::TooMuch);
  }

  bool count(Counted kind, Counts& counts) {
    if (kind == Counted::Nothing) return true;
    const auto index = static_cast<std::size_t>(kind);
    return ++counts[index] <= kMost[index] || stop(Result::TooMuch, kind);
  }

  bool take(const Part& part, Bytes end, Counts& counts) {
    std::size_t length = 0;
    if (!readLength(end, length)) return stop(Result::Broken);
    if (!count(part.counted, counts)) return false;
    const Bytes after = at_ + length;
    if (part.message == nullptr) {
      at_ = after;
      return spend(costOfString(part, length));
    }
    if (!spend(costOfMessage(part))) return false;
    if (!part.repeated) return message(*part.message, after, counts);
    Counts own{};
    return message(*part.message, after, own);
  }

  bool readTag(Bytes end, std::uint32_t& tag) {
    std::uint64_t value = 0;
    const Bytes start = at_;
    if (!readVarint(end, value) || at_ - start > 5) return false;
    ++found_.steps;
    // The parser, too, takes the lower 32 bits.
    tag = static_cast<std::uint32_t>(value);
    return tag >> 3 != 0;
  }

  bool readVarint(Bytes end, std::uint64_t& value) {
    constexpr unsigned kLongestShift = 63;
    // Nearly all are one byte.
    if (at_ != end && *at_ < 0x80) {
      value = *at_++;
      return true;
    }
    value = 0;
    for (unsigned shift = 0; at_ != end && shift <= kLongestShift; shift += 7) {
      const std::uint64_t byte = *at_++;
      value |= (byte & 0x7F) << shift;
      if (byte < 0x80) return true;
    }
    return false;
  }

  bool readLength(Bytes end, std::size_t& length) {
    std::uint64_t value = 0;
    if (!readVarint(end, value) || value > static_cast<std::size_t>(end - at_)) return false;
    length = static_cast<std::size_t>(value);
    return true;
  }

  bool pass(Bytes end, std::size_t bytes) {
    if (static_cast<std::size_t>(end - at_) < bytes) return false;
    at_ += bytes;
    return true;
  }

  // Passes over a field's content; false when it is none.
  bool passOver(std::uint32_t tag, Bytes end) {
    std::uint64_t value = 0;
    std::size_t length = 0;
    switch (typeOf(tag)) {
      case WireType::Varint:
        return readVarint(end, value);
      case WireType::Fixed64:
        return pass(end, 8);
      case WireType::Length:
        return readLength(end, length) && pass(end, length);
      case WireType::Group:
        return passOverGroup(end);
      case WireType::Fixed32:
        return pass(end, 4);
      case WireType::EndGroup:
        break;
    }
    return false;  // 6 and 7, too, are no types
  }

  // Which group an end belongs to is left to the parser.
  bool passOverGroup(Bytes end) {
    std::size_t open = 1;
    while (open > 0) {
      std::uint32_t tag = 0;
      if (!readTag(end, tag)) return false;
      if (typeOf(tag) == WireType::Group) {
        if (++open > kMaxGroups) return false;
      } else if (typeOf(tag) == WireType::EndGroup) {
        --open;
      } else if (!passOver(tag, end)) {
        return false;
      }
    }
    return true;
  }

  Bytes at_;
  const std::size_t mostMemory_;
  Unfolding found_;
};

}  // namespace

Unfolding unfolding(const Shape& shape, std::string_view payload, std::size_t mostMemory) {
  Walk walk(payload, mostMemory);
  Counts counts{};
  walk.message(shape, reinterpret_cast<Bytes>(payload.data()) + payload.size(), counts);
  return walk.found();
}

std::size_t mostMemory(const Shape& shape, std::size_t payloadBytes) {
  if (holdsRecords(shape))
    return MessageLimits::kRecordsMemory + MessageLimits::kRecordsMemoryPerByte * payloadBytes;
  return MessageLimits::kMemory + MessageLimits::kMemoryPerByte * payloadBytes;
}

}  // namespace PlatformSchema
