// A listing is taken from the model in the order of its keys, a page at a time: what a page has no room
// for begins the next one. The state of the service is counted where things happen; here it is summed
// up.
#include "configsrv/service/internal/tool_requests.h"

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>

#include "appconfig/core/lower_case.h"
#include "configsrv/changes/wire_forms.h"
#include "configsrv/service/internal/answer_size.h"
#include "configsrv/service/internal/results.h"
#include "configsrv/service/internal/variable_lookup.h"
#include "platform/schema/message_ids.h"

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

// A page of a listing, or all of it when no pages were asked for. A page ends where it has as many
// records as were asked for, or where the next one would be too much; it has one at least.
class ListPage {
 public:
  ListPage(const ConfigIF::ListReq& request, ConfigIF::ListRsp& response)
      : isWhole_(!request.has_at_most()),
        most_(std::clamp<std::size_t>(request.at_most(), 1, ToolRequests::kMaxListed)),
        response_(response) {}

  // False when it has no room.
  bool add(const Variable& variable) {
    const auto records = static_cast<std::size_t>(response_.records_size());
    size_.add(variable.value(),
              std::list<std::string>{variable.shape().description, variable.key().dottedName()});
    if (size_.isTooLarge() && (isWhole_ || records > 0)) return false;
    if (!isWhole_ && records == most_) return false;
    fillListRecord(*response_.add_records(), variable);
    return true;
  }

  // Ends it behind the last variable that was looked at.
  void end(const Variable* last) {
    if (!isWhole_) return fillInst(response_.mutable_next(), last->key());
    response_.Clear();
    setError(*response_.mutable_result(), eErrLimit,
             "the listing would be longer than " + std::to_string(AnswerSize::kMaxBytes) +
                 " bytes, or take more than " + std::to_string(AnswerSize::kMaxMemory) +
                 " bytes of memory: list in pages, or group by group");
  }

 private:
  const bool isWhole_;
  const std::size_t most_;
  ConfigIF::ListRsp& response_;
  AnswerSize size_;
};

std::string joined(const std::vector<std::string>& directories) {
  std::string all;
  for (const std::string& directory : directories) all += (all.empty() ? "" : ":") + directory;
  return all;
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

bool ToolRequests::handle(const Incoming& incoming) {
  switch (incoming.messageId) {
    case PlatformSchema::kListReq:
      return frame_.answerNow<&ToolRequests::list>(*this, incoming);
    case PlatformSchema::kStatusReq:
      return frame_.answerNow<&ToolRequests::status>(*this, incoming);
    case PlatformSchema::kClientsReq:
      return frame_.answerNow<&ToolRequests::clients>(*this, incoming);
    default:
      return false;
  }
}

// What a listing is about: the variables that its name covers, behind the one where the last page ended.
// False, and the error in the result, when that one is none.
bool ToolRequests::findListed(const ConfigIF::ListReq& request,
                              std::vector<const Variable*>& listed,
                              ConfigIF::ReturnMessage& result) const {
  listed = with_.model.covered(AppConfig::lowerCase(request.prefix()));
  if (!request.has_after()) return true;
  const std::optional<ConfigVar> after = readInst(request.after());
  if (!after) {
    setError(result, eErrInvalidRequest, "the path to list after names no variable");
    return false;
  }
  const auto isBefore = [](const ConfigVar& key, const Variable* variable) {
    return std::less<ConfigVar>()(key, variable->key());
  };
  listed.erase(listed.begin(), std::upper_bound(listed.begin(), listed.end(), *after, isBefore));
  return true;
}

void ToolRequests::list(const Call& call, const ConfigIF::ListReq& request,
                        ConfigIF::ListRsp& response) {
  std::vector<const Variable*> listed;
  if (!findListed(request, listed, *response.mutable_result())) return;
  ListPage page(request, response);
  std::uint32_t hidden = 0;
  const Variable* last = nullptr;
  for (const Variable* variable : listed) {
    response.set_hidden(hidden);
    if (call.by.role < variable->readRole()) {
      ++hidden;
    } else if (!page.add(*variable)) {
      return page.end(last);
    }
    last = variable;
  }
  response.set_hidden(hidden);
}

void ToolRequests::status(const Call&, const ConfigIF::StatusReq&, ConfigIF::StatusRsp& response) {
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
  response.set_reads(with_.reads.reads());
  response.set_commits(counters.commits);
  response.set_unchanged_writes(counters.unchanged);
  response.set_refused_writes(counters.refused);
  response.set_notices(with_.announcer.notices());
  const StoreCounters store = with_.store.counters();
  response.set_store_writes(store.writes);
  response.set_store_bytes(store.bytes);
  response.set_snapshots(store.snapshots);
  response.set_failed_snapshots(store.failedSnapshots);
  response.set_definitions_dir(joined(with_.options.definitionsDirs));
  response.set_store_file(with_.options.storeFile);
  tellStanding(response);
}

void ToolRequests::tellStanding(ConfigIF::StatusRsp& response) const {
  const Standing& standing = with_.standing;
  response.set_last_good_definitions(standing.lastGoodDefinitions);
  response.set_last_good_roles(standing.lastGoodRoles);
  for (const std::string& mistake : standing.mistakes) {
    const auto told = static_cast<std::size_t>(response.mistakes_size());
    if (told == kMaxMistakesTold) {
      const std::size_t more = standing.mistakes.size() - told;
      response.add_mistakes("and " + std::to_string(more) + " more, which the service's log has");
      return;
    }
    response.add_mistakes(mistake);
  }
}

void ToolRequests::clients(const Call&, const ConfigIF::ClientsReq&,
                           ConfigIF::ClientsRsp& response) {
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

}  // namespace ConfigSrv
