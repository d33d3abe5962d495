// A message is a run of fields, each a key (number and type), then a number or a length and as many
// bytes (protobuf's encoding). What is looked for is found by walking along the outer message and down
// into the fields of the route; all else is stepped over.
#include "bench/processes/minimal_service.h"

#include <sys/socket.h>

#include <cstring>
#include <utility>

namespace Bench {
namespace {

constexpr std::size_t kHeaderBytes = 24;
constexpr std::size_t kSequenceAt = 8;
constexpr std::size_t kLengthAt = 12;
constexpr std::size_t kMostBytes = 4096;
constexpr unsigned kBytesType = 2;

std::uint32_t numberAt(const char* bytes) {
  std::uint32_t number = 0;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

void putSequence(std::uint32_t sequence, std::string& frame) {
  std::memcpy(&frame[kSequenceAt], &sequence, sizeof sequence);
}

std::uint64_t readNumber(const char*& at, const char* end) {
  std::uint64_t number = 0;
  for (unsigned shift = 0; at != end; shift += 7) {
    const auto byte = static_cast<unsigned char>(*at++);
    number |= std::uint64_t{byte & 0x7Fu} << shift;
    if (byte < 0x80) break;
  }
  return number;
}

// Appends the strings at the end of the route, with dots between them.
bool collect(const char* at, const char* end, const int* route, std::string& found) {
  while (at != end) {
    const std::uint64_t key = readNumber(at, end);
    const std::uint64_t number = readNumber(at, end);
    if ((key & 7) != kBytesType) continue;
    if (number > static_cast<std::uint64_t>(end - at)) return false;
    const char* const begin = std::exchange(at, at + number);
    if (key >> 3 != static_cast<std::uint64_t>(route[0])) continue;
    if (route[1] != 0) {
      if (!collect(begin, at, route + 1, found)) return false;
      continue;
    }
    if (!found.empty()) found += '.';
    found.append(begin, at);
  }
  return true;
}

// One frame; false at the end of the stream. Each side waits for the other, so that one call
// usually takes all of it.
bool receiveFrame(int socket, char* buffer, std::size_t& size) {
  std::size_t wanted = kHeaderBytes;
  for (size = 0; size < wanted;) {
    const ssize_t received = ::recv(socket, buffer + size, kMostBytes - size, 0);
    if (received <= 0) return false;
    size += static_cast<std::size_t>(received);
    if (size >= kHeaderBytes) wanted = kHeaderBytes + numberAt(buffer + kLengthAt);
    if (wanted > kMostBytes) return false;
  }
  return true;
}

bool sendFrame(int socket, const std::string& frame) {
  return ::send(socket, frame.data(), frame.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(frame.size());
}

}  // namespace

MinimalService::MinimalService(const RequestForm& form, std::string answer)
    : form_(form), answer_(std::move(answer)) {}

int MinimalService::serve(int socket) {
  while (answer(socket)) {
  }
  char byte = 0;
  return ::recv(socket, &byte, 1, MSG_DONTWAIT) == 0 ? 0 : 1;
}

bool MinimalService::answer(int socket) {
  char frame[kMostBytes];
  std::size_t size = 0;
  if (!receiveFrame(socket, frame, size) || !accept(frame + kHeaderBytes, frame + size))
    return false;
  putSequence(numberAt(frame + kSequenceAt), answer_);
  return sendFrame(socket, answer_);
}

bool MinimalService::accept(const char* payload, const char* end) {
  std::string name;
  if (!collect(payload, end, form_.name, name)) return false;
  const auto variable = values_.find(name);
  if (variable == values_.end()) return false;
  if (form_.registers) return registered_.insert(std::move(name)).second;
  if (form_.value == nullptr) return true;
  std::string value;
  return collect(payload, end, form_.value, value) && value == variable->second;
}

MinimalClient::MinimalClient(int socket, std::string expected)
    : socket_(socket), expected_(std::move(expected)) {}

bool MinimalClient::ask(std::string& frame) {
  putSequence(++sequence_, frame);
  putSequence(sequence_, expected_);
  char received[kMostBytes];
  std::size_t size = 0;
  return sendFrame(socket_, frame) && receiveFrame(socket_, received, size) &&
         size == expected_.size() && std::memcmp(received, expected_.data(), size) == 0;
}

}  // namespace Bench
