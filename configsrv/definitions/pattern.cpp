#include "configsrv/definitions/pattern.h"

#include <regex.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

// regcomp, not std::regex: the latter recurses once for each byte of the value, so that a long one
// overruns the stack, and it adds a quarter of a megabyte to the program.
//
// Two habits of the C library are worked around. It looks for a match at every byte of the value,
// which takes quadratic time unless the expression is anchored: so it gets ^(...)$, and a ")" that
// would end our group is refused. And its automaton keeps every state that it was ever in, of which
// some expressions have exponentially many: so an automaton is not kept with the pattern, where
// writers could make it grow for as long as the service runs, but made anew every
// kMaxMatchedBytes. Making one takes some ten microseconds.

namespace ConfigSrv {
namespace {

// Reads a pattern far enough to count the single-character matchers that it expands to: the C
// library copies what is repeated, so that "((a{255}){255}){255}" would take gigabytes. Where nothing
// stands it makes a node all the same, so that counts as one: "((){255}){255}" is no less.
class AtomCounter {
 public:
  // Nothing above kMaxPatternAtoms is told apart.
  std::size_t count(std::string_view pattern);
  bool hasBackReference() const { return backReference_; }
  bool hasUnmatchedClosing() const { return unmatchedClosing_; }

 private:
  void atom() { last_ = 1, sums_.back() = capped(sums_.back() + 1); }
  void open();
  void close();
  void endAlternative();
  void repeat(std::size_t times);
  std::size_t afterBracket(std::string_view pattern, std::size_t at);
  std::size_t afterBrace(std::string_view pattern, std::size_t at);
  static std::size_t capped(std::size_t n) {
    return n > kMaxPatternAtoms ? kMaxPatternAtoms + 1 : n;
  }

  // One for each group that is open: the sum so far, and what it was where the alternative began.
  std::vector<std::size_t> sums_{0};
  std::vector<std::size_t> begins_{0};
  std::size_t last_ = 0;              // of the atom or group that a repetition would repeat
  bool backReference_ = false;
  bool unmatchedClosing_ = false;
};

void AtomCounter::open() {
  sums_.push_back(0);
  begins_.push_back(0);
  last_ = 0;
}

void AtomCounter::endAlternative() {
  if (sums_.back() == begins_.back()) sums_.back() = capped(sums_.back() + 1);
  begins_.back() = sums_.back();
}

void AtomCounter::close() {
  if (sums_.size() == 1) {
    unmatchedClosing_ = true;
    return;
  }
  endAlternative();
  last_ = sums_.back();
  sums_.pop_back();
  begins_.pop_back();
  sums_.back() = capped(sums_.back() + last_);
}

void AtomCounter::repeat(std::size_t times) {
  if (times < 2) return;
  const std::size_t all = capped(last_ * times);
  sums_.back() = capped(sums_.back() - std::min(sums_.back(), last_) + all);
  last_ = all;
}

// The "]" that ends a bracket expression is not its first character, nor inside [: :], [. .], [=
// =].
std::size_t AtomCounter::afterBracket(std::string_view pattern, std::size_t at) {
  if (at < pattern.size() && pattern[at] == '^') ++at;
  if (at < pattern.size() && pattern[at] == ']') ++at;
  while (at < pattern.size() && pattern[at] != ']') {
    const char kind = at + 1 < pattern.size() ? pattern[at + 1] : '\0';
    const bool named = pattern[at] == '[' && (kind == ':' || kind == '.' || kind == '=');
    const std::size_t end = named ? pattern.find(std::string{kind, ']'}, at + 2) : at;
    at = end == std::string_view::npos ? pattern.size() : end + (named ? 2 : 1);
  }
  atom();
  return at + 1;
}

// The larger of the numbers in "{2,5}", one more than the lower one for "{2,}".
std::size_t AtomCounter::afterBrace(std::string_view pattern, std::size_t at) {
  std::size_t largest = 0;
  std::size_t number = 0;
  for (; at < pattern.size() && pattern[at] != '}'; ++at) {
    const bool digit = pattern[at] >= '0' && pattern[at] <= '9';
    number = digit ? capped(number * 10 + static_cast<std::size_t>(pattern[at] - '0')) : 0;
    largest = std::max(largest, number);
  }
  repeat(largest + 1);
  return at + 1;
}

std::size_t AtomCounter::count(std::string_view pattern) {
  std::size_t at = 0;
  while (at < pattern.size()) {
    const char c = pattern[at++];
    if (c == '\\' && at < pattern.size()) {
      backReference_ |= pattern[at] >= '1' && pattern[at] <= '9';
      ++at;
      atom();
    } else if (c == '[') {
      at = afterBracket(pattern, at);
    } else if (c == '{') {
      at = afterBrace(pattern, at);
    } else if (c == '(') {
      open();
    } else if (c == ')') {
      close();
    } else if (c == '+') {
      repeat(2);
    } else if (c == '|') {
      endAlternative();
    } else if (c != '*' && c != '?') {
      atom();
    }
  }
  while (sums_.size() > 1) close();
  return sums_.back();
}

std::string whyRefused(const std::string& text) {
  if (text.size() > kMaxPatternBytes) {
    return "it is longer than " + std::to_string(kMaxPatternBytes) + " bytes";
  }
  if (text.find('\0') != std::string::npos) return "it holds a zero byte";
  AtomCounter counter;
  if (counter.count(text) > kMaxPatternAtoms) {
    return "its repetitions expand to more than " + std::to_string(kMaxPatternAtoms) +
           " characters: let \"max-length\" limit the length";
  }
  if (counter.hasUnmatchedClosing()) return "a \")\" has no \"(\": write \\) for the character";
  if (counter.hasBackReference()) return "back-references such as \\1 are not supported";
  return std::string();
}

int compileAnchored(const Pattern& pattern, regex_t& expression) {
  return ::regcomp(&expression, ("^(" + pattern.text() + ")$").c_str(), REG_EXTENDED);
}

std::string compileError(int code, const regex_t& expression) {
  std::array<char, 256> text = {};
  ::regerror(code, &expression, text.data(), text.size());
  return text.data();
}

}  // namespace

std::shared_ptr<const Pattern> Pattern::compile(const std::string& text, std::string& reason) {
  reason = whyRefused(text);
  if (!reason.empty()) return nullptr;
  std::shared_ptr<const Pattern> pattern(new Pattern(text));
  regex_t expression = {};
  const int code = compileAnchored(*pattern, expression);
  if (code != 0) {
    reason = compileError(code, expression);
    return nullptr;
  }
  ::regfree(&expression);
  return pattern;
}

struct PatternMatcher::Automaton {
  explicit Automaton(const Pattern& pattern) : ready(compileAnchored(pattern, expression) == 0) {}
  Automaton(const Automaton&) = delete;
  Automaton& operator=(const Automaton&) = delete;
  ~Automaton() {
    if (ready) ::regfree(&expression);
  }

  regex_t expression = {};
  // False only when memory ran out: the pattern was compiled before. Nothing matches then.
  bool ready;
  std::size_t bytesLeft = kMaxMatchedBytes;
};

PatternMatcher::PatternMatcher(const Pattern& pattern) : pattern_(pattern) {}

PatternMatcher::~PatternMatcher() = default;

bool PatternMatcher::matches(std::string_view value) {
  if (value.size() > kMaxMatchedBytes) return false;
  if (!automaton_ || automaton_->bytesLeft < value.size()) {
    automaton_ = std::make_unique<Automaton>(pattern_);
  }
  automaton_->bytesLeft -= value.size();
  if (!automaton_->ready) return false;
  // REG_STARTEND gives the length, so that a zero byte does not end the value.
  regmatch_t match = {0, static_cast<regoff_t>(value.size())};
  const char* const bytes = value.empty() ? "" : value.data();
  return ::regexec(&automaton_->expression, bytes, 1, &match, REG_STARTEND) == 0;
}

}  // namespace ConfigSrv
