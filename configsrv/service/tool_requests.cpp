// Requests that tools make: listings and the state of the service.
#include <unistd.h>

#include "configsrv/changes/wire_forms.h"
#include "configsrv/service/internal/answer_size.h"
#include "configsrv/service/internal/requests.h"

namespace ConfigSrv {
namespace {

void fillListRecord(ConfigIF::ListRecord& record, const Variable& variable) {
  fillInst(record.mutable_inst(), variable.key());
  record.set_type(static_cast<ConfigIF::ValueType>(variable.shape().type));
  for (const std::string& element : variable.value()) record.add_values(element);
  record.set_is_default(variable.isDefault());
  record.set_description(variable.shape().description);
}

std::uint32_t number(std::size_t count) { return static_cast<std::uint32_t>(count); }

}  // namespace

void Requests::list(const Call& call, const ConfigIF::ListReq& request,
                    ConfigIF::ListRsp& response) {
  AnswerSize size;
  std::uint32_t hidden = 0;
  for (const Variable* variable : with_.model.covered(lowerCase(request.prefix()))) {
    if (call.by.role < variable->readRole()) {
      ++hidden;
      continue;
    }
    size.add(variable->value(),
             std::list<std::string>{variable->shape().description, variable->key().dottedName()});
    if (size.isTooLarge()) break;
    fillListRecord(*response.add_records(), *variable);
  }
  response.set_hidden(hidden);
  if (!size.isTooLarge()) return;
  response.Clear();
  setError(*response.mutable_result(), eErrLimit,
           "the listing would be too long: ask for a longer prefix");
}

void Requests::status(const Call&, const ConfigIF::StatusReq&, ConfigIF::StatusRsp& response) {
  const auto uptime = std::chrono::steady_clock::now() - started_;
  const ChangeCounters& counters = with_.changes.counters();
  response.set_version(APPCONFIG_VERSION);
  response.set_pid(static_cast<std::uint64_t>(getpid()));
  response.set_uptime_seconds(
      static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(uptime).count()));
  response.set_revision(with_.model.revision());
  response.set_variables(number(with_.model.size()));
  response.set_changed_variables(number(with_.model.changedVariables()));
  response.set_clients(number(with_.server.peerCount()));
  response.set_registrations(number(with_.subscriptions.count()));
  response.set_reads(reads_);
  response.set_commits(counters.commits);
  response.set_unchanged_writes(counters.unchanged);
  response.set_refused_writes(counters.refused);
  response.set_notices(with_.announcer.notices());
  response.set_definitions_dir(with_.options.definitionsDir);
  response.set_store_file(with_.options.storeFile);
}

}  // namespace ConfigSrv
