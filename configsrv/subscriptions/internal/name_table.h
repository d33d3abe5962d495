// NameTable: the registered names, each with the entries of those who registered it.
//
// Many small hash tables instead of a large one. A table that grows moves everything that it holds,
// and one of a million names would stand still for that; each of these holds a few thousand at
// most. One that becomes nearly empty gives its memory back.
//
// Threads:  one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ConfigSrv {

// One registration at a name: whose, and of which type of event and role.
struct Entry {
  std::uint32_t caller;
  std::uint8_t type;
  std::uint8_t role;
};

// Entries of one type stand together, and among them those of one caller.
bool operator<(const Entry& a, const Entry& b);

class NameTable {
 public:
  using Entries = std::vector<Entry>;

  // A text and its hash, which is needed twice: to choose the table, and inside it.
  struct Name {
    std::string text;
    std::size_t hash = 0;
  };
  // Nodes never move, so callers may keep pointers to them.
  using Node = std::pair<const Name, Entries>;

  bool isEmpty() const { return size_ == 0; }
  // Null when nobody has registered it.
  const Node* find(std::string_view name) const;
  Node* find(std::string_view name);

  // The name's node, made when there is none. The caller has to give it an entry.
  Node& at(std::string_view name);
  // The entry must not be there yet.
  static void insert(Node& node, const Entry& entry);
  // Removes the caller's entries of one type, and returns how many they were.
  static std::size_t erase(Node& node, std::uint32_t caller, std::uint8_t type);
  static bool hasAnyOf(const Node& node, std::uint32_t caller);
  void dropIfEmpty(Node& node);

 private:
  struct Hash {
    std::size_t operator()(const Name& name) const noexcept { return name.hash; }
  };
  struct Same {
    bool operator()(const Name& a, const Name& b) const {
      return a.hash == b.hash && a.text == b.text;
    }
  };
  using Table = std::unordered_map<Name, Entries, Hash, Same>;

  // A power of two.
  static constexpr unsigned kTableBits = 6;
  static constexpr std::size_t kTables = std::size_t{1} << kTableBits;
  static std::size_t tableOf(std::size_t hash);
  const Name& searched(std::string_view text, std::size_t hash) const;

  std::array<Table, kTables> tables_;
  std::size_t size_ = 0;
  // Reused for each look-up, so that looking up allocates nothing.
  mutable Name searched_;
};

}  // namespace ConfigSrv
