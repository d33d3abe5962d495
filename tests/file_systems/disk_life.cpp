// disk_life: some of a store's life on a real file system, and a judge of what is left of it.
//
//   disk_life live FILE MARK COMMITS     commits so often; says in MARK before each "told N", and
//                                        after it "acknowledged N"
//   disk_life judge FILE ACKNOWLEDGED TOLD
//                                        opens what a loss of power left; 0 when it holds exactly the
//                                        commits up to ACKNOWLEDGED, or one more of those that the
//                                        store was told, and takes another, and when a snapshot that
//                                        is there is whole
//
// What commit N holds follows from N alone, so that the judge needs nothing but the two numbers. The
// commits are of one page and of many, one change and several, values that come, grow, shrink and are
// reset. In between the store takes snapshots, copies its log into the file, and is closed and opened.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "configsrv/store/store.h"

namespace ConfigSrv {
namespace {

constexpr int kSnapshotEvery = 17;  // commits
constexpr int kReopenEvery = 41;
constexpr int kLogPages = 24;  // Few, so that the log is copied often.
constexpr int kLargeEvery = 6;
constexpr std::size_t kLargeElements = 3000;

ConfigVar keyOf(const std::string& name) { return ConfigVar("cut", 0, name, 0); }

StoreChange setting(const std::string& name, std::size_t elements, int number) {
  return {keyOf(name),
          StoreChange::SetValue{std::list<std::string>(elements, std::to_string(number))}};
}

// "first" and "second" belong together; "large" takes many pages; "rare" comes and goes.
StoreTransaction commitOf(int number) {
  StoreTransaction changes{setting("first", 1, number), setting("second", 1, number)};
  if (number % kLargeEvery == 0) {
    const std::size_t elements = number % 4 == 0 ? kLargeElements : kLargeElements / 10;
    changes.push_back(setting("large", elements, number));
  }
  if (number % 7 == 3) changes.push_back(setting("rare", 1, number));
  if (number % 7 == 5) changes.push_back({keyOf("rare"), StoreChange::ResetValue{}});
  return changes;
}

StoreOptions optionsFor(const char* file) {
  StoreOptions options{file};
  options.logPages = kLogPages;
  return options;
}

int complain(const std::string& text) {
  std::fprintf(stderr, "disk_life: %s\n", text.c_str());
  return 1;
}

// --- Living ---

class Marks {
 public:
  explicit Marks(const char* path) : fd_(::open(path, O_WRONLY | O_CLOEXEC)) {}
  ~Marks() { ::close(fd_); }
  Marks(const Marks&) = delete;
  Marks& operator=(const Marks&) = delete;

  bool say(const char* what, int number) const {
    const std::string line = std::string(what) + ' ' + std::to_string(number) + '\n';
    return ::write(fd_, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  }

 private:
  int fd_;
};

StoreStatus lookAfter(Store& store, int number) {
  if (store.isCheckpointDue()) store.checkpoint();
  return number % kSnapshotEvery == 0 ? store.snapshot() : StoreStatus{};
}

int live(const char* file, const char* marksFile, int commits) {
  const Marks marks(marksFile);
  OpenedStore opened = Store::open(optionsFor(file));
  for (int number = 1; number <= commits; ++number) {
    if (!opened.status.ok()) return complain(opened.status.text);
    if (!opened.notice.empty()) return complain(opened.notice);
    if (!marks.say("told", number)) return complain("the mark cannot be written");
    const CommitResult result = opened.store->commit({commitOf(number)});
    if (!result.status.ok()) return complain(result.status.text);
    if (!marks.say("acknowledged", number)) return complain("the mark cannot be written");
    const StoreStatus status = lookAfter(*opened.store, number);
    if (!status.ok()) return complain(status.text);
    if (number % kReopenEvery != 0) continue;
    opened = OpenedStore();
    opened = Store::open(optionsFor(file));
  }
  return 0;
}

// --- Judging ---

using Content = std::map<ConfigVar, StoredVariable>;

Content contentAfter(int commits) {
  Content content;
  for (int number = 1; number <= commits; ++number) {
    for (const StoreChange& change : commitOf(number)) {
      const auto place = content.try_emplace(change.key, StoredVariable(change.key)).first;
      applyChange(change, static_cast<std::uint64_t>(number), &place->second);
    }
  }
  return content;
}

bool holds(const OpenedStore& opened, const Content& content) {
  if (opened.variables.size() != content.size()) return false;
  auto expected = content.begin();
  for (const StoredVariable& variable : opened.variables) {
    if (variable != expected->second) return false;
    ++expected;
  }
  return true;
}

std::string describe(const OpenedStore& opened) {
  std::string text = "revision " + std::to_string(opened.store->revision());
  for (const StoredVariable& variable : opened.variables) {
    text += ", " + variable.key.name() + " = ";
    text += !variable.value           ? "nothing"
            : variable.value->empty() ? "an empty list"
                                      : variable.value->front();
    text += " (" + std::to_string(variable.valueChangedAt) + ")";
  }
  return text;
}

// A store that lost nothing and takes no more is no use either.
int takeOneMore(const char* file, OpenedStore& opened) {
  const std::uint64_t before = opened.store->revision();
  const CommitResult result = opened.store->commit({commitOf(1)});
  if (!result.status.ok()) return complain("takes no more: " + result.status.text);
  opened = OpenedStore();
  opened = Store::open(optionsFor(file));
  if (!opened.status.ok()) return complain("cannot be opened again: " + opened.status.text);
  if (!opened.notice.empty()) return complain("opened again, it says: " + opened.notice);
  return opened.store->revision() == before + 1 ? 0 : complain("lost what came after the cut");
}

// Whatever was there when the power went: a snapshot is whole, or there is none.
int judgeSnapshot(const std::string& file) {
  if (::access(file.c_str(), F_OK) != 0) return 0;
  const OpenedStore opened = Store::open(optionsFor(file.c_str()));
  if (!opened.status.ok()) return complain("the snapshot: " + opened.status.text);
  if (!opened.notice.empty()) return complain("the snapshot: " + opened.notice);
  const auto revision = static_cast<int>(opened.store->revision());
  if (holds(opened, contentAfter(revision))) return 0;
  return complain("the snapshot is mixed: " + describe(opened));
}

int judgeStore(const char* file, int acknowledged, int told) {
  OpenedStore opened = Store::open(optionsFor(file));
  if (!opened.status.ok()) return complain(opened.status.text);
  if (!opened.notice.empty()) return complain(opened.notice);
  const auto revision = static_cast<int>(opened.store->revision());
  if (revision < acknowledged)
    return complain("lost: acknowledged " + std::to_string(acknowledged) + ", found " +
                    describe(opened));
  if (revision > told)
    return complain("never told: told " + std::to_string(told) + ", found " + describe(opened));
  if (!holds(opened, contentAfter(revision))) return complain("mixed: found " + describe(opened));
  return takeOneMore(file, opened);
}

int judge(const char* file, int acknowledged, int told) {
  const int snapshot = judgeSnapshot(std::string(file) + ".snapshot");
  return snapshot == 0 ? judgeStore(file, acknowledged, told) : snapshot;
}

}  // namespace
}  // namespace ConfigSrv

int main(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], "live") == 0)
    return ConfigSrv::live(argv[2], argv[3], std::atoi(argv[4]));
  if (argc == 5 && std::strcmp(argv[1], "judge") == 0)
    return ConfigSrv::judge(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
  std::fprintf(stderr,
               "usage: disk_life live FILE MARK COMMITS\n"
               "       disk_life judge FILE ACKNOWLEDGED TOLD\n");
  return 2;
}
