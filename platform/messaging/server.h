// Server: the serving side of the message layer.
//
// The loop accepts connections, reads frames, calls the ServerHandler and writes answers: a request
// is answered from the thread that read it. The loop is run by the thread in run(); while that one
// is busy with work that blocks, see aside(), a second thread runs it. Only one thread at a time is
// inside the loop, the handler and the functions below, so handlers need no locks.
//
// Peers    all connections of one endpoint of one process make one peer: they share a token and the
//          kernel's word (uid, pid) for who is there. Only a peer's own connections answer for it.
// Turns    users take turns, and so do the connections of each: a turn is a few frames, or what fits
//          into a fraction of a millisecond. Who says much, on however many connections, delays the
//          others by a turn and no more. Long work of a handler's own goes in slices: see later().
// Shares   connections, bytes and open questions are shared out among users and processes (shares.h).
// Room     what a peer does not read is not piled up for it: as long as its answers wait, its next
//          requests wait too, in its own socket. So do those of a peer that has too many requests
//          under way; it is slowed down, and nothing of what it sent is lost. Answers to questions
//          never wait.
// Errors   a peer that sends what is no frame, half a frame, or more than it may, loses that
//          connection; one line says why. Nothing a peer does stops the server.
// Limits   ServerOptions; docs/limits.md has them all.
// Threads  post() and stop() from any thread, stop() also from a signal handler; all else from
//          handlers and posted tasks, or before run().
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/messaging/shares.h"

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace PbUtility {

using PeerId = std::uint64_t;

// What the kernel says of a peer, and the name that it gives itself.
struct Peer {
  PeerId id = 0;
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  pid_t pid = 0;
};

// A peer that is connected now.
struct ConnectedPeer {
  Peer peer;
  // Whether it can be notified and asked.
  bool delivery = false;
};

// Where an answer goes: one request of one connection. A plain value that may be kept; answering
// after the connection is gone does nothing.
struct RequestId {
  std::uint64_t connection = 0;
  std::uint32_t sequence = 0;
  // Nobody waits: answers to it are dropped.
  bool oneWay = false;
  // Whose it is, and how long it was: for the peer's count of requests under way.
  PeerId peer = 0;
  std::size_t bytes = 0;
};

struct IncomingRequest {
  RequestId id;
  const Peer& peer;
  std::uint32_t messageId;
  // The peer's delivery thread waits for this request: see kFlagInsideReceiver.
  bool insideReceiver;
  // FrameHeader::revision as the client sent it.
  std::uint64_t revision;
  // Valid until the call returns.
  std::string_view payload;
  // It came over the peer's delivery connection.
  bool overDelivery = false;
};

// What a line about a peer is about: of one kind, there may be many alike.
enum class Fault {
  // It sent what is no frame, or no frame that clients send.
  BadFrame,
  // It did not say who it is.
  NoGreeting,
  // It went away, or stopped, in the middle of a frame.
  HalfFrame,
  // It was refused: its name, its token, a limit on connections.
  Refused,
  // It does not read what is for it.
  NotReading,
  // It does not answer what it is asked.
  NotAnswering,
  // The process or the system is out of something.
  Resources,
};

class ServerHandler {
 public:
  virtual ~ServerHandler() = default;
  // Answer now or later, once, with respond() or refuse(); also a one-way request, whose answer is
  // dropped.
  virtual void onRequest(const IncomingRequest& request) = 0;
  // One of the answers to a question; the payload is valid until the call returns.
  virtual void onAnswer(PeerId peer, std::uint32_t question, std::uint32_t messageId,
                        std::string_view payload) = 0;
  // The question is over: no further answer comes. Called exactly once for each question that
  // ask() took; also, with peerGone, when the peer's delivery connection ends first.
  virtual void onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone) = 0;
  // A peer that is not known yet has greeted; it has no id yet. Empty: it may come; else it is told
  // this text, and its connection ends. The handler does the logging.
  virtual std::string onGreeting(const Peer& peer) {
    static_cast<void>(peer);
    return {};
  }
  // The peer's first connection has greeted. Nothing of it was handled before.
  virtual void onPeerCame(const Peer& peer) { static_cast<void>(peer); }
  // The peer's last connection is gone. Its questions were ended before.
  virtual void onPeerGone(const Peer& peer) = 0;
  // The peer can be sent notices and questions from now on; it repeats its registrations next.
  virtual void onDeliveryReady(const Peer& peer) { static_cast<void>(peer); }
  // One line about a fault that was dealt with; no line break.
  virtual void onFault(Fault kind, const std::string& line) = 0;
};

struct ServerOptions {
  std::string runtimeDir;
  // Name of the endpoint; its socket stands at the path of runtime_dir.h.
  std::string name;
  // A listening socket that somebody else made (socket activation); -1: make one.
  int listenFd = -1;
  // Revisions of this epoch compare; see Welcome.
  std::uint64_t epoch = 0;
  // Limits. What goes past one is refused, or waits where this says so, and is logged.
  unsigned maxConnections = 1024;
  // Of these, only root and the service's own user get the last ones.
  unsigned reservedConnections = 64;
  // Of one user; root and the service's own user may have all.
  unsigned maxConnectionsPerUser = 768;
  unsigned maxConnectionsPerProcess = 256;
  unsigned maxConnectionsPerPeer = 64;
  // Who has connected has this long to say who it is.
  std::chrono::milliseconds greetingDeadline = std::chrono::seconds(10);
  // Who has begun a frame has this long to end it.
  std::chrono::milliseconds frameDeadline = std::chrono::seconds(30);
  // Frames of one user that are taken, and the time after which no further one is, before it is the
  // others' turn.
  unsigned framesPerTurn = 32;
  std::chrono::microseconds turnTime{200};
  // Requests of one peer that were taken and not answered yet, and their bytes: the next ones wait.
  // Those from inside a receiver do not, for its peer's questions may wait for them.
  unsigned maxOpenRequests = 1024;
  std::size_t maxOpenRequestBytes = std::size_t{16} * 1024 * 1024;
  // Questions to one peer that it has not done with, and what its user and its process have of them
  // with all their peers: it is asked nothing more.
  unsigned maxOpenQuestions = 1024;
  ShareLimits openQuestions{16384, 8192, 2048, 1024};
  // While more bytes than these wait for a connection's reader, its requests wait.
  std::size_t roomBytes = std::size_t{256} * 1024;
  // Bytes that may wait for one connection's reader before it is closed.
  std::size_t maxAnswerBytes = std::size_t{32} * 1024 * 1024;
  // Notices that may wait for one peer; only the newest for each coalescing key counts.
  std::size_t maxNotices = 65536;
  // Bytes that connections may make the server keep, as they stand in memory: unfinished frames, and
  // what waits for readers. Past a share, the connection that has most of it is closed: see
  // internal/buffers.h.
  ShareLimits bufferedBytes{std::size_t{64} << 20, std::size_t{10} << 20, std::size_t{6} << 20,
                            std::size_t{32} << 20};
};

class Server {
 public:
  Server(ServerOptions options, ServerHandler& handler);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Takes the socket. Empty on success; else what is wrong and what to do: another server has the
  // name, the directory cannot be made, the name is refused. A socket file that a dead server left
  // is replaced.
  [[nodiscard]] std::string open();
  // Serves until stop(). Removes the socket file when it leaves.
  void run();
  // Ends run() soon. Safe in a signal handler.
  void stop() noexcept;

  // Answers a request. The revision goes into the frame's header.
  void respond(const RequestId& request, const google::protobuf::MessageLite& response,
               std::uint64_t revision);
  // Answers that the request cannot be taken at all; the call then fails at the client.
  void refuse(const RequestId& request, std::uint32_t error, const std::string& text);

  // Whether the connection of a request has room for more: see "Room" above.
  bool hasRoom(const RequestId& request);
  // Runs a task once the connection of a request has room, before any further request of it is
  // taken; never, when the connection ends first. For what would otherwise queue without end: stop
  // when hasRoom() is false, and go on from here.
  void whenRoom(const RequestId& request, std::function<void()> task);

  // Queues a notice for a peer. Of several waiting notices with one non-empty coalescing key only
  // the newest is kept, at the place of the newest. A peer without a delivery connection gets
  // nothing: it is brought up to date when it repeats its registrations. When the queue is full the
  // delivery connection is closed, which makes the peer reconnect and do the same.
  void notify(PeerId peer, const google::protobuf::MessageLite& notice, std::uint64_t revision,
              const std::string& coalescingKey);

  // Asks a peer. The question's number, or 0 when the peer has no delivery connection, or it, its
  // process or its user has as many open questions as the limits allow.
  std::uint32_t ask(PeerId peer, const google::protobuf::MessageLite& question,
                    std::uint64_t revision);

  // Runs a task with nobody else in the loop: at once, on the calling thread, when the loop is
  // waiting; else on the thread that is in the loop, as soon as what it does now is done. From any
  // thread.
  void post(std::function<void()> task);

  // Runs work that blocks outside of the loop, on the thread that runs the loop now, once the events
  // at hand are handled; then runs `done` in the loop. If events come before the work is over, a
  // second thread goes on with the loop: no thread is woken for work during which nothing comes.
  void aside(std::function<void()> work, std::function<void()> done);

  // Runs a task in the loop after the others had their turn, as part of a user's share of the loop:
  // one such task is one turn of it. Long work is done in slices of some hundred microseconds, each
  // of which asks for the next one. Not run any more once the server is stopped. Called in the loop.
  void later(uid_t user, std::function<void()> task);

  // Runs a task in the loop at a time. The number cancels it.
  std::uint64_t after(std::chrono::milliseconds delay, std::function<void()> task);
  void cancel(std::uint64_t timer);

  // Null when the peer is gone.
  const Peer* peer(PeerId id) const;
  std::size_t peerCount() const;
  // In the order in which they came.
  std::vector<ConnectedPeer> peers() const;
  // Bytes that wait for the peer's delivery connection, and notices that were coalesced away.
  std::size_t waitingNotices(PeerId id) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace PbUtility
