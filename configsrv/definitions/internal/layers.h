// Layers: what the files write about each definition, with the later file's fields over those of
// the earlier one. Nothing is known here yet of what the fields mean together.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "appconfig/core/config_var.h"
#include "configsrv/toml/document.h"

namespace ConfigSrv {

// One field as the last file wrote it. The entry belongs to the document of that file.
struct Field {
  const TomlEntry* entry = nullptr;
  const std::string* file = nullptr;
  // How specific its definition is, and the position of the file. The more specific of two fields
  // counts, and of equally specific ones that of the later file.
  std::size_t specificity = 0;
  std::size_t layer = 0;
};

using Fields = std::map<std::string_view, Field>;

// Puts later fields over earlier ones. "default" and "default-index" are two ways to say the same,
// so that either replaces both.
void layFields(Fields& fields, const Fields& later);

// All that the files say under one key. An instance number that the key itself gives is "written";
// others are counted by "group-instances" and "instances".
struct WrittenDefinition {
  ConfigVar key = ConfigVar("", 0, "", 0);
  bool groupInstanceWritten = false;
  bool nameInstanceWritten = false;
  Fields fields;
  std::vector<std::int32_t> groupInstances;
  std::vector<std::int32_t> nameInstances;
  // Where it was written first.
  const std::string* file = nullptr;
  unsigned line = 0;
  unsigned column = 0;
  // True when a mistake in one of its fields has been reported: what follows from that one is not.
  bool broken = false;

  // A definition that names an instance is more specific than one that counts it.
  std::size_t specificity() const {
    return std::size_t{groupInstanceWritten} + std::size_t{nameInstanceWritten};
  }
};

// The definitions that cover one variable, by specificity; null where there is none. Each names
// more of the variable's instances than the one before, and its fields lie over those of that one.
using Chain = std::array<const WrittenDefinition*, 3>;

// A file that was read, and its name.
struct Layer {
  std::string file;
  TomlValue root;
};

// Every field that a definition may have.
std::vector<std::string_view> fieldNames();

// Definitions in the order in which they were written first. They refer to the layers.
std::vector<WrittenDefinition> readLayers(const std::vector<Layer>& layers,
                                          std::vector<Mistake>& mistakes);

// "variable \"network.eth.mtu\": " and the text.
std::string aboutVariable(const WrittenDefinition& definition, const std::string& text);

}  // namespace ConfigSrv
