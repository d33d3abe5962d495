// ProviderMemory: the providers that were there when the service ended are expected back.
//
// A provider may refuse a change; between a restart of the service and the provider's return nobody
// would ask it. So the service keeps in a file who provides what, as providers come and go, and
// after a restart, however the last one ended, expects each registration back whose process still
// lives. It is expected until it is made again, until its process has ended, or until the service
// gives up waiting.
//
// Errors:   a file that cannot be read or written is reported in the log; nobody is expected then.
// Limits:   kMaxRemembered registrations; those beyond are not expected after a restart.
// Threads:  one.
//
//   ProviderMemory memory("/run/appconfig/ConfigSrvc.providers", log);
//   memory.open();
//   if (memory.expects("net.mtu", mayProvide)) ...             // wait
//   if (memory.registered(peer, registration)) changes.providersCame();
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "appconfig/core/security_role.h"
#include "configsrv/log/log.h"
#include "configsrv/subscriptions/subscriptions.h"
#include "platform/messaging/serving/peer.h"

namespace ConfigSrv {

// One registration of a provider.
struct KnownProvider {
  pid_t pid = 0;
  // See internal/process.h.
  std::uint64_t startedAt = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  AppConfig::SecurityRole role = AppConfig::eRolePublic;
  // ConfigIF::CallbackType.
  int type = 0;
  std::string endpoint;
  // Dotted name that it covers, in lower case.
  std::string name;
};

inline bool operator<(const KnownProvider& a, const KnownProvider& b) {
  const auto order = [](const KnownProvider& p) {
    return std::tie(p.name, p.type, p.pid, p.startedAt, p.uid, p.gid, p.endpoint, p.role);
  };
  return order(a) < order(b);
}

class ProviderFile;

class ProviderMemory {
 public:
  static constexpr std::size_t kMaxRemembered = 20'000;

  // The log outlives this object. Without a file nothing is remembered.
  ProviderMemory(const std::string& file, const Log& log);
  ~ProviderMemory();
  ProviderMemory(const ProviderMemory&) = delete;
  ProviderMemory& operator=(const ProviderMemory&) = delete;

  // Reads what the last service left, and begins anew.
  void open();

  bool expectsAny() const { return !expected_.empty(); }
  // Whether a registration that covers the name is expected and counts.
  using Counts = std::function<bool(const KnownProvider& provider)>;
  bool expects(std::string_view fullName, const Counts& counts) const;

  // A peer has registered as a provider. True when somebody is expected no longer.
  bool registered(const PbUtility::Peer& peer, const Registration& registration);
  // A registration that was refused is not expected again either. True as above.
  bool refused(const PbUtility::Peer& peer, const Registration& registration);
  // Of what the peer registered, only what is still in the subscriptions is left.
  void withdrawn(PbUtility::PeerId peer, const Subscriptions& subscriptions);
  void gone(PbUtility::PeerId peer);

  // Those whose processes have ended are expected no longer. True when there were any.
  bool forgetDead();
  // Nobody is expected any longer; the log names those who were.
  void giveUp();

 private:
  using Expected = std::map<std::string, std::vector<KnownProvider>>;

  bool take(const KnownProvider& provider);
  KnownProvider knownOf(const PbUtility::Peer& peer, const Registration& registration);
  void endExpectations();
  std::map<PbUtility::PeerId, std::set<KnownProvider>> contents() const;

  const Log& log_;
  const std::unique_ptr<ProviderFile> file_;
  // By name.
  Expected expected_;
  std::map<PbUtility::PeerId, std::set<KnownProvider>> present_;
  std::size_t count_ = 0;
  bool full_ = false;
};

}  // namespace ConfigSrv
