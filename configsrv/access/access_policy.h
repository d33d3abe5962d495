// AccessPolicy: the highest role that a user of this device may claim.
//
// What a client says of itself proves nothing: the kernel tells the service uid and gid of the
// caller, and this policy says how far that user may go. Written in a file:
//
//   default = "user"              # everyone whom nothing below names; "user" when left out
//   [users]                       # names or numbers
//   thermostat = "installer"
//   [groups]                      # the primary group and all others of a user
//   netdev = "service"
//   [names]                       # endpoint names; see NameClaims
//   thermostat-ui = "thermostat"  # nobody else's; "*": everybody's, many at once. However it is
//                                 # spelled (name_form.h); two names that look alike are a mistake
//
// Rules:    1. A user named in [users] has that role, be it higher or lower than what follows.
//           2. Otherwise root and the service's own user may claim any role.
//           3. Otherwise the highest role of those of the user's groups that [groups] names.
//           4. Otherwise the default. Without a file that is "user".
// Errors:   all mistakes of the file are found in one run. A file that does not exist is none.
// Unknown:  a line for a user or group that this device does not know grants nothing, and the others
//           hold: a user may go, and a package that makes one may come later. An endpoint name of
//           such a user stays reserved: nobody has it but root and the service's own user.
// Trust:    whoever can change the file can give themselves any role. So a file that is a symbolic
//           link, that belongs to others than root and the service's own user, or that its group or
//           others may write, is not read: `distrust` says why, and the rules without a file hold.
// Threads:  any number of threads may ask at once.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "appconfig/core/security_role.h"
#include "configsrv/toml/document.h"

namespace ConfigSrv {

// What the policy asks of the system. All functions may be called from several threads.
class UserDatabase {
 public:
  virtual ~UserDatabase() = default;
  virtual std::optional<uid_t> userId(const std::string& name) const = 0;
  virtual std::optional<gid_t> groupId(const std::string& name) const = 0;
  // The primary group and, when the user is known by name, all others.
  virtual std::vector<gid_t> groupsOf(uid_t uid, gid_t primary) const = 0;
};

// The users and groups of this system, through the name service switch.
const UserDatabase& systemUserDatabase();

// How long the groups of a user are remembered. Asking for them can take long (a directory server),
// and a user who was added to a group should not have to wait for a restart of the service.
inline constexpr std::chrono::seconds kGroupsRemembered{60};

struct AccessLoadResult;

// The keys that may stand at the top of the file; appconfig-roles(5) describes them.
std::vector<std::string_view> accessFileKeys();

class AccessPolicy {
 public:
  // The rules without a file.
  explicit AccessPolicy(uid_t ownUid);
  AccessPolicy(AccessPolicy&&) noexcept;
  AccessPolicy& operator=(AccessPolicy&&) noexcept;
  ~AccessPolicy();

  // ownUid is the service's own user. users has to outlive the policy.
  static AccessLoadResult load(const std::string& path, uid_t ownUid,
                               const UserDatabase& users = systemUserDatabase());
  // The same of a text that was read before, whose trust is the caller's business.
  static AccessLoadResult parse(const TextFile& file, uid_t ownUid,
                                const UserDatabase& users = systemUserDatabase());

  AppConfig::SecurityRole highestRole(uid_t uid, gid_t gid) const;

  // False for a role that is none of the five.
  bool mayClaim(uid_t uid, gid_t gid, AppConfig::SecurityRole role) const;

  // Why mayClaim says no: "user 1000 may act as user at most, not as installer".
  std::string denial(uid_t uid, gid_t gid, AppConfig::SecurityRole role) const;

  enum class NameUse {
    // Whoever comes first, until the last endpoint of the name is gone.
    FirstUser,
    // Everybody at once: the command line, and what [names] gives to "*".
    Everybody,
    // [names] gives it to this user.
    Theirs,
    // [names] gives it to another user.
    NotTheirs,
  };
  // Root and the service's own user may use the name of any other user.
  NameUse useOfName(const std::string& endpointName, uid_t uid) const;

 private:
  class Groups;
  friend class AccessReader;

  uid_t ownUid_;
  AppConfig::SecurityRole default_ = AppConfig::eRoleUser;
  std::map<uid_t, AppConfig::SecurityRole> users_;
  std::map<gid_t, AppConfig::SecurityRole> groups_;
  // By folded name: the user, or nothing when the name is everybody's.
  std::map<std::string, std::optional<uid_t>> names_;
  std::unique_ptr<Groups> groupsOfUsers_;
};

// After mistakes, policy is the one without a file, and the service should not run with it. After
// a distrust it is the same one, and the service runs with it.
struct AccessLoadResult {
  AccessPolicy policy;
  std::vector<Mistake> mistakes{};
  // Lines for users and groups that are not known here.
  std::vector<Mistake> unknown{};
  // One line, or empty.
  std::string distrust{};
  // What was parsed; nothing when no file is there, or it was not read.
  std::optional<TextFile> text{};
};

// Why a file or directory that decides something is not only in the hands of root and this user:
// "belongs to user 1000" or "can be written by its group"; empty when it is.
std::string whyNotTrusted(uid_t owner, mode_t mode, uid_t ownUid);

}  // namespace ConfigSrv
