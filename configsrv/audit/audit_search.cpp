// Reads the file from its end in pieces, and each piece from its last line to its first.
//
// The beginning of a piece may be the end of a line, so it is kept and put behind the next piece.
// The search stops when all lines are found.
#include "configsrv/audit/internal/audit_search.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <unordered_map>

#include "base/unique_fd.h"

namespace ConfigSrv {
namespace {

constexpr std::string_view kRepaired = ",\"repaired\":true";

class Search {
 public:
  explicit Search(const std::vector<std::string>& lines) : found_(lines.size()) {
    for (std::size_t i = 0; i < lines.size(); ++i) wanted_[lines[i]] = i;
  }

  void see(std::string_view line) {
    if (line.empty() || line.back() != '}') return;
    line.remove_suffix(1);
    if (line.size() > kRepaired.size() &&
        line.compare(line.size() - kRepaired.size(), kRepaired.size(), kRepaired) == 0)
      line.remove_suffix(kRepaired.size());
    const auto at = wanted_.find(line);
    if (at == wanted_.end() || found_[at->second]) return;
    found_[at->second] = true;
    ++count_;
  }
  bool isOver() const { return count_ == wanted_.size(); }
  std::vector<bool> found() const { return found_; }

 private:
  std::unordered_map<std::string_view, std::size_t> wanted_;
  std::vector<bool> found_;
  std::size_t count_ = 0;
};

// Looks at the whole lines of a piece. Returns what stands before the first line break: it may
// begin in the piece before.
std::string seeLines(std::string_view text, Search& search) {
  std::size_t end = text.size();
  while (end > 0) {
    const std::size_t lineBreak = text.rfind('\n', end - 1);
    if (lineBreak == std::string_view::npos) break;
    search.see(text.substr(lineBreak + 1, end - lineBreak - 1));
    end = lineBreak;
  }
  return std::string(text.substr(0, end));
}

void searchBackwards(int fd, std::uint64_t fileBytes, std::uint64_t maxBytes, Search& search) {
  constexpr std::uint64_t kPieceBytes = 65536;
  const std::uint64_t first = fileBytes - std::min(fileBytes, maxBytes);
  std::string rest;
  std::string piece;
  for (std::uint64_t end = fileBytes; end > first && !search.isOver();) {
    const std::uint64_t begin = std::max(first, end - std::min(end, kPieceBytes));
    piece.resize(static_cast<std::size_t>(end - begin));
    const ssize_t got = ::pread(fd, piece.data(), piece.size(), static_cast<off_t>(begin));
    if (got != static_cast<ssize_t>(piece.size())) return;
    piece += rest;
    rest = seeLines(piece, search);
    end = begin;
  }
  if (first == 0) search.see(rest);
}

}  // namespace

std::vector<bool> linesInFile(const std::string& path, const std::vector<std::string>& lines,
                              std::size_t maxBytes) {
  Search search(lines);
  const Base::UniqueFd fd(
      ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd) return search.found();
  struct stat status {};
  if (::fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode))
    searchBackwards(fd.get(), static_cast<std::uint64_t>(status.st_size), maxBytes, search);
  return search.found();
}

}  // namespace ConfigSrv
