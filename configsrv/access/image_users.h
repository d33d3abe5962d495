// ImageUsers: the users and groups of a device's image, where the image is built.
//
// The machine that builds an image knows none of its users, so they are looked up in the image's own
// etc/passwd and etc/group. What a directory server would add is not known there.
//
// Errors:   a file that cannot be read has nobody in it, and whyUnreadable() names it. A line that is
//           none of its kind is nobody's.
// Threads:  any number of threads may ask at once.
//
//   const ImageUsers users("/build/image");
//   if (!users.whyUnreadable().empty()) return fail(users.whyUnreadable());
//   AccessLoadResult roles = AccessPolicy::load("image/etc/appconfig/roles.toml", geteuid(), users);
#pragma once

#include <map>
#include <string>

#include "configsrv/access/access_policy.h"

namespace ConfigSrv {

class ImageUsers final : public UserDatabase {
 public:
  // The image's root directory.
  explicit ImageUsers(const std::string& root);

  // One line; empty when both files were read.
  const std::string& whyUnreadable() const { return whyUnreadable_; }

  std::optional<uid_t> userId(const std::string& name) const override;
  std::optional<gid_t> groupId(const std::string& name) const override;
  // The primary group alone: what a check of a file needs nobody's groups for.
  std::vector<gid_t> groupsOf(uid_t uid, gid_t primary) const override;

 private:
  // In both files the name is the first field of a line, and the number the third.
  using Ids = std::map<std::string, std::uint32_t>;
  Ids read(const std::string& path);

  std::string whyUnreadable_;
  Ids users_;
  Ids groups_;
};

}  // namespace ConfigSrv
