// Reads what each file says of each variable, and lays a later file's fields over those of an
// earlier one.
//
// A field is checked here for its name and the kind of value that it takes; what the fields mean
// together is found out later (shape_reader.h), because the last file may still change any of
// them. A definition that has a mistake is marked as broken, so that nothing is reported of what
// only follows from it.
#include "configsrv/definitions/internal/layers.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <set>
#include <utility>

#include "appconfig/core/key_notation.h"
#include "configsrv/definitions/definitions.h"
#include "configsrv/toml/nearest_name.h"

namespace ConfigSrv {
namespace {

constexpr std::int64_t kInt32Min = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t kInt32Max = std::numeric_limits<std::int32_t>::max();

// What a field may be written as; "default" takes what the type makes of it.
enum class Takes { String, Integer, Boolean, Strings, Instances, Anything };

struct FieldRule {
  std::string_view name;
  Takes takes;
};

constexpr FieldRule kFieldRules[] = {
    {"type", Takes::String},
    {"default", Takes::Anything},
    {"min", Takes::Integer},
    {"max", Takes::Integer},
    {"max-length", Takes::Integer},
    {"max-elements", Takes::Integer},
    {"pattern", Takes::String},
    {"options", Takes::Strings},
    {"default-index", Takes::Integer},
    {"read-role", Takes::String},
    {"write-role", Takes::String},
    {"read-only", Takes::Boolean},
    {"secret", Takes::Boolean},
    {"namespace", Takes::Integer},
    {"description", Takes::String},
    {"instances", Takes::Instances},
    {"group-instances", Takes::Instances},
};

const FieldRule* ruleOf(std::string_view name) {
  for (const FieldRule& rule : kFieldRules) {
    if (rule.name == name) return &rule;
  }
  return nullptr;
}

std::string quoted(std::string_view name) { return '"' + std::string(name) + '"'; }

std::string nearestField(std::string_view name) {
  const std::string_view nearest = nearestName(name, fieldNames());
  return nearest.empty() ? ": appconfig-definitions(5) lists the fields"
                         : ", did you mean " + quoted(nearest) + "?";
}

bool isArrayOf(const TomlValue& value, TomlKind kind) {
  return value.kind == TomlKind::Array &&
         std::all_of(value.array.begin(), value.array.end(),
                     [kind](const TomlValue& element) { return element.kind == kind; });
}

bool fits(const TomlValue& value, Takes takes) {
  switch (takes) {
    case Takes::String:
      return value.kind == TomlKind::String;
    case Takes::Integer:
      return value.kind == TomlKind::Integer;
    case Takes::Boolean:
      return value.kind == TomlKind::Boolean;
    case Takes::Strings:
      return isArrayOf(value, TomlKind::String);
    case Takes::Instances:
      return isArrayOf(value, TomlKind::Integer) || value.kind == TomlKind::Table;
    case Takes::Anything:
      break;
  }
  return true;
}

std::string_view takenKind(Takes takes) {
  switch (takes) {
    case Takes::String:
      return "a string";
    case Takes::Integer:
      return "an integer";
    case Takes::Boolean:
      return "true or false";
    case Takes::Strings:
      return "an array of strings";
    case Takes::Instances:
      return "an array of integers, or { from = 0, to = 3 }";
    case Takes::Anything:
      break;
  }
  return "anything";
}

std::string instead(const TomlValue& value, Takes takes) {
  const bool array =
      value.kind == TomlKind::Array && (takes == Takes::Strings || takes == Takes::Instances);
  return array ? "an array of other things" : std::string(kindName(value.kind));
}

// An instance that the key gives stands in brackets before, or behind, the last dot.
void noteWrittenInstances(std::string_view text, WrittenDefinition& definition) {
  const std::size_t dot = text.rfind('.');
  definition.groupInstanceWritten = text.substr(0, dot).find('[') != std::string_view::npos;
  definition.nameInstanceWritten = text.substr(dot).find('[') != std::string_view::npos;
}

// Reads the tables of one file after another.
class LayerReader {
 public:
  explicit LayerReader(std::vector<Mistake>& mistakes) : mistakes_(mistakes) {}

  void read(const Layer& layer);
  std::vector<WrittenDefinition> take() { return std::move(definitions_); }

 private:
  void report(const TomlEntry& at, std::string text);
  void reportField(const WrittenDefinition& definition, const TomlEntry& at,
                   const std::string& text);
  void readVariable(const TomlEntry& entry);
  bool readKey(const TomlEntry& entry, WrittenDefinition& definition);
  bool readNameSpace(const TomlEntry& entry, WrittenDefinition& definition);
  void readField(const TomlEntry& entry, WrittenDefinition& definition);
  void readInstances(const TomlEntry& entry, WrittenDefinition& definition);
  bool readRange(const TomlEntry& entry, const WrittenDefinition& definition,
                 std::vector<std::int64_t>& numbers);
  void keep(const TomlEntry& entry, WrittenDefinition definition);

  using Identity = std::pair<std::string, std::pair<bool, bool>>;

  std::vector<Mistake>& mistakes_;
  std::vector<WrittenDefinition> definitions_;
  std::map<Identity, std::size_t> positions_;
  std::map<Identity, unsigned> linesInThisFile_;
  const std::string* file_ = nullptr;
  std::size_t layer_ = 0;
};

void LayerReader::report(const TomlEntry& at, std::string text) {
  mistakes_.push_back({*file_, at.line, at.column, std::move(text)});
}

void LayerReader::reportField(const WrittenDefinition& definition, const TomlEntry& at,
                              const std::string& text) {
  report(at, aboutVariable(definition, quoted(at.name) + ' ' + text));
}

void LayerReader::read(const Layer& layer) {
  file_ = &layer.file;
  linesInThisFile_.clear();
  for (const TomlEntry& entry : layer.root.table) {
    if (entry.name != "variable" || entry.value.kind != TomlKind::Table) {
      report(entry, quoted(entry.name) +
                        " is not known here: a file holds tables such as "
                        "[variable.\"network.hostname\"]");
      continue;
    }
    for (const TomlEntry& variable : entry.value.table) readVariable(variable);
  }
  ++layer_;
}

void LayerReader::readVariable(const TomlEntry& entry) {
  WrittenDefinition definition;
  definition.file = file_;
  definition.line = entry.line;
  definition.column = entry.column;
  if (!readKey(entry, definition)) return;
  for (const TomlEntry& field : entry.value.table) readField(field, definition);
  keep(entry, std::move(definition));
}

bool LayerReader::readKey(const TomlEntry& entry, WrittenDefinition& definition) {
  if (entry.value.kind != TomlKind::Table) {
    report(entry, quoted(entry.name) + " takes a table of fields, not " +
                      std::string(kindName(entry.value.kind)));
    return false;
  }
  const Base::Status<> read = AppConfig::parseKey(entry.name, definition.key);
  if (!read.ok()) {
    // [variable.network.hostname] is three tables within each other to TOML.
    const bool unquoted = entry.name.find('.') == std::string::npos;
    report(entry,
           read.text + (unquoted ? "; quote all of it: [variable.\"network.hostname\"]" : ""));
    return false;
  }
  noteWrittenInstances(entry.name, definition);
  return readNameSpace(entry, definition);
}

// Read before the other fields: the namespace is a part of the key, and keys are compared next.
bool LayerReader::readNameSpace(const TomlEntry& entry, WrittenDefinition& definition) {
  const ConfigVar key = definition.key;
  if (key.group() == "cfg") {
    report(entry, aboutVariable(definition,
                                "the group \"cfg\" is taken: messages mark the "
                                "namespace with it"));
    return false;
  }
  for (const TomlEntry& field : entry.value.table) {
    if (field.name != "namespace" || field.value.kind != TomlKind::Integer) continue;
    const std::int64_t number = field.value.integer;
    if (number < 0 || number > kInt32Max) {
      reportField(definition, field, "is from 0 to 2147483647");
      return false;
    }
    if (key.nameSpace() != 0 && key.nameSpace() != number) {
      reportField(definition, field,
                  "is " + std::to_string(number) + ", and the key says " +
                      std::to_string(key.nameSpace()) + ": leave one of them out");
      return false;
    }
    definition.key = ConfigVar(static_cast<std::int32_t>(number), key.group(), key.groupInstance(),
                               key.name(), key.nameInstance());
  }
  return true;
}

void LayerReader::readField(const TomlEntry& entry, WrittenDefinition& definition) {
  const std::size_t mistakesBefore = mistakes_.size();
  const FieldRule* const rule = ruleOf(entry.name);
  if (rule == nullptr) {
    reportField(definition, entry, "is no field" + nearestField(entry.name));
  } else if (!fits(entry.value, rule->takes)) {
    reportField(definition, entry,
                "takes " + std::string(takenKind(rule->takes)) + ", not " +
                    instead(entry.value, rule->takes));
  } else if (rule->takes == Takes::Instances) {
    readInstances(entry, definition);
  } else if (entry.name != "namespace") {
    definition.fields[rule->name] = Field{&entry, file_, definition.specificity(), layer_};
  }
  definition.broken |= mistakes_.size() != mistakesBefore;
}

bool LayerReader::readRange(const TomlEntry& entry, const WrittenDefinition& definition,
                            std::vector<std::int64_t>& numbers) {
  std::optional<std::int64_t> from;
  std::optional<std::int64_t> to;
  for (const TomlEntry& end : entry.value.table) {
    if (end.value.kind != TomlKind::Integer) continue;
    if (end.name == "from") from = end.value.integer;
    if (end.name == "to") to = end.value.integer;
  }
  const bool both = from && to && entry.value.table.size() == 2;
  if (!both || *from < kInt32Min || *to > kInt32Max || *from > *to) {
    reportField(definition, entry,
                "takes { from = 0, to = 3 }: two 32-bit integers in rising order");
    return false;
  }
  if (*to - *from >= static_cast<std::int64_t>(kMaxInstances)) {
    reportField(
        definition, entry,
        "counts more than " + std::to_string(kMaxInstances) + " instances, the most allowed");
    return false;
  }
  for (std::int64_t number = *from; number <= *to; ++number) numbers.push_back(number);
  return true;
}

void LayerReader::readInstances(const TomlEntry& entry, WrittenDefinition& definition) {
  const bool ofGroup = entry.name == "group-instances";
  if (ofGroup ? definition.groupInstanceWritten : definition.nameInstanceWritten) {
    return reportField(definition, entry,
                       "and an instance in the key exclude each other: leave one of them out");
  }
  std::vector<std::int64_t> numbers;
  for (const TomlValue& element : entry.value.array) numbers.push_back(element.integer);
  if (entry.value.kind == TomlKind::Table && !readRange(entry, definition, numbers)) return;
  if (numbers.empty()) return reportField(definition, entry, "holds no instance: leave it out");
  if (numbers.size() > kMaxInstances) {
    return reportField(
        definition, entry,
        "counts more than " + std::to_string(kMaxInstances) + " instances, the most allowed");
  }
  std::set<std::int32_t> seen;
  for (const std::int64_t number : numbers) {
    if (number < kInt32Min || number > kInt32Max) {
      return reportField(definition, entry,
                         "holds " + std::to_string(number) + ", which 32 bits do not");
    }
    if (!seen.insert(static_cast<std::int32_t>(number)).second) {
      return reportField(definition, entry, "holds " + std::to_string(number) + " twice");
    }
  }
  (ofGroup ? definition.groupInstances : definition.nameInstances).assign(seen.begin(), seen.end());
}

void LayerReader::keep(const TomlEntry& entry, WrittenDefinition definition) {
  const Identity identity{AppConfig::formatKey(definition.key),
                          {definition.groupInstanceWritten, definition.nameInstanceWritten}};
  const auto [here, firstInFile] = linesInThisFile_.emplace(identity, entry.line);
  if (!firstInFile) {
    report(entry, aboutVariable(definition, "it is defined twice in this file, first in line " +
                                                std::to_string(here->second)));
    return;
  }
  const auto [position, isNew] = positions_.emplace(identity, definitions_.size());
  if (isNew) {
    definitions_.push_back(std::move(definition));
    return;
  }
  WrittenDefinition& earlier = definitions_[position->second];
  layFields(earlier.fields, definition.fields);
  if (!definition.groupInstances.empty()) earlier.groupInstances = definition.groupInstances;
  if (!definition.nameInstances.empty()) earlier.nameInstances = definition.nameInstances;
  earlier.broken |= definition.broken;
}

}  // namespace

std::vector<std::string_view> fieldNames() {
  std::vector<std::string_view> names;
  for (const FieldRule& rule : kFieldRules) names.push_back(rule.name);
  return names;
}

void layFields(Fields& fields, const Fields& later) {
  if (later.count("default") + later.count("default-index") > 0) {
    fields.erase("default");
    fields.erase("default-index");
  }
  for (const auto& [name, field] : later) fields[name] = field;
}

std::string aboutVariable(const WrittenDefinition& definition, const std::string& text) {
  return "variable \"" + AppConfig::formatKey(definition.key) + "\": " + text;
}

std::vector<WrittenDefinition> readLayers(const std::vector<Layer>& layers,
                                          std::vector<Mistake>& mistakes) {
  LayerReader reader(mistakes);
  for (const Layer& layer : layers) reader.read(layer);
  return reader.take();
}

}  // namespace ConfigSrv
