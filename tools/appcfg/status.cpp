// status: how the service is: its version, what it holds, and counts since it started.
//
// One request, whose answer is printed as a table or, with --json, as one record.
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/text.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

Record recordOf(const Session& session, const ConfigIF::StatusRsp& s) {
  Record record;
  record.text("service", session.serviceName()).text("version", s.version());
  record.count("pid", s.pid()).count("uptime_seconds", s.uptime_seconds());
  record.count("revision", s.revision()).count("variables", s.variables());
  record.count("changed_variables", s.changed_variables()).count("clients", s.clients());
  record.count("registrations", s.registrations()).count("reads", s.reads());
  record.count("commits", s.commits()).count("unchanged_writes", s.unchanged_writes());
  record.count("refused_writes", s.refused_writes()).count("notices", s.notices());
  record.count("store_writes", s.store_writes()).count("store_bytes", s.store_bytes());
  record.count("snapshots", s.snapshots()).count("failed_snapshots", s.failed_snapshots());
  record.text("definitions_dir", s.definitions_dir()).text("store_file", s.store_file());
  record.flag("last_good_definitions", s.last_good_definitions());
  record.flag("last_good_roles", s.last_good_roles());
  return record.list("mistakes", {s.mistakes().begin(), s.mistakes().end()});
}

// Below the table, and only when something is wrong: what is in force, and why it is not what the files
// say.
std::string wrong(const ConfigIF::StatusRsp& s) {
  std::string text;
  if (s.last_good_definitions())
    text += "\nThe last good definitions are in force, for the files have mistakes.";
  if (s.last_good_roles())
    text += "\nThe last good table of roles is in force, for the file has mistakes.";
  if (text.empty()) return text;
  text += "\nCorrect them, and start the service anew:\n";
  for (const std::string& mistake : s.mistakes()) text += "  " + escapeLine(mistake) + '\n';
  return text;
}

std::string table(const Session& session, const ConfigIF::StatusRsp& s) {
  return alignColumns({
      {"service", session.serviceName() + ", version " + escapeLine(s.version())},
      {"process", std::to_string(s.pid()) + ", up " + std::to_string(s.uptime_seconds()) + " s"},
      {"variables", std::to_string(s.variables()) + ", " + std::to_string(s.changed_variables()) +
                        " not default"},
      {"revision", std::to_string(s.revision())},
      {"clients", std::to_string(s.clients())},
      {"registrations", std::to_string(s.registrations())},
      {"reads", std::to_string(s.reads())},
      {"commits", std::to_string(s.commits())},
      {"unchanged writes", std::to_string(s.unchanged_writes())},
      {"refused writes", std::to_string(s.refused_writes())},
      {"notices", std::to_string(s.notices())},
      {"store writes",
       std::to_string(s.store_writes()) + ", " + std::to_string(s.store_bytes()) + " bytes"},
      {"snapshots",
       std::to_string(s.snapshots()) + ", " + std::to_string(s.failed_snapshots()) + " failed"},
      {"definitions", escapeLine(s.definitions_dir())},
      {"store", escapeLine(s.store_file())},
  });
}

Outcome runStatus(Context& context, const Arguments&) {
  Session& session = context.session;
  ConfigIF::StatusReq request;
  request.set_client_name(session.client());
  request.set_role(session.role());
  ConfigIF::StatusRsp response;
  Outcome asked = session.ask({"read the status of", session.serviceName()}, request, response);
  if (!asked.ok()) return asked;
  if (context.output.json()) {
    context.output.record(recordOf(session, response));
  } else {
    context.output.bytes(table(session, response) + wrong(response));
  }
  return {};
}

}  // namespace

Verb statusVerb() {
  Verb verb;
  verb.name = "status";
  verb.summary = "how the service is; exits with 7 when it does not run";
  verb.example = "appcfg status";
  verb.run = runStatus;
  return verb;
}

}  // namespace AppCfgTool
