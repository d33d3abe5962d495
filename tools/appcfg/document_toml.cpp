// The only file of the command line that sees the TOML parser, which is templates throughout.
//
// Nesting of values is limited by the parser; nesting by dots in a key is not, and is limited
// before the parser sees the text, because what it builds is taken down by recursion. Dots inside
// quotes open nothing: keys that export writes, and values, have any number of them.
#include "tools/appcfg/document.h"
#include "tools/appcfg/text.h"

// The parser's assertions do not hold for every text; switched off, it reports such a text like any
// other mistake.
#undef NDEBUG
#define TOML_ASSERT(condition) static_cast<void>(0)
#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#define TOML_MAX_NESTED_VALUES 16
#include <toml++/toml.h>

#include <algorithm>
#include <tuple>

namespace AppCfgTool {
namespace {

using Form = DocumentEntry::Form;

constexpr std::size_t kMaxDotsPerLine = 1000;

// Walks through one line; a triple quote is taken for none, so that what follows is counted.
class DotCounter {
 public:
  // False once there are too many.
  bool take(std::string_view text, std::size_t at) {
    const char c = text[at];
    if (c == '\n') *this = DotCounter();
    if (escaped_) {
      escaped_ = false;
    } else if (quote_ == '"' && c == '\\') {
      escaped_ = true;
    } else if (c == '"' || c == '\'') {
      takeQuote(text, at);
    } else if (c == '.' && quote_ == 0) {
      ++dots_;
    }
    return dots_ <= kMaxDotsPerLine;
  }

 private:
  void takeQuote(std::string_view text, std::size_t at) {
    const char c = text[at];
    if (quote_ == c) {
      quote_ = 0;
    } else if (quote_ == 0 && !isTriple(text, at)) {
      quote_ = c;
    }
  }
  static bool isTriple(std::string_view text, std::size_t at) {
    const std::string_view three = text[at] == '"' ? R"(""")" : "'''";
    for (std::size_t before = 0; before < three.size() && before <= at; ++before) {
      if (text.substr(at - before, three.size()) == three) return true;
    }
    return false;
  }

  char quote_ = 0;
  bool escaped_ = false;
  std::size_t dots_ = 0;
};

bool isOverdotted(std::string_view text) {
  DotCounter counter;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (!counter.take(text, at)) return true;
  }
  return false;
}

struct Placed {
  toml::source_position at;
  DocumentEntry entry;
};

class Reader {
 public:
  Document read(const toml::table& root) {
    readTable(root, "");
    std::stable_sort(placed_.begin(), placed_.end(), [](const Placed& a, const Placed& b) {
      return std::tie(a.at.line, a.at.column) < std::tie(b.at.line, b.at.column);
    });
    Document document;
    for (Placed& placed : placed_) document.push_back(std::move(placed.entry));
    return document;
  }

 private:
  // A table of its own is a group; one in braces is a value.
  void readTable(const toml::table& table, const std::string& above) {
    for (const auto& [name, node] : table) {
      const std::string key = above + std::string(name.str());
      const auto* below = node.as_table();
      if (below != nullptr && !below->is_inline()) {
        readTable(*below, key + '.');
        continue;
      }
      DocumentEntry entry;
      entry.key = key;
      readValue(node, entry);
      placed_.push_back({name.source().begin, std::move(entry)});
    }
  }

  static void readValue(const toml::node& node, DocumentEntry& entry) {
    const auto* array = node.as_array();
    if (array == nullptr) return readElement(node, entry);
    for (const toml::node& element : *array) readElement(element, entry);
    entry.form = Form::List;
  }

  static void readElement(const toml::node& node, DocumentEntry& entry) {
    if (const auto* text = node.as_string()) return add(entry, text->get(), Form::Text);
    if (const auto* number = node.as_integer()) {
      return add(entry, std::to_string(number->get()), Form::Number);
    }
    if (const auto* flag = node.as_boolean()) {
      return add(entry, flag->get() ? "true" : "false", Form::Bool);
    }
    const auto bytes = encodedBytes(node);
    if (bytes) return add(entry, *bytes, Form::Text);
    entry.problem = kNoValue;
  }

  static std::optional<std::string> encodedBytes(const toml::node& node) {
    const auto* table = node.as_table();
    if (table == nullptr || table->size() != 1) return std::nullopt;
    const auto* text = table->get_as<std::string>("base64");
    return text == nullptr ? std::nullopt : fromBase64(text->get());
  }

  static void add(DocumentEntry& entry, std::string bytes, Form form) {
    entry.value.push_back(std::move(bytes));
    entry.form = form;
  }

  std::vector<Placed> placed_;
};

}  // namespace

Outcome readToml(std::string_view text, const std::string& name, Document& document) {
  if (isOverdotted(text)) {
    return failure(kExitFailed, name + ": more than " + std::to_string(kMaxDotsPerLine) +
                                    " dots outside of quotes on one line");
  }
  const toml::parse_result result = toml::parse(text);
  if (result.failed()) {
    const toml::source_position at = result.error().source().begin;
    return failure(kExitFailed, name + ':' + std::to_string(at.line) + ':' +
                                    std::to_string(at.column) + ": " +
                                    escapeLine(result.error().description()));
  }
  document = Reader().read(result.table());
  return {};
}

}  // namespace AppCfgTool
