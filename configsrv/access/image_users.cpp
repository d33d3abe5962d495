#include "configsrv/access/image_users.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>

namespace ConfigSrv {
namespace {

// Takes the text up to the separator, and the separator with it.
std::string_view takeUpTo(char separator, std::string_view& text) {
  const std::string_view taken = text.substr(0, text.find(separator));
  text.remove_prefix(std::min(text.size(), taken.size() + 1));
  return taken;
}

std::optional<std::uint32_t> find(const std::map<std::string, std::uint32_t>& ids,
                                  const std::string& name) {
  const auto found = ids.find(name);
  if (found == ids.end()) return std::nullopt;
  return found->second;
}

}  // namespace

ImageUsers::ImageUsers(const std::string& root)
    : users_(read(root + "/etc/passwd")), groups_(read(root + "/etc/group")) {}

ImageUsers::Ids ImageUsers::read(const std::string& path) {
  Ids ids;
  TextFile file{path, {}};
  if (const std::optional<Mistake> mistake = readText(file)) {
    if (whyUnreadable_.empty()) whyUnreadable_ = formatMistake(*mistake);
    return ids;
  }
  for (std::string_view rest = file.text; !rest.empty();) {
    std::string_view line = takeUpTo('\n', rest);
    const std::string_view name = takeUpTo(':', line);
    takeUpTo(':', line);
    const std::string_view digits = takeUpTo(':', line);
    std::uint32_t id = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, id);
    if (error == std::errc() && stop == end) ids.emplace(name, id);
  }
  return ids;
}

std::optional<uid_t> ImageUsers::userId(const std::string& name) const {
  return find(users_, name);
}

std::optional<gid_t> ImageUsers::groupId(const std::string& name) const {
  return find(groups_, name);
}

std::vector<gid_t> ImageUsers::groupsOf(uid_t, gid_t primary) const { return {primary}; }

}  // namespace ConfigSrv
