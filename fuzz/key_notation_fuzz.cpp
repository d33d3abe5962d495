// Text forms of keys: what somebody typed, what stands in a file, what a log line makes of a key that
// arrived from outside.
#include <algorithm>

#include "appconfig/core/key_notation.h"
#include "fuzz/input.h"

namespace {

using AppConfig::formatKey;
using AppConfig::parseDottedName;
using AppConfig::parseKey;
using Fuzz::require;

bool same(const ConfigVar& a, const ConfigVar& b) {
  return a.nameSpace() == b.nameSpace() && a.group() == b.group() &&
         a.groupInstance() == b.groupInstance() && a.name() == b.name() &&
         a.nameInstance() == b.nameInstance();
}

bool isOneLine(std::string_view text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

void readText(std::string_view text) {
  ConfigVar key("untouched", 1, "key", 2);
  const ConfigVar before = key;
  const Base::Status<> read = parseKey(text, key);
  if (!read.ok()) {
    require(same(key, before), "a refused text leaves the key alone");
    return require(isOneLine(read.text), "a refusal is one line", read.text);
  }
  const std::string written = formatKey(key);
  ConfigVar again("", 0, "", 0);
  require(parseKey(written, again).ok(), "what formatKey writes of a read key is read", written);
  require(same(key, again), "written and read again it is the same key", written);
  require(formatKey(again) == written, "the same key has the same text", written);
}

void readName(std::string_view text) {
  std::string name = "untouched";
  const Base::Status<> read = parseDottedName(text, name);
  if (!read.ok()) {
    require(name == "untouched", "a refused text leaves the name alone");
    return require(isOneLine(read.text), "a refusal is one line", read.text);
  }
  std::string again;
  require(parseDottedName(name, again).ok() && again == name, "a read name reads as itself", name);
}

// Keys that nobody could type: they arrive in messages.
void writeAnyKey(Fuzz::Input& input) {
  const auto nameSpace = static_cast<std::int8_t>(input.byte());
  const auto groupInstance = static_cast<std::int16_t>(input.number());
  const auto nameInstance = static_cast<std::int16_t>(input.number());
  const std::string group(input.piece());
  const std::string name(input.piece());
  const ConfigVar key(nameSpace, group, groupInstance, name, nameInstance);
  const ConfigVar other(nameSpace, group + name.substr(0, 1), groupInstance,
                        name.substr(std::min<std::size_t>(1, name.size())), nameInstance);
  const std::string text = formatKey(key);
  require(isOneLine(text), "any key is written on one line", text);
  require(same(key, other) == (formatKey(other) == text), "two keys never share a text", text);
  ConfigVar again("", 0, "", 0);
  if (parseKey(text, again).ok()) {
    require(same(key, again), "a text reads as the key that it was written from", text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  if (input.byte() % 2 == 0) {
    writeAnyKey(input);
    return 0;
  }
  const std::string_view text = input.rest();
  readText(text);
  readName(text);
  return 0;
}
