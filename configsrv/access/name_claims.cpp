// Counts endpoints by folded name and user, which is all that the rules need.
//
// A name is held from its first endpoint to its last. What was said of a name and a user is
// remembered only so that the log does not repeat it; the memory is bounded by forgetting all of
// it.
#include "configsrv/access/name_claims.h"

#include "configsrv/access/name_form.h"

namespace ConfigSrv {

NameClaims::Answer NameClaims::ask(const std::string& name, uid_t uid, gid_t gid) {
  const std::string claims =
      "user " + std::to_string(uid) + " claims the endpoint name \"" + visibleName(name) + '"';
  const std::string unseen = whyUnseen(name);
  if (!unseen.empty()) return refused(name, uid, claims + ", which holds " + unseen);
  const AccessPolicy::NameUse use = policy_.useOfName(name, uid);
  if (use == AccessPolicy::NameUse::NotTheirs)
    return refused(name, uid, claims + ", which the table of roles gives to another user");
  if (use == AccessPolicy::NameUse::Everybody) return {};
  const auto found = holders_.find(foldedName(name));
  if (found == holders_.end()) return {};
  for (const auto& [holder, user] : found->second) {
    if (holder == uid) continue;
    const std::string alike =
        user.spelling == name ? "" : " looks like \"" + user.spelling + "\", which";
    const std::string held = ", which" + alike + " user " + std::to_string(holder) + " has";
    const bool higher = policy_.highestRole(uid, gid) > policy_.highestRole(holder, user.gid);
    if (!higher && use != AccessPolicy::NameUse::Theirs) return refused(name, uid, claims + held);
    return {true, claims + held + ": both are connected now", saidBefore(name, uid)};
  }
  return {};
}

NameClaims::Answer NameClaims::refused(const std::string& name, uid_t uid,
                                       const std::string& text) {
  return {false, text, saidBefore(name, uid)};
}

bool NameClaims::saidBefore(const std::string& name, uid_t uid) {
  if (said_.size() >= kMaxSaid) said_.clear();
  return !said_.emplace(foldedName(name), uid).second;
}

void NameClaims::came(const std::string& name, uid_t uid, gid_t gid) {
  User& user = holders_[foldedName(name)][uid];
  user.gid = gid;
  if (user.endpoints == 0) user.spelling = name;
  ++user.endpoints;
}

// When the last endpoint of a name goes, what was said about the name is forgotten: the next holder
// is another case.
void NameClaims::went(const std::string& name, uid_t uid) {
  const std::string folded = foldedName(name);
  const auto found = holders_.find(folded);
  if (found == holders_.end()) return;
  const auto user = found->second.find(uid);
  if (user == found->second.end() || --user->second.endpoints > 0) return;
  found->second.erase(user);
  if (!found->second.empty()) return;
  holders_.erase(found);
  const auto first = said_.lower_bound({folded, 0});
  auto last = first;
  while (last != said_.end() && last->first == folded) ++last;
  said_.erase(first, last);
}

}  // namespace ConfigSrv
