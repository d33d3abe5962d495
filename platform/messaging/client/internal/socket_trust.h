// SocketTrust: whether a socket is one that a client may send its requests to, secrets among them.
//
// Whoever owns a socket's directory decides what stands there, and whoever may write in a directory
// may put a socket of their own there before the service comes. So only those are trusted, besides
// root and the user who asks, whom a trusted one gave a place:
//
//   - each step from the root of the file system to the socket, symbolic links followed, belongs to
//     a trusted user, or to one who became it by owning a step: in a directory where only trusted
//     users may write nobody else can make one (/run is root's, and /run/appconfig the service's)
//   - a directory that its group or everybody may write is not passed; one with the sticky bit
//     (/tmp) is, but what stands in it counts by its owner alone
//   - the process that listens belongs to one of all these users; the kernel says so
//
//   SocketTrust trust(::geteuid());
//   std::string why = trust.whyNot("/run/appconfig/ConfigSrvc");   // before connecting
//   if (why.empty()) why = trust.whyNotPeer(connected);            // before sending
//
// Errors:   a path that is not there, or cannot be looked at, is left to connect, which fails for the
//           same reason and tells it.
// Cost:     a few system calls for each step, when a connection is opened.
// Threads:  one.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace PbUtility {

class SocketTrust {
 public:
  // `caller` is the user who asks.
  explicit SocketTrust(uid_t caller) : caller_(caller), trusted_{0, caller} {}

  // One line: whose the socket or which directory is at fault; empty when it may be used.
  std::string whyNot(const std::string& path);
  // The same of the process at the other end of a connection to that path.
  std::string whyNotPeer(int connection) const;

 private:
  std::string whyNotStep(const std::string& step, const struct stat& status);
  bool isTrusted(uid_t user) const;
  std::string neither(uid_t user) const;

  const uid_t caller_;
  std::vector<uid_t> trusted_;
  std::string path_;
  // In the directory of the next step anybody may make files.
  bool isShared_ = false;
};

}  // namespace PbUtility
