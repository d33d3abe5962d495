// One write may bring about more: it makes room, and what waited for room writes too. So whoever is due
// is flushed until nobody is. A socket that is full is left alone: epoll tells when it has room.
#include "platform/messaging/serving/internal/writer.h"

#include <utility>

#include "platform/messaging/serving/server_handler.h"
#include "platform/messaging/wire/frame.h"

namespace PbUtility {

Writer::Writer(const ServerOptions& options, ConnectionTable& connections, EventLoop& loop,
               std::function<void(Connection&)> letGoOn)
    : options_(options), connections_(connections), loop_(loop), letGoOn_(std::move(letGoOn)) {}

void Writer::flush(Connection& connection) {
  if (!connection.write()) return connections_.close(connection);
  if (connection.intake == Intake::Held || !connection.whenRoom.empty()) letGoOn_(connection);
  connection.updateWatch(loop_);
  connections_.countBuffered(connection);
}

void Writer::sendRefusal(Connection& connection, std::uint32_t sequence, std::uint32_t error,
                         const std::string& text) {
  FrameHeader header;
  header.kind = FrameKind::Refusal;
  header.sequence = sequence;
  connection.outbox.add(header, encode(Refusal{error, text}));
  flush(connection);
}

void Writer::sendLater(Connection& connection, std::string frame, std::string_view key) {
  connection.outbox.queue(std::move(frame), key);
  flushLater(connection);
  if (connection.outbox.waitingBytes() > kUncountedBytes) writeAhead(connection);
}

// As far as the socket takes it; what it does not take counts. Of a long notice for many, there would be
// as many copies until the event ends.
void Writer::writeAhead(Connection& connection) {
  if (!connection.isSocketFull()) {
    if (!connection.write()) return connections_.close(connection);
    connection.updateWatch(loop_);
  }
  connections_.countBuffered(connection);
  connections_.keepWithinBuffers();
}

void Writer::flushDue() {
  do {
    flushOne(*queue_.next());
  } while (!queue_.isEmpty());
}

void Writer::flushOne(Connection& connection) {
  FlushQueue::left(connection);
  if (connection.dead) return;
  connection.isSocketFull() ? connections_.countBuffered(connection) : flush(connection);
  checkBacklog(connection);
}

void Writer::flushCrowd() {
  for (std::size_t left = queue_.crowdOfRound(); left > 0; --left) {
    Connection* connection = connections_.find(queue_.nextOfCrowd());
    if (connection != nullptr) flushOne(*connection);
  }
  flushAll();
}

void Writer::checkBacklog(Connection& connection) {
  const bool notices = connection.outbox.queuedMessages() > options_.maxNotices;
  if (!notices && connection.outbox.waitingBytes() <= options_.maxAnswerBytes) return;
  const bool isAnswers = connection.use == ConnectionUse::Requests;
  connections_.close(
      connection, Fault::NotReading,
      isAnswers ? "it does not read its answers"
                : "it does not read its notices; it is brought up to date when it reconnects");
}

}  // namespace PbUtility
