// Record: one JSON object on its way to the user, its fields in the order in which they were added.
//
// Bytes:   JSON holds text alone. A byte string that is UTF-8 is a JSON string; any other is the
//          object {"base64": "..."}, so that no value is lost and no reader is guessing.
// Errors:  none. Adding a name twice is a mistake in the program and makes the later one win.
//
//   Record record;
//   record.text("key", "net.mtu").list("value", {"1500"}).flag("is_default", true);
//   toJson(record);  // {"key":"net.mtu","value":["1500"],"is_default":true}
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace AppCfgTool {

class Record {
 public:
  using Strings = std::vector<std::string>;
  using Field = std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, std::string,
                             Strings, std::vector<Record>>;

  Record& none(const char* name) { return add(name, nullptr); }
  Record& flag(const char* name, bool value) { return add(name, value); }
  Record& number(const char* name, std::int64_t value) { return add(name, value); }
  Record& count(const char* name, std::uint64_t value) { return add(name, value); }
  Record& text(const char* name, std::string value) { return add(name, std::move(value)); }
  Record& list(const char* name, Strings value) { return add(name, std::move(value)); }
  Record& records(const char* name, std::vector<Record> value) {
    return add(name, std::move(value));
  }

  const std::vector<std::pair<std::string, Field>>& fields() const { return fields_; }

 private:
  Record& add(const char* name, Field value);

  std::vector<std::pair<std::string, Field>> fields_;
};

// On one line, without a line break at its end.
std::string toJson(const Record& record);

}  // namespace AppCfgTool
