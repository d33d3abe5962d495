// The verbs about options and roles: options get, options set, access get, access set.
//
// Each reads its key, asks the service, and prints the answer. access set takes many variables, and
// asks again for as many as one request may be about.
#include <algorithm>
#include <charconv>
#include <cstddef>
#include <iterator>

#include "appconfig/core/key_notation.h"
#include "appconfig/core/role_names.h"
#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/message_bounds.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using AppConfig::formatKey;
using AppConfig::PlatformCfgService;
using AppConfig::ProtobufMessageHelper;

// --- options ---

struct Options {
  std::vector<std::string> options;
  std::uint32_t defaultIndex = 0;
};

template <class Request, class Response>
Outcome askOptions(Session& session, const ConfigVar& var, const Request& request, Options& out) {
  Response response;
  Outcome asked = session.ask({"read the options of", formatKey(var)}, request, response);
  out.options = stringsOf(response.options());
  out.defaultIndex = response.default_index();
  return asked;
}

Outcome readOptions(Session& session, const ConfigVar& var, bool defined, Options& out) {
  if (defined) {
    return askOptions<ConfigIF::GetDefaultOptionsReq, ConfigIF::GetDefaultOptionsRsp>(
        session, var,
        ProtobufMessageHelper::getGetDefaultOptionsRequest(session.client(), session.role(),
                                                           var.dottedName()),
        out);
  }
  return askOptions<ConfigIF::GetAttributeOptionsReq, ConfigIF::GetAttributeOptionsRsp>(
      session, var,
      ProtobufMessageHelper::getGetOptionsRequest(session.client(), session.role(), var), out);
}

Outcome runOptionsGet(Context& context, const Arguments& arguments) {
  ConfigVar var("", 0, "", 0);
  Outcome key = readKey(context.settings, arguments.one("KEY"), var);
  if (!key.ok()) return key;
  Options found;
  Outcome read = readOptions(context.session, var, arguments.has("defined"), found);
  if (!read.ok()) return read;
  if (!context.output.json()) {
    for (const std::string& option : found.options) context.output.line(option);
    return {};
  }
  Record record;
  record.text("key", formatKey(var)).list("options", found.options);
  found.options.empty() ? record.none("default_index")
                        : record.count("default_index", found.defaultIndex);
  context.output.record(record);
  return {};
}

// Null pointer: not given.
Outcome readIndex(const Arguments& arguments, unsigned int& index, const unsigned int*& given) {
  given = nullptr;
  if (!arguments.has("default-index")) return {};
  const std::string& text = arguments.one("default-index");
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, index);
  if (error != std::errc() || stop != end) {
    return usageMistake("--default-index takes the position of an option, counted from 0");
  }
  given = &index;
  return {};
}

Outcome runOptionsSet(Context& context, const Arguments& arguments) {
  ConfigVar var("", 0, "", 0);
  Outcome read = readKey(context.settings, arguments.one("KEY"), var);
  if (!read.ok()) return read;
  const std::vector<std::string>& options = arguments.all("OPTION");
  if (options.empty() != arguments.has("empty")) {
    return usageMistake(
        options.empty() ? "an option is missing" : "either options or --empty, not both",
        "--empty removes all options: any value is allowed then");
  }
  unsigned int index = 0;
  const unsigned int* given = nullptr;
  read = readIndex(arguments, index, given);
  if (!read.ok()) return read;
  Session& session = context.session;
  ConfigIF::SetAttributeOptionsRsp response;
  Outcome done = session.ask(
      {"set the options of", formatKey(var)},
      ProtobufMessageHelper::getSetOptionsRequest(session.client(), session.role(), var,
                                                  {options.begin(), options.end()}, given),
      response);
  if (!done.ok() || !context.output.json()) return done;
  Record record;
  record.text("key", formatKey(var)).list("options", options);
  context.output.record(record.flag("changed", !response.result().flag()));
  return {};
}

// --- access ---

std::string nameOf(CommonIF::eSecurityRole role) {
  return std::string(AppConfig::roleName(PlatformCfgService::enumTranslate(role)));
}

Outcome runAccessGet(Context& context, const Arguments& arguments) {
  ConfigVar var("", 0, "", 0);
  Outcome key = readKey(context.settings, arguments.one("KEY"), var);
  if (!key.ok()) return key;
  Session& session = context.session;
  ConfigIF::GetAccessLevelsRsp response;
  Outcome asked = session.ask(
      {"read the roles of", formatKey(var)},
      ProtobufMessageHelper::getGetAccessLevelsReq(session.client(), session.role(), var),
      response);
  if (!asked.ok()) return asked;
  const std::string readRole = nameOf(response.read_role());
  const std::string writeRole = nameOf(response.write_role());
  if (context.output.json()) {
    Record record;
    record.text("key", formatKey(var)).text("read", readRole).text("write", writeRole);
    context.output.record(record);
  } else {
    context.output.line("read\t" + readRole);
    context.output.line("write\t" + writeRole);
  }
  return {};
}

struct RoleArgument {
  CommonIF::eSecurityRole role = CommonIF::SECURITY_ROLE_PUBLIC;
  bool given = false;
  const CommonIF::eSecurityRole* pointer() const { return given ? &role : nullptr; }
};

Outcome readRole(const Arguments& arguments, const char* option, RoleArgument& out) {
  if (!arguments.has(option)) return {};
  const std::string& name = arguments.one(option);
  const auto role = AppConfig::parseRole(name);
  if (!role) {
    return usageMistake("--" + std::string(option) + ": there is no role \"" + name + '"',
                        "one of " + std::string(AppConfig::kRoleNames));
  }
  out.role = PlatformCfgService::enumTranslate(*role);
  out.given = true;
  return {};
}

Outcome readKeys(const Context& context, const Arguments& arguments, std::list<ConfigVar>& vars) {
  for (const std::string& text : arguments.all("KEY")) {
    ConfigVar var("", 0, "", 0);
    Outcome key = readKey(context.settings, text, var);
    if (!key.ok()) return key;
    vars.push_back(var);
  }
  return {};
}

// With one variable the message names it; with several each refused one is a reason of its own.
Outcome accessOutcome(const Session& session, const std::list<ConfigVar>& vars,
                      const ConfigIF::SetAccessLevelsRsp& response) {
  const Purpose all{"set the roles of",
                    vars.size() == 1 ? formatKey(vars.front()) : "all of these variables"};
  Outcome outcome = session.verdict(all, response.result());
  if (outcome.ok() || vars.size() == 1) return outcome;
  outcome.advice.clear();
  for (const ConfigIF::AccessLevelsRecord& record : response.records()) {
    ConfigIF::ReturnMessage one;
    one.set_error(record.error());
    const Purpose purpose{"set the roles of", formatKey(keyOf(record.inst()))};
    const Outcome refused = session.verdict(purpose, one);
    if (!refused.ok()) outcome.reasons.push_back(refused.text);
  }
  return outcome;
}

void printAccess(Output& output, const ConfigIF::SetAccessLevelsRsp& response) {
  std::vector<Record> variables;
  for (const ConfigIF::AccessLevelsRecord& record : response.records()) {
    Record variable;
    variable.text("key", formatKey(keyOf(record.inst())));
    if (record.error() == CommonIF::ERROR_NONE) {
      variable.none("error");
    } else {
      variable.text("error", exitCodeName(exitCodeOf(record.error())));
    }
    variables.push_back(variable);
  }
  Record record;
  output.record(record.records("variables", std::move(variables)));
}

// In as many requests as it takes: their records are put together, and the first error is the
// result.
Outcome setRoles(Session& session, std::list<ConfigVar> vars, const RoleArgument& readers,
                 const RoleArgument& writers, ConfigIF::SetAccessLevelsRsp& all) {
  while (!vars.empty()) {
    std::list<ConfigVar> batch;
    const auto count = std::min(vars.size(), PlatformSchema::MessageLimits::kEntries);
    batch.splice(batch.end(), vars, vars.begin(),
                 std::next(vars.begin(), static_cast<std::ptrdiff_t>(count)));
    ConfigIF::SetAccessLevelsRsp response;
    Outcome answered = session.exchange(
        {"set the roles of", formatKey(batch.front())},
        ProtobufMessageHelper::getSetAccessLevelsReq(session.client(), session.role(), batch,
                                                     readers.pointer(), writers.pointer()),
        response);
    if (!answered.ok()) return answered;
    if (all.result().error() == CommonIF::ERROR_NONE) *all.mutable_result() = response.result();
    all.mutable_records()->MergeFrom(response.records());
  }
  return {};
}

Outcome runAccessSet(Context& context, const Arguments& arguments) {
  std::list<ConfigVar> vars;
  Outcome read = readKeys(context, arguments, vars);
  RoleArgument readers;
  RoleArgument writers;
  if (read.ok()) read = readRole(arguments, "read", readers);
  if (read.ok()) read = readRole(arguments, "write", writers);
  if (!read.ok()) return read;
  if (!readers.given && !writers.given) {
    return usageMistake("access set takes --read ROLE, --write ROLE, or both");
  }
  Session& session = context.session;
  ConfigIF::SetAccessLevelsRsp response;
  Outcome answered = setRoles(session, vars, readers, writers, response);
  if (!answered.ok()) return answered;
  if (context.output.json()) printAccess(context.output, response);
  return accessOutcome(session, vars, response);
}

}  // namespace

Verb optionsGetVerb() {
  Verb verb;
  verb.name = "options get";
  verb.summary = "print the values that a variable may take, one on each line";
  verb.example = "appcfg options get network.mode";
  verb.positionals = {{"KEY", "the variable"}};
  verb.options = {{"defined", 0, "", "those of the definition, whatever was set since"}};
  verb.run = runOptionsGet;
  return verb;
}

Verb optionsSetVerb() {
  Verb verb;
  verb.name = "options set";
  verb.summary = "replace the values that a variable may take";
  verb.example = "appcfg options set network.mode dhcp static --default-index 0";
  verb.positionals = {{"KEY", "the variable"}, {"OPTION", "an allowed value", 0, kAnyNumber}};
  verb.options = {{"default-index", 0, "N", "position of the default option, counted from 0"},
                  {"empty", 0, "", "no options, instead of OPTION: any value is allowed"}};
  verb.run = runOptionsSet;
  return verb;
}

Verb accessGetVerb() {
  Verb verb;
  verb.name = "access get";
  verb.summary = "print the roles needed to read and to write a variable";
  verb.example = "appcfg access get network.mode";
  verb.positionals = {{"KEY", "the variable"}};
  verb.run = runAccessGet;
  return verb;
}

Verb accessSetVerb() {
  Verb verb;
  verb.name = "access set";
  verb.summary = "change the roles needed to read and to write variables";
  verb.example = "appcfg access set network.mode --write installer --role service";
  verb.positionals = {{"KEY", "the variables", 1, kAnyNumber}};
  verb.options = {{"read", 0, "ROLE", "role needed to read; as it is when left out"},
                  {"write", 0, "ROLE", "role needed to write; as it is when left out"}};
  verb.run = runAccessSet;
  return verb;
}

}  // namespace AppCfgTool
