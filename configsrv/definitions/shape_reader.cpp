// Makes a VariableShape of the fields that cover a variable, and checks that they agree.
//
// A field may come from another file, or from the definition of a single instance, and contradict
// one that was right until then. What several fields have done together is therefore reported at
// the one that came last.
#include "configsrv/definitions/internal/shape_reader.h"

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "appconfig/core/role_names.h"
#include "appconfig/core/typed_text.h"
#include "configsrv/definitions/internal/int_value.h"
#include "configsrv/definitions/pattern.h"

namespace ConfigSrv {
namespace {

constexpr std::string_view kTypeNames = "string, int, bool, list, enumeration";

struct FieldOfTypes {
  std::string_view field;
  std::initializer_list<ValueType> types;
};

const FieldOfTypes kFieldsOfTypes[] = {
    {"min", {ValueType::Int}},
    {"max", {ValueType::Int}},
    {"max-length", {ValueType::String, ValueType::List}},
    {"max-elements", {ValueType::List}},
    {"pattern", {ValueType::String, ValueType::List}},
    {"options", {ValueType::String, ValueType::Int, ValueType::List, ValueType::Enumeration}},
    {"default-index", {ValueType::String, ValueType::Int, ValueType::List, ValueType::Enumeration}},
};

std::optional<ValueType> parseType(std::string_view name) {
  for (const ValueType type : {ValueType::String, ValueType::Int, ValueType::Bool, ValueType::List,
                               ValueType::Enumeration}) {
    if (valueTypeName(type) == name) return type;
  }
  return std::nullopt;
}

std::string quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

std::string listOfTypes(const std::initializer_list<ValueType>& types) {
  std::string out;
  for (const ValueType type : types) {
    out += (out.empty() ? "" : ", ") + std::string(valueTypeName(type));
  }
  return out;
}

class ShapeReader {
 public:
  ShapeReader(const Chain& chain, std::vector<Mistake>& mistakes)
      : chain_(chain), mistakes_(mistakes) {}

  std::shared_ptr<const VariableShape> read();

 private:
  // False when one of the definitions is broken.
  bool layChain();
  const WrittenDefinition& origin() const;
  const TomlValue* value(std::string_view field) const;
  std::string string(std::string_view field) const;
  bool boolean(std::string_view field) const;
  std::optional<std::int64_t> integer(std::string_view field) const;
  void report(std::initializer_list<std::string_view> fields, const std::string& text);

  bool readType();
  void checkFieldsOfType();
  std::optional<std::int64_t> readLimit(std::string_view field);
  void readRange();
  std::optional<std::uint32_t> readSize(std::string_view field, std::size_t most);
  void readPattern();
  void readOptions();
  void readDefaultIndex();
  void readDefault();
  bool convertDefault(const TomlValue& written);
  void supplyDefault();
  void checkDefault();
  void agreeOnDefaultIndex();
  void readRoles();
  AppConfig::SecurityRole readRole(std::string_view field, AppConfig::SecurityRole otherwise);
  void readDescription();

  const Chain& chain_;
  std::vector<Mistake>& mistakes_;
  Fields fields_;
  VariableShape shape_;
};

const TomlValue* ShapeReader::value(std::string_view field) const {
  const auto found = fields_.find(field);
  return found == fields_.end() ? nullptr : &found->second.entry->value;
}

std::string ShapeReader::string(std::string_view field) const {
  const TomlValue* const written = value(field);
  return written == nullptr ? std::string() : written->string;
}

bool ShapeReader::boolean(std::string_view field) const {
  const TomlValue* const written = value(field);
  return written != nullptr && written->boolean;
}

std::optional<std::int64_t> ShapeReader::integer(std::string_view field) const {
  const TomlValue* const written = value(field);
  if (written == nullptr) return std::nullopt;
  return written->integer;
}

// Where the variable was defined first.
const WrittenDefinition& ShapeReader::origin() const {
  return **std::find_if(chain_.begin(), chain_.end(),
                        [](const WrittenDefinition* definition) { return definition != nullptr; });
}

bool ShapeReader::layChain() {
  bool whole = true;
  for (const WrittenDefinition* const definition : chain_) {
    if (definition == nullptr) continue;
    layFields(fields_, definition->fields);
    whole &= !definition->broken;
  }
  return whole;
}

bool laterThan(const Field& a, const Field& b) {
  return std::tie(a.specificity, a.layer) > std::tie(b.specificity, b.layer);
}

// Reports at the field that was written last, at the first named of several in one place, and at
// the variable's origin when none of them is there.
void ShapeReader::report(std::initializer_list<std::string_view> fields, const std::string& text) {
  const Field* last = nullptr;
  for (const std::string_view name : fields) {
    const auto found = fields_.find(name);
    if (found == fields_.end()) continue;
    if (last == nullptr || laterThan(found->second, *last)) last = &found->second;
  }
  const WrittenDefinition& definition = last == nullptr ? origin() : *chain_[last->specificity];
  Mistake mistake{*definition.file, definition.line, definition.column,
                  aboutVariable(definition, text)};
  if (last != nullptr) {
    mistake.file = *last->file;
    mistake.line = last->entry->line;
    mistake.column = last->entry->column;
  }
  mistakes_.push_back(std::move(mistake));
}

bool ShapeReader::readType() {
  if (value("type") == nullptr) {
    report({}, "\"type\" is missing: one of " + std::string(kTypeNames) +
                   "; if this is a layer, nothing before defines this key");
    return false;
  }
  const std::optional<ValueType> type = parseType(string("type"));
  if (!type) {
    report({"type"}, "\"type\" is " + quoted(string("type")) + ", which is none of " +
                         std::string(kTypeNames));
    return false;
  }
  shape_.type = *type;
  return true;
}

void ShapeReader::checkFieldsOfType() {
  for (const FieldOfTypes& rule : kFieldsOfTypes) {
    if (value(rule.field) == nullptr) continue;
    if (std::find(rule.types.begin(), rule.types.end(), shape_.type) != rule.types.end()) continue;
    report({rule.field, "type"}, quoted(rule.field) + " does not go with type " +
                                     std::string(valueTypeName(shape_.type)) + ", only with " +
                                     listOfTypes(rule.types));
  }
}

// Typed reads have 32 bits: a limit beyond them would allow what no reader of the number gets.
std::optional<std::int64_t> ShapeReader::readLimit(std::string_view field) {
  using Limits = std::numeric_limits<std::int32_t>;
  const std::optional<std::int64_t> number = integer(field);
  if (!number || (*number >= Limits::min() && *number <= Limits::max())) return number;
  report({field}, quoted(field) + " is " + std::to_string(*number) + ", and an int is from " +
                      std::to_string(Limits::min()) + " to " + std::to_string(Limits::max()) +
                      ": 32 bits, as programs read it");
  return std::nullopt;
}

void ShapeReader::readRange() {
  shape_.min = readLimit("min");
  shape_.max = readLimit("max");
  const std::int64_t least = lowestAllowed(shape_);
  const std::int64_t most = highestAllowed(shape_);
  if (least > most)
    report({"min", "max"}, "\"min\" is larger than \"max\" (" + std::to_string(least) + " > " +
                               std::to_string(most) + "): swap them");
}

std::optional<std::uint32_t> ShapeReader::readSize(std::string_view field, std::size_t most) {
  const std::optional<std::int64_t> number = integer(field);
  if (!number) return std::nullopt;
  if (*number < 1 || *number > static_cast<std::int64_t>(most)) {
    report({field}, quoted(field) + " is " + std::to_string(*number) + ", and from 1 to " +
                        std::to_string(most) + " is allowed");
    return std::nullopt;
  }
  return static_cast<std::uint32_t>(*number);
}

void ShapeReader::readPattern() {
  if (value("pattern") == nullptr) return;
  std::string reason;
  shape_.pattern = Pattern::compile(string("pattern"), reason);
  if (!shape_.pattern) report({"pattern"}, "\"pattern\" cannot be used: " + reason);
}

void ShapeReader::readOptions() {
  const TomlValue* const written = value("options");
  if (written == nullptr || written->array.empty()) {
    if (shape_.type != ValueType::Enumeration) return;
    return report({"options", "type"}, "an enumeration needs \"options\", one at least");
  }
  if (written->array.size() > kMaxOptions) {
    return report({"options"}, "\"options\" has " + std::to_string(written->array.size()) +
                                   " entries, and " + std::to_string(kMaxOptions) +
                                   " at most are allowed");
  }
  std::set<std::string> seen;
  for (const TomlValue& option : written->array) {
    // What two options mean is looked at only once both are numbers: checkDefault() says when not.
    const bool isInt =
        shape_.type == ValueType::Int && checkValue(shape_, {}, {option.string}).ok();
    const std::string meaning =
        isInt ? std::to_string(AppConfig::intOf(option.string)) : option.string;
    if (!seen.insert(meaning).second) {
      report({"options"}, "\"options\" holds " + quoted(option.string) + " twice" +
                              (meaning == option.string ? "" : ": it is read as " + meaning));
    }
    shape_.options.push_back(option.string);
  }
}

void ShapeReader::readDefaultIndex() {
  const std::optional<std::int64_t> index = integer("default-index");
  if (!index) return;
  const auto count = static_cast<std::int64_t>(shape_.options.size());
  if (count == 0) return report({"default-index"}, "\"default-index\" needs \"options\"");
  if (*index < 0 || *index >= count) {
    return report({"default-index", "options"}, "\"default-index\" is " + std::to_string(*index) +
                                                    ", and the options are counted from 0 to " +
                                                    std::to_string(count - 1));
  }
  shape_.defaultIndex = static_cast<std::uint32_t>(*index);
}

bool allStrings(const TomlValue& value) {
  return std::all_of(value.array.begin(), value.array.end(),
                     [](const TomlValue& element) { return element.kind == TomlKind::String; });
}

std::string_view defaultKind(ValueType type) {
  switch (type) {
    case ValueType::Int:
      return "an integer";
    case ValueType::Bool:
      return "true or false";
    case ValueType::List:
      return "an array of strings";
    default:
      return "a string";
  }
}

bool ShapeReader::convertDefault(const TomlValue& written) {
  switch (shape_.type) {
    case ValueType::String:
    case ValueType::Enumeration:
      shape_.defaultValue = {written.string};
      return written.kind == TomlKind::String;
    case ValueType::Int:
      shape_.defaultValue = {std::to_string(written.integer)};
      return written.kind == TomlKind::Integer;
    case ValueType::Bool:
      shape_.defaultValue = {written.boolean ? "true" : "false"};
      return written.kind == TomlKind::Boolean;
    case ValueType::List:
      for (const TomlValue& element : written.array) shape_.defaultValue.push_back(element.string);
      return written.kind == TomlKind::Array && allStrings(written);
  }
  return false;
}

void ShapeReader::supplyDefault() {
  switch (shape_.type) {
    case ValueType::List:
      return;
    case ValueType::Bool:
      shape_.defaultValue = {"false"};
      return;
    default:
      break;
  }
  if (!shape_.options.empty()) {
    shape_.defaultValue = {shape_.options[shape_.defaultIndex]};
  } else {
    shape_.defaultValue = {shape_.type == ValueType::Int ? "0" : ""};
  }
}

void ShapeReader::readDefault() {
  const TomlValue* const written = value("default");
  if (written == nullptr) {
    supplyDefault();
  } else if (!convertDefault(*written)) {
    const bool array = written->kind == TomlKind::Array;
    return report({"default", "type"},
                  "\"default\" takes " + std::string(defaultKind(shape_.type)) + " with type " +
                      std::string(valueTypeName(shape_.type)) + ", not " +
                      (array ? "an array of other things" : std::string(kindName(written->kind))));
  }
  checkDefault();
}

// The options have to keep the limits as well: one that no write could choose is a mistake.
void ShapeReader::checkDefault() {
  if (shape_.type != ValueType::List) {
    for (const std::string& option : shape_.options) {
      const Base::Status<> fits = checkValue(shape_, {option}, {option});
      if (!fits.ok())
        report({"options", "min", "max", "max-length", "pattern"}, "\"options\": " + fits.text);
    }
  }
  const Base::Status<> fits = checkValue(shape_, shape_.options, shape_.defaultValue);
  if (fits.ok()) return agreeOnDefaultIndex();
  const bool written = value("default") != nullptr;
  report(
      {"default", "default-index", "options", "min", "max", "max-length", "max-elements",
       "pattern"},
      (written ? "\"default\": " : "\"default\" is missing, and what stands in for it is wrong: ") +
          fits.text);
}

void ShapeReader::agreeOnDefaultIndex() {
  if (shape_.options.empty() || shape_.type == ValueType::List) return;
  const auto found =
      std::find_if(shape_.options.begin(), shape_.options.end(), [this](const std::string& option) {
        return isSameText(shape_.type, option, shape_.defaultValue.front());
      });
  const auto position = static_cast<std::uint32_t>(found - shape_.options.begin());
  if (value("default-index") != nullptr && position != shape_.defaultIndex) {
    report({"default-index", "default"}, "\"default\" is " + quoted(shape_.defaultValue.front()) +
                                             ", and \"default-index\" says " +
                                             quoted(shape_.options[shape_.defaultIndex]) +
                                             ": leave one of them out");
  }
  shape_.defaultIndex = position;
}

AppConfig::SecurityRole ShapeReader::readRole(std::string_view field,
                                              AppConfig::SecurityRole otherwise) {
  if (value(field) == nullptr) return otherwise;
  const std::optional<AppConfig::SecurityRole> role = AppConfig::parseRole(string(field));
  if (role) return *role;
  report({field}, quoted(field) + " is " + quoted(string(field)) + ", which is none of " +
                      std::string(AppConfig::kRoleNames));
  return otherwise;
}

// The value of a secret variable is not for everybody to read either, unless the definition says
// so.
void ShapeReader::readRoles() {
  shape_.readOnly = boolean("read-only");
  shape_.secret = boolean("secret");
  shape_.writeRole = readRole("write-role", AppConfig::eRoleUser);
  shape_.readRole =
      readRole("read-role", shape_.secret ? shape_.writeRole : AppConfig::eRolePublic);
}

void ShapeReader::readDescription() {
  shape_.description = string("description");
  if (shape_.description.find('\n') != std::string::npos) {
    report({"description"}, "\"description\" is one line");
  }
  if (shape_.description.size() > kMaxDescriptionBytes) {
    report({"description"},
           "\"description\" is longer than " + std::to_string(kMaxDescriptionBytes) + " bytes");
  }
}

std::shared_ptr<const VariableShape> ShapeReader::read() {
  const std::size_t mistakesBefore = mistakes_.size();
  if (!layChain() || !readType()) return nullptr;
  shape_.file = *origin().file;
  shape_.line = origin().line;
  checkFieldsOfType();
  readRange();
  shape_.maxLength = readSize("max-length", kMaxValueBytes);
  shape_.maxElements = readSize("max-elements", kMaxElements);
  readPattern();
  readOptions();
  readDefaultIndex();
  readRoles();
  readDescription();
  // A default cannot be judged by limits that are mistakes themselves.
  if (mistakes_.size() == mistakesBefore) readDefault();
  if (mistakes_.size() != mistakesBefore) return nullptr;
  return std::make_shared<const VariableShape>(std::move(shape_));
}

}  // namespace

std::shared_ptr<const VariableShape> readShape(const Chain& chain, std::vector<Mistake>& mistakes) {
  return ShapeReader(chain, mistakes).read();
}

}  // namespace ConfigSrv
