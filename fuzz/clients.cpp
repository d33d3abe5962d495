// Clients as bytes on a socket: frames are made and taken apart here, and what comes from the
// service has to be in form.
//
// The socket has a name that the kernel chose, so that programs beside each other do not meet. Nothing
// blocks: the server is stepped by hand, on the same thread (steps.h).
#include "fuzz/clients.h"

#include <fcntl.h>

#include <cerrno>

#include "fuzz/input.h"

namespace Fuzz {
namespace {

using PbUtility::FrameHeader;
using PbUtility::FrameKind;

constexpr int kBacklog = 16;

bool isOfService(FrameKind kind) {
  return kind == FrameKind::Welcome || kind == FrameKind::Response || kind == FrameKind::Notice ||
         kind == FrameKind::Question || kind == FrameKind::Refusal;
}

// Payloads that tell of time or of processes are different each time.
void observe(const Received& frame) {
  constexpr std::uint32_t kStatus = 0x1A0411;
  constexpr std::uint32_t kClients = 0x1A0421;
  constexpr std::uint32_t kMonitor = 0x1A0433;
  const std::uint32_t id = frame.header.messageId;
  Fuzz::observe(std::to_string(static_cast<int>(frame.header.kind)) + ' ' + std::to_string(id) +
                ' ' + std::to_string(frame.header.sequence) + ' ' +
                std::to_string(frame.header.revision));
  if (id != kStatus && id != kClients && id != kMonitor) Fuzz::observe(frame.payload);
}

}  // namespace

Listening::Listening() : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  address_.sun_family = AF_UNIX;
  auto* generic = reinterpret_cast<sockaddr*>(&address_);
  // The kernel chooses a name.
  const bool listens = ::bind(fd_.get(), generic, sizeof address_.sun_family) == 0 &&
                       ::listen(fd_.get(), kBacklog) == 0 &&
                       ::getsockname(fd_.get(), generic, &addressBytes_) == 0;
  require(listens, "a socket listens");
}

int Listening::handOver() const {
  const int copy = ::fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0);
  require(copy >= 0, "a descriptor can be copied");
  return copy;
}

Base::UniqueFd Listening::connect() const {
  Base::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto* generic = reinterpret_cast<const sockaddr*>(&address_);
  // A full backlog is the client's bad luck: what it sends goes nowhere.
  if (::connect(fd.get(), generic, addressBytes_) != 0) fd.reset();
  return fd;
}

void Client::send(std::string_view bytes) {
  while (fd_ && !bytes.empty()) {
    const ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

void Client::readBytes() {
  closedByService_ = false;
  char buffer[65536];
  for (;;) {
    const ssize_t got = ::recv(fd_.get(), buffer, sizeof buffer, 0);
    if (got > 0) {
      incoming_.append(buffer, static_cast<std::size_t>(got));
      continue;
    }
    closedByService_ = got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    return;
  }
}

std::vector<Received> Client::receive() {
  std::vector<Received> frames;
  if (!fd_) return frames;
  readBytes();
  std::size_t at = 0;
  while (incoming_.size() - at >= PbUtility::kFrameHeaderBytes) {
    Received frame;
    const auto* bytes = reinterpret_cast<const unsigned char*>(incoming_.data()) + at;
    const Base::Status<> decoded = decodeHeader(bytes, frame.header);
    require(decoded.ok(), "a service sends frames", decoded.text);
    require(isOfService(frame.header.kind), "a service sends its own kinds of frames");
    const std::size_t whole = PbUtility::kFrameHeaderBytes + frame.header.payloadBytes;
    if (incoming_.size() - at < whole) break;
    frame.payload = incoming_.substr(at + PbUtility::kFrameHeaderBytes, frame.header.payloadBytes);
    observe(frame);
    frames.push_back(std::move(frame));
    at += whole;
  }
  incoming_.erase(0, at);
  return frames;
}

std::string frameOf(FrameHeader header, std::string_view payload) {
  header.payloadBytes = static_cast<std::uint32_t>(payload.size());
  std::string bytes(PbUtility::kFrameHeaderBytes, '\0');
  encodeHeader(header, reinterpret_cast<unsigned char*>(bytes.data()));
  return bytes.append(payload);
}

std::string helloOf(PbUtility::ConnectionUse use, std::uint8_t token, std::string_view name) {
  PbUtility::Hello hello;
  hello.use = use;
  hello.token.fill(token);
  hello.name = name;
  FrameHeader header;
  header.kind = FrameKind::Hello;
  return frameOf(header, encode(hello));
}

}  // namespace Fuzz
