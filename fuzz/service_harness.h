// ServiceHarness: the service as configsrvd runs it, with time and disk in the hands of the input.
//
// The same objects, tied together in the same way as in configsrv/service/service.cpp; only the host
// differs: a commit ends when it is told to, well or not, and a deadline passes when it is told to.
// What a commit kept stands in memory, so that the end of a run can start from it anew; a run begins
// with some that the definitions do not allow. The store is there for its counters alone, and no
// provider is remembered from before.
#pragma once

#include <unistd.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "base/status.h"
#include "configsrv/access/access_policy.h"
#include "configsrv/access/name_claims.h"
#include "configsrv/audit/audit_trail.h"
#include "configsrv/changes/announcer.h"
#include "configsrv/changes/changes.h"
#include "configsrv/log/log.h"
#include "configsrv/model/model.h"
#include "configsrv/monitor/monitor.h"
#include "configsrv/monitor/monitor_tap.h"
#include "configsrv/providers/provider_memory.h"
#include "configsrv/service/internal/requests.h"
#include "configsrv/service/service.h"
#include "configsrv/subscriptions/subscriptions.h"
#include "platform/messaging/serving/server.h"

namespace Fuzz {

class ServiceHarness final : public PbUtility::ServerHandler, public ConfigSrv::Host {
 public:
  // Takes the listening socket.
  explicit ServiceHarness(int listenFd);
  ~ServiceHarness() override;
  ServiceHarness(const ServiceHarness&) = delete;
  ServiceHarness& operator=(const ServiceHarness&) = delete;

  PbUtility::Server& server() { return server_; }

  // Ends the oldest commit; false when none is on its way.
  bool endCommit(bool well);
  // The earliest deadline passes; false when there is none.
  bool passDeadline();
  std::size_t changesUnderWay() const { return changes_.underWay(); }

  // Ends the process unless the state is one that a service may be in: every value is one that its
  // variable may hold, a service that starts from what was kept has the same state, and the record of
  // all changes is one of whole lines. The model is looked at when something was committed, and else
  // now and then: nothing but a commit changes it.
  void checkState() const;

 private:
  struct Commit {
    ConfigSrv::StoreTransaction transaction;
    ConfigSrv::CommitDone done;
  };

  // PbUtility::ServerHandler
  void onRequest(const PbUtility::IncomingRequest& request) override { requests_.handle(request); }
  void onAnswer(PbUtility::PeerId peer, std::uint32_t question, std::uint32_t messageId,
                std::string_view payload) override;
  void onQuestionDone(PbUtility::PeerId peer, std::uint32_t question, bool peerGone) override;
  Base::Status<> onGreeting(const PbUtility::Peer& peer) override;
  void onPeerCame(const PbUtility::Peer& peer) override;
  void onDeliveryReady(const PbUtility::Peer& peer) override { changes_.onDeliveryReady(peer.id); }
  void onPeerGone(const PbUtility::Peer& peer) override;
  void onFault(PbUtility::Fault kind, const std::string& line) override {
    log_.repeatable(ConfigSrv::LogLevel::Warning, "fault " + std::to_string(static_cast<int>(kind)),
                    line);
  }

  // Host
  std::uint32_t ask(PbUtility::PeerId peer, const google::protobuf::MessageLite& question) override;
  void notify(PbUtility::PeerId peer, const google::protobuf::MessageLite& notice,
              const std::string& coalescingKey, Knows knows) override;
  bool mayProvide(PbUtility::PeerId peer, const ConfigSrv::Variable& variable) const override;
  bool expectsProvider(const ConfigSrv::Variable& variable) const override;
  std::uint64_t after(std::chrono::milliseconds delay, std::function<void()> task) override;
  void cancel(std::uint64_t timer) override { timers_.erase(timer); }
  void commit(uid_t user, ConfigSrv::StoreTransaction transaction,
              ConfigSrv::CommitDone done) override;

  std::uint64_t revisionThat(PbUtility::PeerId peer, Knows knows) const;
  void keep(const ConfigSrv::StoreTransaction& transaction);
  void checkRecord() const;
  void checkModel() const;

  const ConfigSrv::ServiceOptions options_;
  const ConfigSrv::Log log_;
  const ConfigSrv::Standing standing_;
  const ConfigSrv::AccessPolicy access_{::geteuid()};
  ConfigSrv::NameClaims names_{access_};
  ConfigSrv::AuditTrail audit_;
  ConfigSrv::ProviderMemory providers_;
  ConfigSrv::Model& model_;
  ConfigSrv::Subscriptions subscriptions_;
  ConfigSrv::Announcer announcer_;
  ConfigSrv::Changes changes_;
  ConfigSrv::MonitorTap tap_;
  PbUtility::Server server_;
  ConfigSrv::Monitor monitor_;
  ConfigSrv::Requests requests_;

  std::deque<Commit> commits_;
  std::map<std::uint64_t, std::function<void()>> timers_;
  std::uint64_t lastTimer_ = 0;
  std::map<ConfigVar, ConfigSrv::StoredVariable> kept_;
  std::uint64_t revision_ = 0;
};

}  // namespace Fuzz
