// FloodGuard: keeps lines that somebody else can bring about at will from filling the journal.
//
// Of each kind kLines are written in each span of kSpan; the rest is counted and summed up in one
// line, "N more like it", when the span has ended. Kinds do not share: a flood of one hides nothing
// of another. A kind is a name in the code, never a text that a peer chooses, so there are few.
//
// Threads:  none of its own; the caller keeps calls apart.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace ConfigSrv {

enum class LogLevel;

class FloodGuard {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t kLines = 10;
  static constexpr std::chrono::seconds kSpan{10};

  struct Summary {
    LogLevel level;
    std::string line;
  };

  // Whether the line is to be written now.
  bool admit(LogLevel level, std::string_view kind, std::string_view line, Clock::time_point now);

  // A summary of each span that has ended; each is returned once.
  std::vector<Summary> ended(Clock::time_point now);
  // The summaries of all spans, ended or not.
  std::vector<Summary> all();
  // Whether ended() will have something to return later.
  bool holdsBack() const { return heldBack_ > 0; }

 private:
  struct Span {
    Clock::time_point begin;
    std::size_t lines = 0;
    LogLevel level{};
    std::string last;
  };

  void tell(Span& span, std::vector<Summary>& summaries);

  std::map<std::string, Span, std::less<>> spans_;
  std::size_t heldBack_ = 0;
};

}  // namespace ConfigSrv
