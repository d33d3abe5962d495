// Stream: a connected Unix stream socket whose every operation ends by a deadline.
//
// A small exchange is one send and one recv when the answer is quick, with a poll before a recv that
// has to wait. For sending the deadline costs nothing while things go well: it stands in the socket's
// own time-out (SO_SNDTIMEO; socket(7)), which is set again only when part of it is used up.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "platform/messaging/client/internal/private_fd.h"
#include "platform/messaging/wire/frame.h"

namespace PbUtility {

using Clock = std::chrono::steady_clock;

enum class StreamStatus {
  Ok,
  // The peer has closed, or is dead.
  Closed,
  TimedOut,
  // Nobody listens at the path.
  NoListener,
  // What is there is not to be trusted (SocketTrust); problem() tells why. Nothing was sent.
  Untrusted,
  // The permissions of what is there, or of a directory above it, keep this user out.
  Forbidden,
  // What came is no frame; problem() tells.
  Broken,
  // The system is out of something; problem() tells.
  Exhausted,
};

class Stream {
 public:
  // Connects to a listening socket that may be trusted. NoListener and Untrusted are decided at
  // once, whatever the deadline.
  StreamStatus connect(const std::string& path, Clock::time_point deadline);

  bool isOpen() const { return static_cast<bool>(fd_); }
  int fd() const { return fd_.get(); }
  void close() { fd_.reset(); }
  const std::string& problem() const { return problem_; }

  // Sends all bytes. `sentNothing` tells after a failure that not one byte reached the peer.
  StreamStatus sendAll(const char* data, std::size_t size, Clock::time_point deadline,
                       bool& sentNothing);

  // Receives one frame; the payload stands in payload() until the next call.
  StreamStatus receiveFrame(FrameHeader& header, Clock::time_point deadline);
  std::string_view payload() const { return {buffer_.data() + kFrameHeaderBytes, payloadBytes_}; }

 private:
  // Makes the socket's own time-out end by the deadline; false when it has passed.
  bool armSendTimeout(Clock::time_point deadline);
  // Waits until there may be something to receive; false when the deadline has passed.
  bool waitForBytes(Clock::time_point deadline);
  StreamStatus fail(int error);
  // Closes, and keeps why.
  StreamStatus distrust(std::string why);
  // Reads until `wanted` bytes stand in the buffer, and perhaps more.
  StreamStatus fill(std::size_t& have, std::size_t wanted, Clock::time_point deadline);

  PrivateFd fd_;
  std::string problem_;
  std::string buffer_;
  std::size_t payloadBytes_ = 0;
  std::chrono::milliseconds armed_{-1};
};

}  // namespace PbUtility
