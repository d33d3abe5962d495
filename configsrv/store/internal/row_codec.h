// row_codec: how a list of byte strings becomes one BLOB, and what guards a row against rot.
//
// A list is each element in turn: its length (32 bits, little-endian), then its bytes. An empty
// list is an empty BLOB; an absent one is NULL, which is the table's matter.
//
// The checksum (CRC-32C) covers the whole row, key included. SQLite guards the shape of its file
// but not the bytes of a value: without this, a flipped bit would become the device's setting.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "configsrv/store/stored_variable.h"

namespace ConfigSrv {

// Strings is a std::list or std::vector of std::string.
template <typename Strings>
std::string encodeStrings(const Strings& strings);

// Nothing when the bytes are not what encodeStrings makes of some list.
template <typename Strings>
std::optional<Strings> decodeStrings(std::string_view bytes);

std::uint32_t crc32c(std::string_view bytes);

// The value and the options are given encoded, as they stand in the row.
std::uint32_t rowChecksum(const StoredVariable& variable, std::optional<std::string_view> value,
                          std::optional<std::string_view> options);

// A row's part of the digest of a store's contents, which is the sum of those of all rows: so a
// commit need not read the others. The checksum is the row's.
std::uint64_t rowDigest(const StoredVariable& variable, std::uint32_t checksum);
// The same of a row that is not encoded.
std::uint64_t rowDigest(const StoredVariable& variable);

template <typename Strings>
std::optional<std::string> encodeOptional(const std::optional<Strings>& strings) {
  if (!strings) return std::nullopt;
  return encodeStrings(*strings);
}

std::uint32_t metaChecksum(std::int64_t format, std::uint64_t storeId);

}  // namespace ConfigSrv
