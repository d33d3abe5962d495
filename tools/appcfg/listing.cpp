// list: the variables and their values; describe: all that is known of one variable.
//
// The service answers a listing in pages; listPages asks for one after another, so that no answer
// grows with the number of variables.
#include "tools/appcfg/listing.h"

#include "appconfig/core/key_notation.h"
#include "appconfig/core/role_names.h"
#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/text.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {

const char* typeName(ConfigIF::ValueType type) {
  switch (type) {
    case ConfigIF::VALUE_INT:
      return "int";
    case ConfigIF::VALUE_BOOL:
      return "bool";
    case ConfigIF::VALUE_LIST:
      return "list";
    case ConfigIF::VALUE_ENUMERATION:
      return "enumeration";
    case ConfigIF::VALUE_STRING:
      break;
  }
  return "string";
}

namespace {

using AppConfig::formatKey;
using AppConfig::ProtobufMessageHelper;

constexpr std::uint32_t kListedAtOnce = 1000;

// Whether the next page lies behind this one. A service that leads back would be asked for ever.
bool leadsOn(const ConfigIF::ListReq& request, const ConfigIF::ListRsp& response) {
  return !request.has_after() ||
         std::less<ConfigVar>()(keyOf(request.after()), keyOf(response.next()));
}

Outcome nothingFound(const Session& session, const Selection& selection, std::uint32_t hidden) {
  ConfigIF::ReturnMessage result;
  result.set_error(hidden == 0 ? CommonIF::ERROR_NOT_FOUND : CommonIF::ERROR_DENIED);
  return session.verdict({"list", selection.name()}, result);
}

// The words of both forms of output. A listing is often cut into columns by programs, so the
// third one is never empty.
const char* originOf(const ConfigIF::ListRecord& record) {
  return record.is_default() ? "default" : "changed";
}

// A listing is read over shoulders and pasted into reports; who wants one secret asks for it by key.
std::string shownValue(const ConfigIF::ListRecord& record, bool secrets) {
  if (record.secret() && !secrets) return "(secret)";
  return valueOnOneLine(stringsOf(record.values()));
}

void printTable(Output& output, const Listing& listing, bool secrets) {
  std::vector<std::vector<std::string>> rows;
  for (const ListedVariable& listed : listing.variables) {
    rows.push_back({formatKey(listed.var), shownValue(listed.record, secrets)});
    if (listed.record.is_default()) rows.back().emplace_back("[default]");
  }
  output.bytes(alignColumns(rows, output.columns(), 1));
}

void printColumns(Output& output, const Listing& listing, bool secrets) {
  for (const ListedVariable& listed : listing.variables) {
    output.line(formatKey(listed.var) + '\t' + shownValue(listed.record, secrets) + '\t' +
                originOf(listed.record));
  }
}

void printRecord(Output& output, const Listing& listing, bool secrets) {
  std::vector<Record> variables;
  for (const ListedVariable& listed : listing.variables) {
    Record variable;
    variable.text("key", formatKey(listed.var)).text("type", typeName(listed.record.type()));
    const bool isMasked = listed.record.secret() && !secrets;
    isMasked ? variable.none("value") : variable.list("value", stringsOf(listed.record.values()));
    variable.flag("is_default", listed.record.is_default());
    variable.flag("secret", listed.record.secret());
    variables.push_back(variable.text("description", listed.record.description()));
  }
  Record record;
  output.record(record.records("variables", std::move(variables)).count("hidden", listing.hidden));
}

Outcome runList(Context& context, const Arguments& arguments) {
  Selection selection(context.settings);
  if (arguments.has("PREFIX")) {
    Outcome read = selection.read(arguments.one("PREFIX"));
    if (!read.ok()) return read;
  }
  Listing listing;
  Outcome listed = list(context.session, selection, listing);
  if (!listed.ok()) return listed;
  Output& output = context.output;
  const bool secrets = arguments.has("secrets");
  if (output.json()) {
    printRecord(output, listing, secrets);
    return {};
  }
  output.toTerminal() ? printTable(output, listing, secrets)
                      : printColumns(output, listing, secrets);
  if (listing.hidden > 0) {
    output.note(std::to_string(listing.hidden) + " more are hidden from this role: see --role");
  }
  return {};
}

// --- describe ---

std::string nameOfRole(CommonIF::eSecurityRole role) {
  return std::string(AppConfig::roleName(AppConfig::PlatformCfgService::enumTranslate(role)));
}

struct Description {
  ConfigVar var;
  ConfigIF::Attributes attributes;
  std::vector<std::string> value;
  bool isDefault = false;
};

Outcome describe(Context& context, Description& out) {
  Session& session = context.session;
  const Purpose purpose{"describe", formatKey(out.var)};
  ConfigIF::ReadAttributesRsp attributes;
  Outcome asked = session.ask(
      purpose,
      ProtobufMessageHelper::getReadAttributesRequest(session.client(), session.role(), out.var),
      attributes);
  if (!asked.ok()) return asked;
  ConfigIF::ReadRsp read;
  asked = session.ask(
      purpose, ProtobufMessageHelper::getReadRequest(session.client(), session.role(), out.var),
      read);
  out.attributes = attributes.attributes();
  out.value = stringsOf(read.values());
  out.isDefault = read.is_default();
  return asked;
}

// A limit that is absent is null, so that every description has the same fields.
void addLimits(Record& record, const ConfigIF::Attributes& a) {
  a.has_min() ? record.number("min", a.min()) : record.none("min");
  a.has_max() ? record.number("max", a.max()) : record.none("max");
  a.has_max_length() ? record.count("max_length", a.max_length()) : record.none("max_length");
  a.has_max_elements() ? record.count("max_elements", a.max_elements())
                       : record.none("max_elements");
  a.has_pattern() ? record.text("pattern", a.pattern()) : record.none("pattern");
}

Record recordOf(const Description& d) {
  const ConfigIF::Attributes& a = d.attributes;
  Record record;
  record.text("key", formatKey(d.var)).text("type", typeName(a.type()));
  record.text("description", a.description());
  record.list("value", d.value).flag("is_default", d.isDefault);
  record.list("default", stringsOf(a.default_values())).list("options", stringsOf(a.options()));
  a.options_size() > 0 ? record.count("default_index", a.default_index())
                       : record.none("default_index");
  addLimits(record, a);
  record.text("read_role", nameOfRole(a.read_role()));
  record.text("write_role", nameOfRole(a.write_role()));
  record.flag("has_provider", a.has_provider()).flag("secret", a.secret());
  a.has_changed_at() ? record.count("changed_at", a.changed_at()) : record.none("changed_at");
  record.text("defined_in", a.defined_in());
  return record.count("defined_at_line", a.defined_at_line());
}

using Rows = std::vector<std::vector<std::string>>;

void addLimits(Rows& rows, const ConfigIF::Attributes& a) {
  if (a.has_min()) rows.push_back({"least", std::to_string(a.min())});
  if (a.has_max()) rows.push_back({"most", std::to_string(a.max())});
  if (a.has_max_length()) rows.push_back({"longest", std::to_string(a.max_length()) + " bytes"});
  if (a.has_max_elements()) rows.push_back({"most elements", std::to_string(a.max_elements())});
  if (a.has_pattern()) rows.push_back({"pattern", escapeLine(a.pattern())});
}

void addOptions(Rows& rows, const ConfigIF::Attributes& a) {
  for (int i = 0; i < a.options_size(); ++i) {
    const bool isDefault = static_cast<std::uint32_t>(i) == a.default_index();
    rows.push_back(
        {i == 0 ? "options" : "", escapeLine(a.options(i)) + (isDefault ? " [default]" : "")});
  }
}

Rows rowsOf(const Description& d) {
  const ConfigIF::Attributes& a = d.attributes;
  Rows rows = {{"key", formatKey(d.var)}, {"type", typeName(a.type())}};
  if (!a.description().empty()) rows.push_back({"description", escapeLine(a.description())});
  rows.push_back({"value", valueOnOneLine(d.value) + (d.isDefault ? " [default]" : "")});
  rows.push_back({"default", valueOnOneLine(stringsOf(a.default_values()))});
  addLimits(rows, a);
  addOptions(rows, a);
  rows.push_back({"read role", nameOfRole(a.read_role())});
  rows.push_back({"write role", nameOfRole(a.write_role())});
  rows.push_back({"provider", a.has_provider() ? "registered" : "none"});
  if (a.secret()) rows.push_back({"secret", "masked in logs"});
  if (a.has_changed_at())
    rows.push_back({"changed at", "revision " + std::to_string(a.changed_at())});
  if (a.has_defined_in()) {
    rows.push_back(
        {"defined in", escapeLine(a.defined_in()) + ':' + std::to_string(a.defined_at_line())});
  }
  return rows;
}

Outcome runDescribe(Context& context, const Arguments& arguments) {
  Description description{ConfigVar("", 0, "", 0), {}, {}, false};
  Outcome key = readKey(context.settings, arguments.one("KEY"), description.var);
  if (!key.ok()) return key;
  Outcome described = describe(context, description);
  if (!described.ok()) return described;
  Output& output = context.output;
  if (output.json()) {
    output.record(recordOf(description));
  } else {
    output.bytes(alignColumns(rowsOf(description)));
  }
  return {};
}

}  // namespace

Outcome listPages(Session& session, const std::string& name,
                  const std::function<bool(ConfigIF::ListRecord&)>& take, std::uint32_t& hidden) {
  ConfigIF::ListReq request;
  request.set_client_name(session.client());
  request.set_role(session.role());
  if (!name.empty()) request.set_prefix(name);
  request.set_at_most(kListedAtOnce);
  hidden = 0;
  for (;;) {
    ConfigIF::ListRsp response;
    Outcome asked = session.ask({"list", name}, request, response);
    if (!asked.ok()) return asked;
    for (ConfigIF::ListRecord& record : *response.mutable_records()) {
      if (!take(record)) return {};
    }
    hidden += response.hidden();
    if (!response.has_next()) return {};
    if (!leadsOn(request, response))
      return failure(kExitFailed, "cannot list: the service's listing leads back to its beginning");
    *request.mutable_after() = std::move(*response.mutable_next());
  }
}

Outcome list(Session& session, const Selection& selection, Listing& listing, Progress* progress) {
  const auto take = [&](ConfigIF::ListRecord& record) {
    if (progress != nullptr) progress->step();
    const ConfigVar var = keyOf(record.inst());
    if (selection.selects(var)) listing.variables.push_back({var, std::move(record)});
    return true;
  };
  Outcome listed = listPages(session, selection.name(), take, listing.hidden);
  if (!listed.ok()) return listed;
  if (!listing.variables.empty() || selection.name().empty()) return {};
  return nothingFound(session, selection, listing.hidden);
}

Verb listVerb() {
  Verb verb;
  verb.name = "list";
  verb.summary = "the variables and their values, all or below a name";
  verb.example = "appcfg list network";
  verb.positionals = {{"PREFIX", "a group or variable: network, network.eth[1], 3:engine", 0, 1}};
  verb.options = {{"secrets", 0, "", "also the values of secret variables"}};
  verb.run = runList;
  return verb;
}

Verb describeVerb() {
  Verb verb;
  verb.name = "describe";
  verb.summary = "all that is known of a variable: type, limits, roles, default";
  verb.example = "appcfg describe 'network.eth[1].mtu'";
  verb.positionals = {{"KEY", "the variable"}};
  verb.run = runDescribe;
  return verb;
}

}  // namespace AppCfgTool
