// The warnings hold a path's owner and rights against the rule for everything that decides about values
// and roles (whyNotTrusted). checkFiles() reads the table of roles even when the definitions have
// mistakes, so that all are told at once.
#include "configsrv/service/internal/start_checks.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "configsrv/access/access_policy.h"
#include "configsrv/access/image_users.h"
#include "configsrv/definitions/definitions.h"
#include "configsrv/service/internal/socket_place.h"

namespace ConfigSrv {
namespace {

void addLines(const std::vector<Mistake>& mistakes, std::vector<std::string>& lines) {
  for (const Mistake& mistake : mistakes) lines.push_back(formatMistake(mistake));
}

std::string whyNotTrustedAt(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {};
  return whyNotTrusted(status.st_uid, status.st_mode, ::geteuid());
}

// The directory, and what an ordinary listing of it shows.
std::vector<std::string> pathsOf(const std::string& directory) {
  std::vector<std::string> paths{directory};
  if (DIR* stream = ::opendir(directory.c_str())) {
    while (const dirent* entry = ::readdir(stream)) {
      if (entry->d_name[0] != '.')
        paths.push_back(std::string(directory).append("/").append(entry->d_name));
    }
    ::closedir(stream);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

void warnOfPath(const std::string& path, const Log& log) {
  const std::string why = whyNotTrustedAt(path);
  if (why.empty()) return;
  std::string line = path;
  line.append(": this definition ").append(why);
  log.warning(line.append(", who can thereby change who may do what: make it root's alone"));
}

std::vector<std::string> checkRoles(const FilesToCheck& files, const UserDatabase& users) {
  std::vector<std::string> lines;
  const AccessLoadResult roles = AccessPolicy::load(files.rolesFile, ::geteuid(), users);
  addLines(roles.mistakes, lines);
  addLines(roles.unknown, lines);
  if (!roles.distrust.empty()) {
    lines.push_back(roles.distrust);
  } else if (roles.mistakes.empty() && !roles.text) {
    lines.push_back(files.rolesFile + ": there is no such file: correct the path behind --roles");
  }
  return lines;
}

}  // namespace

void warnOfDefinitions(const ServiceOptions& options, const Log& log) {
  for (const std::string& directory : options.definitionsDirs) {
    for (const std::string& path : pathsOf(directory)) warnOfPath(path, log);
  }
}

void warnOfRuntimeDir(const ServiceOptions& options, const Log& log) {
  const std::string socket = besideSocket(options, "");
  if (socket.empty() || options.listenFd >= 0) return;
  const std::string directory = socket.substr(0, socket.rfind('/'));
  const std::string why = whyNotTrustedAt(directory);
  if (!why.empty())
    log.warning(
        directory + ": the socket's directory " + why +
        ", who can thereby take the service's place: make it root's or the service's alone");
}

std::vector<std::string> checkFiles(const FilesToCheck& files, std::size_t& variables) {
  const LoadResult loaded = loadDefinitions(files.definitionsDirs);
  variables = loaded.definitions.size();
  std::vector<std::string> lines;
  addLines(loaded.mistakes, lines);
  if (files.rolesFile.empty()) return lines;
  std::vector<std::string> ofRoles;
  if (files.sysroot.empty()) {
    ofRoles = checkRoles(files, systemUserDatabase());
  } else {
    const ImageUsers users(files.sysroot);
    ofRoles = users.whyUnreadable().empty() ? checkRoles(files, users)
                                            : std::vector<std::string>{users.whyUnreadable()};
  }
  lines.insert(lines.end(), ofRoles.begin(), ofRoles.end());
  return lines;
}

}  // namespace ConfigSrv
