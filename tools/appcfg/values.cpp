// The verbs about one variable's value: get, set, validate, is-default.
//
// Each is one request and what is made of its answer. get of several keys reads them together, and one
// that cannot be read keeps no other one back.
#include <list>

#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "tools/appcfg/batch_read.h"
#include "tools/appcfg/given_value.h"
#include "tools/appcfg/meaning.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/text.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using AppConfig::formatKey;
using AppConfig::ProtobufMessageHelper;

Outcome readValue(const Context& context, const ConfigVar& var, ConfigIF::ReadRsp& response) {
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

// --- get ---

void printOne(const Context& context, const Arguments& arguments, const ConfigVar& var,
              const ConfigIF::ReadRsp& response) {
  const std::vector<std::string> value = stringsOf(response.values());
  const char end = arguments.has("null") ? '\0' : '\n';
  if (!context.output.json()) return printElements(context.output, value, end);
  Record record;
  record.text("key", formatKey(var)).list("value", value);
  context.output.record(record.flag("is_default", response.is_default()));
}

// With zero bytes the elements can stand as they are, each behind its key.
void printNamed(const Context& context, const Arguments& arguments, const ConfigVar& var,
                const ConfigIF::ReadRecord& record) {
  const std::string name = formatKey(var) + '=';
  const std::vector<std::string> value = stringsOf(record.values());
  if (!arguments.has("null")) return context.output.line(name + valueOnOneLine(value));
  for (const std::string& element : value) printElements(context.output, {name + element}, '\0');
}

Record recordOf(const ConfigVar& var, const ConfigIF::ReadRecord& read) {
  const bool isRead = read.error() == CommonIF::ERROR_NONE;
  Record record;
  record.text("key", formatKey(var));
  isRead ? record.list("value", stringsOf(read.values())) : record.none("value");
  isRead ? record.flag("is_default", read.is_default()) : record.none("is_default");
  return isRead ? record.none("error")
                : record.text("error", exitCodeName(exitCodeOf(read.error())));
}

// What could not be read, all in one: the code is that of the first.
Outcome verdictOf(const Session& session, const std::vector<ConfigVar>& vars,
                  const std::vector<ConfigIF::ReadRecord>& records) {
  std::vector<Outcome> refused;
  for (std::size_t i = 0; i < records.size(); ++i) {
    ConfigIF::ReturnMessage result;
    result.set_error(records[i].error());
    Outcome verdict = session.verdict({"read", formatKey(vars[i])}, result);
    if (!verdict.ok()) refused.push_back(std::move(verdict));
  }
  if (refused.empty()) return {};
  if (refused.size() == 1) return std::move(refused.front());
  Outcome all = failure(refused.front().code, "cannot read " + std::to_string(refused.size()) +
                                                  " of these " + std::to_string(vars.size()));
  for (const Outcome& one : refused) all.reasons.push_back(one.text);
  return all;
}

Outcome getSeveral(Context& context, const Arguments& arguments,
                   const std::vector<ConfigVar>& vars) {
  std::vector<ConfigIF::ReadRecord> records;
  Outcome read = readTogether(context.session, vars, records);
  if (!read.ok()) return read;
  std::vector<Record> shown;
  for (std::size_t i = 0; i < vars.size(); ++i) {
    if (context.output.json()) {
      shown.push_back(recordOf(vars[i], records[i]));
    } else if (records[i].error() == CommonIF::ERROR_NONE) {
      printNamed(context, arguments, vars[i], records[i]);
    }
  }
  Record record;
  if (context.output.json()) context.output.record(record.records("variables", std::move(shown)));
  return verdictOf(context.session, vars, records);
}

Outcome runGet(Context& context, const Arguments& arguments) {
  std::vector<ConfigVar> vars;
  for (const std::string& text : arguments.all("KEY")) {
    Outcome key = readKey(context.settings, text, vars.emplace_back("", 0, "", 0));
    if (!key.ok()) return key;
  }
  if (vars.size() > 1) return getSeveral(context, arguments, vars);
  ConfigIF::ReadRsp response;
  Outcome read = readValue(context, vars.front(), response);
  if (read.ok()) printOne(context, arguments, vars.front(), response);
  return read;
}

// --- is-default, set, validate ---

Outcome runIsDefault(Context& context, const Arguments& arguments) {
  ConfigVar var("", 0, "", 0);
  ConfigIF::ReadRsp response;
  Outcome read = readKey(context.settings, arguments.one("KEY"), var);
  if (read.ok()) read = readValue(context, var, response);
  if (!read.ok()) return read;
  if (context.output.json()) {
    Record record;
    record.text("key", formatKey(var)).flag("is_default", response.is_default());
    context.output.record(record);
  }
  return response.is_default() ? Outcome() : answerNo();
}

Outcome keyAndValue(Context& context, const Arguments& arguments, ConfigVar& var,
                    std::list<std::string>& value) {
  const Outcome key = readKey(context.settings, arguments.one("KEY"), var);
  return key.ok() ? readGivenValue(context, arguments, var, value) : key;
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
}  // namespace

Verb getVerb() {
  Verb verb;
  verb.name = "get";
  verb.summary = "print a value, one element on each line; of several keys KEY=VALUE lines";
  verb.example = "appcfg get network.hostname";
  verb.positionals = {{"KEY", kKey.help, 1, kAnyNumber}};
  verb.options = {{"null", '0', "", "end each element with a zero byte instead of a line break"}};
  verb.run = runGet;
  return verb;
}

Verb setVerb() {
  Verb verb;
  verb.name = "set";
  verb.summary = "change a value and wait until it is stored";
  verb.example = "appcfg set network.dns 192.0.2.1 192.0.2.2";
  verb.positionals = {kKey, valuePositional()};
  verb.options = valueOptions();
  verb.run = runSet;
  return verb;
}

Verb validateVerb() {
  Verb verb;
  verb.name = "validate";
  verb.summary = "would set accept this value? Same exit codes, changes nothing";
  verb.example = "appcfg validate 'network.eth[1].mtu' 9000";
  verb.positionals = {kKey, valuePositional()};
  verb.options = valueOptions();
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
