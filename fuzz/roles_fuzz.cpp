// roles.toml: how far which user may go.
#include <map>

#include "configsrv/access/access_policy.h"
#include "fuzz/files.h"
#include "fuzz/input.h"
#include "fuzz/mistakes.h"

namespace {

using namespace ConfigSrv;
using AppConfig::SecurityRole;
using Fuzz::require;

constexpr uid_t kServiceUser = 500;

// Few users, the same ones on every machine.
class FewUsers final : public UserDatabase {
 public:
  std::optional<uid_t> userId(const std::string& name) const override {
    static const std::map<std::string, uid_t> ids = {{"root", 0}, {"ui", 1000}, {"net", 1001}};
    const auto found = ids.find(name);
    return found == ids.end() ? std::nullopt : std::optional<uid_t>(found->second);
  }
  std::optional<gid_t> groupId(const std::string& name) const override { return userId(name); }
  std::vector<gid_t> groupsOf(uid_t uid, gid_t primary) const override {
    return {primary, uid + 1};
  }
};

void checkUser(const AccessPolicy& policy, uid_t uid) {
  constexpr SecurityRole kRoles[] = {AppConfig::eRolePublic, AppConfig::eRoleUser,
                                     AppConfig::eRoleService, AppConfig::eRoleInstaller,
                                     AppConfig::eRoleFactory};
  const SecurityRole highest = policy.highestRole(uid, uid);
  for (const SecurityRole role : kRoles) {
    const bool may = policy.mayClaim(uid, uid, role);
    require(may == (role <= highest), "a user may claim roles up to the highest, and no other");
    require(may || !policy.denial(uid, uid, role).empty(), "a denial says why");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fuzz::Files files;
  static const FewUsers users;
  Fuzz::Input input(data, size);
  const std::string_view text = input.rest();
  files.write("roles.toml", text);
  const AccessLoadResult loaded = AccessPolicy::load(files.path("roles.toml"), kServiceUser, users);
  for (const Mistake& mistake : loaded.mistakes) {
    Fuzz::requireTelling(mistake, files.path("roles.toml"), text);
  }
  for (const uid_t uid : {uid_t{0}, kServiceUser, uid_t{1000}, uid_t{1001}, ~uid_t{1}}) {
    checkUser(loaded.policy, uid);
  }
  return 0;
}
