// What happens is put into one form, Happened, whatever its kind: an event, the peer, and the facts of
// the message (facts.h). tell() then makes a notice of it for each watcher whom it concerns, with as
// much of the facts as that watcher may see. A response knows its variables only by way of its request,
// which OpenMessages remembers until then.
#include "configsrv/monitor/monitor.h"

#include <algorithm>
#include <chrono>

#include "appconfig/core/lower_case.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "configsrv/monitor/internal/facts.h"
#include "configsrv/monitor/internal/open_messages.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {

using AppConfig::lowerCase;
using AppConfig::SecurityRole;
using PbUtility::Peer;
using PbUtility::PeerId;
using PbUtility::RequestId;

struct Monitor::Happened {
  ConfigIF::MonitorEvent event;
  const Peer& peer;
  // Empty: there is none.
  std::string message;
  Facts facts;
};

namespace {

using Kind = OpenMessages::Kind;

OpenMessages::Key keyOf(const RequestId& request) {
  return {Kind::Request, request.connection, request.sequence};
}

OpenMessages::Key keyOf(PeerId peer, std::uint32_t question) {
  return {Kind::Question, peer, question};
}

std::uint64_t nowInMicroseconds() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count());
}

bool covers(const std::string& name, const std::string& covered) {
  if (name.empty()) return true;
  if (covered.compare(0, name.size(), name) != 0) return false;
  return covered.size() == name.size() || covered[name.size()] == '.';
}

// A dotted name as a path: all but the last part are the group.
void fillName(ConfigIF::Inst* inst, const std::string& name) {
  const std::size_t dot = name.rfind('.');
  if (dot != std::string::npos) inst->add_path()->set_name(name.substr(0, dot));
  inst->add_path()->set_name(dot == std::string::npos ? name : name.substr(dot + 1));
}

std::string payloadOf(const google::protobuf::MessageLite& message) {
  return message.SerializeAsString();
}

}  // namespace

Monitor::Monitor(const Model& model, Send send, MonitorLimits limits, uid_t own)
    : model_(model),
      send_(std::move(send)),
      watcherShares_("monitors", limits.watchers, own),
      open_(std::make_unique<OpenMessages>(limits.openBytes, own)) {}
Monitor::~Monitor() = default;

Base::Status<> Monitor::add(PeerId peer, PbUtility::Owner owner, SecurityRole role,
                            const std::string& prefix) {
  if (prefix.size() > kMaxPrefixBytes) {
    return Base::failed("a name of " + std::to_string(prefix.size()) +
                        " bytes is longer than the limit of " + std::to_string(kMaxPrefixBytes));
  }
  if (watchers_.count(peer) == 0) {
    const Base::Status<> room = watcherShares_.room(owner);
    if (!room.ok()) return Base::failed(room.text + ": end one of them first");
    watcherShares_.add(owner);
  }
  watchers_[peer] = {owner, role, lowerCase(prefix)};
  return {};
}

// Open messages are only remembered for watchers: whoever watches next is told of later requests alone.
void Monitor::remove(PeerId peer) {
  const auto found = watchers_.find(peer);
  if (found != watchers_.end()) {
    watcherShares_.remove(found->second.owner);
    watchers_.erase(found);
  }
  if (!isActive()) open_->clear();
}

// --- What is told to whom ---

bool Monitor::concerns(const Facts& facts, const std::string& prefix) {
  if (prefix.empty()) return true;
  if (facts.name) {
    const std::string name = lowerCase(*facts.name);
    if (covers(name, prefix) || covers(prefix, name)) return true;
  }
  return std::any_of(
      facts.variables.begin(), facts.variables.end(),
      [&](const ConfigVar& variable) { return covers(prefix, variable.dottedName()); });
}

bool Monitor::isVisible(const Variable& variable, SecurityRole role) const {
  return role >= variable.readRole() && !variable.shape().secret;
}

bool Monitor::isVisible(const Facts& facts, SecurityRole role) const {
  const auto visible = [&](const Variable* variable) {
    return variable == nullptr || isVisible(*variable, role);
  };
  for (const ConfigVar& key : facts.variables) {
    if (!visible(model_.find(key))) return false;
  }
  if (!facts.name) return true;
  const CoveredVariables covered = model_.below(lowerCase(*facts.name));
  if (covered.size() > kMaxLookedAt) return false;
  for (std::size_t i = 0; i < covered.size(); ++i) {
    if (!isVisible(covered[i], role)) return false;
  }
  return true;
}

bool Monitor::isKnown(const Facts& facts) const {
  return std::all_of(facts.variables.begin(), facts.variables.end(),
                     [this](const ConfigVar& key) { return model_.find(key) != nullptr; });
}

// One variable or one name can be shown; of many only that they were asked for together.
void Monitor::fillFacts(ConfigIF::MonitorNtfy& notice, const Happened& happened,
                        SecurityRole role) const {
  const Facts& facts = happened.facts;
  if (facts.variables.size() == 1) {
    AppConfig::ProtobufMessageHelper::addVarName(notice.mutable_inst(), facts.variables.front());
  } else if (facts.name && !facts.name->empty()) {
    fillName(notice.mutable_inst(), *facts.name);
  }
  if (facts.error != CommonIF::ERROR_NONE) notice.set_error(facts.error);
  if (facts.values.empty() && facts.text.empty()) return;
  const bool visible = isVisible(facts, role);
  if (visible && !facts.text.empty()) notice.set_text(facts.text);
  if (facts.values.empty()) return;
  if (!visible || !isKnown(facts)) return notice.set_masked(true);
  for (const std::string& value : facts.values) notice.add_values(value);
}

void Monitor::tell(const Happened& happened) {
  const std::uint64_t now = nowInMicroseconds();
  for (const auto& [peer, watcher] : watchers_) {
    if (!concerns(happened.facts, watcher.prefix)) continue;
    ConfigIF::MonitorNtfy notice;
    notice.set_event(happened.event);
    notice.set_time_us(now);
    notice.set_client(happened.peer.name);
    notice.set_pid(static_cast<std::uint64_t>(happened.peer.pid));
    if (!happened.message.empty()) notice.set_message(happened.message);
    fillFacts(notice, happened, watcher.role);
    send_(peer, notice);
  }
}

// --- What happens ---

// Messages about watching have no facts, and so are not told. Neither is a payload that is no message,
// nor the refusal that answers it: it is not among the open messages.
void Monitor::requestCame(const PbUtility::IncomingRequest& request) {
  std::optional<Facts> facts = factsOf(request.messageId, request.payload);
  if (!facts) return;
  const std::string message = PlatformSchema::messageName(request.messageId);
  if (!request.id.oneWay) open_->remember(keyOf(request.id), request.peer, *facts, message);
  tell({ConfigIF::MONITOR_REQUEST, request.peer, message, std::move(*facts)});
}

void Monitor::responseLeaves(const RequestId& request,
                             const google::protobuf::MessageLite& response) {
  std::optional<OpenMessage> open = open_->take(keyOf(request));
  if (!open) return;
  const std::uint32_t id = PlatformSchema::messageIdOf(response);
  std::optional<Facts> facts = factsOf(id, payloadOf(response));
  if (!facts) return;
  facts->variables = std::move(open->facts.variables);
  facts->name = std::move(open->facts.name);
  tell(
      {ConfigIF::MONITOR_RESPONSE, open->peer, PlatformSchema::messageName(id), std::move(*facts)});
}

void Monitor::requestRefused(const RequestId& request, std::uint32_t error,
                             const std::string& text) {
  std::optional<OpenMessage> open = open_->take(keyOf(request));
  if (!open) return;
  open->facts.error = static_cast<CommonIF::eErrorType>(error);
  open->facts.text = text;
  tell({ConfigIF::MONITOR_RESPONSE, open->peer, open->message, std::move(open->facts)});
}

void Monitor::noticeLeaves(const Peer& to, const google::protobuf::MessageLite& notice) {
  const std::uint32_t id = PlatformSchema::messageIdOf(notice);
  std::optional<Facts> facts = factsOf(id, payloadOf(notice));
  if (facts) {
    tell({ConfigIF::MONITOR_NOTICE, to, PlatformSchema::messageName(id), std::move(*facts)});
  }
}

void Monitor::questionLeaves(const Peer& to, std::uint32_t question,
                             const google::protobuf::MessageLite& message) {
  const std::uint32_t id = PlatformSchema::messageIdOf(message);
  std::optional<Facts> facts = factsOf(id, payloadOf(message));
  if (!facts) return;
  const std::string name = PlatformSchema::messageName(id);
  open_->remember(keyOf(to.id, question), to, *facts, name);
  tell({ConfigIF::MONITOR_QUESTION, to, name, std::move(*facts)});
}

void Monitor::answerCame(PeerId from, std::uint32_t question, std::uint32_t messageId,
                         std::string_view payload) {
  OpenMessage* open = open_->find(keyOf(from, question));
  if (open == nullptr) return;
  open->answered = true;
  Facts facts = factsOf(messageId, payload).value_or(Facts());
  facts.variables = open->facts.variables;
  facts.name.reset();
  facts.values.clear();
  tell({ConfigIF::MONITOR_ANSWER, open->peer, PlatformSchema::messageName(messageId),
        std::move(facts)});
}

void Monitor::questionDone(PeerId from, std::uint32_t question, bool peerGone) {
  std::optional<OpenMessage> open = open_->take(keyOf(from, question));
  if (!open || !peerGone || open->answered) return;
  open->facts.error = CommonIF::ERROR_UNAVAILABLE;
  tell({ConfigIF::MONITOR_ANSWER, open->peer, open->message, std::move(open->facts)});
}

// A watcher of some name only is not told: clients are about no variable.
void Monitor::peerCame(const Peer& peer) {
  tell({ConfigIF::MONITOR_CLIENT_CAME, peer, "", Facts()});
}

void Monitor::peerWent(const Peer& peer) {
  tell({ConfigIF::MONITOR_CLIENT_WENT, peer, "", Facts()});
}

}  // namespace ConfigSrv
