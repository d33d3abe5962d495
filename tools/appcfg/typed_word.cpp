// Lenient where the parser is strict: the command line is not finished yet. It reads the same table
// of verbs, so a new verb or option is completed without a line here.
#include <algorithm>
#include <charconv>

#include "appconfig/core/role_names.h"
#include "tools/appcfg/completion.h"
#include "tools/appcfg/help.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using Words = std::vector<std::string>;
using Kind = TypedWord::Kind;

Words split(const std::string& text, const char* separators) {
  Words words;
  std::size_t at = 0;
  while ((at = text.find_first_not_of(separators, at)) != std::string::npos) {
    const std::size_t end = std::min(text.find_first_of(separators, at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

Words roleNames() { return split(std::string(AppConfig::kRoleNames), ", "); }

bool isOption(const std::string& word) { return word.size() > 1 && word[0] == '-'; }

bool isSpelled(const Option& option, const std::string& word) {
  return word == "--" + option.name ||
         (option.letter != 0 && word == std::string("-") + option.letter);
}

void setWords(TypedWord& typed, Words words) {
  typed.kind = Kind::Words;
  typed.words = std::move(words);
}

class Reader {
 public:
  explicit Reader(const Words& words) : words_(words) {}

  TypedWord read() {
    for (std::size_t i = 0; i + 1 < words_.size(); ++i) take(words_[i]);
    if (words_.empty()) return std::move(typed_);
    if (awaited_ != nullptr) {
      completeOption();
    } else if (!optionsOver_ && !words_.back().empty() && words_.back()[0] == '-') {
      completeOptionName();
    } else if (verb() == nullptr) {
      completeVerb(verbWords_);
    } else {
      completePositional();
    }
    return std::move(typed_);
  }

 private:
  const Verb* verb() const {
    for (const Verb& verb : verbs()) {
      if (split(verb.name, " ") == verbWords_) return &verb;
    }
    return nullptr;
  }

  const Option* optionSpelled(const std::string& word) const {
    const auto spelled = [&word](const Option& option) { return isSpelled(option, word); };
    for (const auto* options : {verb() ? &verb()->options : nullptr, &globalOptions()}) {
      if (options == nullptr) continue;
      const auto found = std::find_if(options->begin(), options->end(), spelled);
      if (found != options->end()) return &*found;
    }
    return nullptr;
  }

  void take(const std::string& word) {
    if (awaited_ != nullptr) {
      set(*awaited_, word);
      awaited_ = nullptr;
    } else if (!optionsOver_ && word == "--") {
      optionsOver_ = true;
    } else if (!optionsOver_ && isOption(word)) {
      takeOption(word);
    } else if (verb() == nullptr) {
      verbWords_.push_back(word);
    } else {
      positionals_.push_back(word);
    }
  }

  // --role=user is one word.
  void takeOption(const std::string& word) {
    const std::size_t equals = word.find('=');
    const Option* option = optionSpelled(word.substr(0, equals));
    if (option == nullptr || option->value.empty()) return;
    if (equals == std::string::npos) {
      awaited_ = option;
    } else {
      set(*option, word.substr(equals + 1));
    }
  }

  // The deadline is the completion's own.
  void set(const Option& option, const std::string& value) {
    Settings& settings = typed_.settings;
    if (option.name == "runtime-dir") settings.runtimeDir = value;
    if (option.name == "service") settings.servicePrefix = value;
    if (option.name == "role") settings.role = AppConfig::parseRole(value).value_or(settings.role);
    if (option.name != "namespace") return;
    std::int32_t number = 0;
    const char* const end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    if (error == std::errc() && stop == end && number >= 0) settings.nameSpace = number;
  }

  void completeOption() {
    if (awaited_->name == "role" || awaited_->value == "ROLE") return setWords(typed_, roleNames());
    if (awaited_->value == "FORMAT") return setWords(typed_, {"toml", "json"});
    if (awaited_->value == "DIR" || awaited_->value == "FILE" || awaited_->value == "CMD")
      typed_.kind = Kind::File;
  }

  void completeOptionName() {
    Words words;
    const auto add = [&words](const std::vector<Option>& options) {
      for (const Option& option : options) words.push_back("--" + option.name);
    };
    if (verb() != nullptr) add(verb()->options);
    add(globalOptions());
    setWords(typed_, std::move(words));
  }

  // The next word of every verb that begins with the words so far.
  void completeVerb(const Words& before) {
    Words next;
    for (const Verb& verb : verbs()) {
      const Words words = split(verb.name, " ");
      const std::size_t taken = before.size();
      if (words.size() <= taken || !std::equal(before.begin(), before.end(), words.begin()))
        continue;
      if (std::find(next.begin(), next.end(), words[taken]) == next.end()) {
        next.push_back(words[taken]);
      }
    }
    setWords(typed_, std::move(next));
  }

  void completePositional() {
    std::size_t before = positionals_.size();
    for (const Positional& positional : verb()->positionals) {
      if (before < positional.atMost) return completeBy(positional.name);
      before -= positional.atMost;
    }
  }

  void completeBy(const std::string& positional) {
    if (positional == "KEY") typed_.kind = Kind::Key;
    if (positional == "PREFIX" || positional == "NAME") typed_.kind = Kind::Name;
    if (positional == "FILE") typed_.kind = Kind::File;
    if (positional == "SHELL") return setWords(typed_, {"bash", "fish", "zsh"});
    if (positional == "VERB") return completeVerb(positionals_);
    if (positional != "VALUE" && positional != "OPTION") return;
    typed_.kind = Kind::Value;
    typed_.key = positionals_.front();
  }

  const Words& words_;
  TypedWord typed_;
  Words verbWords_;
  Words positionals_;
  // An option whose value is the next word.
  const Option* awaited_ = nullptr;
  bool optionsOver_ = false;
};

}  // namespace

TypedWord typedWord(const std::vector<std::string>& words) { return Reader(words).read(); }

}  // namespace AppCfgTool
