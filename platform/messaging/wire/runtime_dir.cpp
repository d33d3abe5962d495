// A name comes from an application or a command line and becomes a part of a path: it is checked as a
// whole before anything is made of it.
#include "platform/messaging/wire/runtime_dir.h"

#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/messaging/wire/frame.h"

namespace PbUtility {
namespace {

constexpr std::size_t kMaxSocketPathBytes = sizeof(sockaddr_un::sun_path) - 1;

bool leavesDirectory(std::string_view name) {
  while (!name.empty()) {
    const std::size_t slash = name.find('/');
    const std::string_view step = name.substr(0, slash);
    if (step == ".." || step == ".") return true;
    if (slash == std::string_view::npos) return false;
    name.remove_prefix(slash + 1);
  }
  return false;
}

Base::Status<> checkName(std::string_view name) {
  if (name.empty() || name.back() == '/') return Base::failed("names no endpoint");
  if (name.size() > kMaxEndpointNameBytes) {
    return Base::failed("is longer than " + std::to_string(kMaxEndpointNameBytes) + " bytes");
  }
  if (name.find('\0') != std::string_view::npos) return Base::failed("holds a NUL byte");
  if (leavesDirectory(name))
    return Base::failed("would leave the runtime directory: use no \".\" or \"..\" step");
  return {};
}

}  // namespace

std::string defaultRuntimeDir() {
  const char* own = std::getenv("APPCONFIG_RUNTIME_DIR");
  if (own != nullptr && *own != '\0') return own;
  const std::string users = usersRuntimeDir();
  return users.empty() ? kDeviceRuntimeDir : users;
}

std::string usersRuntimeDir() {
  if (geteuid() == 0) return {};
  const char* user = std::getenv("XDG_RUNTIME_DIR");
  return user == nullptr || *user == '\0' ? std::string() : std::string(user) + "/appconfig";
}

Base::Status<> socketPath(std::string_view runtimeDir, std::string_view name, std::string& path) {
  if (runtimeDir.empty()) return Base::failed("no runtime directory: set APPCONFIG_RUNTIME_DIR");
  const Base::Status<> named = checkName(name);
  if (!named.ok()) return Base::failed("endpoint name \"" + std::string(name) + "\" " + named.text);
  path = runtimeDir;
  if (name.front() != '/') path += '/';
  path += name;
  if (path.size() <= kMaxSocketPathBytes) return {};
  return Base::failed("socket path \"" + path + "\" is longer than the " +
                      std::to_string(kMaxSocketPathBytes) +
                      " bytes that a Unix socket can have: choose a shorter runtime directory");
}

}  // namespace PbUtility
