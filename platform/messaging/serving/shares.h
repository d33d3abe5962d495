// Shares:  how much of one thing that there is only so much of each user and each process may have.
//
// What everybody may ask for has to be shared out: without this, one program that takes without end
// would leave nothing for all others. A share counts what its owners hold now, in units of its own
// (registrations, bytes, ...), against four limits:
//
//   all          everybody together
//   ordinary     all ordinary users together: the rest is kept for root and the service's own user
//   perUser      one ordinary user
//   perProcess   one process, whoever's: on many devices every program is root's
//
// Users that the kernel cannot map into the service's namespace all appear as one (65534), and share
// one share.
//
// Errors:   room() names the limit and whose it is; nothing else can fail.
// Threads:  one at a time, whichever runs the server's loop.
//
//   Shares monitors("monitors", {16, 12, 2, 2}, ::geteuid());
//   const Base::Status<> room = monitors.room(owner);  // "no more than 2 monitors for one user, ..."
//   if (room.ok()) monitors.add(owner);
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <unordered_map>

#include "base/status.h"

namespace PbUtility {

// Who answers for what is taken: the kernel's word for a peer.
struct Owner {
  uid_t uid = 0;
  pid_t pid = 0;
};

struct ShareLimits {
  std::size_t all = 0;
  std::size_t ordinary = 0;
  std::size_t perUser = 0;
  std::size_t perProcess = 0;
};

class Shares {
 public:
  // The name stands in refusals: "registrations", "bytes of changes under way". The service's own
  // user has part in what is kept for root.
  Shares(std::string name, ShareLimits limits, uid_t own);
  Shares(const Shares&) = delete;
  Shares& operator=(const Shares&) = delete;

  enum class Limit { None, Process, User, Ordinary, All };
  // The first limit that the owner would pass with so much more, or has passed.
  Limit passed(Owner owner, std::size_t amount = 0) const;
  // Whether so much more of the owner's fits; a failure says which limit it would pass, and whose.
  Base::Status<> room(Owner owner, std::size_t amount = 1) const;

  void add(Owner owner, std::size_t amount = 1);
  // At most what was added.
  void remove(Owner owner, std::size_t amount = 1);

  // Whether the owner's user has a share of its own; root and the service's own user have not.
  bool isOrdinary(Owner owner) const { return owner.uid != 0 && owner.uid != own_; }

  const std::string& name() const { return name_; }
  std::size_t all() const { return all_; }
  std::size_t ofUser(uid_t uid) const;
  std::size_t ofProcess(pid_t pid) const;

 private:
  const std::string name_;
  const ShareLimits limits_;
  const uid_t own_;
  std::size_t all_ = 0;
  std::size_t ordinary_ = 0;
  std::size_t& countOf(pid_t pid);

  std::unordered_map<uid_t, std::size_t> byUser_;
  std::unordered_map<pid_t, std::size_t> byProcess_;
  // Of byProcess_ the one that was looked for last, mostly the one that is looked for next; null when
  // it is gone.
  pid_t latestPid_ = 0;
  std::size_t* latest_ = nullptr;
};

}  // namespace PbUtility
