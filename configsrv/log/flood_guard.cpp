#include "configsrv/log/flood_guard.h"

#include "configsrv/log/log.h"

namespace ConfigSrv {

void FloodGuard::tell(Span& span, std::vector<Summary>& summaries) {
  if (span.lines > kLines) {
    const std::size_t more = span.lines - kLines;
    heldBack_ -= more;
    summaries.push_back(
        {span.level, std::to_string(more) + " more like it, the last: " + span.last});
  }
  span.lines = 0;
}

bool FloodGuard::admit(LogLevel level, std::string_view kind, std::string_view line,
                       Clock::time_point now) {
  auto span = spans_.find(kind);
  if (span == spans_.end()) span = spans_.emplace(kind, Span()).first;
  if (span->second.lines == 0) span->second.begin = now;
  if (++span->second.lines <= kLines) return true;
  span->second.level = level;
  span->second.last = line;
  ++heldBack_;
  return false;
}

std::vector<FloodGuard::Summary> FloodGuard::ended(Clock::time_point now) {
  std::vector<Summary> summaries;
  for (auto& [kind, span] : spans_) {
    if (now - span.begin >= kSpan) tell(span, summaries);
  }
  return summaries;
}

std::vector<FloodGuard::Summary> FloodGuard::all() {
  std::vector<Summary> summaries;
  for (auto& [kind, span] : spans_) tell(span, summaries);
  return summaries;
}

}  // namespace ConfigSrv
