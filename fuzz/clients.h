// Clients: what somebody on the other side of a service's socket can do, byte by byte. steps.h lets a
// server live through it.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "platform/messaging/wire/frame.h"

namespace Fuzz {

// A listening socket without a file, of one run.
class Listening {
 public:
  Listening();
  // A new connection, not blocking.
  Base::UniqueFd connect() const;
  // For ServerOptions::listenFd: the server closes it.
  int handOver() const;

 private:
  Base::UniqueFd fd_;
  sockaddr_un address_{};
  socklen_t addressBytes_ = sizeof address_;
};

// A frame as it came in.
struct Received {
  PbUtility::FrameHeader header;
  std::string payload;
};

// One connection of a client.
class Client {
 public:
  void open(const Listening& listening) { fd_ = listening.connect(), incoming_.clear(); }
  void close() { fd_.reset(); }
  bool isOpen() const { return static_cast<bool>(fd_); }
  // As much as the socket takes: a server that does not read is not waited for.
  void send(std::string_view bytes);
  void endSending() { ::shutdown(fd_.get(), SHUT_WR); }
  // Every frame that has come whole. Ends the process when one is not of a kind that a service sends.
  std::vector<Received> receive();
  // Whether the service has closed; told by the receive() before.
  bool isClosedByService() const { return closedByService_; }

 private:
  void readBytes();

  Base::UniqueFd fd_;
  std::string incoming_;
  bool closedByService_ = false;
};

// The header's payload length is set here.
std::string frameOf(PbUtility::FrameHeader header, std::string_view payload);
std::string helloOf(PbUtility::ConnectionUse use, std::uint8_t token, std::string_view name);

}  // namespace Fuzz
