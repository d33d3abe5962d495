#include "platform/messaging/internal/stream.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace PbUtility {
namespace {

using std::chrono::milliseconds;

// Frames up to this size arrive with one recv.
constexpr std::size_t kFirstBufferBytes = 4096;
// A buffer that one large frame made grow is given back above this size.
constexpr std::size_t kKeptBufferBytes = std::size_t{256} * 1024;
// A time-out may be this part longer than asked for before it is set anew.
constexpr int kTimeoutSlackParts = 16;

}  // namespace

bool Stream::armTimeout(Direction direction, Clock::time_point deadline) {
  // Rounded up: a call ends at its deadline, never before it.
  const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
  if (left.count() <= 0) return false;
  milliseconds& armed = armed_[static_cast<int>(direction)];
  if (armed >= left && armed - left <= armed / kTimeoutSlackParts) return true;
  const timeval timeout{static_cast<time_t>(left.count() / 1000),
                        static_cast<suseconds_t>(left.count() % 1000 * 1000)};
  const int option = direction == Direction::Receive ? SO_RCVTIMEO : SO_SNDTIMEO;
  ::setsockopt(fd_.get(), SOL_SOCKET, option, &timeout, sizeof timeout);
  armed = left;
  return true;
}

StreamStatus Stream::fail(int error) {
  problem_ = std::strerror(error);
  if (error == EAGAIN || error == EWOULDBLOCK) return StreamStatus::TimedOut;
  if (error == ENOENT || error == ECONNREFUSED || error == ENOTDIR) return StreamStatus::NoListener;
  if (error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS) {
    return StreamStatus::Exhausted;
  }
  if (error == EPIPE || error == ECONNRESET || error == ENOTCONN) return StreamStatus::Closed;
  return StreamStatus::Broken;
}

StreamStatus Stream::connect(const std::string& path, Clock::time_point deadline) {
  fd_.make([] { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); });
  armed_[0] = armed_[1] = milliseconds(-1);
  if (!fd_) return fail(errno);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
  for (;;) {
    // A full backlog makes connect wait; the sending time-out bounds that wait.
    if (!armTimeout(Direction::Send, deadline)) return fail(EAGAIN);
    if (::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return StreamStatus::Ok;
    }
    if (errno != EINTR) break;
  }
  const StreamStatus status = fail(errno);
  fd_.reset();
  return status;
}

StreamStatus Stream::sendAll(const char* data, std::size_t size, Clock::time_point deadline,
                             bool& sentNothing) {
  sentNothing = true;
  while (size > 0) {
    if (!armTimeout(Direction::Send, deadline)) return fail(EAGAIN);
    const ssize_t sent = ::send(fd_.get(), data, size, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return fail(errno);
    sentNothing = false;
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return StreamStatus::Ok;
}

StreamStatus Stream::fill(std::size_t& have, std::size_t wanted, Clock::time_point deadline) {
  if (buffer_.size() < wanted) buffer_.resize(wanted);
  while (have < wanted) {
    if (!armTimeout(Direction::Receive, deadline)) return fail(EAGAIN);
    const ssize_t got = ::recv(fd_.get(), buffer_.data() + have, buffer_.size() - have, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return fail(errno);
    if (got == 0) return fail(EPIPE);
    have += static_cast<std::size_t>(got);
  }
  return StreamStatus::Ok;
}

StreamStatus Stream::receiveFrame(FrameHeader& header, Clock::time_point deadline) {
  if (buffer_.size() > kKeptBufferBytes) {
    std::string().swap(buffer_);
  }
  if (buffer_.size() < kFirstBufferBytes) buffer_.resize(kFirstBufferBytes);
  payloadBytes_ = 0;
  std::size_t have = 0;
  StreamStatus status = fill(have, kFrameHeaderBytes, deadline);
  if (status != StreamStatus::Ok) return status;
  problem_ = decodeHeader(reinterpret_cast<const unsigned char*>(buffer_.data()), header);
  if (!problem_.empty()) return StreamStatus::Broken;
  const std::size_t whole = kFrameHeaderBytes + header.payloadBytes;
  status = fill(have, whole, deadline);
  if (status != StreamStatus::Ok) return status;
  // Nothing may follow: on such a connection every frame to us answers one of ours.
  if (have > whole) {
    problem_ = "more came than was asked for";
    return StreamStatus::Broken;
  }
  payloadBytes_ = header.payloadBytes;
  return StreamStatus::Ok;
}

}  // namespace PbUtility
