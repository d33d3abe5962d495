// Server: the serving side of the message layer.
//
// The loop accepts connections, reads frames, calls the ServerHandler and writes answers: a request
// is answered from the thread that read it. The loop is run by the thread in run(); while that one
// is busy with work that blocks, see aside(), a second thread runs it. Only one thread at a time is
// inside the loop, the handler and the functions below, so handlers need no locks.
//
// Peers:    all connections of one endpoint of one process make one peer: they share a token and the
//           kernel's word (uid, pid) for who is there. Only a peer's own connections answer for it.
// Turns:    users take turns, and so do the connections of each: a turn is a few frames, or what fits
//           into a fraction of a millisecond. Who says much, on however many connections, delays the
//           others by a turn and no more. Long work of a handler's own goes in slices: see later().
// Shares:   connections, bytes and open questions are shared out among users and processes (shares.h).
// Room:     what a peer does not read is not piled up for it: as long as its answers wait, its next
//           requests wait too, in its own socket. So do those of a peer that has too many requests
//           under way; it is slowed down, and nothing of what it sent is lost. Answers to questions
//           never wait.
// Errors:   a peer that sends what is no frame, half a frame, or more than it may, loses that
//           connection; one line says why. Nothing a peer does stops the server.
// Limits:   ServerOptions; docs/limits.md has them all.
// Threads:  post() and stop() from any thread, stop() also from a signal handler; all else from
//           handlers and posted tasks, or before run().
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/status.h"
#include "platform/messaging/serving/internal/connection.h"
#include "platform/messaging/serving/internal/connection_table.h"
#include "platform/messaging/serving/internal/event_loop.h"
#include "platform/messaging/serving/internal/peer_table.h"
#include "platform/messaging/serving/internal/slice.h"
#include "platform/messaging/serving/internal/turns.h"
#include "platform/messaging/serving/internal/writer.h"
#include "platform/messaging/serving/peer.h"
#include "platform/messaging/serving/server_handler.h"
#include "platform/messaging/serving/server_options.h"

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace PbUtility {

class Server final : private LoopClient {
 public:
  Server(ServerOptions options, ServerHandler& handler);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Takes the socket, or says what is wrong and what to do: another server has the name, the
  // directory cannot be made, the name is refused. A socket file that a dead server left is replaced.
  Base::Status<> open();
  // Serves until stop(). Removes the socket file when it leaves.
  void run() { loop_.run(); }
  // Ends run() soon. Safe in a signal handler.
  void stop() noexcept { loop_.stop(); }

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
  void post(std::function<void()> task) { loop_.post(std::move(task)); }

  // Runs work that blocks outside of the loop, on the thread that runs the loop now, once the events
  // at hand are handled; then runs `done` in the loop. If events come before the work is over, a
  // second thread goes on with the loop: no thread is woken for work during which nothing comes.
  void aside(std::function<void()> work, std::function<void()> done) {
    loop_.aside(std::move(work), std::move(done));
  }

  // Runs a task in the loop after the others had their turn, as part of a user's share of the loop:
  // one such task is one turn of it. Long work is done in slices of some hundred microseconds, each
  // of which asks for the next one. Not run any more once the server is stopped. Called in the loop.
  void later(uid_t user, std::function<void()> task) { turns_.add(user, {0, std::move(task)}); }

  // Runs a task in the loop at a time. The number cancels it.
  std::uint64_t after(std::chrono::milliseconds delay, std::function<void()> task) {
    return loop_.after(delay, std::move(task));
  }
  void cancel(std::uint64_t timer) { loop_.cancel(timer); }

  // Null when the peer is gone.
  const Peer* peer(PeerId id) const;
  std::size_t peerCount() const { return peers_.size(); }
  // In the order in which they came.
  std::vector<ConnectedPeer> peers() const { return peers_.connected(); }
  // Notices and questions that wait for the peer's delivery connection.
  std::size_t waitingNotices(PeerId id) const;

 private:
  // The loop's rounds, and the turns of users in them.
  void beginRound(bool isSingle) override;
  void onReady(std::uint64_t key, std::uint32_t events) override;
  void endRound() override;
  bool settle() override;
  bool hasWaiting() const override;
  void takeTurn();
  void queueTurn(Connection& connection);
  void serve(Connection& connection, Slice& slice);
  void listenTo(Connection& connection, std::uint32_t ready, Slice& slice);
  void readAll(Connection& connection, Slice& slice);
  bool readOnce(Connection& connection, Slice& slice);

  // What has come: frame by frame, as far as each is due.
  void goOn(Connection& connection, Slice& slice);
  void takeFrames(Connection& connection, Slice& slice);
  void watchFrame(Connection& connection);
  void take(Connection& connection, const Connection::Frame& frame);
  void dropFrame(Connection& connection, const Connection::Frame& frame);
  void greet(Connection& connection, std::string_view payload);
  Refusal whyNotGreet(const PeerState* known, const Peer& claimed);
  void join(Connection& connection, PeerState& peer, ConnectionUse use);
  void becomeDelivery(Connection& connection);
  void request(Connection& connection, const FrameHeader& header, std::string_view payload);
  void answer(Connection& connection, const FrameHeader& header, std::string_view payload);

  // Room, and who waits for it.
  bool mustWait(const Connection& connection, const FrameHeader& header) const;
  void letGoOn(Connection& connection);
  void letGoOn(const PeerState& peer);
  void endRequest(const RequestId& request, const Connection* connection);

  Connection* deliveryOf(PeerId id) const;

  // The end of connections and peers.
  void reap() {
    if (connections_.hasDead()) buryDead();
  }
  void buryDead();
  void bury(Connection& connection);
  void endQuestions(PeerState& peer);

  const ServerOptions options_;
  ServerHandler& handler_;
  EventLoop loop_;
  ConnectionTable connections_;
  PeerTable peers_;
  Turns turns_;
  Writer writer_;
  // One event came, and nobody was waiting: it is served at once.
  bool isAlone_ = false;
  std::vector<char> readBuffer_;
  std::string scratch_;
};

}  // namespace PbUtility
