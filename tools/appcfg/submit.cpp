// submit: a set of changes is complete, or taken back.
#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

Outcome runSubmit(Context& context, const Arguments& arguments) {
  ConfigVar var("", 0, "", 0);
  Outcome read = readKey(context.settings, arguments.one("KEY"), var);
  if (!read.ok()) return read;
  const std::string key = AppConfig::formatKey(var);
  const bool discard = arguments.has("discard");
  ConfigIF::SubmitReq request;
  request.set_client_name(context.session.client());
  request.set_role(context.session.role());
  AppConfig::ProtobufMessageHelper::addVarName(request.mutable_inst(), var);
  request.set_type(discard ? ConfigIF::SUBMIT_DISCARD : ConfigIF::SUBMIT_APPLY);
  ConfigIF::SubmitRsp response;
  Outcome asked = context.session.ask({"submit", key}, request, response);
  if (!asked.ok() || !context.output.json()) return asked;
  Record record;
  context.output.record(record.text("key", key).text("type", discard ? "discard" : "apply"));
  return asked;
}

}  // namespace

Verb submitVerb() {
  Verb verb;
  verb.name = "submit";
  verb.summary = "tell applications that a set of changes is complete";
  verb.example = "appcfg submit network.mode";
  verb.positionals = {{"KEY", "the variable that stands for the set"}};
  verb.options = {{"discard", 0, "", "the changes are to be taken back instead"}};
  verb.run = runSubmit;
  return verb;
}

}  // namespace AppCfgTool
