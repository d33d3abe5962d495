// One epoll loop. A connection that is to be closed is only marked while events are handled, and
// reaped afterwards: handlers may answer, notify and ask at any point without a connection or a
// peer vanishing under the code that called them. Plain epoll, because the loop is the latency of
// every request: docs/decisions/event-loop.md has the figures.
//
// Two threads can lead the loop, one at a time. The leader waits at epoll_; the other one waits at
// offers_, an epoll of its own. When the leader steps aside to do work that blocks, it puts epoll_
// into offers_: the first event that comes meanwhile wakes the other thread, which takes the lead
// and keeps it. If none comes, the leader takes epoll_ out again and goes on, and nobody was woken.
//
// One event that comes alone is served at once. Of several, each connection stands in line behind the
// others of its user, and each user has a turn (Turns, Slice); then epoll is asked again, for all that
// is ready, so that who comes new waits for one turn of each user. Work of the server's own that grows
// with the number of clients (taking in, telling a crowd, burying the dead, timers) is bounded for
// each such round in the same way.
#include "platform/messaging/server.h"

#include <google/protobuf/message_lite.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/messaging/frame.h"
#include "platform/messaging/internal/buffers.h"
#include "platform/messaging/internal/connection.h"
#include "platform/messaging/internal/frame_bytes.h"
#include "platform/messaging/internal/listener.h"
#include "platform/messaging/internal/slice.h"
#include "platform/messaging/internal/timers.h"
#include "platform/messaging/internal/turn.h"
#include "platform/messaging/internal/turns.h"
#include "platform/schema/message_bounds.h"
#include "platform/schema/message_ids.h"

namespace PbUtility {
namespace {

using google::protobuf::MessageLite;

constexpr std::uint64_t kListenerKey = 1;
constexpr std::uint64_t kWakeUpKey = 2;
constexpr std::uint64_t kTimerKey = 3;
constexpr std::uint64_t kStopKey = 4;
constexpr std::uint64_t kLeadKey = 5;
constexpr std::uint64_t kFirstConnectionKey = 6;
constexpr std::size_t kReadBufferBytes = std::size_t{64} * 1024;
// Read at once, unless a longer frame is known to come: about what one turn takes. What is read and not
// taken has to be kept.
constexpr std::size_t kReadBytes = std::size_t{4} * 1024;
// All that may be ready at once: who comes last would wait for several rounds otherwise.
constexpr int kEventsAtOnce = 1088;
constexpr int kToldBeforeAnswers = 8;
// In one round:
constexpr int kAcceptsAtOnce = 16;
constexpr std::size_t kFlushedAtOnce = 128;
constexpr int kReapedAtOnce = 64;
constexpr std::size_t kTimersAtOnce = 64;
// A greeting is no longer than its name makes it.
constexpr std::size_t kMaxHelloBytes = 256;
// A buffer that one large frame made grow is given back above this size.
constexpr std::size_t kKeptBufferBytes = std::size_t{1} * 1024;
// Notices that wait for the end of the event, and count for nobody until then.
constexpr std::size_t kUncountedBytes = std::size_t{4} * 1024;

std::string nameOf(const Connection& connection) {
  const std::string who =
      "pid " + std::to_string(connection.who.pid) + ", uid " + std::to_string(connection.who.uid);
  if (connection.peer == nullptr) return "a client that has not greeted (" + who + ")";
  return "client \"" + connection.peer->peer.name + "\" (" + who + ")";
}

// Nobody's, all 0, when the kernel does not tell.
ucred peerOf(int fd) {
  ucred who{};
  socklen_t size = sizeof who;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0) return {};
  return who;
}

// How many of the bytes belong to a payload that is thrown away.
std::size_t dropped(Connection& connection, std::size_t bytes) {
  const std::size_t now = std::min(connection.toDrop, bytes);
  connection.toDrop -= now;
  return now;
}

void signalEvent(int fd) noexcept {
  const std::uint64_t one = 1;
  // A full counter is readable too, so the result does not matter.
  static_cast<void>(!::write(fd, &one, sizeof one));
}

void drainEvent(int fd) {
  std::uint64_t count = 0;
  static_cast<void>(!::read(fd, &count, sizeof count));
}

ShareLimits connectionLimits(const ServerOptions& options) {
  const unsigned reserved = std::min(options.reservedConnections, options.maxConnections);
  return {options.maxConnections, options.maxConnections - reserved, options.maxConnectionsPerUser,
          options.maxConnectionsPerProcess};
}

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

class Server::Impl {
 public:
  Impl(ServerOptions options, ServerHandler& handler)
      : options_(std::move(options)),
        handler_(handler),
        turn_([this] { settle(); }),
        readBuffer_(kReadBufferBytes),
        connectionShares_("connections", connectionLimits(options_), ::geteuid()),
        questionShares_("open questions", options_.openQuestions, ::geteuid()),
        buffers_(options_.bufferedBytes, ::geteuid()) {}

  std::string open();
  void run();
  void stop() noexcept;

  void respond(const RequestId& request, const MessageLite& response, std::uint64_t revision);
  void refuse(const RequestId& request, std::uint32_t error, const std::string& text);
  void notify(PeerId peer, const MessageLite& notice, std::uint64_t revision,
              const std::string& key);
  std::uint32_t ask(PeerId peer, const MessageLite& question, std::uint64_t revision);
  bool hasRoom(const RequestId& request);
  void whenRoom(const RequestId& request, std::function<void()> task);
  void post(std::function<void()> task) { turn_.post(std::move(task)); }
  void aside(std::function<void()> work, std::function<void()> done);
  std::uint64_t after(std::chrono::milliseconds delay, std::function<void()> task);
  void cancel(std::uint64_t timer) { timers_.cancel(timer); }
  void later(uid_t user, std::function<void()> task) { turns_.add(user, {0, std::move(task)}); }

  PeerState* findPeer(PeerId id) const {
    const auto found = peersById_.find(id);
    return found == peersById_.end() ? nullptr : found->second;
  }
  std::size_t peerCount() const { return peersById_.size(); }
  std::vector<ConnectedPeer> peers() const;

 private:
  // The two threads that can lead the loop.
  enum class Seat { Caller, StandIn };

  struct Aside {
    std::function<void()> work;
    std::function<void()> done;
  };

  void serve(Seat seat);
  void lead(Seat seat);
  bool handleEvents(Seat seat, const epoll_event* events, int count);
  void standBy(Seat seat);
  void stepAside(Seat seat);
  void offerLead();
  void withdrawOffer();
  void startStandIn();
  void settle();
  void armTimer();
  void runDueTimers();

  bool watch(int fd, std::uint64_t key, std::uint32_t events, int operation = EPOLL_CTL_ADD) {
    return watchIn(epoll_, fd, key, events, operation);
  }
  static bool watchIn(const UniqueFd& epoll, int fd, std::uint64_t key, std::uint32_t events,
                      int operation = EPOLL_CTL_ADD);
  void handleEvent(const epoll_event& event, bool isAlone);
  void takeRound();
  void takeTurn();
  void serve(Connection& connection, Slice& slice);
  void listenTo(Connection& connection, std::uint32_t ready, Slice& slice);
  void acceptAll();
  void begin(UniqueFd fd);
  void refuseConnection(int fd, const ucred& who, const std::string& text);
  // Whether there may be more to read.
  bool readFrom(Connection& connection, Slice& slice);
  void takeBytes(Connection& connection, std::string_view bytes, Slice& slice);
  // Takes the whole frames of the bytes, as many as are due now; returns how many bytes that was.
  std::size_t takeFrames(Connection& connection, std::string_view bytes, Slice& slice);
  void refuseFrame(Connection& connection, const FrameHeader& header, const std::string& problem);
  void goOn(Connection& connection, Slice& slice);
  void queueTurn(Connection& connection);
  bool isFull(const Connection& connection) const;
  bool mustWait(const Connection& connection, const FrameHeader& header) const;
  void letGoOn(Connection& connection);
  void letGoOn(PeerState& peer);
  void endRequest(const RequestId& request);
  void watchFrame(Connection& connection, bool isNewFrame);
  void watchFor(Connection& connection);
  void stopWatching(Connection& connection);
  void countBuffered(Connection& connection);
  void keepWithinBuffers();
  void closePast(Connection& connection, const std::string& limit);
  void take(Connection& connection, const FrameHeader& header, std::string_view payload);
  void greet(Connection& connection, std::string_view payload);
  PeerState* peerFor(const Connection& connection, const Hello& hello, Refusal& refusal);
  PeerState* newPeer(const Connection& connection, const Hello& hello, Refusal& refusal);
  void becomeDelivery(Connection& connection);
  void request(Connection& connection, const FrameHeader& header, std::string_view payload);
  void answer(Connection& connection, const FrameHeader& header, std::string_view payload);
  void flush(Connection& connection);
  void flushLater(Connection& connection);
  // Most events leave one connection to flush, and most calls find none.
  void flushAll() {
    if (!toFlush_.empty()) flushWaiting();
    if (buffers_.isPast()) keepWithinBuffers();
  }
  void flushWaiting();
  void flushOne(Connection& connection);
  void flushCrowd();
  void writeAhead(Connection& connection);
  void sortToFlush();
  void checkBacklog(Connection& connection);
  void sendRefusal(Connection& connection, const RequestId& request, std::uint32_t error,
                   const std::string& text);
  void close(Connection& connection) { markDead(connection); }
  void close(Connection& connection, Fault kind, const std::string& why);
  void markDead(Connection& connection);
  void reap() {
    if (!dead_.empty()) buryDead();
  }
  void buryDead();
  void end(Connection& connection);
  void endQuestions(PeerState& peer);
  std::string whyNotAsked(const PeerState& peer) const;
  void leave(PeerState& peer);
  // Null when it is gone, or about to be. Who asked is looked for again when it is answered, mostly next.
  Connection* find(std::uint64_t key) {
    if (latest_ == nullptr || latest_->key != key) {
      const auto found = connections_.find(key);
      if (found == connections_.end()) return nullptr;
      latest_ = found->second.get();
    }
    return latest_->dead ? nullptr : latest_;
  }

  const ServerOptions options_;
  ServerHandler& handler_;
  Listener listener_;
  UniqueFd epoll_;
  UniqueFd offers_;
  // Makes the leader look for work that was put aside by a thread that does not lead.
  UniqueFd wakeUp_;
  // Readable once and for all when the loop is to end.
  UniqueFd stop_;
  UniqueFd timer_;
  std::atomic<bool> stopping_{false};
  std::thread standIn_;

  // Held by whoever is in the loop. Guards all that follows.
  Turn turn_;
  // Changed with the turn; each thread compares it with its own seat without.
  std::atomic<Seat> leader_{Seat::Caller};
  bool leadIsOffered_ = false;
  std::thread::id leadingThread_;
  std::deque<Aside> aside_;
  bool hasWaiting() const { return !turns_.isEmpty() || !crowd_.empty() || !dead_.empty(); }

  // Whether there is work aside, or some that waits for its turn; the leader looks before it waits.
  std::atomic<bool> hasMore_{false};
  Timers timers_;
  Timers::Clock::time_point timerArmedFor_ = Timers::kNever;
  std::vector<char> readBuffer_;
  std::string scratch_;
  Shares connectionShares_;
  Shares questionShares_;
  Buffers buffers_;
  Turns turns_;

  std::uint64_t nextKey_ = kFirstConnectionKey;
  std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> connections_;
  // Found last; null when it is gone.
  Connection* latest_ = nullptr;
  std::deque<std::uint64_t> dead_;
  // Connections that something was written to since the last event.
  std::vector<Connection*> toFlush_;
  std::vector<Connection*> flushing_;
  // Of many who are told at once, those whom it is not due yet.
  std::deque<std::uint64_t> crowd_;
  PeerId lastPeer_ = 0;
  std::map<EndpointToken, std::unique_ptr<PeerState>> peers_;
  std::unordered_map<PeerId, PeerState*> peersById_;
};

std::string Server::Impl::open() {
  std::string problem = options_.listenFd >= 0 ? listener_.adopt(options_.listenFd)
                                               : listener_.open(options_.runtimeDir, options_.name);
  if (!problem.empty()) return problem;
  epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
  offers_.reset(::epoll_create1(EPOLL_CLOEXEC));
  wakeUp_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  stop_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  timer_.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  if (!epoll_ || !offers_ || !wakeUp_ || !stop_ || !timer_ ||
      !watch(listener_.fd(), kListenerKey, EPOLLIN) || !watch(wakeUp_.get(), kWakeUpKey, EPOLLIN) ||
      !watch(timer_.get(), kTimerKey, EPOLLIN) || !watch(stop_.get(), kStopKey, EPOLLIN) ||
      !watchIn(offers_, stop_.get(), kStopKey, EPOLLIN)) {
    return std::string("cannot make the event loop: ") + std::strerror(errno);
  }
  return {};
}

bool Server::Impl::watchIn(const UniqueFd& epoll, int fd, std::uint64_t key, std::uint32_t events,
                           int operation) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  return ::epoll_ctl(epoll.get(), operation, fd, &event) == 0;
}

void Server::Impl::stop() noexcept {
  stopping_ = true;
  signalEvent(stop_.get());
}

// --- Who leads ---

void Server::Impl::run() {
  serve(Seat::Caller);
  if (standIn_.joinable()) standIn_.join();
}

void Server::Impl::serve(Seat seat) {
  while (!stopping_) leader_ == seat ? lead(seat) : standBy(seat);
}

void Server::Impl::lead(Seat seat) {
  epoll_event events[kEventsAtOnce];
  const int ready = ::epoll_wait(epoll_.get(), events, kEventsAtOnce, hasMore_ ? 0 : -1);
  turn_.lock();
  if (handleEvents(seat, events, ready)) return stepAside(seat);
  turn_.unlock();
}

// Whether there is work to be done aside. The lead may have been taken while this thread waited.
bool Server::Impl::handleEvents(Seat seat, const epoll_event* events, int count) {
  if (leader_ != seat) return false;
  if (leadIsOffered_) withdrawOffer();
  leadingThread_ = std::this_thread::get_id();
  const bool isAlone = count == 1 && turns_.isEmpty();
  for (int i = 0; i < count; ++i) handleEvent(events[i], isAlone);
  if (!isAlone) takeRound();
  if (!crowd_.empty()) flushCrowd();
  reap();
  return !aside_.empty();
}

void Server::Impl::standBy(Seat seat) {
  epoll_event event;
  ::epoll_wait(offers_.get(), &event, 1, -1);
  const std::lock_guard<Turn> turn(turn_);
  if (!leadIsOffered_) return;
  withdrawOffer();
  leader_ = seat;
  leadingThread_ = std::this_thread::get_id();
}

void Server::Impl::aside(std::function<void()> work, std::function<void()> done) {
  aside_.push_back({std::move(work), std::move(done)});
}

// Comes with the turn and leaves without. Whoever has the lead again afterwards looks for events
// before it steps aside once more, so that what they bring goes along. Waiting for the turn here
// could take long, since the other thread takes it over and over: that thread is left the rest.
void Server::Impl::stepAside(Seat seat) {
  for (;;) {
    const Aside job = std::move(aside_.front());
    aside_.pop_front();
    if (leader_ == seat) offerLead();
    // Of these no event tells the other thread.
    if (hasWaiting()) signalEvent(wakeUp_.get());
    turn_.unlock();
    job.work();
    if (!turn_.tryLock()) return turn_.post(job.done);
    // Before anybody is answered, whose next request would wake the other thread.
    if (leader_ == seat && leadIsOffered_) withdrawOffer();
    job.done();
    flushAll();
    if (leader_ == seat || aside_.empty()) return turn_.unlock();
  }
}

void Server::Impl::offerLead() {
  if (!standIn_.joinable()) startStandIn();
  leadIsOffered_ = watchIn(offers_, epoll_.get(), kLeadKey, EPOLLIN);
}

void Server::Impl::withdrawOffer() {
  leadIsOffered_ = false;
  ::epoll_ctl(offers_.get(), EPOLL_CTL_DEL, epoll_.get(), nullptr);
}

// Signals are for the thread that made this one, and for those it chose.
void Server::Impl::startStandIn() {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  standIn_ = std::thread([this] { serve(Seat::StandIn); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Before the turn is given back: what posted tasks have left to be done.
void Server::Impl::settle() {
  flushAll();
  reap();
  flushAll();
  hasMore_ = !aside_.empty() || hasWaiting();
  if (hasMore_ && leadingThread_ != std::this_thread::get_id()) signalEvent(wakeUp_.get());
}

// --- Timers ---

std::uint64_t Server::Impl::after(std::chrono::milliseconds delay, std::function<void()> task) {
  const std::uint64_t number = timers_.add(Timers::Clock::now() + delay, std::move(task));
  if (timers_.next() < timerArmedFor_) armTimer();
  return number;
}

// A timer that was cancelled leaves the clock as it is: it rings once for nothing.
void Server::Impl::armTimer() {
  timerArmedFor_ = timers_.next();
  if (timerArmedFor_ == Timers::kNever) return;
  const auto left =
      std::chrono::ceil<std::chrono::microseconds>(timerArmedFor_ - Timers::Clock::now());
  // None at all would disarm it.
  const auto wait = std::max(left, std::chrono::microseconds(1));
  itimerspec when{};
  when.it_value.tv_sec = static_cast<time_t>(wait.count() / 1'000'000);
  when.it_value.tv_nsec = static_cast<long>(wait.count() % 1'000'000) * 1000;
  ::timerfd_settime(timer_.get(), 0, &when, nullptr);
}

void Server::Impl::runDueTimers() {
  drainEvent(timer_.get());
  timers_.runDue(kTimersAtOnce);
  armTimer();
}

// --- Events ---

void Server::Impl::handleEvent(const epoll_event& event, bool isAlone) {
  switch (event.data.u64) {
    case kListenerKey:
      return acceptAll();
    case kWakeUpKey:
      return drainEvent(wakeUp_.get());
    case kTimerKey:
      return runDueTimers();
    case kStopKey:
      return;
    default:
      break;
  }
  Connection* connection = find(event.data.u64);
  if (connection == nullptr) return;
  connection->ready |= event.events;
  if (!isAlone) return queueTurn(*connection);
  Slice slice(options_.framesPerTurn, options_.turnTime);
  serve(*connection, slice);
}

// Users that become ready while the others have their turn wait for the next round.
void Server::Impl::takeRound() {
  for (std::size_t left = turns_.users(); left > 0; --left) takeTurn();
}

void Server::Impl::takeTurn() {
  Slice slice(options_.framesPerTurn, options_.turnTime);
  slice.begin();
  turns_.begin();
  Turns::Item item;
  while (!slice.isOver() && turns_.next(item)) {
    if (item.task) {
      item.task();
      flushAll();
      break;
    }
    Connection* connection = find(item.connection);
    if (connection == nullptr) continue;
    const unsigned before = slice.taken();
    serve(*connection, slice);
    if (slice.taken() == before) slice.take();
  }
  turns_.end();
}

void Server::Impl::serve(Connection& connection, Slice& slice) {
  connection.waitsForTurn = false;
  const std::uint32_t ready = std::exchange(connection.ready, 0);
  if ((ready & EPOLLOUT) != 0) flush(connection);
  if (!connection.dead) listenTo(connection, ready, slice);
  flushAll();
}

void Server::Impl::listenTo(Connection& connection, std::uint32_t ready, Slice& slice) {
  switch (connection.intake) {
    case Intake::Queued:
      return goOn(connection, slice);
    case Intake::Open:
      if ((ready & ~EPOLLOUT) == 0) return;
      while (readFrom(connection, slice)) {
        slice.begin();
        slice.take();
        if (slice.isOver()) return;
      }
      return;
    case Intake::Held:
      // Its other end is closed, which epoll goes on telling; what it sent is still to be taken.
      if ((ready & (EPOLLHUP | EPOLLERR)) != 0) stopWatching(connection);
  }
}

void Server::Impl::acceptAll() {
  for (int i = 0; i < kAcceptsAtOnce; ++i) {
    bool exhausted = false;
    UniqueFd fd = listener_.accept(exhausted);
    if (!fd) return;
    if (exhausted) {
      refuseConnection(fd.get(), peerOf(fd.get()), "the service is out of file descriptors");
    } else {
      begin(std::move(fd));
    }
  }
}

// Told why at once, before it has said anything: it waits for an answer to its greeting.
void Server::Impl::refuseConnection(int fd, const ucred& who, const std::string& text) {
  FrameHeader header;
  header.kind = FrameKind::Refusal;
  std::string frame;
  appendFrame(header, encode(Refusal{kRefusedByLimit, text}), frame);
  static_cast<void>(!::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
  handler_.onFault(Fault::Refused, "refused a connection of pid " + std::to_string(who.pid) +
                                       ", uid " + std::to_string(who.uid) + ": " + text);
}

void Server::Impl::begin(UniqueFd fd) {
  auto connection = std::make_unique<Connection>();
  connection->who = peerOf(fd.get());
  const std::string refusal = connectionShares_.refusal(connection->owner());
  if (!refusal.empty()) return refuseConnection(fd.get(), connection->who, refusal);
  connection->key = nextKey_++;
  connection->buffered.owner = connection->owner();
  connection->buffered.connection = connection->key;
  connection->fd = std::move(fd);
  connection->events = EPOLLIN;
  if (!watch(connection->fd.get(), connection->key, EPOLLIN)) return;
  connectionShares_.add(connection->owner());
  const std::uint64_t key = connection->key;
  connection->greetingTimer = after(options_.greetingDeadline, [this, key] {
    Connection* silent = find(key);
    if (silent != nullptr) close(*silent, Fault::NoGreeting, "it did not greet in time");
  });
  connections_.emplace(key, std::move(connection));
}

bool Server::Impl::readFrom(Connection& connection, Slice& slice) {
  const std::size_t known =
      connection.frameBytes - std::min(connection.frameBytes, connection.incoming.size());
  const std::size_t wanted = std::min(std::max(known, kReadBytes), readBuffer_.size());
  const ssize_t got = ::recv(connection.fd.get(), readBuffer_.data(), wanted, MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return false;
  if (got <= 0) {
    if (connection.incoming.empty())
      close(connection);
    else
      close(connection, Fault::HalfFrame, "it left in the middle of a frame");
    return false;
  }
  takeBytes(connection, {readBuffer_.data(), static_cast<std::size_t>(got)}, slice);
  const bool filled = static_cast<std::size_t>(got) == wanted;
  return filled && !connection.dead && connection.intake == Intake::Open;
}

void Server::Impl::takeBytes(Connection& connection, std::string_view bytes, Slice& slice) {
  if (connection.incoming.empty()) {
    const std::size_t taken = takeFrames(connection, bytes, slice);
    if (taken == bytes.size()) return;
    connection.incoming.append(bytes.substr(taken));
    return watchFrame(connection, true);
  }
  growFor(connection.incoming, bytes.size(), connection.frameBytes);
  connection.incoming.append(bytes);
  const std::size_t taken = takeFrames(connection, connection.incoming, slice);
  connection.incoming.erase(0, taken);
  watchFrame(connection, taken > 0);
}

// --- Turns and room ---

void Server::Impl::queueTurn(Connection& connection) {
  if (std::exchange(connection.waitsForTurn, true)) return;
  turns_.add(connection.who.uid, {connection.key, nullptr});
}

// With frames that have come already.
void Server::Impl::goOn(Connection& connection, Slice& slice) {
  connection.intake = Intake::Open;
  connection.incoming.erase(0, takeFrames(connection, connection.incoming, slice));
  watchFrame(connection, true);
}

bool Server::Impl::isFull(const Connection& connection) const {
  return connection.outbox.waitingBytes() > options_.roomBytes;
}

bool Server::Impl::mustWait(const Connection& connection, const FrameHeader& header) const {
  if (header.kind != FrameKind::Request && header.kind != FrameKind::OneWay) return false;
  if (connection.peer == nullptr) return false;
  if (isFull(connection) || !connection.whenRoom.empty()) return true;
  if ((header.flags & kFlagInsideReceiver) != 0) return false;
  return connection.peer->openRequests >= options_.maxOpenRequests ||
         connection.peer->openRequestBytes >= options_.maxOpenRequestBytes;
}

// What waited for room goes on: first what was begun, then what the peer says next.
void Server::Impl::letGoOn(Connection& connection) {
  while (!connection.dead && !connection.whenRoom.empty() && !isFull(connection)) {
    const Postponed rest = std::move(connection.whenRoom.front());
    connection.whenRoom.pop_front();
    rest.run();
  }
  const bool waits = isFull(connection) || !connection.whenRoom.empty();
  if (connection.dead || connection.intake != Intake::Held || waits) return;
  connection.intake = Intake::Queued;
  queueTurn(connection);
}

void Server::Impl::letGoOn(PeerState& peer) {
  for (Connection* connection : peer.connections) {
    if (connection->intake == Intake::Held) letGoOn(*connection);
  }
}

void Server::Impl::endRequest(const RequestId& request) {
  PeerState* peer = findPeer(request.peer);
  if (peer == nullptr || peer->openRequests == 0) return;
  const bool othersWait = peer->openRequests >= options_.maxOpenRequests ||
                          peer->openRequestBytes >= options_.maxOpenRequestBytes;
  --peer->openRequests;
  peer->openRequestBytes -= std::min(request.bytes, peer->openRequestBytes);
  if (othersWait) letGoOn(*peer);
}

// After frames were taken: what is left is a frame that has not come whole, or waits.
void Server::Impl::watchFrame(Connection& connection, bool isNewFrame) {
  if (connection.dead) return;
  if (isNewFrame) timers_.cancel(std::exchange(connection.frameTimer, 0));
  if (connection.incoming.empty() && connection.incoming.capacity() > kKeptBufferBytes) {
    std::string().swap(connection.incoming);
  }
  const bool isHalf = !connection.incoming.empty() && connection.intake == Intake::Open;
  if (!isHalf) {
    timers_.cancel(std::exchange(connection.frameTimer, 0));
  } else if (connection.frameTimer == 0) {
    connection.frameTimer = after(options_.frameDeadline, [this, key = connection.key] {
      Connection* slow = find(key);
      if (slow != nullptr) close(*slow, Fault::HalfFrame, "it did not end a frame in time");
    });
  }
  watchFor(connection);
  countBuffered(connection);
  if (buffers_.isPast()) keepWithinBuffers();
}

void Server::Impl::watchFor(Connection& connection) {
  std::uint32_t events = connection.intake == Intake::Held ? 0U : EPOLLIN;
  if (connection.waitsForRoom) events |= EPOLLOUT;
  const bool added = !connection.watched && (events & EPOLLIN) != 0;
  if (!added && (events == connection.events || !connection.watched)) return;
  connection.events = events;
  connection.watched = true;
  watch(connection.fd.get(), connection.key, events, added ? EPOLL_CTL_ADD : EPOLL_CTL_MOD);
}

void Server::Impl::stopWatching(Connection& connection) {
  // Nobody will ever read what waits for it.
  if (connection.outbox.waitingBytes() > 0) return close(connection);
  connection.watched = false;
  watch(connection.fd.get(), connection.key, 0, EPOLL_CTL_DEL);
}

void Server::Impl::countBuffered(Connection& connection) {
  buffers_.set(
      connection.buffered,
      connection.dead ? 0 : connection.incoming.capacity() + connection.outbox.memoryBytes());
}

void Server::Impl::keepWithinBuffers() {
  while (const std::optional<Buffers::Excess> excess = buffers_.excess()) {
    closePast(*find(excess->connection), excess->limit);
  }
}

void Server::Impl::closePast(Connection& connection, const std::string& limit) {
  close(connection, Fault::NotReading,
        "it does not read what is for it, or does not end its frames: " + limit);
}

// What has not been flushed yet does not say that the peer does not read.
bool Server::Impl::hasRoom(const RequestId& request) {
  Connection* connection = find(request.connection);
  if (connection == nullptr) return false;
  if (isFull(*connection) && !connection->waitsForRoom) flush(*connection);
  return !connection->dead && !isFull(*connection);
}

void Server::Impl::whenRoom(const RequestId& request, std::function<void()> task) {
  Connection* connection = find(request.connection);
  if (connection == nullptr) return endRequest(request);
  connection->whenRoom.push_back({request, std::move(task)});
}

// --- Frames ---

// A payload that is too long is not waited for: its sender is told at once, and what comes of it is
// thrown away. An answer to a question cannot be refused; it counts as one that is no message.
void Server::Impl::refuseFrame(Connection& connection, const FrameHeader& header,
                               const std::string& problem) {
  connection.toDrop = header.payloadBytes;
  handler_.onFault(Fault::Refused, "dropped a frame of " + nameOf(connection) + ": " + problem);
  FrameHeader bare = header;
  bare.messageId = PlatformSchema::kNoMessageId;
  if (header.kind != FrameKind::Request && header.kind != FrameKind::OneWay)
    return take(connection, bare, {});
  if (header.kind == FrameKind::Request)
    sendRefusal(connection, {connection.key, header.sequence}, kRefusedByLimit, problem);
}

std::size_t Server::Impl::takeFrames(Connection& connection, std::string_view bytes, Slice& slice) {
  std::size_t taken = dropped(connection, bytes.size());
  connection.frameBytes = 0;
  while (!connection.dead && bytes.size() - taken >= kFrameHeaderBytes) {
    FrameHeader header;
    const char* frame = bytes.data() + taken;
    const std::string problem = decodeHeader(reinterpret_cast<const unsigned char*>(frame), header);
    const bool tooLong = connection.peer == nullptr && header.payloadBytes > kMaxHelloBytes;
    if (!problem.empty() || tooLong) {
      close(connection, Fault::BadFrame, tooLong ? "its greeting is too long" : problem);
      break;
    }
    const std::string excess =
        PlatformSchema::payloadProblem(header.messageId, header.payloadBytes);
    // Of a frame that is refused, the header is all that is waited for.
    const std::size_t frameBytes =
        kFrameHeaderBytes + (excess.empty() ? header.payloadBytes : std::size_t{0});
    if (bytes.size() - taken < frameBytes) {
      connection.frameBytes = frameBytes;
      break;
    }
    if (mustWait(connection, header)) {
      connection.intake = Intake::Held;
      break;
    }
    if (slice.isOver()) {
      connection.intake = Intake::Queued;
      queueTurn(connection);
      break;
    }
    if (bytes.size() - taken > frameBytes) slice.begin();
    slice.take();
    taken += frameBytes;
    if (excess.empty()) {
      take(connection, header, {frame + kFrameHeaderBytes, header.payloadBytes});
    } else {
      refuseFrame(connection, header, excess);
      taken += dropped(connection, bytes.size() - taken);
    }
  }
  return connection.dead ? bytes.size() : taken;
}

void Server::Impl::take(Connection& connection, const FrameHeader& header,
                        std::string_view payload) {
  if (connection.peer == nullptr) {
    if (header.kind == FrameKind::Hello) return greet(connection, payload);
    return close(connection, Fault::NoGreeting, "it did not greet first");
  }
  switch (header.kind) {
    case FrameKind::Request:
    case FrameKind::OneWay:
      return request(connection, header, payload);
    case FrameKind::Answer:
    case FrameKind::Done:
      return answer(connection, header, payload);
    default:
      return close(connection, Fault::BadFrame,
                   "it sent a frame of kind " + std::to_string(static_cast<int>(header.kind)) +
                       ", which clients do not send");
  }
}

void Server::Impl::greet(Connection& connection, std::string_view payload) {
  Hello hello;
  const std::string problem = decode(payload, hello);
  if (!problem.empty()) return close(connection, Fault::BadFrame, problem);
  Refusal refusal;
  const bool isNew = peers_.count(hello.token) == 0;
  PeerState* peer =
      isNew ? newPeer(connection, hello, refusal) : peerFor(connection, hello, refusal);
  if (peer == nullptr) {
    sendRefusal(connection, {}, refusal.error, refusal.text);
    return isNew ? close(connection) : close(connection, Fault::Refused, refusal.text);
  }
  timers_.cancel(connection.greetingTimer);
  connection.use = hello.use;
  connection.peer = peer;
  peer->connections.insert(&connection);
  FrameHeader header;
  header.kind = FrameKind::Welcome;
  connection.outbox.add(header, encode(Welcome{options_.epoch}));
  // Before the welcome leaves: who has read it can be notified and asked.
  if (hello.use == ConnectionUse::Delivery) becomeDelivery(connection);
  flush(connection);
}

// What the handler refuses, it has logged itself.
PeerState* Server::Impl::newPeer(const Connection& connection, const Hello& hello,
                                 Refusal& refusal) {
  auto state = std::make_unique<PeerState>();
  state->token = hello.token;
  state->peer = {0, hello.name, connection.who.uid, connection.who.gid, connection.who.pid};
  refusal = {kRefusedByRight, handler_.onGreeting(state->peer)};
  if (!refusal.text.empty()) return nullptr;
  state->peer.id = ++lastPeer_;
  PeerState* peer = state.get();
  peersById_.emplace(peer->peer.id, peer);
  peers_.emplace(hello.token, std::move(state));
  handler_.onPeerCame(peer->peer);
  return peer;
}

PeerState* Server::Impl::peerFor(const Connection& connection, const Hello& hello,
                                 Refusal& refusal) {
  PeerState* peer = peers_.find(hello.token)->second.get();
  if (peer->peer.pid != connection.who.pid || peer->peer.uid != connection.who.uid ||
      peer->peer.gid != connection.who.gid || peer->peer.name != hello.name) {
    refusal = {kRefusedByRight,
               "it claims to be client \"" + peer->peer.name + "\" of another process"};
    return nullptr;
  }
  if (peer->connections.size() >= options_.maxConnectionsPerPeer) {
    refusal = {kRefusedByLimit, "it has " + std::to_string(options_.maxConnectionsPerPeer) +
                                    " connections already, which is the limit"};
    return nullptr;
  }
  return peer;
}

void Server::Impl::becomeDelivery(Connection& connection) {
  PeerState& peer = *connection.peer;
  Connection* former = std::exchange(peer.delivery, &connection);
  if (former != nullptr) close(*former);
  if (former != nullptr) endQuestions(peer);
  handler_.onDeliveryReady(peer.peer);
}

void Server::Impl::request(Connection& connection, const FrameHeader& header,
                           std::string_view payload) {
  PeerState& peer = *connection.peer;
  const RequestId id{connection.key, header.sequence, header.kind == FrameKind::OneWay,
                     peer.peer.id, payload.size()};
  ++peer.openRequests;
  peer.openRequestBytes += payload.size();
  handler_.onRequest({id, peer.peer, header.messageId, (header.flags & kFlagInsideReceiver) != 0,
                      header.revision, payload, peer.delivery == &connection});
}

void Server::Impl::answer(Connection& connection, const FrameHeader& header,
                          std::string_view payload) {
  PeerState& peer = *connection.peer;
  const auto question = peer.openQuestions.find(header.sequence);
  if (peer.delivery != &connection || question == peer.openQuestions.end()) {
    return close(connection, Fault::BadFrame, "it answered a question that it was not asked");
  }
  if (header.kind == FrameKind::Answer) {
    return handler_.onAnswer(peer.peer.id, header.sequence, header.messageId, payload);
  }
  peer.openQuestions.erase(question);
  questionShares_.remove(peer.owner());
  handler_.onQuestionDone(peer.peer.id, header.sequence, false);
}

void Server::Impl::flush(Connection& connection) {
  const Outbox::Written written = connection.outbox.writeTo(connection.fd.get());
  if (written == Outbox::Written::Failed) return close(connection);
  connection.waitsForRoom = written == Outbox::Written::Some;
  if (connection.intake == Intake::Held || !connection.whenRoom.empty()) letGoOn(connection);
  watchFor(connection);
  countBuffered(connection);
}

// Bytes leave at the end of the event that they are for: several notices to one peer in one go.
void Server::Impl::flushLater(Connection& connection) {
  if (!std::exchange(connection.willFlush, true)) toFlush_.push_back(&connection);
}

// What is flushed makes room, and what waited for room writes more.
void Server::Impl::flushWaiting() {
  while (!toFlush_.empty()) {
    if (toFlush_.size() == 1) {
      Connection& only = *toFlush_.front();
      toFlush_.clear();
      flushOne(only);
      continue;
    }
    sortToFlush();
    flushing_.swap(toFlush_);
    const std::size_t now = std::min(flushing_.size(), kFlushedAtOnce);
    for (std::size_t i = 0; i < now; ++i) flushOne(*flushing_[i]);
    for (std::size_t i = now; i < flushing_.size(); ++i) crowd_.push_back(flushing_[i]->key);
    flushing_.clear();
  }
}

void Server::Impl::flushOne(Connection& connection) {
  connection.willFlush = false;
  if (connection.dead) return;
  connection.waitsForRoom ? countBuffered(connection) : flush(connection);
  checkBacklog(connection);
}

// Some of those for whom there was no time at the end of their event.
void Server::Impl::flushCrowd() {
  for (std::size_t left = std::min(crowd_.size(), kFlushedAtOnce); left > 0; --left) {
    Connection* connection = find(crowd_.front());
    crowd_.pop_front();
    if (connection != nullptr) flushOne(*connection);
  }
  flushAll();
}

// Long notices leave at once as far as they can, and count if they cannot: of one that is for many, there
// would be as many copies until the event ends.
void Server::Impl::writeAhead(Connection& connection) {
  if (!connection.waitsForRoom) {
    const Outbox::Written written = connection.outbox.writeTo(connection.fd.get());
    if (written == Outbox::Written::Failed) return close(connection);
    connection.waitsForRoom = written == Outbox::Written::Some;
    watchFor(connection);
  }
  countBuffered(connection);
  if (buffers_.isPast()) keepWithinBuffers();
}

// The first few who are told of a change hear of it before its writer does, whose answer would only
// hold up their messages; but a writer does not wait for a crowd, nor for what it is told itself.
void Server::Impl::sortToFlush() {
  for (Connection* one : toFlush_) one->peer->isAnswered |= one->use == ConnectionUse::Requests;
  int told = 0;
  const auto comesFirst = [&told](const Connection* one) {
    return !one->peer->isAnswered && ++told <= kToldBeforeAnswers;
  };
  const auto isAnswer = [](const Connection* one) { return one->use == ConnectionUse::Requests; };
  const auto others = std::stable_partition(toFlush_.begin(), toFlush_.end(), comesFirst);
  std::stable_partition(others, toFlush_.end(), isAnswer);
  for (Connection* one : toFlush_) one->peer->isAnswered = false;
}

void Server::Impl::close(Connection& connection, Fault kind, const std::string& why) {
  if (connection.dead) return;
  handler_.onFault(kind, "closed the connection of " + nameOf(connection) + ": " + why);
  markDead(connection);
}

void Server::Impl::markDead(Connection& connection) {
  if (std::exchange(connection.dead, true)) return;
  dead_.push_back(connection.key);
  countBuffered(connection);
}

void Server::Impl::buryDead() {
  for (int left = kReapedAtOnce; left > 0 && !dead_.empty(); --left) {
    const auto found = connections_.find(dead_.front());
    dead_.pop_front();
    const std::unique_ptr<Connection> connection = std::move(found->second);
    if (latest_ == connection.get()) latest_ = nullptr;
    connections_.erase(found);
    end(*connection);
  }
}

void Server::Impl::end(Connection& connection) {
  timers_.cancel(connection.greetingTimer);
  timers_.cancel(connection.frameTimer);
  connectionShares_.remove(connection.owner());
  for (const Postponed& rest : connection.whenRoom) endRequest(rest.request);
  PeerState* peer = connection.peer;
  if (peer == nullptr) return;
  peer->connections.erase(&connection);
  if (peer->delivery == &connection) {
    peer->delivery = nullptr;
    endQuestions(*peer);
  }
  if (peer->connections.empty()) leave(*peer);
}

void Server::Impl::endQuestions(PeerState& peer) {
  const std::set<std::uint32_t> open = std::exchange(peer.openQuestions, {});
  questionShares_.remove(peer.owner(), open.size());
  for (const std::uint32_t question : open) {
    handler_.onQuestionDone(peer.peer.id, question, true);
  }
}

void Server::Impl::leave(PeerState& peer) {
  const auto found = peers_.find(peer.token);
  const std::unique_ptr<PeerState> state = std::move(found->second);
  peers_.erase(found);
  peersById_.erase(state->peer.id);
  handler_.onPeerGone(state->peer);
}

std::vector<ConnectedPeer> Server::Impl::peers() const {
  std::vector<ConnectedPeer> connected;
  connected.reserve(peersById_.size());
  for (const auto& [id, state] : peersById_) {
    connected.push_back({state->peer, state->delivery != nullptr});
  }
  std::sort(connected.begin(), connected.end(),
            [](const ConnectedPeer& a, const ConnectedPeer& b) { return a.peer.id < b.peer.id; });
  return connected;
}

void Server::Impl::respond(const RequestId& request, const MessageLite& response,
                           std::uint64_t revision) {
  Connection* connection = find(request.connection);
  endRequest(request);
  if (request.oneWay || connection == nullptr) return;
  FrameHeader header;
  header.kind = FrameKind::Response;
  header.sequence = request.sequence;
  header.revision = revision;
  if (!encodeFrame(header, response, scratch_)) {
    return sendRefusal(*connection, request, kRefusedByLimit, "the answer is larger than 16 MiB");
  }
  connection->outbox.add(scratch_);
  if (scratch_.capacity() > kReadBufferBytes) std::string().swap(scratch_);
  flushLater(*connection);
}

void Server::Impl::checkBacklog(Connection& connection) {
  const bool notices = connection.outbox.queuedMessages() > options_.maxNotices;
  if (!notices && connection.outbox.waitingBytes() <= options_.maxAnswerBytes) return;
  if (connection.use == ConnectionUse::Requests) {
    return close(connection, Fault::NotReading, "it does not read its answers");
  }
  close(connection, Fault::NotReading,
        "it does not read its notices; it is brought up to date when it reconnects");
}

void Server::Impl::refuse(const RequestId& request, std::uint32_t error, const std::string& text) {
  Connection* connection = find(request.connection);
  endRequest(request);
  if (!request.oneWay && connection != nullptr) sendRefusal(*connection, request, error, text);
}

void Server::Impl::sendRefusal(Connection& connection, const RequestId& request,
                               std::uint32_t error, const std::string& text) {
  FrameHeader header;
  header.kind = FrameKind::Refusal;
  header.sequence = request.sequence;
  connection.outbox.add(header, encode(Refusal{error, text}));
  flush(connection);
}

void Server::Impl::notify(PeerId id, const MessageLite& notice, std::uint64_t revision,
                          const std::string& key) {
  PeerState* peer = findPeer(id);
  if (peer == nullptr || peer->delivery == nullptr || peer->delivery->dead) return;
  Connection& connection = *peer->delivery;
  // Before it is encoded: one for hundreds of readers of a user who has no room for it costs nothing.
  if (notice.GetCachedSize() > static_cast<int>(kUncountedBytes) &&
      !buffers_.fits(connection.buffered, notice.ByteSizeLong())) {
    return closePast(connection,
                     buffers_.shares().refusal(connection.owner(), notice.ByteSizeLong()));
  }
  FrameHeader header;
  header.kind = FrameKind::Notice;
  header.revision = revision;
  std::string frame;
  if (!encodeFrame(header, notice, frame)) {
    return handler_.onFault(Fault::Resources,
                            "a notice for " + nameOf(connection) + " is larger than 16 MiB");
  }
  connection.outbox.queue(std::move(frame), key);
  flushLater(connection);
  if (connection.outbox.waitingBytes() > kUncountedBytes) writeAhead(connection);
}

std::string Server::Impl::whyNotAsked(const PeerState& peer) const {
  if (peer.openQuestions.size() < options_.maxOpenQuestions)
    return questionShares_.refusal(peer.owner());
  return "it has " + std::to_string(options_.maxOpenQuestions) + " questions to answer";
}

std::uint32_t Server::Impl::ask(PeerId id, const MessageLite& question, std::uint64_t revision) {
  PeerState* peer = findPeer(id);
  if (peer == nullptr || peer->delivery == nullptr || peer->delivery->dead) return 0;
  Connection& connection = *peer->delivery;
  const std::string refusal = whyNotAsked(*peer);
  if (!refusal.empty()) {
    handler_.onFault(Fault::NotAnswering,
                     nameOf(connection) + " is asked nothing more: " + refusal);
    return 0;
  }
  if (++peer->lastQuestion == 0) ++peer->lastQuestion;
  FrameHeader header;
  header.kind = FrameKind::Question;
  header.sequence = peer->lastQuestion;
  header.revision = revision;
  std::string frame;
  if (!encodeFrame(header, question, frame)) return 0;
  peer->openQuestions.insert(header.sequence);
  questionShares_.add(peer->owner());
  connection.outbox.queue(std::move(frame), {});
  flushLater(connection);
  if (connection.outbox.waitingBytes() > kUncountedBytes) writeAhead(connection);
  return header.sequence;
}

Server::Server(ServerOptions options, ServerHandler& handler)
    : impl_(std::make_unique<Impl>(std::move(options), handler)) {}
Server::~Server() = default;

std::string Server::open() { return impl_->open(); }
void Server::run() { impl_->run(); }
void Server::stop() noexcept { impl_->stop(); }

void Server::respond(const RequestId& request, const MessageLite& response,
                     std::uint64_t revision) {
  impl_->respond(request, response, revision);
}

void Server::refuse(const RequestId& request, std::uint32_t error, const std::string& text) {
  impl_->refuse(request, error, text);
}

void Server::notify(PeerId peer, const MessageLite& notice, std::uint64_t revision,
                    const std::string& coalescingKey) {
  impl_->notify(peer, notice, revision, coalescingKey);
}

std::uint32_t Server::ask(PeerId peer, const MessageLite& question, std::uint64_t revision) {
  return impl_->ask(peer, question, revision);
}

bool Server::hasRoom(const RequestId& request) { return impl_->hasRoom(request); }

void Server::whenRoom(const RequestId& request, std::function<void()> task) {
  impl_->whenRoom(request, std::move(task));
}

void Server::post(std::function<void()> task) { impl_->post(std::move(task)); }

void Server::aside(std::function<void()> work, std::function<void()> done) {
  impl_->aside(std::move(work), std::move(done));
}

void Server::later(uid_t user, std::function<void()> task) { impl_->later(user, std::move(task)); }

std::uint64_t Server::after(std::chrono::milliseconds delay, std::function<void()> task) {
  return impl_->after(delay, std::move(task));
}

void Server::cancel(std::uint64_t timer) { impl_->cancel(timer); }

const Peer* Server::peer(PeerId id) const {
  const PeerState* state = impl_->findPeer(id);
  return state == nullptr ? nullptr : &state->peer;
}

std::size_t Server::peerCount() const { return impl_->peerCount(); }

std::vector<ConnectedPeer> Server::peers() const { return impl_->peers(); }

std::size_t Server::waitingNotices(PeerId id) const {
  const PeerState* state = impl_->findPeer(id);
  if (state == nullptr || state->delivery == nullptr) return 0;
  return state->delivery->outbox.queuedMessages();
}

}  // namespace PbUtility
