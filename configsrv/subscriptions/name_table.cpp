// The upper bits of a name's hash choose one of the tables, and the table uses the lower ones, so
// that names spread in both.
//
// Entries of a name are kept sorted in a vector: most names have one or two, and those of one type
// are then read in one go. Places are given back only when a table is nearly empty, so that names
// that come and go do not make it shrink and grow each time.
#include "configsrv/subscriptions/internal/name_table.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <tuple>
#include <utility>

namespace ConfigSrv {
namespace {

// A table with less than one name for so many places is made smaller, unless it has few places
// anyway.
constexpr std::size_t kPlacesForOne = 8;
constexpr std::size_t kPlacesKept = 64;

}  // namespace

bool operator<(const Entry& a, const Entry& b) {
  return std::tie(a.type, a.caller, a.role) < std::tie(b.type, b.caller, b.role);
}

// By the upper bits: the tables themselves use the lower ones.
std::size_t NameTable::tableOf(std::size_t hash) {
  return hash >> (std::numeric_limits<std::size_t>::digits - static_cast<int>(kTableBits));
}

const NameTable::Name& NameTable::searched(std::string_view text, std::size_t hash) const {
  searched_.text.assign(text.data(), text.size());
  searched_.hash = hash;
  return searched_;
}

const NameTable::Node* NameTable::find(std::string_view name) const {
  const std::size_t hash = std::hash<std::string_view>()(name);
  const Table& table = tables_[tableOf(hash)];
  if (table.empty()) return nullptr;
  const auto found = table.find(searched(name, hash));
  return found == table.end() ? nullptr : &*found;
}

NameTable::Node* NameTable::find(std::string_view name) {
  return const_cast<Node*>(std::as_const(*this).find(name));
}

NameTable::Node& NameTable::at(std::string_view name) {
  const Name& wanted = searched(name, std::hash<std::string_view>()(name));
  const auto [node, isNew] = tables_[tableOf(wanted.hash)].try_emplace(wanted);
  size_ += isNew ? 1 : 0;
  return *node;
}

void NameTable::insert(Node& node, const Entry& entry) {
  Entries& entries = node.second;
  entries.insert(std::lower_bound(entries.begin(), entries.end(), entry), entry);
}

std::size_t NameTable::erase(Node& node, std::uint32_t caller, std::uint8_t type) {
  Entries& entries = node.second;
  const auto first = std::lower_bound(entries.begin(), entries.end(), Entry{caller, type, 0});
  const auto isOurs = [&](const Entry& entry) {
    return entry.type == type && entry.caller == caller;
  };
  const auto last = std::find_if_not(first, entries.end(), isOurs);
  const auto count = static_cast<std::size_t>(last - first);
  entries.erase(first, last);
  return count;
}

// Goes from type to type by binary search: thousands may have registered the name.
bool NameTable::hasAnyOf(const Node& node, std::uint32_t caller) {
  const Entries& entries = node.second;
  for (auto at = entries.begin(); at != entries.end();) {
    const std::uint8_t type = at->type;
    const auto found = std::lower_bound(at, entries.end(), Entry{caller, type, 0});
    if (found != entries.end() && found->type == type && found->caller == caller) return true;
    at = std::lower_bound(found, entries.end(), Entry{0, static_cast<std::uint8_t>(type + 1), 0});
  }
  return false;
}

void NameTable::dropIfEmpty(Node& node) {
  if (!node.second.empty()) return;
  Table& table = tables_[tableOf(node.first.hash)];
  table.erase(table.find(node.first));
  --size_;
  if (table.bucket_count() > kPlacesKept && table.bucket_count() / kPlacesForOne > table.size())
    table.rehash(0);
}

}  // namespace ConfigSrv
