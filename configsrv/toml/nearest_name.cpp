#include "configsrv/toml/nearest_name.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

namespace ConfigSrv {
namespace {

// Longer words are nobody's misspelling, and the distance costs the product of the lengths.
constexpr std::size_t kMaxWordBytes = 64;

// Letters added, left out, replaced or exchanged with their neighbour, each counted as one: the
// restricted distance of Damerau and Levenshtein, with the three rows that it looks at.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> before;
  std::vector<std::size_t> last;
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    before = std::move(last);
    last = row;
    row[0] = i + 1;
    for (std::size_t j = 0; j < b.size(); ++j) {
      row[j + 1] = std::min({last[j] + (a[i] == b[j] ? 0 : 1), last[j + 1] + 1, row[j] + 1});
      const bool exchanged = i > 0 && j > 0 && a[i] == b[j - 1] && a[i - 1] == b[j];
      if (exchanged) row[j + 1] = std::min(row[j + 1], before[j - 1] + 1);
    }
  }
  return row.back();
}

}  // namespace

std::string_view nearestName(std::string_view word,
                             const std::vector<std::string_view>& candidates) {
  std::string_view nearest;
  if (word.size() > kMaxWordBytes) return nearest;
  std::size_t fewest = std::max<std::size_t>(word.size() / 3, 1) + 1;
  for (const std::string_view candidate : candidates) {
    const std::size_t changes = distance(word, candidate);
    if (changes >= fewest) continue;
    fewest = changes;
    nearest = candidate;
  }
  return nearest;
}

}  // namespace ConfigSrv
