// Users and groups by the reentrant functions of the C library, whose buffers the caller provides.
//
// Nobody tells how large an entry is, so each look-up begins with a small buffer and doubles it
// until the entry fits or is absurdly large.
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>

#include "configsrv/access/access_policy.h"

namespace ConfigSrv {
namespace {

// Where an entry is put; it is made larger until the entry fits, and no entry is larger than this.
constexpr std::size_t kFirstEntryBytes = 1024;
constexpr std::size_t kMaxEntryBytes = std::size_t{1} << 20;

// The most groups that Linux lets a process be in.
constexpr int kMaxGroups = 65536;

// call is one of the _r functions with everything bound but the buffer. Null when there is no such
// entry, or none could be had: for access both mean that nobody vouches for the name.
template <typename Entry, typename Call>
const Entry* lookUp(Entry& entry, std::vector<char>& buffer, Call call) {
  int error = ERANGE;
  Entry* found = nullptr;
  while (error == ERANGE && buffer.size() < kMaxEntryBytes) {
    buffer.resize(std::max(kFirstEntryBytes, buffer.size() * 2));
    do {
      error = call(&entry, buffer.data(), buffer.size(), &found);
    } while (error == EINTR);
  }
  return found;
}

class SystemUserDatabase : public UserDatabase {
 public:
  std::optional<uid_t> userId(const std::string& name) const override;
  std::optional<gid_t> groupId(const std::string& name) const override;
  std::vector<gid_t> groupsOf(uid_t uid, gid_t primary) const override;
};

std::optional<uid_t> SystemUserDatabase::userId(const std::string& name) const {
  passwd entry = {};
  std::vector<char> buffer;
  const passwd* const found =
      lookUp(entry, buffer, [&name](passwd* out, char* bytes, std::size_t size, passwd** result) {
        return ::getpwnam_r(name.c_str(), out, bytes, size, result);
      });
  if (found == nullptr) return std::nullopt;
  return found->pw_uid;
}

std::optional<gid_t> SystemUserDatabase::groupId(const std::string& name) const {
  group entry = {};
  std::vector<char> buffer;
  const group* const found =
      lookUp(entry, buffer, [&name](group* out, char* bytes, std::size_t size, group** result) {
        return ::getgrnam_r(name.c_str(), out, bytes, size, result);
      });
  if (found == nullptr) return std::nullopt;
  return found->gr_gid;
}

std::vector<gid_t> SystemUserDatabase::groupsOf(uid_t uid, gid_t primary) const {
  passwd entry = {};
  std::vector<char> buffer;
  const passwd* const found =
      lookUp(entry, buffer, [uid](passwd* out, char* bytes, std::size_t size, passwd** result) {
        return ::getpwuid_r(uid, out, bytes, size, result);
      });
  if (found == nullptr) return {primary};
  std::vector<gid_t> groups(64);
  int count = static_cast<int>(groups.size());
  while (::getgrouplist(found->pw_name, primary, groups.data(), &count) < 0) {
    if (groups.size() >= kMaxGroups) return {primary};
    groups.resize(std::min<std::size_t>(kMaxGroups, groups.size() * 4));
    count = static_cast<int>(groups.size());
  }
  groups.resize(static_cast<std::size_t>(count));
  return groups;
}

}  // namespace

const UserDatabase& systemUserDatabase() {
  static const SystemUserDatabase database;
  return database;
}

}  // namespace ConfigSrv
