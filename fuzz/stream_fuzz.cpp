// A client's end of a connection: answers of a service that is broken, or none, arriving in pieces of
// any size, with interruptions and failures in between.
//
// The pieces are cut by a recv of our own (the linker's --wrap=recv), which the stream calls: a
// socket would put them together again. A poll of our own waits for none of them.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/unique_fd.h"
#include "fuzz/input.h"
#include "fuzz/mutators.h"
#include "platform/messaging/client/internal/stream.h"
#include "tests/support/temp_dir.h"

namespace {

using Base::UniqueFd;
using Fuzz::Input;
using Fuzz::require;
using PbUtility::FrameHeader;
using PbUtility::StreamStatus;

// What recv is to give next, and all that it has given.
Input* source = nullptr;
std::string given;

// Each call: a length below 253 and so many bytes; or a failure.
ssize_t give(void* buffer, std::size_t room) {
  constexpr unsigned kFailures = 253;
  constexpr int kErrors[] = {EINTR, EAGAIN, ECONNRESET};
  if (source->isOver()) return 0;
  const unsigned length = source->byte();
  if (length >= kFailures) {
    errno = kErrors[length - kFailures];
    return -1;
  }
  std::size_t put = 0;
  while (put < std::min<std::size_t>(length, room) && !source->isOver()) {
    static_cast<char*>(buffer)[put++] = static_cast<char>(source->byte());
  }
  given.append(static_cast<const char*>(buffer), put);
  return static_cast<ssize_t>(put);
}

// Listens for as long as the process lives. Nobody writes on its connections.
class Listening {
 public:
  Listening() : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    require(::bind(fd_.get(), generic, sizeof address) == 0 && ::listen(fd_.get(), 8) == 0,
            "a socket listens");
  }
  std::string path() const { return directory_.file("peer"); }
  UniqueFd accept() { return UniqueFd(::accept(fd_.get(), nullptr, nullptr)); }

 private:
  TestSupport::TempDir directory_;
  UniqueFd fd_;
};

// The frame is exactly the bytes that were given since the last one.
void checkFrame(const PbUtility::Stream& stream, const FrameHeader& header) {
  PbUtility::FrameHeaderBytes bytes;
  encodeHeader(header, bytes.data());
  const std::string expected(bytes.begin(), bytes.end());
  require(given == expected + std::string(stream.payload()), "a frame is what arrived");
}

void receiveAll(PbUtility::Stream& stream) {
  const auto deadline = PbUtility::Clock::now() + std::chrono::seconds(60);
  for (;;) {
    FrameHeader header;
    given.clear();
    const StreamStatus status = stream.receiveFrame(header, deadline);
    if (status != StreamStatus::Ok) {
      return require(!stream.problem().empty(), "a failure says why");
    }
    checkFrame(stream, header);
  }
}

}  // namespace

// The names are the linker's, for what --wrap replaces.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" ssize_t __real_recv(int fd, void* buffer, std::size_t size, int flags);

extern "C" ssize_t __wrap_recv(int fd, void* buffer, std::size_t size, int flags);
extern "C" ssize_t __wrap_recv(int fd, void* buffer, std::size_t size, int flags) {
  return source == nullptr ? __real_recv(fd, buffer, size, flags) : give(buffer, size);
}

extern "C" int __real_poll(pollfd* files, nfds_t count, int timeout);

extern "C" int __wrap_poll(pollfd* files, nfds_t count, int timeout);
extern "C" int __wrap_poll(pollfd* files, nfds_t count, int timeout) {
  return source == nullptr ? __real_poll(files, count, timeout) : 1;
}
// NOLINTEND(bugprone-reserved-identifier)

Fuzz::InputShape Fuzz::inputShape() { return {0, InputShape::Rest::CutFrames}; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Listening listening;
  Input input(data, size);
  source = &input;
  PbUtility::Stream stream;
  const auto deadline = PbUtility::Clock::now() + std::chrono::seconds(60);
  require(stream.connect(listening.path(), deadline) == StreamStatus::Ok, "the stream connects");
  const UniqueFd peer = listening.accept();
  receiveAll(stream);
  source = nullptr;
  return 0;
}
