// Monitor: tells those who watch the service what passes through it: who asks what and how it ends,
// who is told what, who is asked what and answers what, who comes and goes.
//
// MonitorTap (monitor_tap.h) calls the operations below at each of these points, while isActive().
//
// Masking:  a watcher sees names and outcomes of everything; values, options and texts only of
//           variables that its role may read at that moment and that are not secret. Values that
//           somebody sends for a variable that does not exist are masked for everybody: they may
//           have been meant for a secret one.
// No loop:  what watchers are told, and their asking for it, is never reported to any watcher.
// Limits:   MonitorLimits: watchers, and what is remembered of requests and questions until they are
//           answered. A request or question beyond that is reported when it comes; its answer is not.
// Threads:  one. Owns nothing: the model outlives it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "appconfig/core/security_role.h"
#include "base/status.h"
#include "configsrv/model/model.h"
#include "platform/messaging/serving/server_handler.h"
#include "platform/messaging/serving/shares.h"

namespace ConfigIF {
class MonitorNtfy;
enum MonitorEvent : int;
}  // namespace ConfigIF

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace ConfigSrv {

class OpenMessages;
struct Facts;

// All, ordinary users, a user, a process.
struct MonitorLimits {
  PbUtility::ShareLimits watchers{16, 12, 4, 2};
  PbUtility::ShareLimits openBytes{std::size_t{4} << 20, std::size_t{768} << 10,
                                   std::size_t{384} << 10, std::size_t{1} << 20};
};

class Monitor {
 public:
  // Of the name that a watcher watches.
  static constexpr std::size_t kMaxPrefixBytes = 1024;
  // Variables below a name that are looked at to know whether a text about it may be shown; of more,
  // it is not.
  static constexpr std::size_t kMaxLookedAt = 4096;

  // How a notice leaves.
  using Send = std::function<void(PbUtility::PeerId to, const ConfigIF::MonitorNtfy& notice)>;

  // The service's own user is no ordinary one.
  Monitor(const Model& model, Send send, MonitorLimits limits = {}, uid_t own = 0);
  ~Monitor();
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  bool isActive() const { return !watchers_.empty(); }

  // The peer watches all that concerns this dotted name, in any case; empty: everything. What it
  // watched before, it no longer does. A failure says which limit it would pass, and whose.
  Base::Status<> add(PbUtility::PeerId peer, PbUtility::Owner owner, AppConfig::SecurityRole role,
                     const std::string& prefix);
  // It watches no longer; that it did not is fine.
  void remove(PbUtility::PeerId peer);

  void requestCame(const PbUtility::IncomingRequest& request);
  // The one answer to a request.
  void responseLeaves(const PbUtility::RequestId& request,
                      const google::protobuf::MessageLite& response);
  void requestRefused(const PbUtility::RequestId& request, std::uint32_t error,
                      const std::string& text);
  void noticeLeaves(const PbUtility::Peer& to, const google::protobuf::MessageLite& notice);
  void questionLeaves(const PbUtility::Peer& to, std::uint32_t question,
                      const google::protobuf::MessageLite& message);
  void answerCame(PbUtility::PeerId from, std::uint32_t question, std::uint32_t messageId,
                  std::string_view payload);
  // No further answer comes. When the peer is gone without one, that is reported as its answer.
  void questionDone(PbUtility::PeerId from, std::uint32_t question, bool peerGone);
  void peerCame(const PbUtility::Peer& peer);
  void peerWent(const PbUtility::Peer& peer);

 private:
  struct Watcher {
    PbUtility::Owner owner;
    AppConfig::SecurityRole role;
    std::string prefix;
  };
  struct Happened;

  static bool concerns(const Facts& facts, const std::string& prefix);
  bool isVisible(const Variable& variable, AppConfig::SecurityRole role) const;
  // Of all that the facts are about.
  bool isVisible(const Facts& facts, AppConfig::SecurityRole role) const;
  bool isKnown(const Facts& facts) const;
  void tell(const Happened& happened);
  void fillFacts(ConfigIF::MonitorNtfy& notice, const Happened& happened,
                 AppConfig::SecurityRole role) const;

  const Model& model_;
  const Send send_;
  std::map<PbUtility::PeerId, Watcher> watchers_;
  PbUtility::Shares watcherShares_;
  // What an answer needs of what it answers.
  const std::unique_ptr<OpenMessages> open_;
};

}  // namespace ConfigSrv
