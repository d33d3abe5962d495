// Load: many clients of one service, without a client library in between, so that a test has as
// many as it wants and knows what each of them costs the service.
//
//   Load load(service.socket(), 64);
//   load.registerFor(10'000, 100'000);
//
// A client has a connection for requests and one for delivery. Requests are sent many at once and
// answered in their order. Notices are read and dropped by a thread of the load's, as fast as they
// come. Faults of the load itself fail the test.
//
// Threads:  one, beside its own.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "platform/messaging/wire/frame.h"

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace TestSupport {

// Definitions of "load.g<i / 100>.v<i>", strings.
std::string loadDefinitions(std::size_t variables);
std::string loadVariable(std::size_t number);

// A greeted connection that answers are read from one by one.
class LoadConnection {
 public:
  LoadConnection(const std::string& socket, const std::string& name, std::uint32_t token,
                 PbUtility::ConnectionUse use);

  int fd() const { return fd_.get(); }
  // Puts a request among those that the next send() sends.
  void add(const google::protobuf::MessageLite& request,
           PbUtility::FrameKind kind = PbUtility::FrameKind::Request);
  // False when the service does not take it all within the time.
  bool send();
  // The payload of the next frame; false when none comes, and `closed` tells why.
  bool receive(PbUtility::FrameHeader& header, std::string& payload);
  bool isClosed() const { return closed_; }

 private:
  Base::UniqueFd fd_;
  std::string outgoing_;
  std::string incoming_;
  std::uint32_t lastSequence_ = 0;
  bool closed_ = false;
};

class Load {
 public:
  Load(const std::string& socket, std::size_t clients);
  ~Load();
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  // Spreads registrations for changes of the first variables evenly over the clients.
  void registerFor(std::size_t variables, std::size_t registrations);
  // Bytes of notices that all clients have been told.
  std::uint64_t noticeBytes() const { return noticeBytes_; }

 private:
  void dropNotices();

  std::vector<LoadConnection> requests_;
  std::vector<LoadConnection> deliveries_;
  std::atomic<std::uint64_t> noticeBytes_{0};
  std::atomic<bool> stopping_{false};
  std::thread reader_;
};

// Of a process, as the kernel counts it. 0 when there is no such process.
std::size_t residentBytes(pid_t process);

}  // namespace TestSupport
