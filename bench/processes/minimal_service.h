// The least that a request and its answer take: two processes that know the frames and the messages
// by heart and link nothing for it. The floor of the instructions that a request takes.
//
// The service takes one request after the other: it reads the frame, finds the variable's name in
// the message, looks the variable up, does what is asked, and sends the answer that the real service
// gave. The client sends a ready-made frame and compares the answer with the one it expects.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace Bench {

// Where a message has what the service needs: field numbers from the outermost on, ended by 0.
struct RequestForm {
  const int* name;
  // Null when the request carries no value: then it is enough that the variable is there.
  const int* value;
  bool registers;
};

class MinimalService {
 public:
  // Answers all requests with this frame, with the request's sequence.
  MinimalService(const RequestForm& form, std::string answer);

  void add(const std::string& dottedName, const std::string& value) { values_[dottedName] = value; }

  // Serves one client until it has gone; 0, or 1 when it asked for something else than was agreed.
  int serve(int socket);

 private:
  bool answer(int socket);
  bool accept(const char* payload, const char* end);

  const RequestForm form_;
  std::string answer_;
  std::unordered_map<std::string, std::string> values_;
  std::unordered_set<std::string> registered_;
};

// Sends the frame with the next sequence; whether the answer is the expected one.
class MinimalClient {
 public:
  MinimalClient(int socket, std::string expected);

  [[nodiscard]] bool ask(std::string& frame);

 private:
  const int socket_;
  std::string expected_;
  std::uint32_t sequence_ = 0;
};

}  // namespace Bench
