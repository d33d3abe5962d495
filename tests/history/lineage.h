// Lineage: which revisions belong together, and where in the order of all states a state stands.
//
// A restored store goes on from its copy, so that revisions come again with other contents. Each restore
// begins a branch; it shares with the branch that the copy was made in the revisions up to the copy's.
// Epochs that no restore began belong to the branch of the one before.
//
// Threads:  none of its own; const after construction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tests/history/record.h"

namespace History {

// Grows with branch, revision, and of states of one revision with the generation of a default. 0: none.
using Position = std::uint64_t;

class Lineage {
 public:
  explicit Lineage(const Record& record);

  std::uint32_t branches() const { return static_cast<std::uint32_t>(branches_.size()); }
  std::uint32_t branchOf(std::uint64_t epoch) const;
  // The branch during all of the time; branches() when a restore fell into it.
  std::uint32_t branchDuring(std::int64_t begin, std::int64_t end) const;
  // The branch in which the revision was made that a branch tells of.
  std::uint32_t ownerOf(std::uint32_t branch, std::uint64_t revision) const;
  std::uint32_t parentOf(std::uint32_t branch) const { return branches_[branch].parent; }
  // The last revision that the branch has from its parent; nothing for the first.
  std::uint64_t cutOf(std::uint32_t branch) const { return branches_[branch].cut; }
  // When the branch can have been seen first.
  std::int64_t beginOf(std::uint32_t branch) const { return branches_[branch].begin; }

  static Position position(std::uint32_t branch, std::uint64_t revision, std::uint64_t generation) {
    return (Position{branch} << kBranchShift) | (revision << kRevisionShift) | generation;
  }
  static std::uint32_t branchAt(Position position) {
    return static_cast<std::uint32_t>(position >> kBranchShift);
  }
  // Without the generation.
  static Position baseOf(Position position) { return position >> kRevisionShift << kRevisionShift; }
  static constexpr std::uint64_t kMostGenerations = 4095;

 private:
  static constexpr unsigned kRevisionShift = 12;
  static constexpr unsigned kBranchShift = 52;

  struct Branch {
    std::uint64_t epoch = 0;  // its first
    std::uint32_t parent = 0;
    std::uint64_t cut = 0;
    std::int64_t begin = 0;
    std::int64_t end = 0;  // of the restore
  };
  std::vector<Branch> branches_;
};

}  // namespace History
