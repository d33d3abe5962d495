#include "tools/appcfg/record.h"

#include <nlohmann/json.hpp>

#include "tools/appcfg/text.h"

namespace AppCfgTool {
namespace {

using Json = nlohmann::ordered_json;

Json jsonOf(const Record& record);

struct FieldToJson {
  Json operator()(std::nullptr_t) const { return nullptr; }
  Json operator()(bool value) const { return value; }
  Json operator()(std::int64_t value) const { return value; }
  Json operator()(std::uint64_t value) const { return value; }

  Json operator()(const std::string& bytes) const {
    if (isUtf8(bytes)) return bytes;
    Json encoded = Json::object();
    encoded["base64"] = base64(bytes);
    return encoded;
  }

  Json operator()(const Record::Strings& strings) const {
    Json list = Json::array();
    for (const std::string& bytes : strings) list.push_back((*this)(bytes));
    return list;
  }

  Json operator()(const std::vector<Record>& records) const {
    Json list = Json::array();
    for (const Record& record : records) list.push_back(jsonOf(record));
    return list;
  }
};

Json jsonOf(const Record& record) {
  Json object = Json::object();
  for (const auto& [name, field] : record.fields()) object[name] = std::visit(FieldToJson(), field);
  return object;
}

}  // namespace

// Not inline: GCC 12 warns at -O3 of a string list that a number's field does not have.
Record& Record::add(const char* name, Field value) {
  fields_.emplace_back(name, std::move(value));
  return *this;
}

std::string toJson(const Record& record) { return jsonOf(record).dump(); }

}  // namespace AppCfgTool
