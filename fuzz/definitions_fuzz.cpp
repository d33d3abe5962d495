// Definitions: one or two files of a directory, the second one over the first. A line of four dashes
// parts them.
#include "appconfig/core/key_notation.h"
#include "configsrv/definitions/definitions.h"
#include "fuzz/files.h"
#include "fuzz/input.h"
#include "fuzz/mistakes.h"

namespace {

using namespace ConfigSrv;
using Fuzz::require;

// A definition may have many instances; only their keys differ.
constexpr std::size_t kVariablesLookedAt = 64;

void checkDefinition(const Definitions& definitions, const VariableDefinition& variable) {
  require(definitions.find(variable.key) == &variable, "a defined variable is found");
  const std::string text = AppConfig::formatKey(variable.key);
  ConfigVar key("", 0, "", 0);
  require(AppConfig::parseKey(text, key).ok(), "a defined key can be typed", text);
  require(definitions.find(key) == &variable, "a typed key finds its variable", text);
  const VariableShape& shape = *variable.shape;
  require(checkValue(variable, shape.options, shape.defaultValue).ok(),
          "a default is a value of its variable", text);
  require(shape.options.empty() || shape.defaultIndex < shape.options.size(),
          "a default index is one of an option", text);
  require(shape.line >= 1 && !shape.file.empty(), "a variable knows where it was defined", text);
}

void checkLoaded(const Fuzz::Files& files, const Definitions& definitions) {
  std::size_t looked = 0;
  for (const VariableDefinition& variable : definitions) {
    if (looked++ == kVariablesLookedAt) break;
    checkDefinition(definitions, variable);
  }
  if (definitions.size() > kVariablesLookedAt) return;
  require(loadDefinitions({files.directory()}).definitions.digest() == definitions.digest(),
          "the same files have the same digest");
}

void checkRefused(const Fuzz::Files& files, const LoadResult& loaded, std::string_view first,
                  std::string_view second) {
  require(loaded.definitions.empty(), "a mistake means no definitions at all");
  for (const Mistake& mistake : loaded.mistakes) {
    const bool inFirst = mistake.file == files.path("10.toml");
    Fuzz::requireTelling(mistake, files.path(inFirst ? "10.toml" : "20.toml"),
                         inFirst ? first : second);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fuzz::Files files;
  Fuzz::Input input(data, size);
  std::string_view first = input.rest();
  constexpr std::string_view kParting = "\n----\n";
  const std::size_t parting = first.find(kParting);
  const bool two = parting != std::string_view::npos;
  const std::string_view second = two ? first.substr(parting + kParting.size()) : "";
  first = first.substr(0, parting);
  files.write("10.toml", first);
  files.write("20.toml", second);
  const LoadResult loaded = loadDefinitions({files.directory()});
  if (loaded.mistakes.empty()) {
    checkLoaded(files, loaded.definitions);
  } else {
    checkRefused(files, loaded, first, second);
  }
  return 0;
}
