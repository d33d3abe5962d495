#include "configsrv/store/internal/row_codec.h"

#include <array>
#include <utility>

namespace ConfigSrv {
namespace {

constexpr std::size_t kLengthBytes = 4;
// More than most rows have.
constexpr std::size_t kRowBytes = 256;

void appendNumber(std::uint64_t number, std::size_t bytes, std::string* out) {
  char littleEndian[sizeof number];
  for (std::size_t i = 0; i < bytes; ++i) littleEndian[i] = static_cast<char>(number >> (8 * i));
  out->append(littleEndian, bytes);
}

std::uint32_t readLength(std::string_view bytes) {
  std::uint32_t length = 0;
  for (std::size_t i = 0; i < kLengthBytes; ++i) {
    length |= std::uint32_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
  }
  return length;
}

void appendBytes(std::string_view bytes, std::string* out) {
  appendNumber(bytes.size(), kLengthBytes, out);
  out->append(bytes);
}

// Presence is part of what is summed: absent and 0 are two things.
template <typename Number>
void appendOptional(const std::optional<Number>& number, std::string* out) {
  out->push_back(number ? '\1' : '\0');
  appendNumber(number ? static_cast<std::uint32_t>(*number) : 0, 4, out);
}

void appendOptional(const std::optional<std::string>& bytes, std::string* out) {
  out->push_back(bytes ? '\1' : '\0');
  if (bytes) appendBytes(*bytes, out);
}

void appendKey(const ConfigVar& key, std::string* out) {
  appendNumber(static_cast<std::uint32_t>(key.nameSpace()), 4, out);
  appendBytes(key.group(), out);
  appendNumber(static_cast<std::uint32_t>(key.groupInstance()), 4, out);
  appendBytes(key.name(), out);
  appendNumber(static_cast<std::uint32_t>(key.nameInstance()), 4, out);
}

// Spreads each bit over all of them (the end of SplitMix64).
std::uint64_t mixed(std::uint64_t number) {
  number = (number ^ (number >> 30)) * std::uint64_t{0xBF58476D1CE4E5B9};
  number = (number ^ (number >> 27)) * std::uint64_t{0x94D049BB133111EB};
  return number ^ (number >> 31);
}

constexpr std::array<std::uint32_t, 256> makeCrcTable() {
  constexpr std::uint32_t kCastagnoli = 0x82F63B78U;
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t crc = i;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1U) != 0 ? kCastagnoli : 0);
    table[i] = crc;
  }
  return table;
}

constexpr std::array<std::uint32_t, 256> kCrcTable = makeCrcTable();

}  // namespace

template <typename Strings>
std::string encodeStrings(const Strings& strings) {
  std::string bytes;
  for (const std::string& string : strings) appendBytes(string, &bytes);
  return bytes;
}

template <typename Strings>
std::optional<Strings> decodeStrings(std::string_view bytes) {
  Strings strings;
  while (!bytes.empty()) {
    if (bytes.size() < kLengthBytes) return std::nullopt;
    const std::uint32_t length = readLength(bytes);
    bytes.remove_prefix(kLengthBytes);
    if (length > bytes.size()) return std::nullopt;
    strings.emplace_back(bytes.substr(0, length));
    bytes.remove_prefix(length);
  }
  return strings;
}

template std::string encodeStrings(const std::list<std::string>&);
template std::string encodeStrings(const std::vector<std::string>&);
template std::optional<std::list<std::string>> decodeStrings(std::string_view);
template std::optional<std::vector<std::string>> decodeStrings(std::string_view);

std::uint32_t crc32c(std::string_view bytes) {
  std::uint32_t crc = 0xFFFFFFFFU;
  for (const char c : bytes) {
    crc = (crc >> 8) ^ kCrcTable[(crc ^ static_cast<unsigned char>(c)) & 0xFFU];
  }
  return ~crc;
}

std::uint32_t rowChecksum(const StoredVariable& variable, const std::optional<std::string>& value,
                          const std::optional<std::string>& options) {
  std::string row;
  row.reserve(kRowBytes);
  appendKey(variable.key, &row);
  appendOptional(value, &row);
  appendOptional(options, &row);
  appendOptional(variable.defaultIndex, &row);
  appendOptional(variable.readRole, &row);
  appendOptional(variable.writeRole, &row);
  appendNumber(variable.valueChangedAt, 8, &row);
  appendNumber(variable.optionsChangedAt, 8, &row);
  appendNumber(variable.accessChangedAt, 8, &row);
  return crc32c(row);
}

std::uint64_t rowDigest(const StoredVariable& variable, std::uint32_t checksum) {
  std::uint64_t digest = mixed(checksum);
  for (const std::uint64_t revision :
       {variable.valueChangedAt, variable.optionsChangedAt, variable.accessChangedAt})
    digest = mixed(digest + revision);
  return digest;
}

std::uint32_t metaChecksum(std::int64_t format, std::uint64_t storeId) {
  std::string row;
  appendNumber(static_cast<std::uint64_t>(format), 8, &row);
  appendNumber(storeId, 8, &row);
  return crc32c(row);
}

}  // namespace ConfigSrv
