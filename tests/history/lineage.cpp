#include "tests/history/lineage.h"

#include <algorithm>

namespace History {

Lineage::Lineage(const Record& record) {
  branches_.push_back({});
  for (const Restore& restore : record.restores) {
    Branch branch{restore.epoch, 0, 0, restore.begin, restore.end};
    for (const Copy& copy : record.copies) {
      if (copy.number != restore.number) continue;
      branch.parent = branchDuring(copy.begin, copy.end);
      branch.cut = copy.revision;
    }
    branches_.push_back(branch);
  }
}

std::uint32_t Lineage::branchOf(std::uint64_t epoch) const {
  const auto later = std::upper_bound(
      branches_.begin(), branches_.end(), epoch,
      [](std::uint64_t sought, const Branch& branch) { return sought < branch.epoch; });
  return static_cast<std::uint32_t>(later - branches_.begin() - 1);
}

std::uint32_t Lineage::branchDuring(std::int64_t begin, std::int64_t end) const {
  std::uint32_t branch = 0;
  for (std::uint32_t i = 1; i < branches(); ++i) {
    if (branches_[i].begin > end) break;
    if (branches_[i].end >= begin) return branches();
    branch = i;
  }
  return branch;
}

std::uint32_t Lineage::ownerOf(std::uint32_t branch, std::uint64_t revision) const {
  while (branch != 0 && revision <= branches_[branch].cut) branch = branches_[branch].parent;
  return branch;
}

}  // namespace History
