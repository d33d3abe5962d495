// Listener: the listening socket of a server, and its place in the file system.
//
// One server at a time has a name: a lock file beside the socket says so, and goes with the process
// that holds it (flock(2)), so a socket file that a dead server left is known to be nobody's.
#pragma once

#include <string>

#include "base/status.h"
#include "base/unique_fd.h"

namespace PbUtility {

class Listener {
 public:
  // Connections that may wait to be taken in; who comes then waits in connect(2).
  static constexpr int kBacklog = 128;

  Listener() = default;
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Makes the directories on the way and listens.
  Base::Status<> open(const std::string& runtimeDir, const std::string& name);
  // Takes over a socket that listens already (socket activation).
  Base::Status<> adopt(int fd);

  int fd() const { return socket_.get(); }
  // The next connection, non-blocking; empty when none waits. When the process is out of
  // descriptors, the one it returns is the spare one's, as `exhausted` tells: it has to be closed
  // again before the next call.
  Base::UniqueFd accept(bool& exhausted);

 private:
  Base::Status<> lock();
  Base::Status<> bindAndListen();

  std::string path_;
  Base::UniqueFd lock_;
  Base::UniqueFd socket_;
  // Given up for a moment when descriptors run out, so that the waiting connection can be ended.
  Base::UniqueFd spare_;
};

}  // namespace PbUtility
