// Bytes that come are looked at where they were read, in a buffer that all connections share: most are
// whole frames, which are taken at once, and nothing is copied. Only what is left after that, half a
// frame or frames that have to wait, is kept in incoming_, and what comes next is appended there.
#include "platform/messaging/serving/internal/connection.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/messaging/serving/internal/event_loop.h"
#include "platform/schema/message_bounds.h"

namespace PbUtility {
namespace {

// Read at once, unless a longer frame is known to come: about what one turn takes. What is read and not
// taken has to be kept.
constexpr std::size_t kReadBytes = std::size_t{4} * 1024;
// A greeting is no longer than its name makes it.
constexpr std::size_t kMaxHelloBytes = 256;
// A buffer that one large frame made grow is given back above this size.
constexpr std::size_t kKeptBufferBytes = std::size_t{1} * 1024;

// Room for so many bytes more, of a frame that is `whole` bytes long: as it comes, and never more than
// twice of what has come or more than the frame.
void growFor(std::string& bytes, std::size_t more, std::size_t whole) {
  const std::size_t needed = bytes.size() + more;
  if (needed <= bytes.capacity()) return;
  std::string larger;
  larger.reserve(std::max(needed, std::min(2 * bytes.capacity(), whole)));
  larger.append(bytes);
  bytes.swap(larger);
}

}  // namespace

Connection::Connection(std::uint64_t number, Base::UniqueFd fd, ucred credentials)
    : key(number), who(credentials), fd_(std::move(fd)), events_(EPOLLIN) {
  buffered.owner = owner();
  buffered.connection = key;
}

Connection::Arrival Connection::receive(std::vector<char>& buffer) {
  const std::size_t known = frameBytes_ - std::min(frameBytes_, incoming_.size());
  const std::size_t wanted = std::min(std::max(known, kReadBytes), buffer.size());
  const ssize_t got = ::recv(fd_.get(), buffer.data(), wanted, MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
    return Arrival::Nothing;
  if (got <= 0) return Arrival::End;
  const std::string_view bytes(buffer.data(), static_cast<std::size_t>(got));
  mayHaveMore_ = bytes.size() == wanted;
  hasTaken_ = false;
  rest_ = bytes;
  if (!incoming_.empty()) {
    growFor(incoming_, bytes.size(), frameBytes_);
    incoming_.append(bytes);
    rest_ = incoming_;
  }
  frameBytes_ = 0;
  if (toDrop_ > 0) dropRefused(toDrop_);
  return Arrival::Bytes;
}

void Connection::resume() {
  hasTaken_ = false;
  frameBytes_ = 0;
  rest_ = incoming_;
}

void Connection::dropRefused(std::size_t bytes) {
  const std::size_t now = std::min(bytes, rest_.size());
  toDrop_ = bytes - now;
  rest_.remove_prefix(now);
}

// Of a frame that is refused, the header is all that is waited for.
Connection::Next Connection::next(Frame& frame) {
  Base::Status<> decoded =
      decodeHeader(reinterpret_cast<const unsigned char*>(rest_.data()), frame.header);
  const std::size_t payloadBytes = frame.header.payloadBytes;
  if (peer == nullptr && payloadBytes > kMaxHelloBytes)
    decoded = Base::failed("its greeting is too long");
  if (!decoded.ok()) {
    frame.problem = std::move(decoded.text);
    return Next::Bad;
  }
  Base::Status<> length = PlatformSchema::checkPayloadBytes(frame.header.messageId, payloadBytes);
  frame.bytes = kFrameHeaderBytes + (length.ok() ? payloadBytes : std::size_t{0});
  if (!length.ok()) frame.problem = std::move(length.text);
  if (rest_.size() < frame.bytes) {
    frameBytes_ = frame.bytes;
    return Next::Wait;
  }
  frame.payload = {rest_.data() + kFrameHeaderBytes, frame.bytes - kFrameHeaderBytes};
  return Next::Frame;
}

bool Connection::keepUntaken() {
  const std::string_view rest = std::exchange(rest_, {});
  if (incoming_.empty()) {
    incoming_.append(rest);
    return true;
  }
  incoming_.erase(0, incoming_.size() - rest.size());
  if (incoming_.empty() && incoming_.capacity() > kKeptBufferBytes) std::string().swap(incoming_);
  return true;
}

void Connection::updateWatch(EventLoop& loop) {
  std::uint32_t events = intake == Intake::Held ? 0U : EPOLLIN;
  if (isSocketFull_) events |= EPOLLOUT;
  const bool isAdded = !isWatched_ && (events & EPOLLIN) != 0;
  if (!isAdded && (events == events_ || !isWatched_)) return;
  events_ = events;
  isWatched_ = true;
  if (!isAdded) return loop.changeWatch(fd_.get(), key, events);
  loop.watch(fd_.get(), key, events);
}

void Connection::endWatch(EventLoop& loop) {
  isWatched_ = false;
  loop.endWatch(fd_.get());
}

}  // namespace PbUtility
