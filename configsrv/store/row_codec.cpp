// A row's checksum is that of its parts one after another, each with its length or presence before it, so
// that no two different rows have the same parts. The parts are appended to one short text; a value or
// options, which may be long, are summed where they are.
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

// How many bytes are summed at a time. A value may be of a megabyte, and its sum is made by the thread
// for whose commit others wait.
constexpr std::size_t kCrcSlices = 8;

using CrcTable = std::array<std::uint32_t, 256>;

// Table n is the sum of a byte that n zeros follow ("slicing-by-8": Kounavis and Berry, 2005).
constexpr std::array<CrcTable, kCrcSlices> makeCrcTables() {
  constexpr std::uint32_t kCastagnoli = 0x82F63B78U;
  std::array<CrcTable, kCrcSlices> tables{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t crc = i;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1U) != 0 ? kCastagnoli : 0);
    tables[0][i] = crc;
  }
  for (std::size_t slice = 1; slice < kCrcSlices; ++slice) {
    for (std::size_t i = 0; i < 256; ++i) {
      const std::uint32_t before = tables[slice - 1][i];
      tables[slice][i] = (before >> 8) ^ tables[0][before & 0xFFU];
    }
  }
  return tables;
}

constexpr std::array<CrcTable, kCrcSlices> kCrcTables = makeCrcTables();

// CRC-32C of what is added, piece by piece.
class Crc {
 public:
  void add(std::string_view bytes) {
    for (; bytes.size() >= kCrcSlices; bytes.remove_prefix(kCrcSlices)) {
      const std::uint32_t low = crc_ ^ readLength(bytes);
      const std::uint32_t high = readLength(bytes.substr(kLengthBytes));
      crc_ = slice(low, 7) ^ slice(high, 3);
    }
    for (const char c : bytes)
      crc_ = (crc_ >> 8) ^ kCrcTables[0][(crc_ ^ static_cast<unsigned char>(c)) & 0xFFU];
  }

  std::uint32_t sum() const { return ~crc_; }

 private:
  // Four bytes, of which the first one stands so many before the end of what is summed at a time.
  static std::uint32_t slice(std::uint32_t bytes, std::size_t first) {
    return kCrcTables[first][bytes & 0xFFU] ^ kCrcTables[first - 1][(bytes >> 8) & 0xFFU] ^
           kCrcTables[first - 2][(bytes >> 16) & 0xFFU] ^ kCrcTables[first - 3][bytes >> 24];
  }

  std::uint32_t crc_ = 0xFFFFFFFFU;
};

// Sums a row whose parts are appended to one text, except for what is long: that is not copied.
void addOptional(std::optional<std::string_view> bytes, std::string* row, Crc* crc) {
  row->push_back(bytes ? '\1' : '\0');
  if (!bytes) return;
  appendNumber(bytes->size(), kLengthBytes, row);
  crc->add(*row);
  row->clear();
  crc->add(*bytes);
}

}  // namespace

template <typename Strings>
std::string encodeStrings(const Strings& strings) {
  std::size_t size = 0;
  for (const std::string& string : strings) size += kLengthBytes + string.size();
  std::string bytes;
  bytes.reserve(size);
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
  Crc crc;
  crc.add(bytes);
  return crc.sum();
}

std::uint32_t rowChecksum(const StoredVariable& variable, std::optional<std::string_view> value,
                          std::optional<std::string_view> options) {
  Crc crc;
  std::string row;
  row.reserve(kRowBytes);
  appendKey(variable.key, &row);
  addOptional(value, &row, &crc);
  addOptional(options, &row, &crc);
  appendOptional(variable.defaultIndex, &row);
  appendOptional(variable.readRole, &row);
  appendOptional(variable.writeRole, &row);
  appendNumber(variable.valueChangedAt, 8, &row);
  appendNumber(variable.optionsChangedAt, 8, &row);
  appendNumber(variable.accessChangedAt, 8, &row);
  crc.add(row);
  return crc.sum();
}

std::uint64_t rowDigest(const StoredVariable& variable, std::uint32_t checksum) {
  std::uint64_t digest = mixed(checksum);
  for (const std::uint64_t revision :
       {variable.valueChangedAt, variable.optionsChangedAt, variable.accessChangedAt})
    digest = mixed(digest + revision);
  return digest;
}

std::uint64_t rowDigest(const StoredVariable& variable) {
  return rowDigest(variable, rowChecksum(variable, encodeOptional(variable.value),
                                         encodeOptional(variable.options)));
}

std::uint32_t metaChecksum(std::int64_t format, std::uint64_t storeId) {
  std::string row;
  appendNumber(static_cast<std::uint64_t>(format), 8, &row);
  appendNumber(storeId, 8, &row);
  return crc32c(row);
}

}  // namespace ConfigSrv
