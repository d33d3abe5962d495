// The path is resolved first (realpath), so that its steps hold no symbolic link, and then walked
// from the root. Between this look and connect(2) somebody might exchange a directory; but only a
// trusted user can, or the walk had failed, and who really listens is looked at once more after
// connecting.
#include "platform/messaging/client/internal/socket_trust.h"

#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

namespace PbUtility {
namespace {

std::string userText(uid_t user) { return "user " + std::to_string(user); }

// "/", "/run", "/run/appconfig" and "/run/appconfig/ConfigSrvc" of the last.
std::vector<std::string> stepsTo(const std::string& path) {
  std::vector<std::string> steps{"/"};
  for (std::size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1))
    steps.push_back(path.substr(0, end));
  steps.push_back(path);
  return steps;
}

}  // namespace

bool SocketTrust::isTrusted(uid_t user) const {
  return std::find(trusted_.begin(), trusted_.end(), user) != trusted_.end();
}

std::string SocketTrust::neither(uid_t user) const {
  const std::string who = caller_ == 0
                              ? "who is not root"
                              : "who is neither root nor " + userText(caller_) + " (this process)";
  return userText(user) + ", " + who;
}

// A step that belongs to somebody new is theirs by the will of those who may write above it.
std::string SocketTrust::whyNotStep(const std::string& step, const struct stat& status) {
  const bool isDirectory = S_ISDIR(status.st_mode);
  const std::string what = (isDirectory ? "the directory " : "the socket ") + step;
  if (!isTrusted(status.st_uid)) {
    if (isShared_) return what + " belongs to " + neither(status.st_uid);
    trusted_.push_back(status.st_uid);
  }
  if (!isDirectory) return {};
  isShared_ = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  if (!isShared_ || (status.st_mode & S_ISVTX) != 0) return {};
  const char* const whom = (status.st_mode & S_IWOTH) != 0 ? "everybody" : "its group";
  return what + " can be written by " + whom + ", so that the socket " + path_ +
         " could be anybody's";
}

std::string SocketTrust::whyNot(const std::string& path) {
  path_ = path;
  char resolved[PATH_MAX];
  if (::realpath(path.c_str(), resolved) == nullptr) return {};
  for (const std::string& step : stepsTo(resolved)) {
    struct stat status {};
    if (::lstat(step.c_str(), &status) != 0) return {};
    const std::string why = whyNotStep(step, status);
    if (!why.empty()) return why + ": not used";
  }
  return {};
}

std::string SocketTrust::whyNotPeer(int connection) const {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
    return "the kernel does not say who listens at " + path_ + ": not used";
  if (isTrusted(peer.uid)) return {};
  return "who listens at " + path_ + " is " + neither(peer.uid) + " nor an owner of its directory" +
         ": not used";
}

}  // namespace PbUtility
