#include "configsrv/store/internal/log_reserve.h"

#include <algorithm>

namespace ConfigSrv {
namespace {

constexpr std::uint64_t kSmallestBytes = std::uint64_t{32} * 1024;
constexpr std::uint64_t kLargestBytes = std::uint64_t{512} * 1024;
// A commit of one variable writes one page; some of a few pages should find room as well.
constexpr std::uint64_t kUsualCommitBytes = std::uint64_t{16} * 1024;

}  // namespace

LogReserve::LogReserve(const Database& database, int logPages)
    : database_(database),
      limit_(logLimitBytes(logPages)),
      used_(database.logBytes()),
      reserved_(used_) {}

std::uint64_t LogReserve::prepare() {
  if (reserved_ >= limit_ || used_ + kUsualCommitBytes <= reserved_) return 0;
  // A commit that was larger than the reserve has made the file longer itself.
  reserved_ = std::max(reserved_, database_.logBytes());
  if (reserved_ >= limit_) return 0;
  const std::uint64_t more =
      std::min(std::clamp(used_, kSmallestBytes, kLargestBytes), limit_ - reserved_);
  // What could not be made longer now is not tried again until the next start.
  reserved_ = database_.extendLog(more) ? reserved_ + more : limit_;
  return more;
}

}  // namespace ConfigSrv
