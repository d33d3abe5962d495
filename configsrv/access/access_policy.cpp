// Reads the table of roles, and answers from it.
//
// AccessReader fills a policy that starts as the one without a file; a mistake anywhere throws all
// of it away, so that a service never runs on half a table. Only a line for somebody who is not known
// here is left out alone. Names of users and groups become numbers while the file is read, because the
// kernel tells numbers of a caller. The groups of a caller are looked up when they are asked for and
// remembered for a while (Groups).
#include "configsrv/access/access_policy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "appconfig/core/role_names.h"
#include "base/mutex.h"
#include "base/unique_fd.h"
#include "configsrv/access/name_form.h"
#include "configsrv/toml/document.h"
#include "configsrv/toml/nearest_name.h"

namespace ConfigSrv {

// Remembers the groups of users who asked lately. They are looked up by user name: the kernel tells
// only uid, gid and pid of a caller, and its process may have ended by the time it is asked about.
class AccessPolicy::Groups {
 public:
  explicit Groups(const UserDatabase& users) : users_(users) {}

  std::vector<gid_t> of(uid_t uid, gid_t gid);

 private:
  using Clock = std::chrono::steady_clock;
  struct Remembered {
    std::vector<gid_t> groups;
    Clock::time_point until;
  };
  // More users than a device has. When the memory is full it is emptied.
  static constexpr std::size_t kMaxRemembered = 1024;

  void remember(uid_t uid, gid_t gid, const std::vector<gid_t>& groups, Clock::time_point now);

  const UserDatabase& users_;
  // Not held during a look-up, which may take long.
  Base::Mutex mutex_;
  std::map<std::pair<uid_t, gid_t>, Remembered> remembered_ APPCONFIG_GUARDED_BY(mutex_);
};

std::vector<gid_t> AccessPolicy::Groups::of(uid_t uid, gid_t gid) {
  const Clock::time_point now = Clock::now();
  {
    const Base::MutexLock guard(mutex_);
    const auto found = remembered_.find({uid, gid});
    if (found != remembered_.end() && now < found->second.until) return found->second.groups;
  }
  std::vector<gid_t> groups = users_.groupsOf(uid, gid);
  remember(uid, gid, groups, now);
  return groups;
}

void AccessPolicy::Groups::remember(uid_t uid, gid_t gid, const std::vector<gid_t>& groups,
                                    Clock::time_point now) {
  const Base::MutexLock guard(mutex_);
  if (remembered_.size() >= kMaxRemembered) remembered_.clear();
  remembered_[{uid, gid}] = {groups, now + kGroupsRemembered};
}

namespace {

std::string quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

bool allDigits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// uid_t and gid_t are both 32 bits; the highest number means "none" in every system call.
std::optional<std::uint32_t> parseId(std::string_view text) {
  std::uint32_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  if (number == std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  return number;
}

// Not through a symbolic link: whoever owns the link could lead it to another file of root's.
class OpenFile {
 public:
  explicit OpenFile(const std::string& path)
      : descriptor_(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK)),
        error_(descriptor_ ? 0 : errno) {}

  int descriptor() const { return descriptor_.get(); }
  int error() const { return error_; }
  std::string whyNotTrusted(uid_t ownUid) const {
    if (error_ == ELOOP) return "is a symbolic link";
    struct stat status = {};
    if (!descriptor_ || ::fstat(descriptor_.get(), &status) != 0) return {};
    return ConfigSrv::whyNotTrusted(status.st_uid, status.st_mode, ownUid);
  }

 private:
  const Base::UniqueFd descriptor_;
  int error_;
};

// People at a shell use the command line, often several users at once, so this name is everybody's.
constexpr const char* kCommandLineName = "appcfg";
constexpr const char* kEverybody = "*";

// The number that is no user's.
constexpr uid_t kNobody = std::numeric_limits<uid_t>::max();

}  // namespace

std::string whyNotTrusted(uid_t owner, mode_t mode, uid_t ownUid) {
  if (owner != 0 && owner != ownUid) return "belongs to user " + std::to_string(owner);
  if ((mode & S_IWOTH) != 0) return "can be written by everybody";
  if ((mode & S_IWGRP) != 0) return "can be written by its group";
  return {};
}

// Reads the file into a policy that starts as the one without a file.
class AccessReader {
 public:
  AccessReader(std::string file, const UserDatabase& users, AccessLoadResult& result)
      : file_(std::move(file)), users_(users), result_(result) {}

  void read(const TomlValue& root);

 private:
  using Role = AppConfig::SecurityRole;

  void report(const TomlEntry& at, std::string text);
  void reportUnknown(const TomlEntry& at, const std::string& who, const char* consequence);
  std::optional<Role> readRole(const TomlEntry& entry);
  template <typename Look>
  void readTable(const TomlEntry& entry, const char* what, Look look,
                 std::map<std::uint32_t, Role>& roles);
  void readNames(const TomlEntry& entry);
  void readName(const TomlEntry& line);
  void giveName(const TomlEntry& line, std::optional<uid_t> user);

  std::string file_;
  const UserDatabase& users_;
  AccessLoadResult& result_;
  // Folded names that the file has given away.
  std::set<std::string> given_;
};

void AccessReader::report(const TomlEntry& at, std::string text) {
  result_.mistakes.push_back({file_, at.line, at.column, std::move(text)});
}

void AccessReader::reportUnknown(const TomlEntry& at, const std::string& who,
                                 const char* consequence) {
  result_.unknown.push_back({file_, at.line, at.column,
                             "no " + who + " is known here, so " + consequence +
                                 ": correct the name, or give its number"});
}

std::optional<AppConfig::SecurityRole> AccessReader::readRole(const TomlEntry& entry) {
  std::optional<Role> role;
  if (entry.value.kind == TomlKind::String) {
    role = AppConfig::parseRole(entry.value.string);
    if (!role) {
      report(entry, quoted(entry.name) + " is given the role " + quoted(entry.value.string) +
                        ", which is none of " + std::string(AppConfig::kRoleNames));
    }
    return role;
  }
  report(entry, quoted(entry.name) + " takes a role, one of " + std::string(AppConfig::kRoleNames) +
                    ", not " + std::string(kindName(entry.value.kind)));
  return role;
}

template <typename Look>
void AccessReader::readTable(const TomlEntry& entry, const char* what, Look look,
                             std::map<std::uint32_t, Role>& roles) {
  if (entry.value.kind != TomlKind::Table) {
    return report(entry, quoted(entry.name) + " takes a table, as in [" + entry.name + "], not " +
                             std::string(kindName(entry.value.kind)));
  }
  for (const TomlEntry& line : entry.value.table) {
    const std::optional<Role> role = readRole(line);
    const auto id = allDigits(line.name) ? parseId(line.name) : look(line.name);
    if (!id) {
      reportUnknown(line, std::string(what) + ' ' + quoted(line.name), "this line grants nothing");
    } else if (role && !roles.emplace(*id, *role).second) {
      report(line, quoted(line.name) + " is " + what + ' ' + std::to_string(*id) +
                       ", which has a role already");
    }
  }
}

void AccessReader::readNames(const TomlEntry& entry) {
  if (entry.value.kind != TomlKind::Table) {
    return report(entry, quoted(entry.name) + " takes a table, as in [" + entry.name + "], not " +
                             std::string(kindName(entry.value.kind)));
  }
  for (const TomlEntry& line : entry.value.table) readName(line);
}

void AccessReader::readName(const TomlEntry& line) {
  const std::string& user = line.value.string;
  if (line.value.kind != TomlKind::String) {
    report(line, quoted(line.name) + " takes a user in quotes, or \"*\" for everybody, not " +
                     std::string(kindName(line.value.kind)));
  } else if (user == kEverybody) {
    giveName(line, std::nullopt);
  } else if (const auto id = allDigits(user) ? parseId(user) : users_.userId(user)) {
    giveName(line, *id);
  } else {
    reportUnknown(line, "user " + quoted(user),
                  "only root and the service's own user may have this endpoint name");
    giveName(line, kNobody);
  }
}

// Refuses a name that no endpoint can have, which would protect nothing, and a second line for a
// name that counts as the same, because only one of the two would hold.
void AccessReader::giveName(const TomlEntry& line, std::optional<uid_t> user) {
  const std::string why = whyUnseen(line.name);
  const std::string folded = foldedName(line.name);
  if (!why.empty()) {
    report(line, "the endpoint name " + quoted(visibleName(line.name)) + " holds " + why +
                     ": no endpoint may have it");
  } else if (!given_.insert(folded).second) {
    report(line, quoted(line.name) + " looks like a name above: give it to one user, or to \"*\"");
  } else {
    result_.policy.names_[folded] = user;
  }
}

void AccessReader::read(const TomlValue& root) {
  const auto user = [this](const std::string& name) { return users_.userId(name); };
  const auto group = [this](const std::string& name) { return users_.groupId(name); };
  for (const TomlEntry& entry : root.table) {
    if (entry.name == "default") {
      result_.policy.default_ = readRole(entry).value_or(AppConfig::eRoleUser);
    } else if (entry.name == "users") {
      readTable(entry, "user", user, result_.policy.users_);
    } else if (entry.name == "groups") {
      readTable(entry, "group", group, result_.policy.groups_);
    } else if (entry.name == "names") {
      readNames(entry);
    } else {
      const std::string_view nearest = nearestName(entry.name, accessFileKeys());
      report(entry, quoted(entry.name) + " is not known here" +
                        (nearest.empty() ? ": a file holds default, [users], [groups] and [names]"
                                         : ", did you mean " + quoted(nearest) + "?"));
    }
  }
}

std::vector<std::string_view> accessFileKeys() { return {"default", "users", "groups", "names"}; }

AccessPolicy::AccessPolicy(uid_t ownUid)
    : ownUid_(ownUid),
      names_({{kCommandLineName, std::nullopt}}),
      groupsOfUsers_(std::make_unique<Groups>(systemUserDatabase())) {}

AccessPolicy::AccessPolicy(AccessPolicy&&) noexcept = default;
AccessPolicy& AccessPolicy::operator=(AccessPolicy&&) noexcept = default;
AccessPolicy::~AccessPolicy() = default;

AccessLoadResult AccessPolicy::load(const std::string& path, uid_t ownUid,
                                    const UserDatabase& users) {
  AccessLoadResult result{AccessPolicy(ownUid)};
  result.policy.groupsOfUsers_ = std::make_unique<Groups>(users);
  const OpenFile file(path);
  if (file.error() == ENOENT) return result;
  const std::string why = file.whyNotTrusted(ownUid);
  if (!why.empty()) {
    result.distrust = path + ": the table of roles " + why +
                      ", so it is not used, and only root and user " + std::to_string(ownUid) +
                      " may act above the role user: make it a file of root's that nobody else may "
                      "write (chown root, chmod 644)";
    return result;
  }
  TextFile text{path, {}};
  std::optional<Mistake> mistake = readOpenText(file.descriptor(), text);
  if (!mistake) return parse(text, ownUid, users);
  if (file.error() != 0)
    mistake->text = std::string("cannot be read: ") + std::strerror(file.error());
  result.mistakes.push_back(std::move(*mistake));
  return result;
}

AccessLoadResult AccessPolicy::parse(const TextFile& file, uid_t ownUid,
                                     const UserDatabase& users) {
  AccessLoadResult result{AccessPolicy(ownUid)};
  result.policy.groupsOfUsers_ = std::make_unique<Groups>(users);
  result.text = file;
  TomlDocument document = parseToml(file.text, file.path);
  if (document.mistake) result.mistakes.push_back(std::move(*document.mistake));
  if (document.root) AccessReader(file.path, users, result).read(*document.root);
  if (!result.mistakes.empty()) result.policy = AccessPolicy(ownUid);
  return result;
}

AppConfig::SecurityRole AccessPolicy::highestRole(uid_t uid, gid_t gid) const {
  const auto user = users_.find(uid);
  if (user != users_.end()) return user->second;
  if (uid == 0 || uid == ownUid_) return AppConfig::eRoleFactory;
  if (groups_.empty()) return default_;
  std::optional<AppConfig::SecurityRole> highest;
  for (const gid_t group : groupsOfUsers_->of(uid, gid)) {
    const auto found = groups_.find(group);
    if (found == groups_.end()) continue;
    highest = std::max(highest.value_or(AppConfig::eRolePublic), found->second);
  }
  return highest.value_or(default_);
}

bool AccessPolicy::mayClaim(uid_t uid, gid_t gid, AppConfig::SecurityRole role) const {
  if (role < AppConfig::eRolePublic || role > AppConfig::eRoleFactory) return false;
  return role <= highestRole(uid, gid);
}

AccessPolicy::NameUse AccessPolicy::useOfName(const std::string& endpointName, uid_t uid) const {
  const auto found = names_.find(foldedName(endpointName));
  if (found == names_.end()) return NameUse::FirstUser;
  if (!found->second) return NameUse::Everybody;
  const bool theirs = uid == *found->second || uid == 0 || uid == ownUid_;
  return theirs ? NameUse::Theirs : NameUse::NotTheirs;
}

std::string AccessPolicy::denial(uid_t uid, gid_t gid, AppConfig::SecurityRole role) const {
  return "user " + std::to_string(uid) + " may act as " +
         std::string(AppConfig::roleName(highestRole(uid, gid))) + " at most, not as " +
         std::string(AppConfig::roleName(role));
}

}  // namespace ConfigSrv
