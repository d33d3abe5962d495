#include "configsrv/toml/document.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>
#include <utility>

// The only file that sees the parser: it is some 15,000 lines of templates, and compiled here once.
// Nesting of inline tables and arrays is limited by the parser; nesting by dots is not, and is
// limited before it gets to see the text (kMaxDotsPerLine).
//
// Its assertions do not hold for every text ("[&"), and in a release build they become promises to
// the compiler. Switched off, in both builds, the parser reports such a text like any other
// mistake.
#undef NDEBUG
#define TOML_ASSERT(condition) static_cast<void>(0)
#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#define TOML_MAX_NESTED_VALUES 16
#include <toml++/toml.h>

namespace ConfigSrv {
namespace {

class OpenFile {
 public:
  // Not blocking, so that a named pipe is found out rather than waited for.
  explicit OpenFile(const std::string& path)
      : descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

TomlDocument mistaken(const std::string& file, unsigned line, unsigned column, std::string text) {
  return {std::nullopt, Mistake{file, line, column, std::move(text)}};
}

std::string tooLarge() {
  return "the file is larger than " + std::to_string(kMaxTomlBytes) +
         " bytes, the most that is read: spread it over several files";
}

std::string cannotRead(int error) { return std::string("cannot be read: ") + std::strerror(error); }

// Empty when the file is one to read.
std::string whyNotToRead(int descriptor) {
  struct stat status = {};
  if (descriptor < 0 || ::fstat(descriptor, &status) != 0) return cannotRead(errno);
  if (!S_ISREG(status.st_mode)) return "cannot be read: it is no regular file";
  return std::string();
}

// Reads one byte more than the limit allows, so that a file that grows is found out as well.
std::string readAll(int descriptor, std::string& text) {
  std::string buffer(std::size_t{64} << 10, '\0');
  while (text.size() <= kMaxTomlBytes) {
    const ssize_t got = ::read(descriptor, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return cannotRead(errno);
    if (got == 0) return std::string();
    text.append(buffer, 0, static_cast<std::size_t>(got));
  }
  return tooLarge();
}

// The first line with too many dots, or 0.
unsigned overdottedLine(std::string_view text) {
  unsigned line = 1;
  std::size_t dots = 0;
  for (const char c : text) {
    if (c == '.' && ++dots > kMaxDotsPerLine) return line;
    if (c != '\n') continue;
    ++line;
    dots = 0;
  }
  return 0;
}

// The parser's words, less those that only its programmers understand. What it says of a table that
// stands there twice names a table that does not.
std::string readable(std::string text) {
  if (text.find("cannot redefine existing") != std::string::npos) {
    return "this name stands in the file twice";
  }
  constexpr std::string_view kMacro = " (TOML_MAX_NESTED_VALUES)";
  const std::size_t macro = text.find(kMacro);
  if (macro != std::string::npos) text.erase(macro, kMacro.size());
  return text;
}

TomlValue convert(const toml::node& node);

std::vector<TomlValue> convertArray(const toml::array& array) {
  std::vector<TomlValue> values;
  values.reserve(array.size());
  for (const toml::node& element : array) values.push_back(convert(element));
  return values;
}

std::vector<TomlEntry> convertTable(const toml::table& table) {
  std::vector<TomlEntry> entries;
  entries.reserve(table.size());
  for (const auto& [key, node] : table) {
    const toml::source_position begin = key.source().begin;
    entries.push_back({std::string(key.str()), convert(node), begin.line, begin.column});
  }
  // The parser orders by name; people read from top to bottom.
  std::sort(entries.begin(), entries.end(), [](const TomlEntry& a, const TomlEntry& b) {
    return std::tie(a.line, a.column, a.name) < std::tie(b.line, b.column, b.name);
  });
  return entries;
}

TomlKind kindOf(const toml::node& node) {
  switch (node.type()) {
    case toml::node_type::string:
      return TomlKind::kString;
    case toml::node_type::integer:
      return TomlKind::kInteger;
    case toml::node_type::floating_point:
      return TomlKind::kFloat;
    case toml::node_type::boolean:
      return TomlKind::kBoolean;
    case toml::node_type::array:
      return TomlKind::kArray;
    case toml::node_type::table:
      return TomlKind::kTable;
    default:
      return TomlKind::kDateTime;
  }
}

TomlValue convert(const toml::node& node) {
  TomlValue value;
  value.kind = kindOf(node);
  value.line = node.source().begin.line;
  value.column = node.source().begin.column;
  if (const auto* string = node.as_string()) value.string = string->get();
  if (const auto* integer = node.as_integer()) value.integer = integer->get();
  if (const auto* boolean = node.as_boolean()) value.boolean = boolean->get();
  if (const auto* array = node.as_array()) value.array = convertArray(*array);
  if (const auto* table = node.as_table()) value.table = convertTable(*table);
  return value;
}

}  // namespace

std::string_view kindName(TomlKind kind) {
  switch (kind) {
    case TomlKind::kString:
      return "a string";
    case TomlKind::kInteger:
      return "an integer";
    case TomlKind::kFloat:
      return "a number with a fraction";
    case TomlKind::kBoolean:
      return "a boolean";
    case TomlKind::kDateTime:
      return "a date or time";
    case TomlKind::kArray:
      return "an array";
    case TomlKind::kTable:
      return "a table";
  }
  return "nothing known";
}

TomlDocument parseToml(std::string_view text, const std::string& file) {
  if (text.size() > kMaxTomlBytes) return mistaken(file, 0, 0, tooLarge());
  if (const unsigned line = overdottedLine(text); line != 0) {
    return mistaken(
        file, line, 0,
        "more than " + std::to_string(kMaxDotsPerLine) + " dots on one line: break the line");
  }
  const toml::parse_result result = toml::parse(text);
  if (result.failed()) {
    const toml::source_position begin = result.error().source().begin;
    return mistaken(file, begin.line, begin.column,
                    readable(std::string(result.error().description())));
  }
  return {convert(result.table()), std::nullopt};
}

TomlDocument readToml(const std::string& path) {
  return readOpenToml(OpenFile(path).descriptor(), path);
}

TomlDocument readOpenToml(int descriptor, const std::string& path) {
  std::string text;
  std::string wrong = whyNotToRead(descriptor);
  if (wrong.empty()) wrong = readAll(descriptor, text);
  if (!wrong.empty()) return mistaken(path, 0, 0, std::move(wrong));
  return parseToml(text, path);
}

}  // namespace ConfigSrv
