// Verb: what `appcfg WORD` does, and all that parser, help and tests need to know of it.
//
// A verb is a function that returns its Verb, and one line in verbs.cpp. Nothing else lists verbs:
// the parser, both help texts and the tests go through verbs().
//
//   Verb pingVerb() {
//     Verb verb;
//     verb.name = "ping";
//     verb.summary = "ask the service for a sign of life";
//     verb.example = "appcfg ping";
//     verb.run = [](Context& context, const Arguments&) { return ping(context.session); };
//     return verb;
//   }
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "appconfig/core/security_role.h"
#include "tools/appcfg/outcome.h"

namespace AppCfgTool {

class Output;
class Session;

// What the options before or after any verb say.
struct Settings {
  // Empty: the message layer's default.
  std::string runtimeDir;
  // Path prefix of the service's endpoint; empty: none.
  std::string servicePrefix;
  // Namespace of keys that name none; nothing given: 0 for keys, any for listings.
  std::optional<std::int32_t> nameSpace;
  AppConfig::SecurityRole role = AppConfig::eRoleUser;
  // Nothing given: the message layer's deadline for a request; for ever for `wait`.
  std::optional<std::chrono::milliseconds> timeout;
  bool json = false;
};

// What stood on the command line behind the verb.
class Arguments {
 public:
  void put(const std::string& name, std::vector<std::string> values) {
    values_[name] = std::move(values);
  }
  // Whether an option or a positional was given.
  bool has(const std::string& name) const { return values_.count(name) != 0; }
  // Its values, in order; none when it was not given.
  const std::vector<std::string>& all(const std::string& name) const {
    static const std::vector<std::string> none;
    const auto at = values_.find(name);
    return at == values_.end() ? none : at->second;
  }
  // Its only value; "" when it was not given.
  const std::string& one(const std::string& name) const {
    static const std::string none;
    const auto& values = all(name);
    return values.empty() ? none : values.front();
  }

 private:
  std::map<std::string, std::vector<std::string>> values_;
};

struct Context {
  const Settings& settings;
  Session& session;
  Output& output;
};

struct Positional {
  // As help shows it, and as Arguments knows it: "KEY".
  std::string name;
  std::string help;
  std::size_t atLeast = 1;
  std::size_t atMost = 1;
};

constexpr std::size_t kAnyNumber = 1 << 20;
constexpr const char* kPassedOn = "ARG";

struct Option {
  // Arguments knows it as "recursive", the command line as "--recursive".
  std::string name;
  // 0 for none.
  char letter = 0;
  // What help calls its value; empty: it takes none.
  std::string value;
  std::string help;
};

struct Verb {
  // One word, or two: "options get".
  std::string name;
  std::string summary;
  std::string example;
  std::vector<Positional> positionals;
  std::vector<Option> options;
  // An option that names a program: when it is given, the words behind "--" are that program's
  // arguments, which Arguments knows as kPassedOn. Empty: it has none.
  std::string passesOn;
  Outcome (*run)(Context& context, const Arguments& arguments) = nullptr;
};

}  // namespace AppCfgTool
