// The verbs about one variable's value: get, set, validate, is-default.
//
// Each is one request and what is made of its answer.
#include <list>

#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "tools/appcfg/meaning.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using AppConfig::formatKey;
using AppConfig::ProtobufMessageHelper;

Outcome readValue(Context& context, const Arguments& arguments, ConfigVar& var,
                  ConfigIF::ReadRsp& response) {
  Outcome key = readKey(context.settings, arguments.one("KEY"), var);
  if (!key.ok()) return key;
  Session& session = context.session;
  const auto request = ProtobufMessageHelper::getReadRequest(session.client(), session.role(), var);
  return session.ask({"read", formatKey(var)}, request, response);
}

// The bytes of the elements, each with its end behind it. A value without elements is no output at
// all, and so differs from one empty element.
void printElements(Output& output, const std::vector<std::string>& elements, char end) {
  for (const std::string& element : elements) {
    output.bytes(element);
    output.bytes({&end, 1});
  }
}

Outcome runGet(Context& context, const Arguments& arguments) {
  ConfigVar var("", 0, "", 0);
  ConfigIF::ReadRsp response;
  Outcome read = readValue(context, arguments, var, response);
  if (!read.ok()) return read;
  if (!context.output.json()) {
    printElements(context.output, stringsOf(response.values()),
                  arguments.has("null") ? '\0' : '\n');
    return {};
  }
  Record record;
  record.text("key", formatKey(var)).list("value", stringsOf(response.values()));
  context.output.record(record.flag("is_default", response.is_default()));
  return {};
}

Outcome runIsDefault(Context& context, const Arguments& arguments) {
  ConfigVar var("", 0, "", 0);
  ConfigIF::ReadRsp response;
  Outcome read = readValue(context, arguments, var, response);
  if (!read.ok()) return read;
  if (context.output.json()) {
    Record record;
    record.text("key", formatKey(var)).flag("is_default", response.is_default());
    context.output.record(record);
  }
  return response.is_default() ? Outcome() : answerNo();
}

// A command line that says neither a value nor --empty is more likely a slip (an unset shell
// variable without quotes) than the wish for a list without elements.
Outcome valueOf(const Arguments& arguments, std::list<std::string>& value) {
  const std::vector<std::string>& given = arguments.all("VALUE");
  if (given.empty() != arguments.has("empty")) {
    return usageMistake(given.empty() ? "a value is missing" : "either values or --empty, not both",
                        "'' is one empty string, --empty a list without elements");
  }
  value.assign(given.begin(), given.end());
  return {};
}

Outcome keyAndValue(Context& context, const Arguments& arguments, ConfigVar& var,
                    std::list<std::string>& value) {
  const Outcome key = readKey(context.settings, arguments.one("KEY"), var);
  return key.ok() ? valueOf(arguments, value) : key;
}

// Said beside the success, since the text is stored as it was given.
void tellReading(Context& context, const ConfigVar& var, const std::list<std::string>& value) {
  const std::string reading = readOtherwise(context.session, var, {value.begin(), value.end()});
  if (!reading.empty()) context.output.note(formatKey(var) + ": " + reading);
}

Outcome runSet(Context& context, const Arguments& arguments) {
  ConfigVar var("", 0, "", 0);
  std::list<std::string> value;
  Outcome given = keyAndValue(context, arguments, var, value);
  if (!given.ok()) return given;
  Session& session = context.session;
  ConfigIF::WriteRsp response;
  Outcome written = session.ask(
      {"set", formatKey(var)},
      ProtobufMessageHelper::getWriteRequest(session.client(), session.role(), var, value),
      response);
  if (written.ok()) tellReading(context, var, value);
  if (!written.ok() || !context.output.json()) return written;
  Record record;
  record.text("key", formatKey(var)).list("value", {value.begin(), value.end()});
  context.output.record(record.flag("changed", !response.result().flag()));
  return {};
}

void printVerdict(Output& output, const ConfigVar& var, const ConfigIF::ReturnMessage& result) {
  const bool valid = result.error() == CommonIF::ERROR_NONE;
  Record record;
  record.text("key", formatKey(var)).flag("valid", valid);
  if (valid) {
    record.none("error");
  } else {
    record.text("error", exitCodeName(exitCodeOf(result.error())));
  }
  output.record(record.list("reasons", stringsOf(result.messages())));
}

// Only what is wrong with the value is a verdict; that the variable is missing, say, is not.
bool isVerdict(ExitCode code) {
  return code == kExitOk || code == kExitInvalidValue || code == kExitVetoed;
}

Outcome runValidate(Context& context, const Arguments& arguments) {
  ConfigVar var("", 0, "", 0);
  std::list<std::string> value;
  Outcome given = keyAndValue(context, arguments, var, value);
  if (!given.ok()) return given;
  Session& session = context.session;
  const Purpose purpose{"accept this value of", formatKey(var)};
  ConfigIF::ValidateRsp response;
  Outcome answered = session.exchange(
      purpose,
      ProtobufMessageHelper::getValidateRequest(session.client(), session.role(), var, value),
      response);
  if (!answered.ok()) return answered;
  Outcome verdict = session.verdict(purpose, response.result());
  if (context.output.json() && isVerdict(verdict.code)) {
    printVerdict(context.output, var, response.result());
  }
  return verdict;
}

const Positional kKey{"KEY", "the variable: group.name, network.eth[1].mtu, 3:engine.speed"};
const Positional kValue{"VALUE", "one for each element; behind -- they may begin with a dash", 0,
                        kAnyNumber};
const Option kEmpty{"empty", 0, "", "a list without elements, instead of VALUE"};

}  // namespace

Verb getVerb() {
  Verb verb;
  verb.name = "get";
  verb.summary = "print a value, one element on each line";
  verb.example = "appcfg get network.hostname";
  verb.positionals = {kKey};
  verb.options = {{"null", '0', "", "end each element with a zero byte instead of a line break"}};
  verb.run = runGet;
  return verb;
}

Verb setVerb() {
  Verb verb;
  verb.name = "set";
  verb.summary = "change a value and wait until it is stored";
  verb.example = "appcfg set network.dns 192.0.2.1 192.0.2.2";
  verb.positionals = {kKey, kValue};
  verb.options = {kEmpty};
  verb.run = runSet;
  return verb;
}

Verb validateVerb() {
  Verb verb;
  verb.name = "validate";
  verb.summary = "would set accept this value? Same exit codes, changes nothing";
  verb.example = "appcfg validate 'network.eth[1].mtu' 9000";
  verb.positionals = {kKey, kValue};
  verb.options = {kEmpty};
  verb.run = runValidate;
  return verb;
}

Verb isDefaultVerb() {
  Verb verb;
  verb.name = "is-default";
  verb.summary = "exit with 0 if the value is the default, with 10 if not";
  verb.example = "appcfg is-default network.hostname || echo changed";
  verb.positionals = {kKey};
  verb.run = runIsDefault;
  return verb;
}

}  // namespace AppCfgTool
