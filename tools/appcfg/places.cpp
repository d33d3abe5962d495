#include "tools/appcfg/places.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "platform/messaging/wire/runtime_dir.h"

namespace AppCfgTool {

std::vector<std::string> placesToLook(const Settings& settings) {
  if (!settings.runtimeDir.empty()) return {settings.runtimeDir};
  const std::string first = PbUtility::defaultRuntimeDir();
  if (first != PbUtility::usersRuntimeDir()) return {first};
  const char* const named = std::getenv("APPCONFIG_RUNTIME_DIR");
  if (named != nullptr && *named != '\0') return {first};
  return {first, PbUtility::kDeviceRuntimeDir};
}

bool holdsSocket(const std::string& place, const std::string& serviceName) {
  std::string path;
  struct stat status {};
  return PbUtility::socketPath(place, serviceName, path).ok() &&
         ::lstat(path.c_str(), &status) == 0;
}

std::string placeOf(const std::vector<std::string>& places, const std::string& serviceName) {
  const auto found = std::find_if(places.begin(), places.end(), [&](const std::string& place) {
    return holdsSocket(place, serviceName);
  });
  return found == places.end() ? places.back() : *found;
}

}  // namespace AppCfgTool
