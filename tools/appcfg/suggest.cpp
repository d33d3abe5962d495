// The distance is that of Damerau and Levenshtein in its simple form (optimal string alignment), row by
// row. A listing of hundreds of thousands of variables is given up after a while: an answer that comes
// late helps nobody.
#include "tools/appcfg/suggest.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "appconfig/core/key_notation.h"
#include "tools/appcfg/listing.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPatience(500);
constexpr std::size_t kMostFound = 3;

std::size_t farthest(const std::string& word) {
  if (word.size() < 5) return 1;
  return word.size() < 11 ? 2 : 3;
}

// The groups that a variable is in, outermost first.
std::vector<std::string> namesAbove(const ConfigVar& var) {
  std::vector<std::string> names;
  const std::string dotted = var.dottedName();
  for (std::size_t dot = dotted.find('.'); dot != std::string::npos;
       dot = dotted.find('.', dot + 1))
    names.push_back(dotted.substr(0, dot));
  return names;
}

bool takesKey(const Verb& verb) {
  return !verb.positionals.empty() && verb.positionals.front().name == "KEY";
}

}  // namespace

std::size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> above2(b.size() + 1), above(b.size() + 1), row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    above2.swap(above);
    above.swap(row);
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (a[i - 1] != b[j - 1])});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) row[j] = std::min(row[j], above2[j - 2] + 1);
    }
  }
  return row[b.size()];
}

Nearest::Nearest(std::string word) : word_(std::move(word)), distance_(farthest(word_)) {}

void Nearest::take(const std::string& candidate) {
  const std::size_t longer = std::max(candidate.size(), word_.size());
  if (longer - std::min(candidate.size(), word_.size()) > distance_) return;
  const std::size_t distance = editDistance(word_, candidate);
  // Half of the word would be another: "on" is no slip for "off".
  if (distance > distance_ || distance * 2 >= longer) return;
  if (distance < distance_) found_.clear();
  distance_ = distance;
  const bool isNew = std::find(found_.begin(), found_.end(), candidate) == found_.end();
  if (isNew && found_.size() < kMostFound) found_.push_back(candidate);
}

std::string Nearest::question() const {
  std::string text;
  for (std::size_t i = 0; i < found_.size(); ++i) {
    if (i > 0) text += i + 1 < found_.size() ? ", " : " or ";
    text += found_[i];
  }
  return text.empty() ? text : "did you mean " + text + '?';
}

std::string verbLike(const std::string& words) {
  Nearest nearest(words);
  for (const Verb& verb : verbs()) {
    nearest.take(verb.name);
    nearest.take(verb.name.substr(0, verb.name.find(' ')));
  }
  return nearest.question();
}

void suggestName(Context& context, const Verb& verb, Outcome& outcome) {
  const bool isAsked = outcome.code == kExitNotFound && !outcome.subject.empty();
  if (!isAsked || context.output.json() || !context.output.errToTerminal()) return;
  Nearest nearest(outcome.subject);
  const auto end = steady_clock::now() + kPatience;
  std::uint32_t hidden = 0;
  const auto take = [&](const ConfigIF::ListRecord& record) {
    const ConfigVar var = keyOf(record.inst());
    nearest.take(AppConfig::formatKey(var));
    if (!takesKey(verb)) {
      for (const std::string& name : namesAbove(var)) nearest.take(name);
    }
    return steady_clock::now() < end;
  };
  static_cast<void>(listPages(context.session, "", take, hidden));
  const std::string question = nearest.question();
  if (question.empty()) return;
  outcome.advice = outcome.advice.empty() ? question : question + ' ' + outcome.advice;
}

}  // namespace AppCfgTool
