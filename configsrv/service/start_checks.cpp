// checkFiles() reads both files even when the first has mistakes, so that all are told at once. The
// warnings hold a path's owner and rights against the rule for everything that decides about values
// and roles (whyNotTrusted).
#include "configsrv/service/internal/start_checks.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

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

void warnOfDefinitions(const std::string& directory, const Log& log) {
  for (const std::string& path : pathsOf(directory)) {
    const std::string why = whyNotTrustedAt(path);
    if (why.empty()) continue;
    std::string line = path;
    line.append(": this definition ").append(why);
    log.warning(line.append(", who can thereby change who may do what: make it root's alone"));
  }
}

}  // namespace

CheckedFiles checkFiles(const ServiceOptions& options, const Log& log) {
  LoadResult loaded = loadDefinitions(options.definitionsDir);
  CheckedFiles files{std::move(loaded.definitions), AccessPolicy(geteuid()), {}};
  addLines(loaded.mistakes, files.mistakes);
  if (!options.rolesFile.empty()) {
    AccessLoadResult roles = AccessPolicy::load(options.rolesFile, geteuid());
    addLines(roles.mistakes, files.mistakes);
    if (!roles.distrust.empty()) log.error(roles.distrust);
    files.access = std::move(roles.policy);
  }
  if (files.mistakes.empty()) warnOfDefinitions(options.definitionsDir, log);
  return files;
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

std::vector<std::string> checkDefinitions(const std::string& directory, std::size_t& variables) {
  const LoadResult loaded = loadDefinitions(directory);
  variables = loaded.definitions.size();
  std::vector<std::string> lines;
  addLines(loaded.mistakes, lines);
  return lines;
}

}  // namespace ConfigSrv
