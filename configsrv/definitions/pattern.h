// Pattern: a POSIX extended regular expression that a value matches as a whole.
//
//   std::string reason;
//   const auto pattern = Pattern::compile("[a-z]+[0-9]?", reason);
//   PatternMatcher matcher(*pattern);
//   matcher.matches("eth0");   // true
//   matcher.matches("eth0 ");  // false: something is left over
//
// Shape:    works on bytes: zero bytes and invalid UTF-8 in a value are ordinary bytes, and "."
//           matches any one of them, a newline included, save the zero byte: only [^...] matches
//           that.
// Limits:   the ones below; back-references and unmatched parentheses are refused. So a match costs
//           time and memory that the limits bound, whatever the value.
// Threads:  a Pattern is immutable, any number of threads may use one; a PatternMatcher belongs to
//           one thread, and is cheap enough to be made for each value.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace ConfigSrv {

// Length of a pattern, and the single characters that its repetitions expand to: "(ab){3}" is 6.
inline constexpr std::size_t kMaxPatternBytes = 1024;
inline constexpr std::size_t kMaxPatternAtoms = 500;

// Ways in which a pattern, or a part of it, matches nothing: "(a?b?)*" has two, "(a*)*(b*)*" four.
inline constexpr std::size_t kMaxEmptyWays = 64;

// Longest string that is matched; a longer one never matches. Together with the limits above it
// keeps the worst pair of pattern and string that we know below 30 MiB and a tenth of a second.
inline constexpr std::size_t kMaxMatchedBytes = 1024;

class Pattern {
 public:
  // Null when the text is no pattern; reason then says why, for people.
  static std::shared_ptr<const Pattern> compile(const std::string& text, std::string& reason);

  const std::string& text() const { return text_; }

 private:
  explicit Pattern(std::string text) : text_(std::move(text)) {}
  std::string text_;
};

class PatternMatcher {
 public:
  // The pattern has to outlive the matcher.
  explicit PatternMatcher(const Pattern& pattern);
  PatternMatcher(const PatternMatcher&) = delete;
  PatternMatcher& operator=(const PatternMatcher&) = delete;
  ~PatternMatcher();

  bool matches(std::string_view value);

 private:
  struct Automaton;
  const Pattern& pattern_;
  std::unique_ptr<Automaton> automaton_;
};

}  // namespace ConfigSrv
