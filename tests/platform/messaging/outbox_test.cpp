#include "platform/messaging/serving/internal/outbox.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "base/unique_fd.h"

namespace PbUtility {
namespace {

class OutboxTest : public ::testing::Test {
 protected:
  OutboxTest() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
    writer.reset(ends[0]);
    reader.reset(ends[1]);
  }

  std::string readSome() {
    std::string bytes(std::size_t{1} << 20, '\0');
    const ssize_t got = ::recv(reader.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }

  void add(std::string frame) { outbox.add(frame); }

  std::string readAll() {
    std::string all;
    for (;;) {
      outbox.writeTo(writer.get());
      const std::string some = readSome();
      if (some.empty()) return all;
      all += some;
    }
  }

  // Fills the socket, so that what is queued next waits.
  void fill() {
    while (outbox.writeTo(writer.get()) == Outbox::Written::All) {
      add(std::string(65536, '.'));
    }
  }

  Base::UniqueFd writer;
  Base::UniqueFd reader;
  Outbox outbox;
};

TEST_F(OutboxTest, WritesAnswersThenMessagesInTheirOrder) {
  outbox.queue("message", "");
  add("answer ");
  EXPECT_EQ(outbox.writeTo(writer.get()), Outbox::Written::All);
  EXPECT_EQ(readAll(), "answer message");
  EXPECT_EQ(outbox.waitingBytes(), 0U);
}

TEST_F(OutboxTest, ANewerMessageOfOneKeyReplacesTheWaitingOneAtTheNewersPlace) {
  outbox.queue("x1 ", "x");
  outbox.queue("y1 ", "y");
  outbox.queue("question ", "");
  outbox.queue("x2 ", "x");
  EXPECT_EQ(outbox.queuedMessages(), 3U);
  EXPECT_EQ(outbox.waitingBytes(), 15U);
  EXPECT_EQ(readAll(), "y1 question x2 ");
}

TEST_F(OutboxTest, AStoppedReaderCostsOneMessageForEachKey) {
  fill();
  for (int i = 0; i < 100000; ++i)
    outbox.queue("n" + std::to_string(i % 10), std::to_string(i % 10));
  EXPECT_LE(outbox.queuedMessages(), 10U);
  std::string all = readAll();
  EXPECT_EQ(all.substr(all.size() - 4), "n8n9");
}

TEST_F(OutboxTest, AMessageThatIsPartlyWrittenIsNotReplaced) {
  fill();
  const std::string large(std::size_t{8} << 20, 'L');
  outbox.queue(large, "x");
  while (outbox.queuedMessages() > 0) {
    readSome();
    outbox.writeTo(writer.get());
  }
  outbox.queue("|newer", "x");
  const std::string all = readAll();
  EXPECT_EQ(all.substr(all.size() - 8), "LL|newer");
}

TEST_F(OutboxTest, MemoryGoesWithWhatIsRead) {
  const std::size_t whole = std::size_t{8} << 20;
  add(std::string(whole, 'L'));
  std::size_t read = 0;
  while (read < whole) {
    outbox.writeTo(writer.get());
    read += readSome().size();
    EXPECT_GE(outbox.memoryBytes(), outbox.waitingBytes());
    EXPECT_LE(outbox.memoryBytes(), 2 * (whole - read) + (std::size_t{1} << 20));
  }
}

TEST_F(OutboxTest, WhatIsEmptyKeepsLittle) {
  add(std::string(Outbox::kKeptBytes / 2, 'a'));
  EXPECT_EQ(readAll().size(), Outbox::kKeptBytes / 2);
  add(std::string(Outbox::kKeptBytes, 'a'));
  add(std::string(Outbox::kKeptBytes, 'b'));
  EXPECT_EQ(readAll().size(), 2 * Outbox::kKeptBytes);
  EXPECT_LE(outbox.memoryBytes(), Outbox::kKeptBytes);
}

TEST_F(OutboxTest, AReaderThatIsGoneIsAFailureAndNoSignal) {
  reader.reset();
  add("answer");
  EXPECT_EQ(outbox.writeTo(writer.get()), Outbox::Written::Failed);
}

}  // namespace
}  // namespace PbUtility
