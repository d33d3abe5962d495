// What messages between processes cost when there is nothing but a socket: bytes are written and
// read on a blocking Unix stream socket, without any meaning.
#pragma once

#include <cstddef>
#include <vector>

namespace Bench {

struct MessageBytes {
  std::size_t request = 0;
  std::size_t response = 0;
};

// Two connected sockets.
class SocketPair {
 public:
  SocketPair();
  ~SocketPair();
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;

  int here() const { return ends_[0]; }
  int there() const { return ends_[1]; }
  // For a child: closes the end that is not its own, or it would never see that the other process
  // is gone.
  void closeHere();
  void closeThere();

 private:
  int ends_[2];
};

// Both block until all bytes are through; false at the end of the stream.
[[nodiscard]] bool sendBytes(int socket, std::size_t count);
[[nodiscard]] bool receiveBytes(int socket, std::size_t count);

// Answers requests on one socket until its end.
int echo(int socket, const MessageBytes& bytes);
// Answers requests on many sockets, from one thread with epoll, until all have ended.
int echoMany(const std::vector<int>& sockets, const MessageBytes& bytes);

}  // namespace Bench
