// First the names of all directories are collected, a later directory's over an earlier one's, then the
// files that are left are read in the order of their names. A file that another one masks is not
// even opened: what is wrong with it concerns nobody.
#include "configsrv/definitions/definition_files.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <string_view>
#include <utility>

namespace ConfigSrv {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// Paths by file name.
using Paths = std::map<std::string, std::string>;

bool isDefinitionFile(std::string_view name) {
  constexpr std::string_view kEnding = ".toml";
  return name.size() > kEnding.size() && name[0] != '.' &&
         name.substr(name.size() - kEnding.size()) == kEnding;
}

std::string pathOf(const std::string& directory, const char* name) {
  const bool hasSlash = !directory.empty() && directory.back() == '/';
  return directory + (hasSlash ? "" : "/") + name;
}

// Returns 0 or the errno of what went wrong.
int addFiles(const std::string& directory, Paths& paths) {
  const std::unique_ptr<DIR, CloseDirectory> stream(::opendir(directory.c_str()));
  if (!stream) return errno;
  errno = 0;
  while (const dirent* entry = ::readdir(stream.get())) {
    if (isDefinitionFile(entry->d_name)) paths[entry->d_name] = pathOf(directory, entry->d_name);
    errno = 0;
  }
  return errno;
}

// A link to /dev/null, which need not be there where an image is built, or the null device itself.
bool isMask(const std::string& path) {
  constexpr std::string_view kNull = "/dev/null";
  char target[kNull.size() + 1];
  const ssize_t size = ::readlink(path.c_str(), target, sizeof target);
  if (size > 0 && std::string_view(target, static_cast<std::size_t>(size)) == kNull) return true;
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISCHR(status.st_mode) &&
         status.st_rdev == ::makedev(1, 3);
}

Mistake unreadable(const std::string& directory, int error) {
  return {directory, 0, 0, std::string("the directory cannot be read: ") + std::strerror(error)};
}

std::string joined(const std::vector<std::string>& directories) {
  std::string all;
  for (const std::string& directory : directories) all += (all.empty() ? "" : ", ") + directory;
  return all;
}

Paths findFiles(const std::vector<std::string>& directories, std::vector<Mistake>& mistakes) {
  Paths paths;
  std::vector<Mistake> missing;
  for (const std::string& directory : directories) {
    const int error = addFiles(directory, paths);
    if (error != 0) (error == ENOENT ? missing : mistakes).push_back(unreadable(directory, error));
  }
  if (missing.size() == directories.size()) mistakes = std::move(missing);
  for (auto path = paths.begin(); path != paths.end();)
    path = isMask(path->second) ? paths.erase(path) : std::next(path);
  if (paths.empty() && mistakes.empty()) {
    const bool one = directories.size() == 1;
    mistakes.push_back({joined(directories), 0, 0,
                        std::string(one ? "the directory holds" : "the directories hold") +
                            " no file that ends in \".toml\", and so no variable"});
  }
  return paths;
}

}  // namespace

DefinitionFiles readDefinitionFiles(const std::vector<std::string>& directories) {
  DefinitionFiles read;
  for (const auto& [name, path] : findFiles(directories, read.mistakes)) {
    TextFile file{path, {}};
    if (std::optional<Mistake> mistake = readText(file))
      read.mistakes.push_back(std::move(*mistake));
    else
      read.files.push_back(std::move(file));
  }
  return read;
}

}  // namespace ConfigSrv
