// The words are read by CLI11, which looks into them more closely than a tool for arbitrary values
// can allow: it splits "[a,b]" into two, takes "++" for the end of a subcommand, and lets "--" end
// the verb instead of its options. So every word that is neither an option nor part of a verb is
// marked with a byte in front before CLI11 sees it, which makes it an ordinary word; the mark is
// taken off when its result is read. "--" is dealt with here, by marking all words behind it, with a
// byte of their own, because some of them may be another program's.
#include "tools/appcfg/command_line.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <memory>
#include <set>
#include <sstream>

#include "appconfig/core/role_names.h"
#include "tools/appcfg/help.h"
#include "tools/appcfg/suggest.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

constexpr char kMark = '\x01';
// That of a word behind "--".
constexpr char kMarkBehind = '\x02';
// Longer than any deadline that means something, and no overflow in any clock.
constexpr double kLongestTimeoutSeconds = 1e7;

std::vector<std::string> wordsOf(const std::string& name) {
  std::istringstream stream(name);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

std::set<std::string> verbWords() {
  std::set<std::string> words;
  for (const Verb& verb : verbs()) {
    for (const std::string& word : wordsOf(verb.name)) words.insert(word);
  }
  return words;
}

std::vector<std::string> marked(const std::vector<std::string>& words) {
  const std::set<std::string> known = verbWords();
  std::vector<std::string> out;
  bool optionsOver = false;
  for (const std::string& word : words) {
    if (!optionsOver && word == "--") {
      optionsOver = true;
    } else if (!optionsOver && (known.count(word) != 0 || (word.size() > 1 && word[0] == '-'))) {
      out.push_back(word);
    } else {
      out.push_back((optionsOver ? kMarkBehind : kMark) + word);
    }
  }
  return out;
}

bool isMarked(const std::string& word) {
  return !word.empty() && (word[0] == kMark || word[0] == kMarkBehind);
}

std::string unmarked(const std::string& word) { return isMarked(word) ? word.substr(1) : word; }

std::string withoutMarks(std::string text) {
  const auto isMark = [](char c) { return c == kMark || c == kMarkBehind; };
  text.erase(std::remove_if(text.begin(), text.end(), isMark), text.end());
  return text;
}

// The parser of one verb, and what it found.
struct ParsedVerb {
  const Verb* verb = nullptr;
  CLI::App* app = nullptr;
  std::vector<CLI::Option*> results;
};

std::string spelledForParser(const Option& option) {
  const std::string name = "--" + option.name;
  return option.letter == 0 ? name : std::string("-") + option.letter + ',' + name;
}

CLI::Option* addOption(CLI::App& app, const Option& option) {
  if (option.value.empty()) return app.add_flag(spelledForParser(option), option.help);
  CLI::Option* added = app.add_option(spelledForParser(option), option.help);
  return added->expected(1)->type_size(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

CLI::Option* addPositional(CLI::App& app, const Positional& positional) {
  CLI::Option* added = app.add_option(positional.name, positional.help);
  added->type_size(1)->expected(1, static_cast<int>(positional.atMost));
  return added->required(positional.atLeast > 0)->allow_extra_args(positional.atMost > 1);
}

class Parser {
 public:
  Parser();
  CommandLine parse(const std::vector<std::string>& words);

 private:
  CLI::App* appFor(const std::string& verbName);
  const ParsedVerb* verbThatWasParsed() const;
  const Verb* verbToHelpWith() const;
  bool was(const char* globalOption) const {
    return root_.count(std::string("--") + globalOption) > 0;
  }
  std::string textOf(const char* globalOption) const;
  Outcome readSettings(Settings& settings) const;
  Outcome readNameSpace(Settings& settings) const;
  Outcome readRole(Settings& settings) const;
  Outcome readTimeout(Settings& settings) const;
  void takeArguments(const ParsedVerb& parsed, Arguments& arguments) const;
  Outcome missingVerb() const;
  Outcome mistake(const std::string& what) const;

  CLI::App root_{"", "appcfg"};
  // By the words that lead to them: "options", "options get".
  std::map<std::string, CLI::App*> apps_;
  std::vector<ParsedVerb> verbs_;
};

// "options get" and "options set" share the parser of "options", so each is made when first needed.
CLI::App* Parser::appFor(const std::string& verbName) {
  CLI::App* app = &root_;
  std::string path;
  for (const std::string& word : wordsOf(verbName)) {
    path += path.empty() ? word : ' ' + word;
    CLI::App*& next = apps_[path];
    if (next == nullptr) {
      app->require_subcommand(1);
      next = app->add_subcommand(word)->fallthrough();
      next->set_help_flag();
    }
    app = next;
  }
  return app;
}

Parser::Parser() {
  root_.set_help_flag();
  for (const Option& option : globalOptions()) addOption(root_, option);
  for (const Verb& verb : verbs()) {
    ParsedVerb parsed{&verb, appFor(verb.name), {}};
    for (const Positional& positional : verb.positionals) {
      parsed.results.push_back(addPositional(*parsed.app, positional));
    }
    for (const Option& option : verb.options)
      parsed.results.push_back(addOption(*parsed.app, option));
    verbs_.push_back(std::move(parsed));
  }
}

const ParsedVerb* Parser::verbThatWasParsed() const {
  for (const ParsedVerb& verb : verbs_) {
    if (verb.app->parsed()) return &verb;
  }
  return nullptr;
}

const Verb* Parser::verbToHelpWith() const {
  const ParsedVerb* parsed = verbThatWasParsed();
  return parsed == nullptr ? nullptr : parsed->verb;
}

std::string Parser::textOf(const char* globalOption) const {
  const auto& results = root_.get_option(std::string("--") + globalOption)->results();
  return results.empty() ? std::string() : unmarked(results.back());
}

Outcome Parser::readNameSpace(Settings& settings) const {
  if (!was("namespace")) return {};
  const std::string text = textOf("namespace");
  const char* const end = text.data() + text.size();
  std::int32_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < 0) {
    return usageMistake("--namespace takes a whole number from 0 on, not \"" + text + '"');
  }
  settings.nameSpace = number;
  return {};
}

Outcome Parser::readRole(Settings& settings) const {
  if (!was("role")) return {};
  const std::string name = textOf("role");
  const auto role = AppConfig::parseRole(name);
  if (!role) {
    return usageMistake("--role: there is no role \"" + name + '"',
                        "one of " + std::string(AppConfig::kRoleNames));
  }
  settings.role = *role;
  return {};
}

// Read in the language of programs, not of the user's locale: 0.5 is half a second everywhere.
Outcome Parser::readTimeout(Settings& settings) const {
  if (!was("timeout")) return {};
  const std::string text = textOf("timeout");
  const char* const end = text.data() + text.size();
  double seconds = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  const bool isNumber = error == std::errc() && stop == end && std::isfinite(seconds);
  if (!isNumber || seconds <= 0 || seconds > kLongestTimeoutSeconds) {
    return usageMistake("--timeout takes seconds, more than 0 and at most 10000000, not \"" + text +
                        '"');
  }
  settings.timeout = std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(seconds * 1e3)));
  return {};
}

Outcome Parser::readSettings(Settings& settings) const {
  settings.json = was("json");
  settings.runtimeDir = textOf("runtime-dir");
  settings.servicePrefix = textOf("service");
  Outcome read = readNameSpace(settings);
  if (read.ok()) read = readRole(settings);
  if (read.ok()) read = readTimeout(settings);
  return read;
}

// CLI11 knows that a subcommand is required, but not that a word was meant to be one.
Outcome Parser::missingVerb() const {
  const std::string advice = "'appcfg --help' lists the verbs";
  std::string words;
  for (const CLI::App* app : root_.get_subcommands()) words = app->get_name() + ' ';
  const std::vector<std::string> left = root_.remaining(true);
  const auto word = std::find_if(left.begin(), left.end(), isMarked);
  if (word == left.end()) {
    return usageMistake(words.empty() ? "a verb is missing" : "a word is missing behind " + words,
                        advice);
  }
  words += unmarked(*word);
  const std::string meant = verbLike(words);
  return usageMistake("there is no verb \"" + words + '"',
                      meant.empty() ? advice : meant + ' ' + advice);
}

Outcome Parser::mistake(const std::string& what) const {
  const Verb* verb = verbToHelpWith();
  if (verb == nullptr) return missingVerb();
  return usageMistake(withoutMarks(what),
                      "'appcfg " + verb->name + " --help' shows what can be given");
}

void Parser::takeArguments(const ParsedVerb& parsed, Arguments& arguments) const {
  const std::string& passing = parsed.verb->passesOn;
  const bool passesOn = !passing.empty() && parsed.app->count("--" + passing) > 0;
  std::vector<std::string> passedOn;
  for (const CLI::Option* result : parsed.results) {
    std::vector<std::string> values;
    for (const std::string& word : result->results()) {
      const bool isPassed = passesOn && !word.empty() && word[0] == kMarkBehind;
      (isPassed ? passedOn : values).push_back(unmarked(word));
    }
    if (!values.empty()) arguments.put(result->get_single_name(), std::move(values));
  }
  if (!passedOn.empty()) arguments.put(kPassedOn, std::move(passedOn));
}

CommandLine Parser::parse(const std::vector<std::string>& words) {
  CommandLine line;
  std::string complaint;
  std::vector<std::string> reversed = marked(words);
  std::reverse(reversed.begin(), reversed.end());
  try {
    root_.parse(reversed);
  } catch (const CLI::ParseError& error) {
    complaint = error.what();
  }
  line.settings.json = was("json");
  if (was("help")) line.kind = CommandLine::Kind::Help;
  if (was("version")) line.kind = CommandLine::Kind::Version;
  line.verb = verbToHelpWith();
  if (line.kind != CommandLine::Kind::Mistake) return line;
  line.mistake = complaint.empty() ? readSettings(line.settings) : mistake(complaint);
  if (!line.mistake.ok()) return line;
  line.kind = CommandLine::Kind::Run;
  takeArguments(*verbThatWasParsed(), line.arguments);
  return line;
}

}  // namespace

CommandLine parseCommandLine(const std::vector<std::string>& words) {
  return Parser().parse(words);
}

}  // namespace AppCfgTool
