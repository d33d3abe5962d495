// ServerOptions: where a server listens, and its limits (docs/limits.md has them all).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/messaging/serving/shares.h"

namespace PbUtility {

struct ServerOptions {
  std::string runtimeDir;
  // Name of the endpoint; its socket stands at the path of runtime_dir.h.
  std::string name;
  // A listening socket that somebody else made (socket activation); -1: make one.
  int listenFd = -1;
  // Revisions of this epoch compare; see Welcome.
  std::uint64_t epoch = 0;
  // Limits. What goes past one is refused, or waits where this says so, and is logged.
  unsigned maxConnections = 1024;
  // Of these, only root and the service's own user get the last ones.
  unsigned reservedConnections = 64;
  // Of one user; root and the service's own user may have all.
  unsigned maxConnectionsPerUser = 768;
  unsigned maxConnectionsPerProcess = 256;
  unsigned maxConnectionsPerPeer = 64;
  // Who has connected has this long to say who it is.
  std::chrono::milliseconds greetingDeadline = std::chrono::seconds(10);
  // Who has begun a frame has this long to end it.
  std::chrono::milliseconds frameDeadline = std::chrono::seconds(30);
  // Frames of one user that are taken, and the time after which no further one is, before it is the
  // others' turn.
  unsigned framesPerTurn = 32;
  std::chrono::microseconds turnTime{200};
  // Requests of one peer that were taken and not answered yet, and their bytes: the next ones wait.
  // Those from inside a receiver do not, for its peer's questions may wait for them.
  unsigned maxOpenRequests = 1024;
  std::size_t maxOpenRequestBytes = std::size_t{16} * 1024 * 1024;
  // Questions to one peer that it has not done with, and what its user and its process have of them
  // with all their peers: it is asked nothing more.
  unsigned maxOpenQuestions = 1024;
  ShareLimits openQuestions{16384, 8192, 2048, 1024};
  // While more bytes than these wait for a connection's reader, its requests wait.
  std::size_t roomBytes = std::size_t{256} * 1024;
  // Bytes that may wait for one connection's reader before it is closed.
  std::size_t maxAnswerBytes = std::size_t{32} * 1024 * 1024;
  // Notices that may wait for one peer; only the newest for each coalescing key counts.
  std::size_t maxNotices = 65536;
  // Bytes that connections may make the server keep, as they stand in memory: unfinished frames, and
  // what waits for readers. Past a share, the connection that has most of it is closed: see
  // internal/buffers.h.
  ShareLimits bufferedBytes{std::size_t{64} << 20, std::size_t{10} << 20, std::size_t{6} << 20,
                            std::size_t{32} << 20};
};

}  // namespace PbUtility
