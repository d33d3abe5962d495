// One thread for all remotes. It polls their connections and a wake-up descriptor, by which other threads
// tell it of new remotes and of what they ask for; between two polls it connects, repeats registrations,
// writes what waits and reads what has come.
//
// It never waits for a socket to take bytes: the service may itself be waiting for this side to read.
// What does not fit stands in Remote::outgoing until poll tells of room. Only connecting may wait,
// for a full backlog, and for no longer than kConnectDeadline.
#include "platform/messaging/client/internal/delivery.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/messaging/client/internal/dispatch.h"
#include "platform/messaging/client/internal/retry_pace.h"
#include "platform/messaging/client/internal/time_slice.h"
#include "platform/messaging/wire/internal/frame_bytes.h"
#include "platform/schema/registration_key.h"

namespace PbUtility {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kShortestDelay(2);
constexpr milliseconds kLongestDelay(250);
// How long connecting may hold up the other remotes: it waits only while a backlog is full.
constexpr std::chrono::seconds kConnectDeadline(1);
constexpr std::size_t kReadBytes = std::size_t{64} * 1024;
// How soon the thread looks for what it was told when the system had no descriptor to wake it by.
constexpr milliseconds kUnwakenedPoll(20);

thread_local const Delivery* deliveryOfThisThread = nullptr;

MSG_Sender nextSender() {
  static std::atomic<MSG_Sender> last{0};
  return ++last;
}

// Why a registration found no room; nothing when it was answered otherwise.
std::optional<std::string> refusalForRoom(const FrameHeader& header, std::string_view payload) {
  if (header.kind == FrameKind::Response)
    return PlatformSchema::refusalForRoom(header.messageId, payload);
  Refusal refusal;
  if (!decode(payload, refusal).ok() || refusal.error != kRefusedByLimit) return std::nullopt;
  return refusal.text;
}

}  // namespace

class Delivery::Remote {
 public:
  std::string name;
  std::string path;
  KeptRegistrations* registrations = nullptr;

  // The delivery thread's own.
  Stream stream;
  std::string incoming;
  std::string outgoing;
  MSG_Sender sender = 0;
  bool greeted = false;
  std::uint64_t epoch = 0;
  Clock::time_point nextAttempt;
  milliseconds delay = kShortestDelay;
  std::uint32_t lastSequence = 0;
  struct Awaited {
    std::string key;
    // It was refused before on this connection.
    bool retried = false;
  };
  // Registrations repeated on this connection whose response is awaited, by sequence.
  std::unordered_map<std::uint32_t, Awaited> awaited;
  RetryPace pace;

 private:
  friend Asked& Delivery::asked(Remote& remote);
  Asked asked_;
};

inline Delivery::Asked& Delivery::asked(Remote& remote) { return remote.asked_; }

Delivery::Delivery(Hello hello, std::function<std::vector<MSG_Callback>()> receivers)
    : hello_([&hello] {
        hello.use = ConnectionUse::Delivery;
        return std::move(hello);
      }()),
      receivers_(std::move(receivers)),
      readBuffer_(kReadBytes) {
  wakeUp_.make([] { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); });
}

Delivery::~Delivery() {
  stopping_ = true;
  wake();
  if (thread_.joinable()) thread_.join();
}

void Delivery::wake() {
  const std::uint64_t one = 1;
  // A full counter wakes as well, so the result does not matter.
  static_cast<void>(!::write(wakeUp_.get(), &one, sizeof one));
}

void Delivery::add(const std::string& name, const std::string& path,
                   KeptRegistrations& registrations) {
  {
    const Base::MutexLock guard(mutex_);
    std::unique_ptr<Remote>& remote = remotes_[name];
    if (remote) return;
    remote = std::make_unique<Remote>();
    remote->name = name;
    remote->path = path;
    remote->registrations = &registrations;
    startThread();
  }
  wake();
}

// False when the system has no thread to give: whoever needs it next tries again. False as well when this
// object is ending: a receiver may have ended the program while other threads go on calling. The thread
// takes no signals, because the application's handlers do not expect to run on it.
bool Delivery::startThread() {
  if (stopping_ || thread_.joinable()) return !stopping_;
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread_ = std::thread([this] { runOnThread(); });
  } catch (const std::system_error&) {
    // The one way in which std::thread says no.
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread_.joinable();
}

void Delivery::runOnThread() {
  deliveryOfThisThread = this;
  askForShortSlices();
  run();
  // In such a child this is the only thread, whose end is the end of the process. Said in so many words,
  // because a sanitizer does not know the thread: it was started in another process.
  if (abandoned_) std::exit(0);
  // Moved out, for it may destroy this object.
  if (const std::function<void()> after = std::move(afterEnd_)) after();
}

bool Delivery::isOnItsThread() const { return deliveryOfThisThread == this; }

void Delivery::endByItself(std::function<void()> after) {
  const Base::MutexLock guard(mutex_);
  afterEnd_ = std::move(after);
  stopping_ = true;
  thread_.detach();
}

void Delivery::kick(const std::string& name) {
  {
    const Base::MutexLock guard(mutex_);
    const auto found = remotes_.find(name);
    if (found == remotes_.end()) return;
    Asked& asked = this->asked(*found->second);
    if (asked.condition != Condition::Away || std::exchange(asked.kicked, true)) return;
  }
  wake();
}

bool Delivery::waitForAttempt(const std::string& name, Clock::time_point deadline) {
  // The delivery thread itself cannot wait for what it alone brings about.
  if (isOnItsThread()) return true;
  kick(name);
  const Base::MutexLock guard(mutex_);
  const auto found = remotes_.find(name);
  if (found == remotes_.end() || !startThread()) return false;
  const Asked& asked = this->asked(*found->second);
  const std::uint64_t begun = asked.attemptsBegun;
  const auto isOver = [&asked, begun] {
    const bool connected =
        asked.condition == Condition::Repeating || asked.condition == Condition::Standing;
    return connected || asked.attemptsEnded > begun;
  };
  while (!isOver() && changed_.waitUntil(guard, deadline)) continue;
  return true;
}

bool Delivery::waitUntilStanding(const std::string& name, Clock::time_point deadline) {
  kick(name);
  const Base::MutexLock guard(mutex_);
  const auto found = remotes_.find(name);
  if (found == remotes_.end() || isOnItsThread() || !startThread()) return false;
  const Condition& condition = asked(*found->second).condition;
  while (condition != Condition::Standing && changed_.waitUntil(guard, deadline)) continue;
  return condition == Condition::Standing;
}

// The numbers may wrap: only few wait at a time, so a difference tells which came first.
bool Delivery::waitUntilHandled(Clock::time_point deadline) {
  if (isOnItsThread()) return false;
  const Base::MutexLock guard(mutex_);
  if (!thread_.joinable()) return true;
  const unsigned barrier = ++barriersAsked_;
  const auto isPassed = [this, barrier]() APPCONFIG_REQUIRES(mutex_) {
    return static_cast<int>(barriersPassed_ - barrier) >= 0;
  };
  wake();
  while (!isPassed() && changed_.waitUntil(guard, deadline)) continue;
  return isPassed();
}

void Delivery::setCondition(Remote& remote, Condition condition) {
  {
    const Base::MutexLock guard(mutex_);
    asked(remote).condition = condition;
  }
  changed_.notifyAll();
}

std::string Delivery::greeting() const {
  FrameHeader header;
  header.kind = FrameKind::Hello;
  std::string frame;
  appendFrame(header, encode(hello_), frame);
  return frame;
}

void Delivery::endAttempt(Remote& remote) {
  {
    const Base::MutexLock guard(mutex_);
    asked(remote).attemptsEnded = asked(remote).attemptsBegun;
  }
  changed_.notifyAll();
}

void Delivery::tryConnect(Remote& remote) {
  {
    const Base::MutexLock guard(mutex_);
    ++asked(remote).attemptsBegun;
    asked(remote).kicked = false;
  }
  remote.greeted = false;
  const StreamStatus status = remote.stream.connect(remote.path, Clock::now() + kConnectDeadline);
  if (status != StreamStatus::Ok) return lose(remote);
  remote.sender = nextSender();
  setCondition(remote, Condition::Greeting);
  remote.outgoing = greeting();
  if (!writePending(remote)) lose(remote);
}

bool Delivery::takeWelcome(Remote& remote, const FrameHeader& header, std::string_view payload) {
  Welcome welcome;
  if (header.kind != FrameKind::Welcome || !decode(payload, welcome).ok()) return false;
  remote.greeted = true;
  remote.delay = kShortestDelay;
  remote.epoch = welcome.epoch;
  // Before anybody who waits for the connection goes on: what they register is theirs to send.
  repeat(remote, remote.registrations->beginConnection(remote.epoch));
  endAttempt(remote);
  return true;
}

void Delivery::repeat(Remote& remote, std::vector<KeptRegistrations::Repeat> repeats,
                      bool retried) {
  FrameHeader header;
  header.kind = FrameKind::Request;
  for (KeptRegistrations::Repeat& each : repeats) {
    header.messageId = each.messageId;
    header.sequence = ++remote.lastSequence;
    header.revision = each.revision;
    appendFrame(header, each.payload, remote.outgoing);
    remote.awaited.emplace(header.sequence, Remote::Awaited{std::move(each.key), retried});
  }
  setCondition(remote, remote.awaited.empty() ? Condition::Standing : Condition::Repeating);
}

void Delivery::repeatAbandoned(const std::string& name) {
  {
    const Base::MutexLock guard(mutex_);
    const auto found = remotes_.find(name);
    if (found == remotes_.end()) return;
    asked(*found->second).abandoned = true;
  }
  wake();
}

bool Delivery::takeAbandonedMark(Remote& remote) {
  const Base::MutexLock guard(mutex_);
  return std::exchange(asked(remote).abandoned, false);
}

void Delivery::retryRefused(Remote& remote) {
  const bool anyRefused = remote.registrations->anyRefused();
  if (!anyRefused && !remote.pace.dueAt()) return;
  const Clock::time_point now = Clock::now();
  if (anyRefused) remote.pace.refused(now);
  if (!remote.pace.dueAt() || now < *remote.pace.dueAt()) return;
  std::vector<KeptRegistrations::Repeat> repeats =
      remote.registrations->takeRefused(remote.pace.batch());
  if (repeats.empty()) {
    // All were accepted or withdrawn meanwhile.
    remote.pace = {};
    return;
  }
  remote.pace.sent(repeats.size());
  repeat(remote, std::move(repeats), true);
}

// Writes as much as the socket takes: the rest waits for poll, since a service that is itself
// waiting for us to read must not be waited for.
bool Delivery::writePending(Remote& remote) {
  std::size_t written = 0;
  bool alive = true;
  while (written < remote.outgoing.size()) {
    const ssize_t sent = ::send(remote.stream.fd(), remote.outgoing.data() + written,
                                remote.outgoing.size() - written, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) {
      alive = errno == EAGAIN || errno == EWOULDBLOCK;
      break;
    }
    written += static_cast<std::size_t>(sent);
  }
  remote.outgoing.erase(0, written);
  return alive;
}

void Delivery::lose(Remote& remote) {
  remote.stream.close();
  remote.incoming.clear();
  remote.outgoing.clear();
  remote.awaited.clear();
  remote.pace = {};
  // A service that was there a moment ago may be back at once; one that was not is given time.
  remote.nextAttempt = Clock::now() + (remote.greeted ? milliseconds(0) : remote.delay);
  if (!remote.greeted) remote.delay = std::min(remote.delay * 2, kLongestDelay);
  remote.greeted = false;
  setCondition(remote, Condition::Away);
  endAttempt(remote);
}

void Delivery::noteResponse(Remote& remote, const FrameHeader& header, std::string_view payload) {
  const auto found = remote.awaited.find(header.sequence);
  if (found == remote.awaited.end()) return;
  const auto& [key, retried] = found->second;
  KeptRegistrations& registrations = *remote.registrations;
  const std::optional<std::string> refusal = refusalForRoom(header, payload);
  if (refusal) {
    registrations.refuse(key, registrations.connection(), *refusal);
  } else if (header.kind == FrameKind::Response) {
    registrations.acknowledge(key, registrations.connection(), remote.epoch, header.revision);
  }
  if (retried) remote.pace.answered(!refusal, Clock::now());
  remote.awaited.erase(found);
  if (remote.awaited.empty()) setCondition(remote, Condition::Standing);
}

bool Delivery::take(Remote& remote, const FrameHeader& header, std::string_view payload) {
  if (!remote.greeted) return takeWelcome(remote, header, payload);
  if (header.kind == FrameKind::Response || header.kind == FrameKind::Refusal) {
    noteResponse(remote, header, payload);
    return true;
  }
  if (header.kind != FrameKind::Notice && header.kind != FrameKind::Question) return false;
  if (header.kind == FrameKind::Question) remote.registrations->questioned();
  remote.outgoing += dispatch({header, payload, &remote.name, remote.sender}, receivers_());
  if (header.kind == FrameKind::Notice) remote.registrations->delivered(header.revision);
  return true;
}

// Takes every whole frame that has come; false when the connection is to be given up.
bool Delivery::consume(Remote& remote) {
  std::size_t taken = 0;
  bool good = true;
  while (good && remote.incoming.size() - taken >= kFrameHeaderBytes) {
    FrameHeader header;
    const char* bytes = remote.incoming.data() + taken;
    good = decodeHeader(reinterpret_cast<const unsigned char*>(bytes), header).ok();
    const std::size_t whole = kFrameHeaderBytes + header.payloadBytes;
    if (!good || remote.incoming.size() - taken < whole) break;
    good = take(remote, header, {bytes + kFrameHeaderBytes, header.payloadBytes});
    taken += whole;
    if (stopping_) break;
    // An answer is written before the next message is looked at: somebody waits for it.
    if (good && !remote.outgoing.empty()) good = writePending(remote);
  }
  remote.incoming.erase(0, taken);
  return good;
}

std::size_t Delivery::readFrom(Remote& remote) {
  const ssize_t got =
      ::recv(remote.stream.fd(), readBuffer_.data(), readBuffer_.size(), MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return 0;
  if (got <= 0) {
    lose(remote);
    return 0;
  }
  remote.incoming.append(readBuffer_.data(), static_cast<std::size_t>(got));
  if (!consume(remote)) lose(remote);
  return static_cast<std::size_t>(got);
}

// What has come by now and no more, for a busy service may go on sending without end.
void Delivery::readAllFrom(Remote& remote) {
  int come = 0;
  if (::ioctl(remote.stream.fd(), FIONREAD, &come) != 0 || come <= 0) return;
  std::size_t left = static_cast<std::size_t>(come);
  while (left > 0 && !stopping_ && remote.stream.isOpen()) {
    const std::size_t got = readFrom(remote);
    if (got == 0) return;
    left -= std::min(left, got);
  }
}

// Looked at behind the poll, which takes the wake-ups: one that came with a barrier is not lost.
void Delivery::passBarriers(const std::vector<Remote*>& remotes) {
  const unsigned asked = barriersAsked_;
  if (asked == lastBarrier_) return;
  for (Remote* remote : remotes) {
    if (remote->stream.isOpen()) readAllFrom(*remote);
  }
  if (stopping_) return;
  lastBarrier_ = asked;
  {
    const Base::MutexLock guard(mutex_);
    barriersPassed_ = asked;
  }
  changed_.notifyAll();
}

std::vector<Delivery::Remote*> Delivery::remotes() {
  const Base::MutexLock guard(mutex_);
  std::vector<Remote*> all;
  all.reserve(remotes_.size());
  for (const auto& [name, remote] : remotes_) {
    if (asked(*remote).kicked) remote->nextAttempt = Clock::time_point();
    all.push_back(remote.get());
  }
  return all;
}

// Waits for something to do: 0 when only time has passed.
int Delivery::poll(const std::vector<Remote*>& remotes) {
  std::vector<pollfd> waiting{{wakeUp_.get(), POLLIN, 0}};
  auto wait = wakeUp_ ? milliseconds(-1) : kUnwakenedPoll;
  const Clock::time_point now = Clock::now();
  for (const Remote* remote : remotes) {
    std::optional<Clock::time_point> next = remote->nextAttempt;
    if (remote->stream.isOpen()) {
      const bool pending = !remote->outgoing.empty();
      waiting.push_back(
          {remote->stream.fd(), static_cast<short>(pending ? POLLIN | POLLOUT : POLLIN), 0});
      next = remote->pace.dueAt();
    }
    if (!next) continue;
    const auto left = std::chrono::ceil<milliseconds>(*next - now);
    const auto atLeastNone = std::max(left, milliseconds(0));
    if (wait.count() < 0 || atLeastNone < wait) wait = atLeastNone;
  }
  const int ready = ::poll(waiting.data(), waiting.size(), static_cast<int>(wait.count()));
  if (ready > 0 && waiting[0].revents != 0) {
    std::uint64_t count = 0;
    static_cast<void>(!::read(wakeUp_.get(), &count, sizeof count));
  }
  return ready;
}

void Delivery::run() {
  while (!stopping_) {
    const std::vector<Remote*> all = remotes();
    for (Remote* remote : all) {
      if (!remote->stream.isOpen() && Clock::now() >= remote->nextAttempt) tryConnect(*remote);
      if (remote->greeted) retryRefused(*remote);
    }
    poll(all);
    for (Remote* remote : all) {
      if (stopping_) return;
      if (remote->greeted && takeAbandonedMark(*remote))
        repeat(*remote, remote->registrations->takeAbandoned());
      if (remote->stream.isOpen() && !writePending(*remote)) lose(*remote);
      if (remote->stream.isOpen()) readFrom(*remote);
    }
    passBarriers(all);
  }
}

}  // namespace PbUtility
