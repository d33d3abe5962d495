// LogReserve: keeps the log's file longer than what is in it, so that most commits overwrite.
//
// A commit that makes the file longer has the file's size and blocks written and flushed with it,
// which costs a multiple of the commit itself; one that overwrites does not. So the file is made
// longer by many commits' worth at once, filled with zeros: a page of the log whose header is zero
// ends the log for whoever reads it (https://www.sqlite.org/fileformat2.html#walreset).
//
// The reserve grows as the log does, so that a store that is seldom written to is not written to for
// this: the zeros are never more than the log, or 32 KiB, and each piece leaves with the flush of the
// commit that needed it. Once the log has reached its limit it starts over in the same file, and
// nothing is reserved any more.
//
// Threads: one at a time.
#pragma once

#include <cstdint>

#include "configsrv/store/internal/database.h"

namespace ConfigSrv {

// A page in the log, with its header.
constexpr std::uint64_t kLogFrameBytes = 4096 + 24;

// What a log takes that starts over after so many pages: the commit that reaches them may be one of
// several pages, and is in it.
constexpr std::uint64_t logLimitBytes(int pages) {
  return static_cast<std::uint64_t>(pages + 8) * kLogFrameBytes;
}

class LogReserve {
 public:
  LogReserve(const Database& database, int logPages);

  // Before a commit: makes room in the file when little is left. Returns the bytes written for it.
  // Failure is none of the commit's, which then makes the file longer itself.
  std::uint64_t prepare();
  // After a commit that wrote so much to the log.
  void used(std::uint64_t bytes) { used_ += bytes; }

 private:
  const Database& database_;
  const std::uint64_t limit_;
  std::uint64_t used_;
  std::uint64_t reserved_;
};

}  // namespace ConfigSrv
