// Requests that tools make: listings and the state of the service.
#include <unistd.h>

#include <algorithm>
#include <iterator>

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
  if (variable.shape().secret) record.set_secret(true);
}

std::uint32_t number(std::size_t count) { return static_cast<std::uint32_t>(count); }

// A provider is who is asked, whichever of the two questions it is.
std::vector<std::string> providedBy(const Subscriptions& subscriptions, PbUtility::PeerId peer) {
  const auto validates = subscriptions.names(peer, ConfigIF::CALLBACK_DYNAMIC_VALIDATE);
  const auto changes = subscriptions.names(peer, ConfigIF::CALLBACK_ON_CHANGE);
  std::vector<std::string> names;
  std::set_union(validates.begin(), validates.end(), changes.begin(), changes.end(),
                 std::back_inserter(names));
  return names;
}

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
           "the listing would be longer than " + std::to_string(AnswerSize::kMaxBytes) +
               " bytes: list, or export, group by group");
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
  const StoreCounters store = with_.store.counters();
  response.set_store_writes(store.writes);
  response.set_store_bytes(store.bytes);
  response.set_snapshots(store.snapshots);
  response.set_failed_snapshots(store.failedSnapshots);
  response.set_definitions_dir(with_.options.definitionsDir);
  response.set_store_file(with_.options.storeFile);
}

void Requests::clients(const Call&, const ConfigIF::ClientsReq&, ConfigIF::ClientsRsp& response) {
  AnswerSize size;
  for (const PbUtility::ConnectedPeer& connected : with_.server.peers()) {
    const PbUtility::Peer& peer = connected.peer;
    const std::vector<std::string> provides = providedBy(with_.subscriptions, peer.id);
    size.add(provides, std::vector<std::string>{peer.name});
    if (size.isTooLarge()) break;
    ConfigIF::ClientRecord& record = *response.add_records();
    record.set_name(peer.name);
    record.set_pid(static_cast<std::uint64_t>(peer.pid));
    record.set_uid(peer.uid);
    record.set_registrations(number(with_.subscriptions.count(peer.id)));
    record.set_delivery(connected.delivery);
    record.set_waiting_notices(number(with_.server.waitingNotices(peer.id)));
    for (const std::string& name : provides) record.add_provides(name);
  }
  if (!size.isTooLarge()) return;
  response.Clear();
  setError(*response.mutable_result(), eErrLimit, "the clients provide more than an answer holds");
}

// The endpoint repeats it on each delivery connection, so a repeated stop is no mistake.
void Requests::monitor(const Call& call, const ConfigIF::MonitorReq& request,
                       ConfigIF::MonitorRsp& response) {
  if (request.stop()) return with_.monitor.remove(call.by.peer);
  const std::string refusal =
      with_.monitor.add(call.by.peer, call.by.owner, call.by.role, request.prefix());
  if (!refusal.empty()) setError(*response.mutable_result(), eErrLimit, refusal);
}

}  // namespace ConfigSrv
