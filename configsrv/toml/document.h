// TomlValue: a TOML file as a tree that knows where each of its values stands.
//
// Kept apart from the parser so that the parser is compiled in one place only.
//
// Shape:    kind says which of the members holds the value; the others are empty. Entries of a
//           table stand in the order of the file. line and column are those of the value, and
//           count from 1.
// Errors:   a file that cannot be read, is larger than kMaxTomlBytes, is not TOML or nests deeper
//           than a configuration ever does gives one Mistake and no tree.
// Threads:  plain values; any number of threads may read one, and parse at once.
//
//   TextFile file{"/etc/appconfig/roles.toml", {}};
//   if (std::optional<Mistake> mistake = readText(file)) return fail(*mistake);
//   TomlDocument document = parseToml(file.text, file.path);
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "configsrv/toml/mistake.h"

namespace ConfigSrv {

// Largest file that is read: 4 MiB, some 20,000 ordinary definitions.
inline constexpr std::size_t kMaxTomlBytes = std::size_t{4} << 20;

// Dots on one line, in strings and comments as well: each may open a table inside another, and the
// parser's recursion has to end before the stack does. A longer list is broken into lines.
inline constexpr std::size_t kMaxDotsPerLine = 200;

enum class TomlKind { String, Integer, Float, Boolean, DateTime, Array, Table };

// "a string", "an integer", ...: for messages.
std::string_view kindName(TomlKind kind);

struct TomlEntry;

struct TomlValue {
  TomlKind kind = TomlKind::Table;
  std::string string;
  std::int64_t integer = 0;
  bool boolean = false;
  std::vector<TomlValue> array;
  std::vector<TomlEntry> table;
  unsigned line = 1;
  unsigned column = 1;
};

// line and column are those of the name.
struct TomlEntry {
  std::string name;
  TomlValue value;
  unsigned line = 1;
  unsigned column = 1;
};

// Holds exactly one of the two: a root table, or what is wrong with the file.
struct TomlDocument {
  std::optional<TomlValue> root;
  std::optional<Mistake> mistake;
};

// file is the name used in mistakes.
TomlDocument parseToml(std::string_view text, const std::string& file);

TomlDocument readToml(const std::string& path);

// A file's name and what is in it: for whoever keeps the text to read it once more.
struct TextFile {
  std::string path;
  std::string text;
};

// Reads what readToml() would parse. The file's path says which, and is the name used in mistakes.
std::optional<Mistake> readText(TextFile& file);

// The same of a file that the caller has opened. For a caller that has to know whose file it is:
// opened a second time, the name could lead elsewhere.
std::optional<Mistake> readOpenText(int descriptor, TextFile& file);

}  // namespace ConfigSrv
