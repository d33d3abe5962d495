// Loading runs in three steps: texts become layers, layers become written definitions (layers.h),
// and these are expanded here into variables.
//
// A variable can be covered by up to three definitions, each of which names more of its instances
// than the one before: "network.eth.addr", "network.eth[1].addr", "network.eth[1].addr[2]". Their
// fields are laid over each other in that order, whichever file they stand in, and variables
// covered by the same definitions share one shape.
#include <algorithm>
#include <map>
#include <memory>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "appconfig/core/key_notation.h"
#include "configsrv/definitions/definition_files.h"
#include "configsrv/definitions/definitions.h"
#include "configsrv/definitions/internal/layers.h"
#include "configsrv/definitions/internal/shape_reader.h"
#include "configsrv/toml/document.h"

namespace ConfigSrv {
namespace {

std::vector<Layer> layersOf(const std::vector<TextFile>& files, std::vector<Mistake>& mistakes) {
  std::vector<Layer> layers;
  for (const TextFile& file : files) {
    TomlDocument document = parseToml(file.text, file.path);
    if (document.mistake) mistakes.push_back(std::move(*document.mistake));
    if (document.root) layers.push_back({file.path, std::move(*document.root)});
  }
  return layers;
}

// Finds out which definitions cover which variable, and makes the variables of it.
class Expansion {
 public:
  explicit Expansion(std::vector<Mistake>& mistakes) : mistakes_(mistakes) {}

  void add(const WrittenDefinition& definition);
  std::vector<VariableDefinition> variables();

 private:
  // False when another definition that is as specific covers the key already, which is then
  // reported.
  bool cover(const ConfigVar& key, const WrittenDefinition& definition);
  void report(const WrittenDefinition& definition, const std::string& text);
  bool tooMany(const WrittenDefinition& definition, std::size_t count);
  std::shared_ptr<const VariableShape> shapeOf(const Chain& chain);

  std::vector<Mistake>& mistakes_;
  std::map<ConfigVar, Chain> chains_;
  std::map<Chain, std::shared_ptr<const VariableShape>> shapes_;
};

void Expansion::report(const WrittenDefinition& definition, const std::string& text) {
  mistakes_.push_back(
      {*definition.file, definition.line, definition.column, aboutVariable(definition, text)});
}

bool Expansion::tooMany(const WrittenDefinition& definition, std::size_t count) {
  if (count > kMaxInstances) {
    report(definition,
           "it has more than " + std::to_string(kMaxInstances) + " instances, the most allowed");
    return true;
  }
  if (chains_.size() + count <= kMaxVariables) return false;
  report(definition, "with its instances there are more than " + std::to_string(kMaxVariables) +
                         " variables, the most allowed");
  return true;
}

void Expansion::add(const WrittenDefinition& definition) {
  std::vector<std::int32_t> groups = definition.groupInstances;
  std::vector<std::int32_t> names = definition.nameInstances;
  if (groups.empty()) groups = {definition.key.groupInstance()};
  if (names.empty()) names = {definition.key.nameInstance()};
  // Both are at most kMaxInstances, so that the product fits 64 bits but not always 32.
  const std::uint64_t count = std::uint64_t{groups.size()} * names.size();
  if (tooMany(definition,
              static_cast<std::size_t>(std::min(count, std::uint64_t{UINT32_MAX} / 2)))) {
    return;
  }
  const ConfigVar& key = definition.key;
  for (const std::int32_t group : groups) {
    for (const std::int32_t name : names) {
      const ConfigVar instance(key.nameSpace(), key.group(), group, key.name(), name);
      if (!cover(instance, definition)) return;  // one is enough to know
    }
  }
}

bool Expansion::cover(const ConfigVar& key, const WrittenDefinition& definition) {
  Chain& chain = chains_.try_emplace(key, Chain{}).first->second;
  const WrittenDefinition*& place = chain[definition.specificity()];
  if (place == nullptr) {
    place = &definition;
    return true;
  }
  report(definition, "it covers \"" + AppConfig::formatKey(key) + "\", which " + *place->file +
                         ':' + std::to_string(place->line) + " covers already");
  return false;
}

std::shared_ptr<const VariableShape> Expansion::shapeOf(const Chain& chain) {
  const auto [at, isNew] = shapes_.try_emplace(chain);
  if (!isNew) return at->second;
  at->second = readShape(chain, mistakes_);
  return at->second;
}

std::vector<VariableDefinition> Expansion::variables() {
  std::vector<VariableDefinition> variables;
  variables.reserve(chains_.size());
  for (const auto& [key, chain] : chains_) {
    std::shared_ptr<const VariableShape> shape = shapeOf(chain);
    if (shape) variables.push_back({key, std::move(shape)});
  }
  return variables;
}

std::vector<VariableDefinition> expand(const std::vector<WrittenDefinition>& written,
                                       std::vector<Mistake>& mistakes) {
  Expansion expansion(mistakes);
  for (const WrittenDefinition& definition : written) expansion.add(definition);
  return expansion.variables();
}

// Leaves each mistake once: a definition that covers many variables reports it for each of them.
void sortAndThin(std::vector<Mistake>& mistakes) {
  const auto fields = [](const Mistake& m) { return std::tie(m.file, m.line, m.column, m.text); };
  std::sort(mistakes.begin(), mistakes.end(),
            [&](const Mistake& a, const Mistake& b) { return fields(a) < fields(b); });
  mistakes.erase(
      std::unique(mistakes.begin(), mistakes.end(),
                  [&](const Mistake& a, const Mistake& b) { return fields(a) == fields(b); }),
      mistakes.end());
}

LoadResult readDefinitions(const DefinitionFiles& files) {
  LoadResult result;
  result.mistakes = files.mistakes;
  const std::vector<Layer> layers = layersOf(files.files, result.mistakes);
  // When a file could not be read, the others would seem to have mistakes that they do not have.
  const bool complete = result.mistakes.empty();
  const std::vector<WrittenDefinition> written = readLayers(layers, result.mistakes);
  std::vector<VariableDefinition> variables;
  if (complete) variables = expand(written, result.mistakes);
  sortAndThin(result.mistakes);
  if (result.mistakes.empty()) result.definitions = Definitions(std::move(variables));
  return result;
}

// Copies everything but the patterns. Variables that shared a shape share one again.
Definitions copyOf(const Definitions& definitions) {
  std::vector<VariableDefinition> variables;
  variables.reserve(definitions.size());
  std::unordered_map<const VariableShape*, std::shared_ptr<const VariableShape>> shapes;
  for (const VariableDefinition& definition : definitions) {
    std::shared_ptr<const VariableShape>& shape = shapes[definition.shape.get()];
    if (!shape) shape = std::make_shared<const VariableShape>(*definition.shape);
    variables.push_back({definition.key, shape});
  }
  return Definitions(std::move(variables));
}

}  // namespace

// Reading takes several times the memory of its result. On the common heap the result would lie
// scattered over all of it and keep it from being returned: 8 MiB for 10,000 variables. A thread of
// its own has a heap of its own, which is given back whole once the definitions are copied out of
// it.
LoadResult parseDefinitions(const DefinitionFiles& files) {
  LoadResult read;
  std::thread([&] { read = readDefinitions(files); }).join();
  return {copyOf(read.definitions), std::move(read.mistakes)};
}

LoadResult loadDefinitions(const std::vector<std::string>& directories) {
  return parseDefinitions(readDefinitionFiles(directories));
}

}  // namespace ConfigSrv
