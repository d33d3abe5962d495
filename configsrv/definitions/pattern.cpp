// Patterns by regcomp of the C library, not std::regex: the latter recurses once for each byte of
// the value, so that a long one overruns the stack, and it adds a quarter of a megabyte to the
// program.
//
// Two habits of the C library are worked around. It looks for a match at every byte of the value,
// which takes quadratic time unless the expression is anchored: so it gets ^(...)$, and a ")" that
// would end our group is refused. And its automaton keeps every state that it was ever in, of
// which some expressions have exponentially many: so an automaton is not kept with the pattern,
// where writers could make it grow for as long as the service runs, but made anew every
// kMaxMatchedBytes. Making one takes some ten microseconds.
//
// What a pattern would cost the C library is counted before it gets to see it (PatternCounter).
#include "configsrv/definitions/pattern.h"

#include <regex.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace ConfigSrv {
namespace {

// In how many ways the empty text matches, which is how often the C library walks there; see
// PatternCounter.
struct EmptyWays {
  // From the beginning to the end.
  std::size_t through = 1;
  // The most from the beginning to any place, from any place to the end, and between any two.
  std::size_t in = 1;
  std::size_t out = 1;
  std::size_t most = 1;
};

constexpr EmptyWays kThroughACharacter{0, 1, 1, 1};

// Counts stop above the limit: how far above does not matter.
std::size_t cappedWays(std::size_t n) { return std::min(n, kMaxEmptyWays + 1); }

EmptyWays inSequence(const EmptyWays& a, const EmptyWays& b) {
  return {cappedWays(a.through * b.through), cappedWays(std::max(a.in, a.through * b.in)),
          cappedWays(std::max(b.out, a.out * b.through)),
          cappedWays(std::max({a.most, b.most, a.out * b.in}))};
}

EmptyWays alternatively(const EmptyWays& a, const EmptyWays& b) {
  const std::size_t through = cappedWays(a.through + b.through);
  return {through, std::max({a.in, b.in, through}), std::max({a.out, b.out, through}),
          std::max({a.most, b.most, through})};
}

// "?"
EmptyWays orNothing(const EmptyWays& a) { return alternatively(a, EmptyWays()); }

// "*": from any place round to any other.
EmptyWays anyTimes(const EmptyWays& a) {
  const EmptyWays once = orNothing(a);
  const EmptyWays twice = inSequence(once, once);
  return {once.through, twice.in, twice.out, std::max(twice.most, once.most)};
}

EmptyWays times(const EmptyWays& a, std::size_t least, std::size_t most, bool endless) {
  EmptyWays optional = endless ? anyTimes(a) : EmptyWays();
  for (std::size_t i = least; i < most; ++i) optional = orNothing(inSequence(a, optional));
  EmptyWays all;
  for (std::size_t i = 0; i < least; ++i) all = inSequence(all, a);
  return inSequence(all, optional);
}

// Reads a pattern far enough to tell what the C library would make of it.
//
// It copies what is repeated, so that "((a{255}){255}){255}" would take gigabytes; hence the number of
// single-character matchers that a pattern expands to. Where nothing stands it makes a node all the
// same, which its recursion visits, so that counts as one: "((){255}){255}" is no less.
//
// And inside a repetition it walks each way in which nothing matches, each time anew: those of a
// sequence multiply, "((a?)?(b?)?)+", and each "+" behind another squares them, "a?+++++".
class PatternCounter {
 public:
  void count(std::string_view pattern);
  // Counts stop above the limits: how far above does not matter.
  std::size_t atoms() const { return groups_.back().atoms; }
  std::size_t emptyWays() const { return groups_.back().closed.most; }
  bool hasBackReference() const { return backReference_; }
  bool hasUnmatchedClosing() const { return unmatchedClosing_; }

 private:
  struct Group {
    std::size_t atoms = 0;
    std::size_t atomsBefore = 0;  // the alternative that is being read
    // Of the alternatives that are finished, of the present one, and of the present one without its
    // last part.
    EmptyWays closed{0, 1, 1, 1};
    EmptyWays present;
    EmptyWays beforeLast;
  };

  void add(std::size_t atoms, const EmptyWays& ways);
  void atom() { add(1, kThroughACharacter); }
  void open();
  void close();
  void endAlternative();
  void repeat(std::size_t copies, const EmptyWays& ways);
  std::size_t afterBracket(std::string_view pattern, std::size_t at);
  std::size_t afterBrace(std::string_view pattern, std::size_t at);
  static std::size_t capped(std::size_t n) {
    return n > kMaxPatternAtoms ? kMaxPatternAtoms + 1 : n;
  }

  std::vector<Group> groups_{1};  // those that are open; the first is the whole
  std::size_t last_ = 0;          // atoms of what a repetition would repeat
  EmptyWays lastWays_;
  bool backReference_ = false;
  bool unmatchedClosing_ = false;
};

void PatternCounter::add(std::size_t atoms, const EmptyWays& ways) {
  Group& group = groups_.back();
  group.atoms = capped(group.atoms + atoms);
  group.beforeLast = group.present;
  group.present = inSequence(group.present, ways);
  last_ = atoms;
  lastWays_ = ways;
}

void PatternCounter::open() {
  groups_.emplace_back();
  last_ = 0;
  lastWays_ = EmptyWays();
}

void PatternCounter::endAlternative() {
  Group& group = groups_.back();
  if (group.atoms == group.atomsBefore) group.atoms = capped(group.atoms + 1);
  group.atomsBefore = group.atoms;
  group.closed = alternatively(group.closed, group.present);
  group.present = group.beforeLast = lastWays_ = EmptyWays();
  last_ = 0;
}

void PatternCounter::close() {
  if (groups_.size() == 1) {
    unmatchedClosing_ = true;
    return;
  }
  endAlternative();
  const Group group = groups_.back();
  groups_.pop_back();
  add(group.atoms, group.closed);
}

void PatternCounter::repeat(std::size_t copies, const EmptyWays& ways) {
  Group& group = groups_.back();
  if (copies >= 2) {
    const std::size_t all = capped(last_ * copies);
    group.atoms = capped(group.atoms - std::min(group.atoms, last_) + all);
    last_ = all;
  }
  lastWays_ = ways;
  group.present = inSequence(group.beforeLast, ways);
}

// The "]" that ends a bracket expression is not its first character, nor inside [: :], [. .], [= =].
std::size_t PatternCounter::afterBracket(std::string_view pattern, std::size_t at) {
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

// The number that a text begins with, 0 when it begins with none.
std::size_t leadingNumber(std::string_view text) {
  std::size_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') break;
    number = std::min(number * 10 + static_cast<std::size_t>(c - '0'), kMaxPatternAtoms + 1);
  }
  return number;
}

// "{2}", "{2,5}" or "{2,}", of which the last makes one copy more than its number.
std::size_t PatternCounter::afterBrace(std::string_view pattern, std::size_t at) {
  const std::size_t end = std::min(pattern.find('}', at), pattern.size());
  const std::string_view inside = pattern.substr(at, end - at);
  const std::size_t comma = inside.find(',');
  const std::size_t least = leadingNumber(inside);
  const bool endless = comma + 1 == inside.size();
  const std::size_t most = comma == std::string_view::npos ? least
                           : endless                       ? least
                                     : leadingNumber(inside.substr(comma + 1));
  repeat(std::max(least, most) + 1, times(lastWays_, least, most, endless));
  return end + 1;
}

void PatternCounter::count(std::string_view pattern) {
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
    } else if (c == '|') {
      endAlternative();
    } else if (c == '+') {
      repeat(2, times(lastWays_, 1, 1, true));
    } else if (c == '*') {
      repeat(1, anyTimes(lastWays_));
    } else if (c == '?') {
      repeat(1, orNothing(lastWays_));
    } else {
      atom();
    }
  }
  while (groups_.size() > 1) close();
  endAlternative();
}

std::string whyRefused(const std::string& text) {
  if (text.size() > kMaxPatternBytes) {
    return "it is longer than " + std::to_string(kMaxPatternBytes) + " bytes";
  }
  if (text.find('\0') != std::string::npos) return "it holds a zero byte";
  PatternCounter counter;
  counter.count(text);
  if (counter.atoms() > kMaxPatternAtoms) {
    return "its repetitions expand to more than " + std::to_string(kMaxPatternAtoms) +
           " characters: let \"max-length\" limit the length";
  }
  if (counter.emptyWays() > kMaxEmptyWays) {
    return "its parts match nothing in more than " + std::to_string(kMaxEmptyWays) +
           " ways: repeat only what holds a character, as in a* for (a?)*";
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
  // False only when memory ran out, because the pattern was compiled before. Nothing matches then.
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
