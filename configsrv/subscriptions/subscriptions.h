// Subscriptions: who has asked to be told, or asked, about which variables.
//
// A registration belongs to one peer and says: tell me, under this callback identity, of this type
// of event, for everything that this dotted name covers. A name covers the variable of that full
// name (group, ".", name) and all below it at dot boundaries; an empty name covers everything:
//
//   "net" covers net, net.mtu and net.eth0.mtu, but not network.mtu.
//
// Namespaces and instances play no part: a registration holds for all of them.
//
// Cost:     finding the subscribers of a variable costs by the depth of its name and by how many
//           there are, not by how many registrations exist.
// Slices:   what is withdrawn together, or is a peer's that went, counts for nobody from that
//           moment on. It is erased afterwards, some of it at a time, so that nothing waits for
//           that; until then it counts as its owner's, who must not gain by withdrawing.
// Errors:   what would pass a limit is refused; nothing else can fail.
// Threads:  one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "appconfig/core/security_role.h"
#include "base/status.h"
#include "platform/messaging/serving/peer.h"
#include "platform/messaging/serving/shares.h"

namespace ConfigIF {
enum CallbackType : int;
}

namespace ConfigSrv {

// Limits on what peers can make the service remember.
struct SubscriptionLimits {
  std::size_t nameBytes = 1024;
  std::size_t identityBytes = 256;
  std::size_t clientNameBytes = 256;
  std::size_t registrationsPerPeer = 200'000;
  // Pairs of callback identity and client name that one peer uses at once. A process has one for
  // each of its links, and at most two links.
  std::size_t callersPerPeer = 64;
  std::size_t registrations = 1'000'000;
  // Limits of the memory that all of it takes, in bytes: everybody's, of ordinary users, of a user,
  // of a process.
  PbUtility::ShareLimits bytes{std::size_t{64} << 20, std::size_t{12} << 20, std::size_t{6} << 20,
                               std::size_t{24} << 20};

  // What one registration counts as beside the bytes of its name, and one caller beside its texts.
  // Neither ever takes more memory than that.
  static constexpr std::size_t kRegistrationBytes = 208;
  static constexpr std::size_t kCallerBytes = 512;
  // How much is erased in one slice: so many registrations, or, where a name has a long list of
  // them, as many of its entries as are moved in the same time.
  static constexpr std::size_t kErasedAtOnce = 1000;
  static constexpr std::size_t kMovedForOne = 512;
};

struct Registration {
  // Dotted name, in any case.
  std::string name;
  ConfigIF::CallbackType type;
  // Repeated in every notice.
  std::string identity;
  // Withdrawn together by removeAll, and named in messages.
  std::string clientName;
  AppConfig::SecurityRole role = AppConfig::eRolePublic;
};

// One party to be told. The texts are valid until the next change of the subscriptions.
struct Subscriber {
  PbUtility::PeerId peer = 0;
  std::string_view identity;
  std::string_view clientName;
  AppConfig::SecurityRole role = AppConfig::eRolePublic;
};

class Subscriptions {
 public:
  // Has a task run later, in a turn of the user's: Server::later.
  using Later = std::function<void(uid_t user, std::function<void()> task)>;

  // `own` is the service's own user, who is no ordinary one. Without `later` everything is erased
  // at once.
  explicit Subscriptions(SubscriptionLimits limits = {}, uid_t own = 0, Later later = {});
  ~Subscriptions();
  Subscriptions(const Subscriptions&) = delete;
  Subscriptions& operator=(const Subscriptions&) = delete;

  // A failure says which limit the registration would pass, and whose it is. A registration made
  // before is accepted again and changes nothing. The owner is the peer's.
  Base::Status<> add(PbUtility::PeerId peer, PbUtility::Owner owner,
                     const Registration& registration);

  // Withdraws the peer's registrations of this name, type and identity, whatever their roles and
  // client names. False when there are none.
  bool remove(PbUtility::PeerId peer, std::string_view name, ConfigIF::CallbackType type,
              std::string_view identity);
  // Withdraws all that the peer registered under this client name, and returns how many that were.
  std::size_t removeAll(PbUtility::PeerId peer, std::string_view clientName);
  // The peer is gone, and with it everything that it registered.
  void forget(PbUtility::PeerId peer);

  // Everybody who is to be told of this type of event at a variable of this full name, which has to
  // be in lower case. Each peer and identity stands in the list once, with the highest of its
  // roles, however many of its registrations cover the variable. In order of peer.
  std::vector<Subscriber> covering(std::string_view fullName, ConfigIF::CallbackType type) const;
  // Whether covering() would find anybody.
  bool anyCovering(std::string_view fullName, ConfigIF::CallbackType type) const;

  // Whether this very registration is there.
  bool contains(PbUtility::PeerId peer, const Registration& registration) const;

  // How many registrations are kept, those that are still to be erased included.
  std::size_t count() const;
  std::size_t count(PbUtility::PeerId peer) const;
  // Takes bytes of the owner's share for what has to be remembered beside a registration, until they
  // are released. A failure says which limit they would pass, and whose.
  Base::Status<> reserve(PbUtility::Owner owner, std::size_t bytes);
  void release(PbUtility::Owner owner, std::size_t bytes);

  // Whether something is still to be erased.
  bool isErasing() const;
  // What they count as in memory.
  const PbUtility::Shares& bytes() const;
  // The names that the peer registered for this type, in lower case and in their order, each once.
  std::vector<std::string> names(PbUtility::PeerId peer, ConfigIF::CallbackType type) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ConfigSrv
