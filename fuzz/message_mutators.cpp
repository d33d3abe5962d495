// Mutations of messages: one field at a time, at any depth.
//
// A field of bytes is entered as often as not when its bytes can be read as fields, so that what is deep
// is changed as often as what is not. Everything is changed in the tree and then written, which makes
// the lengths right at every depth. Values are the edges of the types that the schema has.
#include <algorithm>
#include <array>
#include <iterator>

#include "fuzz/mutators.h"
#include "fuzz/wire_fields.h"

// The fuzzer's own; null in a program that has none.
extern "C" __attribute__((weak)) std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size,
                                                              std::size_t most);

namespace Fuzz {
namespace {

using Form = WireField::Form;

constexpr unsigned kMaxDepth = 8;
// Field numbers of the schema are small; those that it does not have are kept as they are.
constexpr std::size_t kLikelyNumbers = 10;
constexpr std::size_t kMaxRepeats = 64;
constexpr std::array<std::uint64_t, 16> kEdges = {0,
                                                  1,
                                                  2,
                                                  3,
                                                  10,
                                                  50,
                                                  127,
                                                  128,
                                                  255,
                                                  0x7fffffff,
                                                  0x80000000,
                                                  0xffffffff,
                                                  0xffffffff80000000,
                                                  0x7fffffffffffffff,
                                                  0x8000000000000000,
                                                  ~std::uint64_t{0}};

std::ptrdiff_t place(const WireFields& fields, Chance& chance) {
  return static_cast<std::ptrdiff_t>(chance.below(fields.size() + 1));
}

std::uint32_t anyNumber(Chance& chance) {
  if (chance.oneIn(32)) return (1U << 29) - 1;
  return static_cast<std::uint32_t>(1 + chance.below(kLikelyNumbers));
}

Form anyForm(Chance& chance) {
  constexpr Form kForms[] = {Form::Varint, Form::Varint,  Form::Bytes,
                             Form::Bytes,  Form::Fixed32, Form::Fixed64};
  return kForms[chance.below(std::size(kForms))];
}

std::string anyText(Chance& chance) {
  constexpr const char* kTexts[] = {"",  "net.mtu", "net", "1500", "a..b", "x.y[1].z",
                                    "%", "\xff",    "A",   "true", "cfg"};
  if (chance.oneIn(8)) return std::string(chance.below(300), 'x');
  return kTexts[chance.below(std::size(kTexts))];
}

WireField anyField(Chance& chance) {
  WireField field;
  field.number = anyNumber(chance);
  field.form = anyForm(chance);
  field.value = kEdges[chance.below(kEdges.size())];
  if (field.form == Form::Bytes) field.bytes = anyText(chance);
  return field;
}

void changeNumber(WireField& field, Chance& chance) {
  if (chance.oneIn(2)) {
    field.number = anyNumber(chance);
  } else {
    field.number = chance.oneIn(2) ? field.number + 1 : std::max(2U, field.number) - 1;
  }
  field.number = std::min(field.number, (1U << 29) - 1);
}

void changeValue(WireField& field, std::size_t most, Chance& chance) {
  if (field.form == Form::Bytes) {
    if (chance.oneIn(4)) field.bytes = anyText(chance);
    // Cut off, with a length that says so.
    else if (chance.oneIn(4))
      field.bytes.resize(chance.below(field.bytes.size()));
    else
      field.bytes = mutateBytes(field.bytes, most, chance);
    return;
  }
  switch (chance.below(3)) {
    case 0:
      field.value = kEdges[chance.below(kEdges.size())];
      return;
    case 1:
      field.value ^= std::uint64_t{1} << chance.below(64);
      return;
    default:
      field.value += chance.oneIn(2) ? 1 : ~std::uint64_t{0};
  }
}

void repeat(WireFields& fields, std::size_t at, Chance& chance) {
  const WireField once = fields[at];
  fields.insert(fields.begin() + static_cast<std::ptrdiff_t>(at),
                1 + chance.below(chance.oneIn(4) ? kMaxRepeats : 3), once);
}

void nest(WireField& field, Chance& chance) {
  WireField outer;
  outer.number = anyNumber(chance);
  outer.form = Form::Bytes;
  outer.bytes = writeFields({field});
  field = outer;
}

// What a field holds takes its place.
void unfold(WireFields& fields, std::size_t at) {
  auto inner = readFields(fields[at].bytes);
  const auto place = fields.erase(fields.begin() + static_cast<std::ptrdiff_t>(at));
  if (inner) fields.insert(place, inner->begin(), inner->end());
}

void mutateFields(WireFields& fields, std::size_t most, unsigned depth, Chance& chance);

// False when the bytes are no fields, or are too deep.
bool mutateInside(WireField& field, std::size_t most, unsigned depth, Chance& chance) {
  if (field.form != Form::Bytes || field.bytes.empty() || depth == kMaxDepth) return false;
  auto inner = readFields(field.bytes);
  if (!inner) return false;
  mutateFields(*inner, most, depth + 1, chance);
  field.bytes = writeFields(*inner);
  return true;
}

void mutateOne(WireFields& fields, std::size_t at, std::size_t most, Chance& chance) {
  WireField& field = fields[at];
  switch (chance.below(9)) {
    case 0:
      fields.erase(fields.begin() + static_cast<std::ptrdiff_t>(at));
      return;
    case 1:
      return repeat(fields, at, chance);
    case 2:
      return std::swap(field, fields[chance.below(fields.size())]);
    case 3:
      return changeNumber(field, chance);
    case 4:
      return chance.oneIn(2) ? nest(field, chance) : unfold(fields, at);
    case 5:
      fields.insert(fields.begin() + place(fields, chance), anyField(chance));
      return;
    case 6:
      field.form = anyForm(chance);
      return;
    default:
      return changeValue(field, most, chance);
  }
}

void mutateFields(WireFields& fields, std::size_t most, unsigned depth, Chance& chance) {
  if (fields.empty()) return fields.push_back(anyField(chance));
  const std::size_t at = chance.below(fields.size());
  if (chance.oneIn(2) && mutateInside(fields[at], most, depth, chance)) return;
  mutateOne(fields, at, most, chance);
}

// One length, at any depth; all that are around it are right.
void falsifyLength(WireFields& fields, unsigned depth, Chance& chance) {
  if (fields.empty()) return;
  WireField& field = fields[chance.below(fields.size())];
  auto inner = depth < kMaxDepth && chance.oneIn(2) ? readFields(field.bytes) : std::nullopt;
  if (!inner || inner->empty()) {
    field.form = Form::Bytes;
    field.lengthError = chance.oneIn(2) || field.bytes.empty() ? 1 : -1;
    return;
  }
  falsifyLength(*inner, depth + 1, chance);
  field.bytes = writeFields(*inner);
}

std::string withFalseLength(std::string_view message, Chance& chance) {
  auto fields = readFields(message);
  if (!fields) return std::string(message);
  falsifyLength(*fields, 0, chance);
  return writeFields(*fields);
}

// A number goes on where it ended, or is longer than any may be.
std::string withLongNumber(std::string bytes, Chance& chance) {
  const std::size_t at = chance.below(bytes.size());
  bytes[at] = static_cast<char>(bytes[at] | 0x80);
  if (chance.oneIn(4)) bytes.insert(at + 1, std::string(9, '\x80'));
  return bytes;
}

}  // namespace

std::string mutateBytes(std::string_view bytes, std::size_t most, Chance& chance) {
  std::string changed(bytes);
  if (LLVMFuzzerMutate != nullptr && most > 0) {
    changed.resize(std::max(most, bytes.size()));
    changed.resize(
        LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(changed.data()), bytes.size(), most));
    return changed;
  }
  if (changed.empty()) return std::string(std::min<std::size_t>(most, 1), 'x');
  changed[chance.below(changed.size())] = static_cast<char>(chance.below(256));
  return changed;
}

std::string mutateMessage(std::string_view message, std::size_t most, Chance& chance) {
  auto fields = readFields(message);
  if (!fields) return mutateBytes(message, most, chance);
  mutateFields(*fields, most, 0, chance);
  const std::string changed = writeFields(*fields);
  return changed.size() <= most ? changed : std::string(message);
}

std::string breakMessage(std::string_view message, std::size_t most, Chance& chance) {
  std::string broken(message);
  if (broken.empty()) return broken.assign(std::min<std::size_t>(most, 1), '\x80');
  switch (chance.below(3)) {
    case 0:
      broken.resize(chance.below(broken.size()));
      break;
    case 1:
      broken = withFalseLength(message, chance);
      break;
    default:
      broken = withLongNumber(broken, chance);
  }
  return broken.size() <= most ? broken : std::string(message);
}

// The fields of one, with some of the other's among them.
std::string crossMessages(std::string_view a, std::string_view b, std::size_t most,
                          Chance& chance) {
  auto fields = readFields(a);
  const auto others = readFields(b);
  if (!fields || !others || others->empty()) return std::string(a);
  const std::size_t first = chance.below(others->size());
  const std::size_t count = 1 + chance.below(others->size() - first);
  const auto from = others->begin() + static_cast<std::ptrdiff_t>(first);
  fields->insert(fields->begin() + place(*fields, chance), from,
                 from + static_cast<std::ptrdiff_t>(count));
  const std::string crossed = writeFields(*fields);
  return crossed.size() <= most ? crossed : std::string(a);
}

}  // namespace Fuzz
