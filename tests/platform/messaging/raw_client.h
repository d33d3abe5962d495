// RawClient: bytes on a service's socket, with no client library in between.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "base/unique_fd.h"
#include "platform/messaging/wire/frame.h"

namespace TestSupport {

class RawClient {
 public:
  enum class Connect { Now, Later };

  explicit RawClient(const std::string& path, Connect when = Connect::Now)
      : path_(path), fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval patience{20, 0};
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (when == Connect::Now) connect();
  }

  void connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    connected_ = ::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }

  bool connected() const { return connected_; }
  int fd() const { return fd_.get(); }
  void close() { fd_.reset(); }

  bool send(const std::string& bytes) {
    return ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }

  // The next bytes; empty when the service has closed the connection.
  std::string receive() {
    char bytes[65536];
    const ssize_t got = ::recv(fd_.get(), bytes, sizeof bytes, 0);
    return {bytes, got > 0 ? static_cast<std::size_t>(got) : 0};
  }

  // Reads what still comes until the service closes; false when it does not.
  bool isClosedByService() {
    char bytes[65536];
    for (;;) {
      const ssize_t got = ::recv(fd_.get(), bytes, sizeof bytes, 0);
      if (got == 0) return true;
      if (got < 0) return errno == ECONNRESET;
    }
  }

  static std::string frame(PbUtility::FrameHeader header, const std::string& payload) {
    header.payloadBytes = static_cast<std::uint32_t>(payload.size());
    std::string bytes(PbUtility::kFrameHeaderBytes, '\0');
    PbUtility::encodeHeader(header, reinterpret_cast<unsigned char*>(bytes.data()));
    return bytes + payload;
  }

  static std::string hello(const std::string& name, unsigned char token = 1,
                           PbUtility::ConnectionUse use = PbUtility::ConnectionUse::Requests) {
    PbUtility::Hello hello;
    hello.name = name;
    hello.token.fill(token);
    hello.use = use;
    PbUtility::FrameHeader header;
    header.kind = PbUtility::FrameKind::Hello;
    return frame(header, encode(hello));
  }

 private:
  std::string path_;
  Base::UniqueFd fd_;
  bool connected_ = false;
};

}  // namespace TestSupport
