// Connection: one client's socket at the server: the frames that come over it, and what waits to be
// written to it.
//
// What has come is handed out frame by frame. Whoever takes them may stop after any of them, because
// the client has to wait (Intake) or it is the others' turn; the rest is kept.
//
//   if (connection.receive(buffer) == Connection::Arrival::Bytes) {
//     while (connection.hasHeader()) {
//       Connection::Frame frame;
//       if (connection.next(frame) != Connection::Next::Frame) break;
//       connection.take(frame);  // and do what it asks for
//     }
//     connection.keepRest();
//   }
//
// The server's other parts keep notes about a connection in it, which are theirs to change; what is
// private is its own.
//
// Threads:   one at a time, whichever runs the server's loop.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "platform/messaging/serving/internal/buffers.h"
#include "platform/messaging/serving/internal/outbox.h"
#include "platform/messaging/serving/server_handler.h"
#include "platform/messaging/wire/frame.h"

namespace PbUtility {

class EventLoop;
struct PeerState;

// Whether a connection is listened to.
enum class Intake {
  Open,
  // It has more to say than one turn takes, and waits for its next turn.
  Queued,
  // Its next request waits until there is room.
  Held,
};

// The rest of a request, which waits for room.
struct Postponed {
  RequestId request;
  std::function<void()> run;
};

class Connection {
 public:
  enum class Arrival { Bytes, Nothing, End };
  enum class Next { Frame, Wait, Bad };

  struct Frame {
    FrameHeader header;
    std::string_view payload;
    // Of a bad one, what is wrong with it. Else why it is refused: its payload is longer than its kind of
    // message may be, and is not waited for but dropped.
    std::string problem;
    // How much of what has come it takes up.
    std::size_t bytes = 0;
  };

  Connection(std::uint64_t key, Base::UniqueFd fd, ucred who);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Reads once, about as much as one turn takes. What comes next() may stand in the buffer, until
  // keepRest() was called.
  Arrival receive(std::vector<char>& buffer);
  // Whether there may be more to read, after Arrival::Bytes.
  bool mayHaveMore() const { return mayHaveMore_; }
  // To go on with what was kept, instead of receive().
  void resume();
  // Whether at least the header of the next frame has come.
  bool hasHeader() const { return rest_.size() >= kFrameHeaderBytes; }
  // That frame, if it is whole; it stays the next one until it is taken.
  Next next(Frame& frame);
  // Whether more has come than this frame.
  bool hasMoreThan(const Frame& frame) const { return rest_.size() > frame.bytes; }
  void take(const Frame& frame) {
    hasTaken_ = true;
    rest_.remove_prefix(frame.bytes);
    if (!frame.problem.empty()) dropRefused(frame.header.payloadBytes);
  }
  // Keeps what was not taken. False when nothing is or was kept, as mostly.
  bool keepRest() { return (!incoming_.empty() || !rest_.empty()) && keepUntaken(); }
  // Whether any frame was taken since the last receive() or resume().
  bool hasTaken() const { return hasTaken_; }
  // Whether it has begun a frame, and not ended it.
  bool isInFrame() const { return !incoming_.empty() && intake == Intake::Open; }
  // Whether nothing is kept that was not taken.
  bool isEmpty() const { return incoming_.empty(); }

  // Writes what the socket takes. False when nobody will ever read it.
  [[nodiscard]] bool write() {
    const Outbox::Written written = outbox.writeTo(fd_.get());
    isSocketFull_ = written == Outbox::Written::Some;
    return written != Outbox::Written::Failed;
  }
  // The socket took not all of it: epoll tells when there is room again.
  bool isSocketFull() const { return isSocketFull_; }

  // Tells the loop what is waited for at this socket, if it is something else than before.
  void updateWatch(EventLoop& loop);
  // Its other end is closed, which epoll would tell over and over.
  void endWatch(EventLoop& loop);
  int fd() const { return fd_.get(); }

  // What it makes the server keep.
  std::size_t memoryBytes() const { return incoming_.capacity() + outbox.memoryBytes(); }
  Owner owner() const { return {who.uid, who.pid}; }

  const std::uint64_t key;
  const ucred who;
  Outbox outbox;

  // Notes of the server.
  ConnectionUse use = ConnectionUse::Requests;
  // Null until the greeting.
  PeerState* peer = nullptr;
  Intake intake = Intake::Open;
  // What epoll told of it since its last turn, and whether it waits for one.
  std::uint32_t ready = 0;
  bool waitsForTurn = false;
  std::deque<Postponed> whenRoom;
  std::uint64_t frameTimer = 0;

  // Notes of ConnectionTable.
  std::uint64_t greetingTimer = 0;
  Buffers::Account buffered;
  bool dead = false;

  // Note of FlushQueue: it is in there.
  bool willFlush = false;

 private:
  bool keepUntaken();
  void dropRefused(std::size_t bytes);

  Base::UniqueFd fd_;
  // What was kept, and how long the frame is that it begins with, if that is known and not all of it is
  // there.
  std::string incoming_;
  std::size_t frameBytes_ = 0;
  // What has come and is not taken: in the reader's buffer, or all of incoming_ from some place on.
  std::string_view rest_;
  // Bytes of a refused payload that are still to come.
  std::size_t toDrop_ = 0;
  bool hasTaken_ = false;
  bool mayHaveMore_ = false;
  bool isSocketFull_ = false;
  // What epoll was told to watch for, and whether it watches at all.
  std::uint32_t events_;
  bool isWatched_ = true;
};

}  // namespace PbUtility
