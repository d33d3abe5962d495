#include "configsrv/changes/hourly_limits.h"

namespace ConfigSrv {

using PbUtility::Owner;

bool HourlyLimits::limits(Owner owner) const {
  return (options_.commits > 0 || options_.bytes > 0) && owner.uid != 0 && owner.uid != own_;
}

Base::Status<> HourlyLimits::room(Owner owner, std::size_t carried, Clock::time_point now) const {
  const auto found = hours_.find(owner.uid);
  const bool isNew = found == hours_.end() || now - found->second.begin >= kHour;
  const Hour hour = isNew ? Hour{now} : found->second;
  const bool isCommits = options_.commits > 0 && hour.commits >= options_.commits;
  const bool isBytes = options_.bytes > 0 && hour.bytes + kCommitBytes + carried > options_.bytes;
  if (!isCommits && !isBytes) return {};
  const std::string limit = isCommits ? std::to_string(options_.commits) + " durable changes"
                                      : std::to_string(options_.bytes) + " bytes made durable";
  if (isBytes && !isCommits && isNew)
    return Base::failed("no more than " + limit +
                        " in an hour for one user, and this change alone has " +
                        std::to_string(kCommitBytes + carried) + ": make the value smaller");
  const auto left = std::chrono::ceil<std::chrono::seconds>(hour.begin + kHour - now);
  return Base::failed("no more than " + limit + " in an hour for one user, and user " +
                      std::to_string(owner.uid) + " has its share: there is room again in " +
                      std::to_string(left.count()) + " s");
}

void HourlyLimits::add(Owner owner, std::size_t carried, Clock::time_point now) {
  if (hours_.size() >= kUsers) forgetPast(now);
  Hour& hour = hours_.try_emplace(owner.uid, Hour{now}).first->second;
  if (now - hour.begin >= kHour) hour = {now};
  ++hour.commits;
  hour.bytes += kCommitBytes + carried;
}

void HourlyLimits::forgetPast(Clock::time_point now) {
  for (auto hour = hours_.begin(); hour != hours_.end();)
    hour = now - hour->second.begin >= kHour ? hours_.erase(hour) : std::next(hour);
}

}  // namespace ConfigSrv
