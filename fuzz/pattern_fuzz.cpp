// Patterns of definitions and the values that clients send against them: the first line is the
// pattern, each other one a value. A pair that takes long is found by the fuzzer's time limit.
#include <algorithm>

#include "configsrv/definitions/pattern.h"
#include "fuzz/input.h"

namespace {

using ConfigSrv::Pattern;
using ConfigSrv::PatternMatcher;
using Fuzz::require;

constexpr std::size_t kMaxValues = 16;

std::string_view takeLine(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  std::string_view text = input.rest();
  const std::string written(takeLine(text));
  std::string reason;
  const auto pattern = Pattern::compile(written, reason);
  require((pattern == nullptr) == !reason.empty(),
          "a text is a pattern, or the reason says why not");
  if (!pattern) return 0;
  require(pattern->text() == written, "a pattern keeps its text");
  PatternMatcher matcher(*pattern);
  for (std::size_t i = 0; i < kMaxValues && !text.empty(); ++i) {
    // Ended by a zero byte, which nobody may read: sanitizers of this age look for one all the same.
    const std::string value(takeLine(text));
    const bool matched = matcher.matches(value);
    require(!matched || value.size() <= ConfigSrv::kMaxMatchedBytes, "no long value matches");
    require(PatternMatcher(*pattern).matches(value) == matched,
            "what was matched before plays no part", value);
  }
  return 0;
}
