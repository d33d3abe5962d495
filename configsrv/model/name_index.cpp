// Positions of the variables, sorted by full name. The variables below a name are then one range,
// found by binary search: those whose names begin with it and a dot.
//
// The index holds four bytes for each variable and no text: names are compared where the keys hold
// them.
#include "configsrv/model/internal/name_index.h"

#include <algorithm>
#include <numeric>
#include <string>

#include "configsrv/model/model.h"

namespace ConfigSrv {
namespace {

// Compares a key's full name, cut to the other's length when `cut`, with a text: negative, 0 or
// positive. Takes the name's pieces one after another, so that nothing is put together.
int compareFullName(const ConfigVar& key, std::string_view text, bool cut) {
  const std::string_view pieces[] = {key.group(), key.name().empty() ? "" : ".", key.name()};
  for (const std::string_view piece : pieces) {
    const int order = piece.substr(0, text.size()).compare(text.substr(0, piece.size()));
    if (order != 0) return order;
    if (piece.size() > text.size()) return cut ? 0 : 1;
    text.remove_prefix(piece.size());
  }
  return text.empty() ? 0 : -1;
}

std::vector<std::uint32_t> numbersUpTo(std::size_t count) {
  std::vector<std::uint32_t> numbers(count);
  std::iota(numbers.begin(), numbers.end(), 0U);
  return numbers;
}

}  // namespace

NameIndex::NameIndex(const std::vector<Variable>& variables)
    : variables_(variables), sorted_(numbersUpTo(variables.size())) {
  std::vector<std::string> names;
  names.reserve(variables.size());
  for (const Variable& variable : variables) names.push_back(variable.key().dottedName());
  std::stable_sort(sorted_.begin(), sorted_.end(),
                   [&](std::uint32_t a, std::uint32_t b) { return names[a] < names[b]; });
}

std::vector<std::uint32_t> NameIndex::covered(std::string_view dottedName) const {
  if (dottedName.empty()) return numbersUpTo(sorted_.size());
  const Range same = exactly(dottedName);
  const Range others = below(dottedName);
  std::vector<std::uint32_t> positions(same.first, same.second);
  positions.insert(positions.end(), others.first, others.second);
  // Names without instances are in the order of the keys already.
  if (!std::is_sorted(positions.begin(), positions.end()))
    std::sort(positions.begin(), positions.end());
  return positions;
}

NameIndex::Range NameIndex::exactly(std::string_view dottedName) const {
  return range(dottedName, true);
}

NameIndex::Range NameIndex::below(std::string_view dottedName) const {
  return range(std::string(dottedName) + ".", false);
}

NameIndex::Range NameIndex::range(std::string_view begin, bool whole) const {
  const auto first = std::partition_point(sorted_.begin(), sorted_.end(), [&](std::uint32_t i) {
    return compareFullName(variables_[i].key(), begin, !whole) < 0;
  });
  const auto last = std::partition_point(first, sorted_.end(), [&](std::uint32_t i) {
    return compareFullName(variables_[i].key(), begin, !whole) <= 0;
  });
  const std::uint32_t* const all = sorted_.data();
  return {all + (first - sorted_.begin()), all + (last - sorted_.begin())};
}

}  // namespace ConfigSrv
