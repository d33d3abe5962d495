// Definitions: which variables exist, what they may hold, and who may use them.
//
// Read from the TOML files of one directory or several (definition_files.h). A later file changes
// single fields of a variable that an earlier one defined, so that a vendor's layer holds only what
// the vendor wants otherwise. docs/definitions.md is the reference of the format;
// appconfig-definitions(5) is what a device has of it.
//
//   LoadResult loaded =
//       loadDefinitions({"/usr/share/appconfig/definitions.d", "/etc/appconfig/definitions.d"});
//   if (!loaded.mistakes.empty()) fail(formatMistakes(loaded.mistakes));
//   const ConfigVar key("network", 0, "hostname", 0);
//   const VariableDefinition* hostname = loaded.definitions.find(key);
//   if (hostname == nullptr) ...    // nobody defined it
//   hostname->shape->defaultValue;  // {"gateway"}
//
// Errors:   all mistakes of all files are found in one run, and any mistake means no definitions at
//           all: a service never runs on half of them.
// Threads:  immutable once loaded; any number of threads may read.
// Owns:     everything; pointers and iterators live as long as the Definitions they came from, and
//           survive its move. Shapes are shared and may be kept alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "appconfig/core/config_var.h"
#include "appconfig/core/security_role.h"
#include "base/status.h"
#include "configsrv/toml/mistake.h"

namespace ConfigSrv {

class Pattern;

// Limits of a value: the sum of the bytes of all its elements, and the number of its elements. They
// hold for every variable, whatever its definition says.
inline constexpr std::size_t kMaxValueBytes = std::size_t{1} << 20;
inline constexpr std::size_t kMaxElements = 4096;
inline constexpr std::size_t kMaxOptions = 1024;
inline constexpr std::size_t kMaxDescriptionBytes = 1024;
// Instances of one definition, and variables in all.
inline constexpr std::size_t kMaxInstances = 65536;
inline constexpr std::size_t kMaxVariables = 262144;

// The numbers are those of ConfigIF::ValueType.
enum class ValueType : std::uint8_t { String = 0, Int = 1, Bool = 2, List = 3, Enumeration = 4 };

// "string", "int", "bool", "list", "enumeration".
std::string_view valueTypeName(ValueType type);

// What a definition says; shared by all the instances that it makes.
struct VariableShape {
  ValueType type = ValueType::String;
  // As a value of the type, already checked; exactly one element unless the type is a list.
  std::list<std::string> defaultValue;
  // The values that each element may have; none: anything that the type allows. Never empty for an
  // enumeration. defaultIndex is the position of the default option, 0 when there are no options.
  std::vector<std::string> options;
  std::uint32_t defaultIndex = 0;
  // Of an int; absent: what 32 signed bits hold.
  std::optional<std::int64_t> min;
  std::optional<std::int64_t> max;
  // Bytes of a string or of each element of a list; elements of a list.
  std::optional<std::uint32_t> maxLength;
  std::optional<std::uint32_t> maxElements;
  // What each string or element matches as a whole; null: anything.
  std::shared_ptr<const Pattern> pattern;
  AppConfig::SecurityRole readRole = AppConfig::eRolePublic;
  AppConfig::SecurityRole writeRole = AppConfig::eRoleUser;
  // Nobody writes it at run time.
  bool readOnly = false;
  // Values are masked in logs and audit records.
  bool secret = false;
  std::string description;
  // Where the variable was defined first; a layer that only changes it is not named here.
  std::string file;
  unsigned line = 0;
};

struct VariableDefinition {
  ConfigVar key;
  std::shared_ptr<const VariableShape> shape;  // never null
};

class Definitions {
 public:
  // No variables.
  Definitions() = default;
  // Any order; two of the same key are a broken promise of the caller.
  explicit Definitions(std::vector<VariableDefinition> variables);

  // Null when nobody defined it. Namespace and both instances count.
  const VariableDefinition* find(const ConfigVar& key) const;

  // In the order of std::less<ConfigVar>.
  std::vector<VariableDefinition>::const_iterator begin() const { return variables_.begin(); }
  std::vector<VariableDefinition>::const_iterator end() const { return variables_.end(); }
  std::size_t size() const { return variables_.size(); }
  bool empty() const { return variables_.empty(); }

  // Changes whenever something changes that decides over values or access: keys, types, defaults,
  // limits, options, roles, flags. Not descriptions, file names or the spelling of a file. The
  // same on every machine.
  std::uint64_t digest() const;

 private:
  std::vector<VariableDefinition> variables_;
};

// Either the whole set, or mistakes and an empty set.
struct LoadResult {
  Definitions definitions;
  std::vector<Mistake> mistakes;
};

// Makes definitions of files that were read. Mistakes that reading them made are among the result's.
struct DefinitionFiles;
LoadResult parseDefinitions(const DefinitionFiles& files);

// Reads the files of the directories and makes definitions of them.
LoadResult loadDefinitions(const std::vector<std::string>& directories);

// Whether the variable may hold the value; a failure names the limit and what is allowed:
// "\"70000\" is more than 9000, the largest value allowed". options are the present ones, which need
// not be those of the definition; an empty list allows anything that the type allows, save that an
// enumeration without options allows nothing. The text of a secret variable does not quote the value.
//
//   int    optional sign and decimal digits, or 0x and hexadecimal, or 0 and octal digits, with
//          nothing before or behind: what strtol reads with base 0
//   bool   true or false, in any case
//          options of both are held against the value by meaning
//   list   any number of elements; every other type has exactly one
Base::Status<> checkValue(const VariableShape& shape, const std::vector<std::string>& options,
                          const std::list<std::string>& value);
Base::Status<> checkValue(const VariableDefinition& definition,
                          const std::vector<std::string>& options,
                          const std::list<std::string>& value);

// Whether two texts, or two values, that a variable of the type may hold are one and the same: ints and
// bools go by what typed reads make of them ("030" is 24), all else by its bytes. Text stays what is
// kept, cached and told.
bool isSameText(ValueType type, const std::string& a, const std::string& b);
bool isSameValue(ValueType type, const std::list<std::string>& a, const std::list<std::string>& b);

}  // namespace ConfigSrv
