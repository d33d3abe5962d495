// The help texts are put together from the tables of verbs, options and exit codes each time they are
// asked for, so that no text can say what the parser does not do.
#include "tools/appcfg/help.h"

#include "appconfig/core/role_names.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/suggest.h"
#include "tools/appcfg/text.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using Rows = std::vector<std::vector<std::string>>;

std::string section(const std::string& title, const Rows& rows) {
  return rows.empty() ? std::string() : '\n' + title + '\n' + alignColumns(rows);
}

std::string spelled(const Option& option) {
  std::string text = "  ";
  if (option.letter != 0) text += std::string("-") + option.letter + ", ";
  text += "--" + option.name;
  return option.value.empty() ? text : text + ' ' + option.value;
}

Rows rowsOf(const std::vector<Option>& options) {
  Rows rows;
  for (const Option& option : options) rows.push_back({spelled(option), option.help});
  return rows;
}

std::string spelled(const Positional& positional) {
  std::string text = positional.name;
  if (positional.atMost > 1) text += "...";
  return positional.atLeast == 0 ? '[' + text + ']' : text;
}

Rows exitCodeRows() {
  Rows rows;
  for (const ExitCodeInfo& info : exitCodes()) {
    rows.push_back({"  " + std::to_string(info.code), info.name, info.meaning});
  }
  return rows;
}

Rows verbRows() {
  Rows rows;
  for (const Verb& verb : verbs()) rows.push_back({"  " + verb.name, verb.summary});
  return rows;
}

std::string exampleLines() {
  std::string text = "\nExamples:\n";
  for (const Verb& verb : verbs()) text += "  " + verb.example + '\n';
  return text;
}

}  // namespace

const std::vector<Option>& globalOptions() {
  static const std::vector<Option> options = {
      {"runtime-dir", 0, "DIR", "where the service's socket is"},
      {"service", 0, "PREFIX", "prefix of the service's endpoint: /engine for /engine/ConfigSrvc"},
      {"namespace", 0, "N", "namespace of keys that name none"},
      {"role", 0, "NAME", "act in this role: " + std::string(AppConfig::kRoleNames)},
      {"timeout", 0, "SECONDS", "longest time to wait for an answer, or for wait's value"},
      {"json", 0, "", "answer, and fail, in JSON"},
      {"version", 0, "", "print the version"},
      {"help", 'h', "", "print this help, or that of a verb"},
  };
  return options;
}

std::string helpText() {
  const Rows environment = {
      {"  APPCONFIG_RUNTIME_DIR",
       "directory of the service's socket, unless --runtime-dir is given"},
      {"  XDG_RUNTIME_DIR", "else a user's own service is looked for in appconfig below it, then"},
      {"", "the device's in /run/appconfig; for root only that"},
  };
  return "Usage: appcfg [OPTIONS] VERB [ARGUMENTS]\n\n"
         "Reads, changes and watches the configuration of this device. A key is written "
         "group.name,\n"
         "with instances in brackets and a namespace before a colon: network.eth[1].mtu,\n"
         "3:engine.speed. Values are printed on standard output, all else on standard error. "
         "Behind\n"
         "-- a value may begin with a dash.\n" +
         section("Verbs (appcfg VERB --help tells more):", verbRows()) +
         section("Options of every verb:", rowsOf(globalOptions())) +
         section("Exit codes:", exitCodeRows()) + section("Environment:", environment) +
         exampleLines();
}

std::string usageLine(const Verb& verb) {
  std::string text = "Usage: appcfg " + verb.name + " [OPTIONS]";
  for (const Positional& positional : verb.positionals) text += ' ' + spelled(positional);
  return text;
}

std::string helpText(const Verb& verb) {
  Rows arguments;
  for (const Positional& positional : verb.positionals) {
    arguments.push_back({"  " + positional.name, positional.help});
  }
  return usageLine(verb) + "\n\n" + verb.summary + '\n' + section("Arguments:", arguments) +
         section("Options:", rowsOf(verb.options)) +
         section("Options of every verb:", rowsOf(globalOptions())) + "\nExample:\n  " +
         verb.example + '\n';
}

namespace {

// "options" is no verb, but the beginning of two.
bool beginsWith(const Verb& verb, const std::string& words) {
  return verb.name == words || verb.name.compare(0, words.size() + 1, words + ' ') == 0;
}

Outcome runHelp(Context& context, const Arguments& arguments) {
  std::string words;
  for (const std::string& word : arguments.all("VERB")) words += (words.empty() ? "" : " ") + word;
  std::string text = words.empty() ? helpText() : "";
  for (const Verb& verb : verbs()) {
    if (words.empty() || !beginsWith(verb, words)) continue;
    text += (text.empty() ? "" : "\n") + helpText(verb);
  }
  if (text.empty()) {
    const std::string advice = "'appcfg help' lists the verbs";
    const std::string meant = verbLike(words);
    return usageMistake("there is no verb \"" + words + '"',
                        meant.empty() ? advice : meant + ' ' + advice);
  }
  if (!context.output.json()) {
    context.output.bytes(text);
    return {};
  }
  Record record;
  context.output.record(record.text("help", text));
  return {};
}

}  // namespace

Verb helpVerb() {
  Verb verb;
  verb.name = "help";
  verb.summary = "print what --help prints, of appcfg or of a verb";
  verb.example = "appcfg help options set";
  verb.positionals = {
      {"VERB", "one or two words; of several verbs the word they begin with", 0, 2}};
  verb.run = runHelp;
  return verb;
}

}  // namespace AppCfgTool
