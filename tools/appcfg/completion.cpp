// completion: the script that a shell loads; complete: what that script asks for each time.
//
// A shell waits for complete before it takes the next key press, so complete never waits long for
// the service, and has nothing to say when there is none.
#include "tools/appcfg/completion.h"

#include <set>

#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "tools/appcfg/listing.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/text.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using AppConfig::formatKey;
using Kind = TypedWord::Kind;

constexpr std::chrono::milliseconds kPatience(500);

// A name that everything which begins like this lies below: "net.eth" of "3:net.eth.mt", so that
// the service sends no more than is needed.
std::string commonName(const std::string& typed) {
  const std::size_t colon = typed.find(':');
  std::string name = colon == std::string::npos ? typed : typed.substr(colon + 1);
  name.resize(std::min(name.find('['), name.size()));
  const std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(0, dot);
}

void addNamesAbove(const ConfigVar& var, std::set<std::string>& names) {
  const std::string dotted = var.dottedName();
  for (std::size_t dot = dotted.find('.'); dot != std::string::npos;
       dot = dotted.find('.', dot + 1))
    names.insert(dotted.substr(0, dot));
}

std::set<std::string> keys(Session& session, const std::string& typed, bool namesAbove) {
  std::set<std::string> found;
  std::uint32_t hidden = 0;
  const auto take = [&](const ConfigIF::ListRecord& record) {
    const ConfigVar var = keyOf(record.inst());
    found.insert(formatKey(var));
    if (namesAbove) addNamesAbove(var, found);
    return true;
  };
  // What came before a failure is better than nothing.
  static_cast<void>(listPages(session, commonName(typed), take, hidden));
  return found;
}

std::vector<std::string> values(Session& session, const TypedWord& typed) {
  ConfigVar var("", 0, "", 0);
  if (!readKey(typed.settings, typed.key, var).ok()) return {};
  ConfigIF::ReadAttributesRsp response;
  const Outcome asked = session.ask({"describe", formatKey(var)},
                                    AppConfig::ProtobufMessageHelper::getReadAttributesRequest(
                                        session.client(), session.role(), var),
                                    response);
  if (!asked.ok()) return {};
  if (response.attributes().type() == ConfigIF::VALUE_BOOL) return {"true", "false"};
  return stringsOf(response.attributes().options());
}

std::vector<std::string> candidates(TypedWord& typed, const std::string& word) {
  if (typed.kind == Kind::Words) return typed.words;
  typed.settings.timeout = kPatience;
  Session session(typed.settings);
  if (typed.kind == Kind::Value) return values(session, typed);
  const bool isKey = typed.kind == Kind::Key;
  if (!isKey && typed.kind != Kind::Name) return {};
  const std::set<std::string> found = keys(session, word, !isKey);
  return {found.begin(), found.end()};
}

bool fits(const std::string& candidate, const std::string& word) {
  return candidate.compare(0, word.size(), word) == 0 && candidate.find('\n') == std::string::npos;
}

Outcome runComplete(Context& context, const Arguments& arguments) {
  const std::vector<std::string>& words = arguments.all("WORD");
  TypedWord typed = typedWord(words);
  if (typed.kind == Kind::File) return answerNo();
  const std::string word = words.empty() ? "" : words.back();
  std::vector<std::string> fitting;
  for (std::string& candidate : candidates(typed, word)) {
    if (fits(candidate, word)) fitting.push_back(std::move(candidate));
  }
  if (context.output.json()) {
    Record record;
    context.output.record(record.list("words", std::move(fitting)));
    return {};
  }
  for (const std::string& candidate : fitting) context.output.line(candidate);
  return {};
}

Outcome runCompletion(Context& context, const Arguments& arguments) {
  const std::string script = completionScript(arguments.one("SHELL"));
  if (script.empty())
    return usageMistake("there is a script for bash, one for fish and one for zsh");
  if (!context.output.json()) {
    context.output.bytes(script);
    return {};
  }
  Record record;
  context.output.record(record.text("script", script));
  return {};
}

}  // namespace

Verb completionVerb() {
  Verb verb;
  verb.name = "completion";
  verb.summary = "print the script that makes a shell complete appcfg's words and keys";
  verb.example = "source <(appcfg completion bash)";
  verb.positionals = {{"SHELL", "bash, fish or zsh"}};
  verb.run = runCompletion;
  return verb;
}

Verb completeVerb() {
  Verb verb;
  verb.name = "complete";
  verb.summary = "print what the last word may become, for these scripts";
  verb.example = "appcfg complete -- get network.";
  verb.positionals = {{"WORD", "the words behind appcfg, the last one unfinished", 0, kAnyNumber}};
  verb.run = runComplete;
  return verb;
}

}  // namespace AppCfgTool
