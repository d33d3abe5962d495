#include "platform/messaging/internal/outbox.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "platform/messaging/internal/frame_bytes.h"

namespace PbUtility {
namespace {

// As much as a Unix socket usually takes at once.
constexpr std::size_t kStageBytes = std::size_t{64} * 1024;
// What one large answer made grow is given back above this size.
constexpr std::size_t kKeptBytes = std::size_t{256} * 1024;

}  // namespace

void Outbox::add(std::string_view frame) { bytes_.append(frame); }

void Outbox::add(const FrameHeader& header, std::string_view payload) {
  appendFrame(header, payload, bytes_);
}

void Outbox::queue(std::string frame, const std::string& key) {
  queuedBytes_ += frame.size();
  messages_.push_back({std::move(frame), key});
  if (key.empty()) return;
  const auto newest = std::prev(messages_.end());
  const auto [position, isFirst] = newest_.try_emplace(key, newest);
  if (isFirst) return;
  queuedBytes_ -= position->second->frame.size();
  messages_.erase(position->second);
  position->second = newest;
}

void Outbox::stage() {
  while (!messages_.empty() && bytes_.size() - written_ < kStageBytes) {
    Message& message = messages_.front();
    bytes_ += message.frame;
    queuedBytes_ -= message.frame.size();
    if (!message.key.empty()) newest_.erase(message.key);
    messages_.pop_front();
  }
}

Outbox::Written Outbox::writeTo(int fd) {
  for (;;) {
    stage();
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
      bytes_.erase(0, written_);
      written_ = 0;
      return Written::Some;
    }
    if (sent < 0) return Written::Failed;
    written_ += static_cast<std::size_t>(sent);
  }
}

}  // namespace PbUtility
