// The wire format of messages: a tag, which is a field's number and form, and then what the form says:
// a varint, eight bytes, four bytes, or a length and so many bytes. Values are little-endian.
//
// Reading is strict where writing is not: a number that does not fit its varint, and bytes that are not
// there, end it. A field that was read is written in the shortest form.
#include "fuzz/wire_fields.h"

#include <algorithm>

namespace Fuzz {
namespace {

using Form = WireField::Form;

constexpr unsigned kFormBits = 3;
constexpr std::uint32_t kMaxNumber = (1U << 29) - 1;

// Takes fields from the front of a payload. What fails leaves it anywhere.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  bool isOver() const { return bytes_.empty(); }

  bool take(WireField& field) {
    std::uint64_t tag = 0;
    if (!takeVarint(tag) || tag >> kFormBits == 0 || tag >> kFormBits > kMaxNumber) return false;
    field.number = static_cast<std::uint32_t>(tag >> kFormBits);
    field.form = static_cast<Form>(tag & 7);
    switch (field.form) {
      case Form::Varint:
        return takeVarint(field.value);
      case Form::Fixed64:
        return takeFixed(8, field.value);
      case Form::Fixed32:
        return takeFixed(4, field.value);
      case Form::Bytes:
        return takeBytes(field.bytes);
    }
    return false;
  }

 private:
  bool takeVarint(std::uint64_t& value) {
    value = 0;
    for (unsigned shift = 0; shift < 64 && !bytes_.empty(); shift += 7) {
      const auto byte = static_cast<std::uint8_t>(bytes_.front());
      bytes_.remove_prefix(1);
      value |= std::uint64_t{byte & 0x7fU} << shift;
      if (byte < 0x80) return true;
    }
    return false;
  }
  bool takeFixed(std::size_t size, std::uint64_t& value) {
    if (bytes_.size() < size) return false;
    value = 0;
    for (std::size_t i = size; i-- > 0;) value = value << 8 | static_cast<std::uint8_t>(bytes_[i]);
    bytes_.remove_prefix(size);
    return true;
  }
  bool takeBytes(std::string& taken) {
    std::uint64_t length = 0;
    if (!takeVarint(length) || length > bytes_.size()) return false;
    taken = bytes_.substr(0, static_cast<std::size_t>(length));
    bytes_.remove_prefix(taken.size());
    return true;
  }

  std::string_view bytes_;
};

void appendFixed(std::uint64_t value, std::size_t size, std::string& bytes) {
  for (; size > 0; --size, value >>= 8) bytes += static_cast<char>(value & 0xff);
}

void append(const WireField& field, std::string& bytes) {
  appendVarint(std::uint64_t{field.number} << kFormBits | static_cast<std::uint64_t>(field.form),
               bytes);
  switch (field.form) {
    case Form::Varint:
      return appendVarint(field.value, bytes);
    case Form::Fixed64:
      return appendFixed(field.value, 8, bytes);
    case Form::Fixed32:
      return appendFixed(field.value, 4, bytes);
    case Form::Bytes:
      appendVarint(field.bytes.size() + static_cast<std::size_t>(field.lengthError), bytes);
      bytes += field.bytes;
  }
}

}  // namespace

std::optional<WireFields> readFields(std::string_view payload) {
  WireFields fields;
  Reader reader(payload);
  while (!reader.isOver()) {
    if (!reader.take(fields.emplace_back())) return std::nullopt;
  }
  return fields;
}

std::string writeFields(const WireFields& fields) {
  std::string bytes;
  for (const WireField& field : fields) append(field, bytes);
  return bytes;
}

void appendVarint(std::uint64_t value, std::string& bytes) {
  for (; value >= 0x80; value >>= 7) bytes += static_cast<char>(value | 0x80);
  bytes += static_cast<char>(value);
}

}  // namespace Fuzz
