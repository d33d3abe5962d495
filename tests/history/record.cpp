// One pass over the lines. A write or reset is entered when it begins, as one that nobody saw the end of,
// and completed when the line of its end comes; the numbers of those that are open belong to the file.
#include "tests/history/record.h"

#include <charconv>
#include <utility>

namespace History {
namespace {

constexpr std::string_view kDefault = "default-";

// The words of a line. Reading past the end, or what is no number, makes it bad.
class Words {
 public:
  explicit Words(std::string_view line) : rest_(line) {}

  std::string_view word() {
    const std::size_t end = rest_.find(' ');
    const std::string_view found = rest_.substr(0, end);
    rest_ = end == std::string_view::npos ? std::string_view() : rest_.substr(end + 1);
    if (found.empty()) good_ = false;
    return found;
  }
  template <typename Number>
  void number(Number& out) {
    const std::string_view text = word();
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    if (error != std::errc() || end != text.data() + text.size()) good_ = false;
  }
  bool flag() { return word() == "1"; }
  Outcome outcome() {
    const std::string_view text = word();
    if (text == "ok") return Outcome::Ok;
    if (text == "refused") return Outcome::Refused;
    if (text != "unknown") good_ = false;
    return Outcome::Unknown;
  }
  std::string_view rest() { return std::exchange(rest_, {}); }
  bool isGood() const { return good_ && rest_.empty(); }

 private:
  std::string_view rest_;
  bool good_ = true;
};

class File {
 public:
  explicit File(Record& record) : record_(record) {}

  bool take(std::string_view line) {
    Words words(line);
    const std::string_view kind = words.word();
    if (kind.size() == 1) return takeOperation(kind[0], words);
    return takeEvent(kind, words);
  }

 private:
  bool takeOperation(char kind, Words& words) {
    if (kind == 'e') return complete(words);
    Operation operation;
    operation.process = process_;
    std::uint64_t id = 0;
    if (!read(kind, words, operation, id) || !words.isGood()) return false;
    if (kind == 'b') open_[id] = record_.operations.size();
    record_.operations.push_back(operation);
    return true;
  }

  bool read(char kind, Words& words, Operation& operation, std::uint64_t& id) {
    switch (kind) {
      case 'b':
        return readBegin(words, operation, id);
      case 'f':
        return readFresh(What::Fresh, words, operation);
      case 't':
        return readFresh(What::Truth, words, operation);
      case 'c':
        return readCached(What::Cached, words, operation);
      case 'l':
        return readCached(What::Look, words, operation);
      case 'h':
        return readTold(words, operation);
      case 'v':
        return readAsked(What::Validated, words, operation);
      case 'q':
        return readAsked(What::Changed, words, operation);
      case 'r':
        return readRegistered(words, operation);
      case 's':
        return readDelivered(words, operation);
      default:
        return false;
    }
  }

  bool readBegin(Words& words, Operation& operation, std::uint64_t& id) {
    words.number(id);
    words.number(operation.thread);
    words.number(operation.begin);
    operation.what = words.word() == "z" ? What::Reset : What::Write;
    operation.outcome = Outcome::Unknown;
    operation.end = kNever;
    readVariable(words, operation);
    return true;
  }

  bool complete(Words& words) {
    std::uint64_t id = 0;
    words.number(id);
    const auto found = open_.find(id);
    if (found == open_.end()) return false;
    Operation& operation = record_.operations[found->second];
    open_.erase(found);
    std::int64_t end = 0;
    words.number(end);
    operation.outcome = words.outcome();
    if (operation.outcome != Outcome::Unknown) operation.end = end;
    words.number(operation.epoch);
    words.number(operation.revision);
    return words.isGood();
  }

  void readVariable(Words& words, Operation& operation) {
    operation.variable = record_.variables.number(words.word());
    operation.value = record_.values.number(words.word());
  }
  void readTimes(Words& words, Operation& operation) {
    words.number(operation.begin);
    words.number(operation.end);
  }

  bool readFresh(What what, Words& words, Operation& operation) {
    operation.what = what;
    words.number(operation.thread);
    readTimes(words, operation);
    operation.variable = record_.variables.number(words.word());
    words.number(operation.epoch);
    words.number(operation.revision);
    operation.isDefault = words.flag();
    operation.value = record_.values.number(words.word());
    return true;
  }

  bool readCached(What what, Words& words, Operation& operation) {
    operation.what = what;
    words.number(operation.thread);
    readTimes(words, operation);
    readVariable(words, operation);
    return true;
  }

  static void readTime(Words& words, Operation& operation) {
    words.number(operation.begin);
    operation.end = operation.begin;
  }

  bool readTold(Words& words, Operation& operation) {
    operation.what = What::Told;
    readTime(words, operation);
    words.number(operation.sender);
    words.number(operation.epoch);
    words.number(operation.revision);
    operation.isDefault = words.flag();
    readVariable(words, operation);
    return true;
  }

  bool readAsked(What what, Words& words, Operation& operation) {
    operation.what = what;
    readTime(words, operation);
    words.number(operation.sender);
    operation.outcome = words.outcome();
    readVariable(words, operation);
    return true;
  }

  bool readRegistered(Words& words, Operation& operation) {
    operation.what = What::Registered;
    readTimes(words, operation);
    operation.value = record_.values.number(words.word());
    return true;
  }

  static bool readDelivered(Words& words, Operation& operation) {
    operation.what = What::Delivered;
    readTime(words, operation);
    return true;
  }

  bool takeEvent(std::string_view kind, Words& words) {
    if (kind == "process") process_ = record_.processes.number(words.word());
    if (kind == "process") return words.isGood();
    if (kind == "did") return takeDeed(words);
    Window window;
    words.number(window.begin);
    words.number(window.end);
    if (kind == "settled") record_.settled.push_back(window);
    if (kind == "settled") return words.isGood();
    std::uint64_t number = 0;
    std::uint64_t state = 0;
    words.number(number);
    words.number(state);
    if (kind == "copy") record_.copies.push_back({window.begin, window.end, number, state});
    if (kind == "restore") record_.restores.push_back({window.begin, window.end, number, state});
    return words.isGood() && (kind == "copy" || kind == "restore");
  }

  bool takeDeed(Words& words) {
    Deed deed;
    words.number(deed.time);
    deed.text = std::string(words.rest());
    record_.deeds.push_back(deed);
    return words.isGood();
  }

  Record& record_;
  std::uint32_t process_ = 0;
  std::unordered_map<std::uint64_t, std::size_t> open_;
};

}  // namespace

std::uint32_t Names::number(std::string_view text) {
  const auto next = static_cast<std::uint32_t>(texts_.size());
  const auto [found, isNew] = numbers_.emplace(std::string(text), next);
  if (isNew) texts_.push_back(&found->first);
  return found->second;
}

std::string Record::add(std::istream& lines) {
  File file(*this);
  for (std::string line; std::getline(lines, line);) {
    if (lines.eof()) break;  // no end of line: cut short
    if (!file.take(line)) return line;
  }
  return {};
}

bool isDefaultText(std::string_view text) { return text.substr(0, kDefault.size()) == kDefault; }

std::uint64_t generationOf(std::string_view text) {
  std::uint64_t number = 0;
  const std::string_view digits = text.substr(kDefault.size());
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number + 1;
}

}  // namespace History
