// JsonObject: one object of JSON in one line, of whatever bytes.
//
// A string that is UTF-8 stands as it is, save what JSON, a line or a terminal could not bear: that
// is escaped. A byte that is no part of UTF-8 stands as the lone surrogate \udc80 + (byte - 0x80),
// so that every string can be had back byte by byte (Python calls this surrogateescape).
//
//   JsonObject record;
//   record.add("uid", 1000).add("new", std::vector<std::string>{"a\n"});
//   record.text();  // {"uid":1000,"new":["a\n"]}
//
// Threads:  a plain value.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ConfigSrv {

class JsonObject {
 public:
  JsonObject& add(std::string_view name, std::string_view value);
  JsonObject& add(std::string_view name, const char* value) {
    return add(name, std::string_view(value));
  }
  JsonObject& add(std::string_view name, std::uint64_t value);
  JsonObject& add(std::string_view name, const std::vector<std::string>& values);
  JsonObject& add(std::string_view name, const JsonObject& value);
  JsonObject& addNull(std::string_view name);
  JsonObject& addTrue(std::string_view name);

  std::string text() const { return '{' + fields_ + '}'; }

 private:
  void begin(std::string_view name);

  std::string fields_;
};

}  // namespace ConfigSrv
