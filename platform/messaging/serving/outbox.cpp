// Two places: bytes_ is what is being written and must leave as it is; messages_ is the queue behind
// it, in which a newer message may still replace an older one. What the socket can take soon is moved
// from the queue to the bytes (stage), and no more than that, so that the rest stays replaceable.
#include "platform/messaging/serving/internal/outbox.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "platform/messaging/wire/internal/frame_bytes.h"

namespace PbUtility {
namespace {

// As much as a Unix socket usually takes at once.
constexpr std::size_t kStageBytes = std::size_t{64} * 1024;
}  // namespace

void Outbox::add(std::string& frame) {
  if (bytes_.empty() && frame.size() > kKeptBytes) return bytes_.swap(frame);
  bytes_.append(frame);
}

void Outbox::add(const FrameHeader& header, std::string_view payload) {
  appendFrame(header, payload, bytes_);
}

void Outbox::queue(std::string frame, std::string_view key) {
  if (!key.empty()) dropOlder(key);
  queuedBytes_ += frame.size();
  messages_.push_back({std::move(frame), std::string(key)});
  if (!key.empty()) newest_.emplace(messages_.back().key, std::prev(messages_.end()));
}

void Outbox::dropOlder(std::string_view key) {
  const auto found = newest_.find(key);
  if (found == newest_.end()) return;
  const std::list<Message>::iterator older = found->second;
  newest_.erase(found);
  queuedBytes_ -= older->frame.size();
  messages_.erase(older);
}

void Outbox::stage() {
  while (!messages_.empty() && bytes_.size() - written_ < kStageBytes) {
    const Message& message = messages_.front();
    bytes_ += message.frame;
    queuedBytes_ -= message.frame.size();
    if (!message.key.empty()) newest_.erase(message.key);
    messages_.pop_front();
  }
}

// The rest moves to a place of its own size once it is the smaller part: memory goes with what is read,
// and each byte is moved once or twice, however little a reader takes at a time.
void Outbox::forgetWritten() {
  if (written_ < bytes_.size() - written_) return;
  bytes_ = bytes_.substr(written_);
  written_ = 0;
}

Outbox::Written Outbox::writeTo(int fd) {
  for (;;) {
    if (!messages_.empty()) stage();
    if (written_ == bytes_.size()) {
      bytes_.clear();
      if (bytes_.capacity() > kKeptBytes) std::string().swap(bytes_);
      written_ = 0;
      return Written::All;
    }
    const ssize_t sent =
        ::send(fd, bytes_.data() + written_, bytes_.size() - written_, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      forgetWritten();
      return Written::Some;
    }
    if (sent < 0) return Written::Failed;
    written_ += static_cast<std::size_t>(sent);
  }
}

}  // namespace PbUtility
