// NameClaims: which user an endpoint name belongs to while endpoints are connected.
//
// Messages find their way by token and not by name, so a name cannot be used to take or to answer
// what is somebody else's. But people read names, in `appcfg clients`, in the log and in the audit
// record, and must be able to rely on whom they stand for.
//
// So names count as they look (name_form.h): one that differs from another user's only in case or
// in blanks is that user's, and one that holds what cannot be seen is nobody's.
//
// Rules:    1. A name that [names] of the table of roles gives to a user is that user's, also while
//              none of their endpoints is connected; one that it gives to "*", and "appcfg", is
//              everybody's.
//           2. Any other name is the user's whose endpoint came first, until the last one of that
//              name is gone. The same user may have any number: a program that restarts meets its
//              predecessor's connections, and does no harm.
//           3. A user with a higher role is never kept out, or whoever came first could keep a
//              daemon from starting; both are connected then, and the log says so.
// Threads:  one.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <set>
#include <string>

#include "configsrv/access/access_policy.h"

namespace ConfigSrv {

class NameClaims {
 public:
  // The policy outlives this object.
  explicit NameClaims(const AccessPolicy& policy) : policy_(policy) {}

  struct Answer {
    bool accepted = true;
    // Why the endpoint was refused; or, when it was let in beside another user's, who that is.
    std::string text{};
    // True when the same was said of this name and user already: a client that is refused tries
    // again and again.
    bool repeated = false;
  };
  // May a further endpoint of this name and user come?
  Answer ask(const std::string& name, uid_t uid, gid_t gid);

  // To be called when an accepted endpoint came, and when it is gone.
  void came(const std::string& name, uid_t uid, gid_t gid);
  void went(const std::string& name, uid_t uid);

 private:
  struct User {
    gid_t gid = 0;
    std::size_t endpoints = 0;
    // As their first endpoint spells it.
    std::string spelling;
  };
  using Users = std::map<uid_t, User>;
  using Said = std::set<std::pair<std::string, uid_t>>;
  // Bounded, because clients choose names.
  static constexpr std::size_t kMaxSaid = 256;

  Answer refused(const std::string& name, uid_t uid, const std::string& text);
  bool saidBefore(const std::string& name, uid_t uid);

  const AccessPolicy& policy_;
  // Both are keyed by folded name.
  std::map<std::string, Users> holders_;
  Said said_;
};

}  // namespace ConfigSrv
