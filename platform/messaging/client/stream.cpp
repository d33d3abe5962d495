// Sending and connecting wait in the kernel, with the time-out of the socket; receiving waits in
// poll, for a reason that waitForBytes gives. Each frame is read into one buffer, with one recv when
// it is short, and the buffer is kept for the next.
#include "platform/messaging/client/internal/stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/messaging/client/internal/socket_trust.h"

namespace PbUtility {
namespace {

using std::chrono::milliseconds;

// Frames up to this size arrive with one recv.
constexpr std::size_t kFirstBufferBytes = 4096;
// A buffer that one large frame made grow is given back above this size.
constexpr std::size_t kKeptBufferBytes = std::size_t{256} * 1024;
// A time-out may be this part longer than asked for before it is set anew.
constexpr int kTimeoutSlackParts = 16;

// Rounded up: a call ends at its deadline, never before it. Zero when that has passed.
milliseconds timeLeft(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
  return std::max(left, milliseconds(0));
}

}  // namespace

bool Stream::armSendTimeout(Clock::time_point deadline) {
  const milliseconds left = timeLeft(deadline);
  if (left.count() == 0) return false;
  if (armed_ >= left && armed_ - left <= armed_ / kTimeoutSlackParts) return true;
  const timeval timeout{static_cast<time_t>(left.count() / 1000),
                        static_cast<suseconds_t>(left.count() % 1000 * 1000)};
  ::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  armed_ = left;
  return true;
}

StreamStatus Stream::fail(int error) {
  problem_ = std::strerror(error);
  if (error == EAGAIN || error == EWOULDBLOCK) return StreamStatus::TimedOut;
  if (error == ENOENT || error == ECONNREFUSED || error == ENOTDIR) return StreamStatus::NoListener;
  if (error == EACCES) return StreamStatus::Forbidden;
  if (error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS) {
    return StreamStatus::Exhausted;
  }
  if (error == EPIPE || error == ECONNRESET || error == ENOTCONN) return StreamStatus::Closed;
  return StreamStatus::Broken;
}

StreamStatus Stream::distrust(std::string why) {
  problem_ = std::move(why);
  fd_.reset();
  return StreamStatus::Untrusted;
}

StreamStatus Stream::connect(const std::string& path, Clock::time_point deadline) {
  SocketTrust trust(::geteuid());
  std::string why = trust.whyNot(path);
  if (!why.empty()) return distrust(std::move(why));
  fd_.make([] { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); });
  armed_ = milliseconds(-1);
  if (!fd_) return fail(errno);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
  for (;;) {
    // A full backlog makes connect wait; the sending time-out bounds that wait.
    if (!armSendTimeout(deadline)) return fail(EAGAIN);
    if (::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      why = trust.whyNotPeer(fd_.get());
      return why.empty() ? StreamStatus::Ok : distrust(std::move(why));
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
    if (!armSendTimeout(deadline)) return fail(EAGAIN);
    const ssize_t sent = ::send(fd_.get(), data, size, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return fail(errno);
    sentNothing = false;
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return StreamStatus::Ok;
}

// By poll, because a thread that sleeps in recv is woken once more for nothing when the peer reads
// what was sent to it: the kernel wakes whoever sleeps at the socket, for there is room to write.
bool Stream::waitForBytes(Clock::time_point deadline) {
  constexpr milliseconds kLongestPoll(std::numeric_limits<int>::max());
  const milliseconds left = std::min(timeLeft(deadline), kLongestPoll);
  pollfd waiting{fd_.get(), POLLIN, 0};
  if (left.count() == 0) return false;
  // Whatever ends the wait, the next recv tells what there is.
  ::poll(&waiting, 1, static_cast<int>(left.count()));
  return true;
}

StreamStatus Stream::fill(std::size_t& have, std::size_t wanted, Clock::time_point deadline) {
  if (buffer_.size() < wanted) buffer_.resize(wanted);
  while (have < wanted) {
    const ssize_t got =
        ::recv(fd_.get(), buffer_.data() + have, buffer_.size() - have, MSG_DONTWAIT);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (!waitForBytes(deadline)) return fail(EAGAIN);
      continue;
    }
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
  // The peer was asked a moment ago: to look before it could answer is a system call for nothing.
  if (!waitForBytes(deadline)) return fail(EAGAIN);
  std::size_t have = 0;
  StreamStatus status = fill(have, kFrameHeaderBytes, deadline);
  if (status != StreamStatus::Ok) return status;
  Base::Status<> decoded =
      decodeHeader(reinterpret_cast<const unsigned char*>(buffer_.data()), header);
  if (!decoded.ok()) {
    problem_ = std::move(decoded.text);
    return StreamStatus::Broken;
  }
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
