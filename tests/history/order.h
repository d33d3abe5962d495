// Order: the operations of a record by their times, in groups; and the sweep that most rules are.
//
// sweep goes through a group by the times at which operations began. Before each it has taken up all
// that had ended by then, so that it knows the greatest of their positions, the floor: what began
// afterwards may not stand below it. That is all that linearizability asks for, once each operation has
// its place in one order; it takes one look at each operation.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <vector>

#include "tests/history/lineage.h"
#include "tests/history/record.h"

namespace History {

using Places = std::vector<std::size_t>;

// All places of operations, sorted by a time of theirs.
template <typename Time>
Places placesBy(const std::vector<Operation>& operations, Time time) {
  Places places(operations.size());
  std::iota(places.begin(), places.end(), std::size_t{0});
  std::stable_sort(places.begin(), places.end(), [&](std::size_t a, std::size_t b) {
    return time(operations[a]) < time(operations[b]);
  });
  return places;
}

// Places that are parted by a key; in each group they keep their order.
class Groups {
 public:
  template <typename Key>
  Groups(const Places& places, std::size_t keys, Key keyOf)
      : begins_(keys + 1), places_(places.size()) {
    for (const std::size_t place : places) ++begins_[keyOf(place) + 1];
    std::partial_sum(begins_.begin(), begins_.end(), begins_.begin());
    std::vector<std::size_t> next(begins_.begin(), begins_.end() - 1);
    for (const std::size_t place : places) places_[next[keyOf(place)]++] = place;
  }
  std::size_t size() const { return begins_.size() - 1; }
  Places::const_iterator begin(std::size_t key) const { return places_.begin() + at(key); }
  Places::const_iterator end(std::size_t key) const { return places_.begin() + at(key + 1); }

 private:
  std::ptrdiff_t at(std::size_t key) const { return static_cast<std::ptrdiff_t>(begins_[key]); }

  std::vector<std::size_t> begins_;
  Places places_;
};

struct Floor {
  Position position = 0;
  std::size_t place = 0;
};

// positionOf(place) of what has ended, 0 when it says nothing; check(place, floor) of what begins.
template <typename Iterator, typename PositionOf, typename Check>
void sweep(const std::vector<Operation>& operations, Iterator begin, Iterator end, Iterator byEnd,
           PositionOf positionOf, Check check) {
  Floor floor;
  const Iterator allEnded = byEnd + (end - begin);
  for (; begin != end; ++begin) {
    for (; byEnd != allEnded && operations[*byEnd].end < operations[*begin].begin; ++byEnd) {
      const Position position = positionOf(*byEnd);
      if (position > floor.position) floor = {position, *byEnd};
    }
    check(*begin, floor);
  }
}

}  // namespace History
