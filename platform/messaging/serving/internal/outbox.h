// Outbox: what waits to be written to one connection.
//
// Answers are written in the order in which they were given. Notices and questions wait in a queue
// of their own behind them, where a notice takes the place of an older one with the same key: a
// reader that is slow, or stopped, costs one notice for each variable and no more.
//
// Threads:  one at a time, whichever runs the loop.
#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/messaging/wire/frame.h"

namespace PbUtility {

class Outbox {
 public:
  Outbox() = default;
  Outbox(const Outbox&) = delete;
  Outbox& operator=(const Outbox&) = delete;

  // What one large answer made grow is given back above this size.
  static constexpr std::size_t kKeptBytes = std::size_t{2} * 1024;

  // Appends a whole frame that must be sent as it is. A long one is taken, not copied, where that is
  // possible; what the string holds afterwards is unspecified.
  void add(std::string& frame);
  void add(const FrameHeader& header, std::string_view payload);
  // Appends a whole frame to the queue of messages; of those with the same non-empty key that have
  // not begun to be written, only this one remains.
  void queue(std::string frame, std::string_view key);

  enum class Written { All, Some, Failed };
  // Writes what the socket takes without waiting.
  Written writeTo(int fd);

  std::size_t waitingBytes() const { return bytes_.size() - written_ + queuedBytes_; }
  // What all of it takes in memory, about: what is empty may be kept for the next, and a queued message
  // is more than its bytes.
  std::size_t memoryBytes() const {
    return bytes_.capacity() + queuedBytes_ + messages_.size() * kMessageBytes;
  }
  std::size_t queuedMessages() const { return messages_.size(); }

 private:
  struct Message {
    std::string frame;
    std::string key;
  };
  // A message's part in list, map and strings.
  static constexpr std::size_t kMessageBytes = 256;

  void dropOlder(std::string_view key);
  void forgetWritten();
  // Moves messages into the bytes to be written, a few at a time, so that the rest can still be
  // replaced by newer ones.
  void stage();

  std::string bytes_;
  std::size_t written_ = 0;
  std::list<Message> messages_;
  std::size_t queuedBytes_ = 0;
  // By the message's own key, which stays where it is as long as the message waits.
  std::unordered_map<std::string_view, std::list<Message>::iterator> newest_;
};

}  // namespace PbUtility
