// What a payload unfolds to: parsing takes no more memory than is allowed, and than was reckoned.
//
// An input is the number of a message, and then a script that writes its payload, for what unfolds to
// much is far longer than an input: bytes; a field whose content is what follows until it is closed;
// and again, several times, what was written since the field was opened.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/counted_heap.h"
#include "fuzz/input.h"
#include "fuzz/messages.h"
#include "fuzz/mutators.h"
#include "platform/schema/internal/unfolding.h"
#include "platform/schema/message_bounds.h"
#include "platform/schema/message_ids.h"

namespace {

using Fuzz::require;
using PlatformSchema::Reading;
using Result = PlatformSchema::Unfolding::Result;

constexpr std::size_t kMiB = std::size_t{1} << 20;
// Long enough to pass every limit but that of answers with records, which takes ten times as long.
constexpr std::size_t kLongest = std::size_t{48} * 1024;
// A message's own object, and the texts of problems.
constexpr std::size_t kOther = 2048;

void appendVarint(std::size_t value, std::string& bytes) {
  for (; value >= 0x80; value >>= 7) bytes += static_cast<char>(value | 0x80);
  bytes += static_cast<char>(value);
}

class Payload {
 public:
  explicit Payload(Fuzz::Input& script) {
    while (!script.isOver()) step(script);
    while (open_.size() > 1) close();
  }
  const std::string& bytes() const { return open_.front().bytes; }

 private:
  struct Field {
    std::uint8_t number;
    std::string bytes;
  };

  void step(Fuzz::Input& script) {
    switch (script.byte() % 4) {
      case 0:
        return append(script.piece());
      case 1:
        if (open_.size() < 8) open_.push_back({script.byte(), {}});
        return;
      case 2:
        if (open_.size() > 1) close();
        return;
      default:
        return repeat(script.number());
    }
  }
  void append(std::string_view bytes) {
    std::string& all = open_.back().bytes;
    if (all.size() + bytes.size() <= kLongest) all += bytes;
  }
  void close() {
    const Field field = std::move(open_.back());
    open_.pop_back();
    std::string whole;
    appendVarint(static_cast<std::size_t>(field.number % 32) << 3 | 2, whole);
    appendVarint(field.bytes.size(), whole);
    append(whole + field.bytes);
  }
  void repeat(std::size_t times) {
    const std::string once = open_.back().bytes;
    if (once.empty()) return;
    for (times = std::min(times, kLongest / once.size()); times > 1; --times) append(once);
  }

  std::vector<Field> open_{{0, {}}};
};

std::size_t allowed(const PlatformSchema::Shape& shape, std::size_t bytes) {
  return holdsRecords(shape) ? 17 * kMiB + 17 * bytes : kMiB + 4 * bytes;
}

void readBounded(std::uint32_t messageId, const std::string& payload,
                 const PlatformSchema::Shape& shape) {
  const auto message = Fuzz::newMessage(messageId);
  const Fuzz::HeapPeak peak;
  const Base::Status<Reading> read = PlatformSchema::readMessage(messageId, payload, *message);
  require(peak.bytes() <= allowed(shape, payload.size()), "what is read takes no more than allowed",
          PlatformSchema::messageName(messageId));
  if (read.code != Reading::TooMuch) return;
  require(peak.bytes() <= kOther, "what is too much is not parsed");
  require(read.text.find(PlatformSchema::messageName(messageId)) != std::string::npos,
          "a problem names the message");
}

// Also what is so short that nobody looks.
void parseAsReckoned(std::uint32_t messageId, const std::string& payload,
                     const PlatformSchema::Shape& shape) {
  const std::size_t most = mostMemory(shape, payload.size());
  const Fuzz::HeapPeak lookPeak;
  const PlatformSchema::Unfolding found = unfolding(shape, payload, most);
  require(lookPeak.bytes() == 0, "a look allocates nothing");
  require(found.steps <= payload.size(), "a look takes a step for each field");
  if (found.result == Result::TooMuch) return;
  const auto message = Fuzz::newMessage(messageId);
  const Fuzz::HeapPeak peak;
  const bool parsed = message->ParseFromString(payload);
  const bool isBroken = found.result == Result::Broken;
  require(!isBroken || !parsed, "what a look finds broken is no message");
  // A string that is sent again is copied into a larger one.
  require(isBroken || peak.bytes() <= found.memory + payload.size() / 2 + kOther,
          "parsing takes no more than was reckoned", PlatformSchema::messageName(messageId));
}

}  // namespace

// As Payload::step reads them.
Fuzz::InputShape Fuzz::inputShape() {
  return {1, InputShape::Rest::Steps, [](std::string_view bytes) {
            constexpr StepForm kForms[] = {{1, Piece::Message}, {2}, {1}, {3}};
            return kForms[static_cast<std::uint8_t>(bytes.front()) % 4];
          }};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  static const std::vector<std::uint32_t> ids = PlatformSchema::messageIds();
  const std::uint32_t messageId = ids[input.byte() % ids.size()];
  const PlatformSchema::Shape& shape = *PlatformSchema::shapeOf(messageId);
  const Payload payload(input);
  readBounded(messageId, payload.bytes(), shape);
  parseAsReckoned(messageId, payload.bytes(), shape);
  return 0;
}
