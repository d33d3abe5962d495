// Speaks frames over plain blocking sockets with a timeout. Requests go out in batches whose
// answers fit into the socket, so that neither side waits for the other to read.
#include "tests/support/load.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>

#include "platform/messaging/wire/internal/frame_bytes.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/eventually.h"

namespace TestSupport {
namespace {

using PbUtility::ConnectionUse;
using PbUtility::FrameHeader;
using PbUtility::FrameKind;
using PbUtility::kFrameHeaderBytes;

// Requests that are on their way at once: few enough for their answers to fit into the socket.
constexpr std::size_t kBatch = 200;

}  // namespace

std::string loadVariable(std::size_t number) {
  return "load.g" + std::to_string(number / 100) + ".v" + std::to_string(number);
}

std::string loadDefinitions(std::size_t variables) {
  std::string text;
  for (std::size_t i = 0; i < variables; ++i) {
    text += "[variable.\"" + loadVariable(i) + "\"]\ntype = \"string\"\ndefault = \"-\"\n";
  }
  return text;
}

LoadConnection::LoadConnection(const std::string& socket, const std::string& name,
                               std::uint32_t token, ConnectionUse use)
    : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socket.copy(address.sun_path, sizeof address.sun_path - 1);
  const timeval patience{kPatience.count(), 0};
  ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  ::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  PbUtility::Hello hello;
  hello.use = use;
  hello.name = name;
  std::memcpy(hello.token.data(), &token, sizeof token);
  FrameHeader header;
  header.kind = FrameKind::Hello;
  PbUtility::appendFrame(header, encode(hello), outgoing_);
  std::string payload;
  EXPECT_TRUE(send() && receive(header, payload));
  EXPECT_EQ(header.kind, FrameKind::Welcome) << payload;
}

void LoadConnection::add(const google::protobuf::MessageLite& request, FrameKind kind) {
  FrameHeader header;
  header.kind = kind;
  header.sequence = ++lastSequence_;
  header.revision = PbUtility::kRevisionNow;
  std::string frame;
  ASSERT_TRUE(PbUtility::encodeFrame(header, request, frame));
  outgoing_ += frame;
}

bool LoadConnection::send() {
  const std::string bytes = std::exchange(outgoing_, {});
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t now = ::send(fd_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (now < 0) return false;
    sent += static_cast<std::size_t>(now);
  }
  return true;
}

bool LoadConnection::receive(FrameHeader& header, std::string& payload) {
  const auto whole = [&] {
    if (incoming_.size() < kFrameHeaderBytes) return false;
    EXPECT_TRUE(
        decodeHeader(reinterpret_cast<const unsigned char*>(incoming_.data()), header).ok());
    return incoming_.size() >= kFrameHeaderBytes + header.payloadBytes;
  };
  while (!whole()) {
    char bytes[65536];
    const ssize_t got = ::recv(fd_.get(), bytes, sizeof bytes, 0);
    closed_ = got == 0 || (got < 0 && errno == ECONNRESET);
    if (got <= 0) return false;
    incoming_.append(bytes, static_cast<std::size_t>(got));
  }
  payload = incoming_.substr(kFrameHeaderBytes, header.payloadBytes);
  incoming_.erase(0, kFrameHeaderBytes + header.payloadBytes);
  return true;
}

Load::Load(const std::string& socket, std::size_t clients) {
  for (std::size_t i = 0; i < clients; ++i) {
    const std::string name = "load-" + std::to_string(i);
    const auto token = static_cast<std::uint32_t>(i + 1);
    requests_.emplace_back(socket, name, token, ConnectionUse::Requests);
    deliveries_.emplace_back(socket, name, token, ConnectionUse::Delivery);
  }
  reader_ = std::thread([this] { dropNotices(); });
}

Load::~Load() {
  stopping_ = true;
  reader_.join();
}

void Load::registerFor(std::size_t variables, std::size_t registrations) {
  const std::size_t each = registrations / requests_.size();
  FrameHeader header;
  std::string payload;
  for (std::size_t client = 0; client < requests_.size(); ++client) {
    LoadConnection& connection = requests_[client];
    for (std::size_t done = 0; done < each;) {
      const std::size_t batch = std::min(kBatch, each - done);
      for (std::size_t i = 0; i < batch; ++i, ++done) {
        ConfigIF::RegisterClientCallbackReq request;
        request.set_client_name("load");
        request.set_type(ConfigIF::CALLBACK_VALUE_CHANGED);
        request.set_name(loadVariable((client * each + done) % variables));
        request.set_endpoint_name("PlatCfgSvc0-1-0");
        connection.add(request);
      }
      ASSERT_TRUE(connection.send());
      for (std::size_t i = 0; i < batch; ++i) {
        ASSERT_TRUE(connection.receive(header, payload));
        ConfigIF::RegisterClientCallbackRsp response;
        ASSERT_TRUE(response.ParseFromString(payload));
        ASSERT_EQ(response.result().error(), CommonIF::ERROR_NONE) << response.result().messages(0);
      }
    }
  }
}

void Load::dropNotices() {
  std::vector<pollfd> waiting;
  for (const LoadConnection& delivery : deliveries_) waiting.push_back({delivery.fd(), POLLIN, 0});
  char bytes[65536];
  while (!stopping_) {
    if (::poll(waiting.data(), waiting.size(), 50) <= 0) continue;
    for (pollfd& each : waiting) {
      if (each.revents == 0) continue;
      const ssize_t got = ::recv(each.fd, bytes, sizeof bytes, MSG_DONTWAIT);
      if (got > 0) noticeBytes_ += static_cast<std::uint64_t>(got);
      if (got == 0) each.fd = -1;
    }
  }
}

std::size_t residentBytes(pid_t process) {
  std::ifstream statm("/proc/" + std::to_string(process) + "/statm");
  std::size_t all = 0;
  std::size_t resident = 0;
  statm >> all >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace TestSupport
