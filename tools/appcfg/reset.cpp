// reset: back to the defaults: one variable, a name and all below it, or everything.
//
// Which of the three it is decides the request: one variable goes by its key, the others by a dotted
// name.
#include <unistd.h>

#include <iostream>
#include <string>

#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using AppConfig::ProtobufMessageHelper;

void printChanged(Output& output, const std::string& subject, std::uint64_t changed) {
  if (!output.json()) return;
  Record record;
  output.record(record.text("name", subject).count("changed", changed));
}

Outcome resetOne(Context& context, const std::string& text) {
  ConfigVar var("", 0, "", 0);
  Outcome read = readKey(context.settings, text, var);
  if (!read.ok()) return read;
  const std::string key = AppConfig::formatKey(var);
  Session& session = context.session;
  ConfigIF::ResetValueRsp response;
  Outcome done = session.ask(
      {"reset", key},
      ProtobufMessageHelper::getResetValueRequest(session.client(), session.role(), var), response);
  if (done.ok()) printChanged(context.output, key, response.result().flag() ? 0 : 1);
  return done;
}

// An empty name stands for everything.
Outcome resetBelow(Context& context, const std::string& name) {
  Session& session = context.session;
  ConfigIF::ResetNodeValueRsp response;
  Outcome done = session.ask(
      {"reset", name.empty() ? "everything" : name},
      ProtobufMessageHelper::getResetNodeValueRequest(session.client(), session.role(), name),
      response);
  if (done.ok()) printChanged(context.output, name, response.changed());
  return done;
}

// The request carries a name alone, so an instance or a namespace in it would be lost, and more
// would be reset than was asked for.
Outcome resetNamed(Context& context, const std::string& text) {
  if (context.settings.nameSpace) {
    return usageMistake("--recursive resets in all namespaces: --namespace cannot be given");
  }
  std::string name;
  const Base::Status<> read = AppConfig::parseDottedName(text, name);
  if (read.ok()) return resetBelow(context, name);
  return usageMistake(read.text, "--recursive takes a name without namespace and instances");
}

Outcome agreement(Context& context, const Arguments& arguments) {
  if (arguments.has("yes")) return {};
  const std::string advice = "give --yes if you are sure";
  if (::isatty(STDIN_FILENO) != 1) {
    return usageMistake("--all asks first, but standard input is no terminal", advice);
  }
  context.output.say("Reset every variable to its default? Type yes to go on: ");
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "yes" ? Outcome() : failure(kExitFailed, "nothing was reset");
}

Outcome resetAll(Context& context, const Arguments& arguments) {
  if (context.settings.nameSpace) {
    return usageMistake("--all resets in all namespaces: --namespace cannot be given");
  }
  Outcome agreed = agreement(context, arguments);
  return agreed.ok() ? resetBelow(context, "") : agreed;
}

Outcome runReset(Context& context, const Arguments& arguments) {
  const bool all = arguments.has("all");
  if (all == arguments.has("KEY") || (all && arguments.has("recursive"))) {
    return usageMistake("reset takes a KEY, --recursive NAME, or --all");
  }
  if (all) return resetAll(context, arguments);
  const std::string& text = arguments.one("KEY");
  return arguments.has("recursive") ? resetNamed(context, text) : resetOne(context, text);
}

}  // namespace

Verb resetVerb() {
  Verb verb;
  verb.name = "reset";
  verb.summary = "back to the default";
  verb.example = "appcfg reset --recursive network";
  verb.positionals = {{"KEY", "the variable; with --recursive a name, without instances", 0, 1}};
  verb.options = {
      {"recursive", 'r', "", "the name and all below it, in every instance and namespace"},
      {"all", 0, "", "every variable; asks first"},
      {"yes", 'y', "", "do not ask"},
  };
  verb.run = runReset;
  return verb;
}

}  // namespace AppCfgTool
