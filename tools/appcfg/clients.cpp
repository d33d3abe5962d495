// clients: who is connected to the service: what each program registered, and what waits for it.
//
// One request, whose answer is printed as a table or, with --json, as one record.
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/text.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

Record recordOf(const ConfigIF::ClientRecord& client) {
  Record record;
  record.text("name", client.name()).count("pid", client.pid()).count("uid", client.uid());
  record.count("registrations", client.registrations()).flag("delivery", client.delivery());
  record.count("waiting_notices", client.waiting_notices());
  return record.list("provides", stringsOf(client.provides()));
}

void printRecord(Output& output, const ConfigIF::ClientsRsp& response) {
  std::vector<Record> clients;
  for (const ConfigIF::ClientRecord& client : response.records()) {
    clients.push_back(recordOf(client));
  }
  Record record;
  output.record(record.records("clients", std::move(clients)));
}

std::string providesText(const ConfigIF::ClientRecord& client) {
  std::string text;
  for (const std::string& name : client.provides()) {
    if (!text.empty()) text += ' ';
    text += name.empty() ? "(everything)" : escapeLine(name);
  }
  return text.empty() ? "-" : text;
}

void printTable(Output& output, const ConfigIF::ClientsRsp& response) {
  std::vector<std::vector<std::string>> rows = {
      {"name", "pid", "uid", "registrations", "delivery", "waiting", "provides"}};
  for (const ConfigIF::ClientRecord& client : response.records()) {
    rows.push_back({escapeLine(client.name()), std::to_string(client.pid()),
                    std::to_string(client.uid()), std::to_string(client.registrations()),
                    client.delivery() ? "yes" : "no", std::to_string(client.waiting_notices()),
                    providesText(client)});
  }
  output.bytes(alignColumns(rows, output.columns()));
}

Outcome runClients(Context& context, const Arguments&) {
  Session& session = context.session;
  ConfigIF::ClientsReq request;
  request.set_client_name(session.client());
  request.set_role(session.role());
  ConfigIF::ClientsRsp response;
  Outcome asked = session.ask({"list the clients of", session.serviceName()}, request, response);
  if (!asked.ok()) return asked;
  context.output.json() ? printRecord(context.output, response)
                        : printTable(context.output, response);
  return {};
}

}  // namespace

Verb clientsVerb() {
  Verb verb;
  verb.name = "clients";
  verb.summary = "who is connected, what they registered for and provide";
  verb.example = "appcfg clients";
  verb.run = runClients;
  return verb;
}

}  // namespace AppCfgTool
