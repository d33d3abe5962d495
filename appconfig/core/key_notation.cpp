// The text is taken apart from both ends: what stands before the first colon is the namespace, what
// stands behind the last dot is the name. Neither character can be part of a name, so there is no
// second way to read a text. Nothing is looked at twice, and nothing is kept but views of the text.
#include "appconfig/core/key_notation.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <system_error>
#include <utility>

#include "appconfig/core/lower_case.h"

namespace AppConfig {
namespace {

// As much of a refused text as is repeated in the message.
constexpr std::size_t kMaxQuotedBytes = 80;

bool isControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

bool mayStandInName(char c) {
  return !isControl(c) && std::string_view(" []:\\").find(c) == std::string_view::npos;
}

void appendEscaped(std::string& out, char c) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  out += "\\x";
  out += kDigits[byte >> 4];
  out += kDigits[byte & 0xf];
}

std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text.substr(0, kMaxQuotedBytes)) {
    if (isControl(c)) {
      appendEscaped(out, c);
    } else {
      out += c;
    }
  }
  return out + (text.size() > kMaxQuotedBytes ? "...\"" : "\"");
}

// Reads one text; the first thing that is wrong is kept, with its place.
class KeyReader {
 public:
  explicit KeyReader(std::string_view text) : text_(text) {}

  bool readKey(ConfigVar& var);
  bool readDottedName();
  std::string complaint(const char* whatItIsNot) const;

 private:
  struct Part {
    std::string_view name;
    std::int32_t instance = 0;
  };

  bool fail(std::string_view place, std::string what);
  bool readNumber(std::string_view digits, std::int32_t lowest, const char* what,
                  std::int32_t& number);
  bool readNameSpace(std::string_view& rest, std::int32_t& nameSpace);
  bool readPart(std::string_view part, Part& out);
  bool checkName(std::string_view name);
  bool checkCharacters(std::string_view name);
  bool checkComponents(std::string_view name);

  std::string_view text_;
  std::string what_;
  std::size_t at_ = 0;
};

// place is a view into the text.
bool KeyReader::fail(std::string_view place, std::string what) {
  at_ = static_cast<std::size_t>(place.data() - text_.data()) + 1;
  what_ = std::move(what);
  return false;
}

std::string KeyReader::complaint(const char* whatItIsNot) const {
  return quoted(text_) + " is no " + whatItIsNot + ": " + what_ + " (at character " +
         std::to_string(at_) + ")";
}

bool KeyReader::readNumber(std::string_view digits, std::int32_t lowest, const char* what,
                           std::int32_t& number) {
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number);
  const bool whole = error == std::errc() && stop == end;
  if (whole && number >= lowest) return true;
  return fail(digits, std::string(what) + " is a whole number from " + std::to_string(lowest) +
                          " to 2147483647");
}

bool KeyReader::readNameSpace(std::string_view& rest, std::int32_t& nameSpace) {
  const std::size_t colon = rest.find(':');
  if (colon == std::string_view::npos) return true;
  const std::string_view digits = rest.substr(0, colon);
  rest.remove_prefix(colon + 1);
  return readNumber(digits, 0, "a namespace", nameSpace);
}

bool KeyReader::checkCharacters(std::string_view name) {
  for (std::size_t i = 0; i < name.size(); ++i) {
    const std::string_view here = name.substr(i);
    if (name[i] == '[' || name[i] == ']') {
      return fail(here,
                  "an instance stands behind the whole group or behind the name, as in "
                  "network.eth[1].mtu");
    }
    if (!mayStandInName(name[i])) {
      return fail(here, "control characters, blanks, colons and backslashes cannot be in a name");
    }
  }
  return true;
}

bool KeyReader::checkComponents(std::string_view name) {
  std::size_t begin = 0;
  while (begin <= name.size()) {
    const std::size_t end = std::min(name.find('.', begin), name.size());
    if (end == begin) return fail(name.substr(begin), "a part of the name is empty");
    begin = end + 1;
  }
  return true;
}

bool KeyReader::checkName(std::string_view name) {
  if (!checkCharacters(name) || !checkComponents(name)) return false;
  if (name.size() <= kMaxNameBytes) return true;
  return fail(name.substr(kMaxNameBytes),
              "a group or a name is at most " + std::to_string(kMaxNameBytes) + " bytes long");
}

bool KeyReader::readPart(std::string_view part, Part& out) {
  const std::size_t bracket = part.find('[');
  out.name = part.substr(0, bracket);
  if (!checkName(out.name)) return false;
  if (bracket == std::string_view::npos) return true;
  const std::string_view inside = part.substr(bracket + 1);
  const std::size_t closing = inside.find(']');
  if (closing == std::string_view::npos) return fail(part.substr(bracket), "\"]\" is missing");
  if (closing + 1 != inside.size()) return checkCharacters(part.substr(bracket));
  return readNumber(inside.substr(0, closing), INT32_MIN, "an instance", out.instance);
}

bool KeyReader::readKey(ConfigVar& var) {
  std::string_view rest = text_;
  std::int32_t nameSpace = 0;
  if (!readNameSpace(rest, nameSpace)) return false;
  const std::size_t dot = rest.rfind('.');
  if (dot == std::string_view::npos) {
    return fail(rest, "a key has a group and a name, as in network.hostname");
  }
  Part group;
  Part name;
  if (!readPart(rest.substr(0, dot), group) || !readPart(rest.substr(dot + 1), name)) return false;
  var = ConfigVar(nameSpace, std::string(group.name), group.instance, std::string(name.name),
                  name.instance);
  return true;
}

bool KeyReader::readDottedName() {
  const std::size_t dot = text_.rfind('.');
  if (!checkCharacters(text_) || !checkComponents(text_)) return false;
  // A group may be as long as any, and a name behind its dot as well.
  if (dot == std::string_view::npos || text_.size() <= kMaxNameBytes) return checkName(text_);
  return checkName(text_.substr(0, dot)) && checkName(text_.substr(dot + 1));
}

void appendName(std::string& out, std::string_view name, bool dotsAllowed) {
  for (const char c : name) {
    if (mayStandInName(c) && (dotsAllowed || c != '.')) {
      out += c;
    } else {
      appendEscaped(out, c);
    }
  }
}

void appendInstance(std::string& out, std::int32_t instance) {
  if (instance != 0) out += '[' + std::to_string(instance) + ']';
}

}  // namespace

Base::Status<> parseKey(std::string_view text, ConfigVar& var) {
  KeyReader reader(text);
  if (!reader.readKey(var)) return Base::failed(reader.complaint("key"));
  return {};
}

std::string formatKey(const ConfigVar& var) {
  std::string out;
  if (var.nameSpace() != 0) out = std::to_string(var.nameSpace()) + ':';
  appendName(out, var.group(), true);
  appendInstance(out, var.groupInstance());
  out += '.';
  appendName(out, var.name(), false);
  appendInstance(out, var.nameInstance());
  return out;
}

Base::Status<> parseDottedName(std::string_view text, std::string& name) {
  KeyReader reader(text);
  if (!reader.readDottedName()) return Base::failed(reader.complaint("name"));
  name = lowerCase(std::string(text));
  return {};
}

}  // namespace AppConfig
