#include "configsrv/store/store.h"

#include <map>
#include <random>

#include "configsrv/store/internal/log_reserve.h"
#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

class StoreTest : public StoreFixture {};

TEST_F(StoreTest, ANewStoreIsEmptyAtRevisionZero) {
  open();
  EXPECT_EQ(store().revision(), 0U);
  EXPECT_NE(store().storeId(), 0U);
  EXPECT_TRUE(variables().empty());
  EXPECT_EQ(notice(), "");
}

TEST_F(StoreTest, TheStoreIdSurvivesAReopening) {
  const std::uint64_t id = open().storeId();
  EXPECT_EQ(open().storeId(), id);
}

TEST_F(StoreTest, TwoStoresHaveTwoIds) {
  const std::uint64_t id = open().storeId();
  close();
  std::filesystem::remove(file_);
  EXPECT_NE(open().storeId(), id);
}

TEST_F(StoreTest, ACommittedValueIsThereAfterAReopening) {
  open();
  EXPECT_EQ(set("a", "1"), 1U);
  EXPECT_EQ(set("a", "2"), 2U);
  open();
  EXPECT_EQ(value("a"), "2");
  EXPECT_EQ(store().revision(), 2U);
  EXPECT_EQ(variables().at(0).valueChangedAt, 2U);
  EXPECT_EQ(set("b", "3"), 3U);
}

TEST_F(StoreTest, EveryKindOfChangeComesBackAsApplyChangeMakesIt) {
  open();
  const StoreTransaction transactions[] = {
      {{keyOf("a"), StoreChange::SetValue{{"x", std::string("\0\xff", 2), ""}}}},
      {{keyOf("a"), StoreChange::SetOptions{{{"x", "y"}}, 1}}},
      {{keyOf("a"), StoreChange::SetAccess{2, -1}}},
      {{keyOf("b"), StoreChange::SetOptions{{std::vector<std::string>{}}, {}}}},
      {{keyOf("b"), StoreChange::SetValue{{}}}},
      {{keyOf("a"), StoreChange::ResetValue{}}},
      {{keyOf("a"), StoreChange::ResetAttributes{}}},
  };
  std::vector<StoredVariable> expected = {StoredVariable(keyOf("a")), StoredVariable(keyOf("b"))};
  std::uint64_t revision = 0;
  for (const StoreTransaction& transaction : transactions) {
    const std::size_t which = transaction.front().key.name() == "a" ? 0 : 1;
    applyChange(transaction.front(), ++revision, &expected[which]);
    EXPECT_EQ(commit(transaction), revision);
    open();
    ASSERT_FALSE(variables().empty());
    EXPECT_EQ(variables().front(), expected.front());
    if (variables().size() > 1) {
      EXPECT_EQ(variables().back(), expected.back());
    }
  }
  EXPECT_EQ(variables().size(), 2U);
}

TEST_F(StoreTest, AVariableBackAtItsDefaultKeepsTheRevisionOfItsReset) {
  open();
  set("a", "1");
  commit({{keyOf("a"), StoreChange::ResetValue{}}});
  open();
  ASSERT_EQ(variables().size(), 1U);
  EXPECT_FALSE(variables()[0].value.has_value());
  EXPECT_EQ(variables()[0].valueChangedAt, 2U);
  EXPECT_EQ(store().revision(), 2U);
}

TEST_F(StoreTest, KeysDifferInEachOfTheirFiveFields) {
  const std::vector<ConfigVar> keys = {
      ConfigVar(-1, "g", 0, "n", 0),
      ConfigVar(0, "", 0, "", 0),
      ConfigVar(0, "g", -1, "n", 0),
      ConfigVar(0, "g", 0, "", 0),
      ConfigVar(0, "g", 0, "n", -1),
      ConfigVar(0, "g", 0, "n", 0),
      ConfigVar(0, "g", 0, "n.m", 0),
      ConfigVar(0, std::string("g\0x", 3), 0, "n", 0),
      ConfigVar(0, "g.n", 0, "m", 0),
      ConfigVar(0, "g\xc3\xa4", 0, "n", 0),
      ConfigVar(2147483647, "g", -2147483647 - 1, "n", 2147483647),
  };
  open();
  StoreTransaction transaction;
  // Backwards, so that the order found is the store's own.
  for (auto key = keys.rbegin(); key != keys.rend(); ++key) {
    transaction.push_back({*key, StoreChange::SetValue{{key->dottedName()}}});
  }
  commit(transaction);
  open();
  ASSERT_EQ(variables().size(), keys.size());
  const std::less<ConfigVar> less;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const ConfigVar& found = variables()[i].key;
    EXPECT_FALSE(less(found, keys[i]) || less(keys[i], found)) << i;
    EXPECT_EQ(variables()[i].value->front(), keys[i].dottedName());
  }
}

TEST_F(StoreTest, TransactionsOfOneCommitGetRevisionsInOrder) {
  open();
  const CommitResult result = store().commit(
      {{setting("a", "1"), setting("b", "1")}, {setting("a", "2")}, {setting("c", "3")}});
  ASSERT_TRUE(result.status.ok()) << result.status.text;
  EXPECT_EQ(result.revisions, (std::vector<std::uint64_t>{1, 2, 3}));
  open();
  EXPECT_EQ(store().revision(), 3U);
  EXPECT_EQ(variables().at(0).valueChangedAt, 2U);
  EXPECT_EQ(variables().at(1).valueChangedAt, 1U);
  EXPECT_EQ(variables().at(2).valueChangedAt, 3U);
}

TEST_F(StoreTest, AnEmptyTransactionGetsNoRevisionOfItsOwn) {
  open();
  EXPECT_EQ(store().commit({}).revisions, std::vector<std::uint64_t>{});
  EXPECT_EQ(store().commit({{}}).revisions, std::vector<std::uint64_t>{0});
  EXPECT_EQ(store().commit({{}, {setting("a", "1")}, {}}).revisions,
            (std::vector<std::uint64_t>{0, 1, 1}));
  EXPECT_EQ(open().revision(), 1U);
}

TEST_F(StoreTest, ANodeOfThousandsOfVariablesIsOneTransaction) {
  open();
  StoreTransaction transaction;
  for (int i = 0; i < 5000; ++i) transaction.push_back(setting(std::to_string(i), "x"));
  EXPECT_EQ(commit(transaction), 1U);
  EXPECT_EQ(open().revision(), 1U);
  EXPECT_EQ(variables().size(), 5000U);
}

TEST_F(StoreTest, AValueOfMegabytesComesBack) {
  open();
  const std::string large(std::size_t{9} << 20, 'z');
  set("a", large);
  open();
  EXPECT_TRUE(value("a") == large);
}

TEST_F(StoreTest, TheFilesAreTheOwnersAlone) {
  const mode_t old = ::umask(0);
  file_ = directory_.path() + "/made/on/the/way/store.db";
  open();
  set("a", "1");
  EXPECT_TRUE(store().snapshot().ok());
  ::umask(old);
  EXPECT_EQ(modeOf(directory_.path() + "/made"), 0700U);
  EXPECT_EQ(modeOf(directory_.path() + "/made/on/the/way"), 0700U);
  for (const char* end : {"", "-wal", ".lock", ".snapshot"}) {
    EXPECT_EQ(modeOf(file_ + end), 0600U) << end;
  }
}

TEST_F(StoreTest, NoSharedMemoryFileIsNeeded) {
  open();
  set("a", "1");
  EXPECT_FALSE(std::filesystem::exists(file_ + "-shm"));
}

TEST_F(StoreTest, APathWithoutADirectoryIsInTheWorkingDirectory) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory_.path());
  file_ = "plain.db";
  open();
  set("a", "1");
  EXPECT_TRUE(store().snapshot().ok());
  close();
  EXPECT_TRUE(std::filesystem::exists(directory_.path() + "/plain.db.snapshot"));
  std::filesystem::current_path(before);
}

// Those that SQLite wrote: they have the salts of the log's header, and what is reserved has none.
std::uint64_t framesIn(const std::string& log) {
  std::uint64_t frames = 0;
  for (std::size_t at = 32; at + kLogFrameBytes <= log.size(); at += kLogFrameBytes) {
    if (log.compare(at + 8, 8, log, 16, 8) == 0) ++frames;
  }
  return frames;
}

TEST_F(StoreTest, TheLogDoesNotGrowBeyondItsLimit) {
  const std::uintmax_t limit = logLimitBytes(StoreOptions::kLogPages);
  open();
  // One transaction larger than the log's limit; what it took is given back once it is copied.
  set("large", std::string(2 * limit, 'x'));
  EXPECT_GT(std::filesystem::file_size(file_ + "-wal"), limit);
  for (int i = 0; i < 3; ++i) set("a", std::to_string(i));
  EXPECT_LE(std::filesystem::file_size(file_ + "-wal"), limit);
}

TEST_F(StoreTest, ThousandsOfCommitsFitIntoTheLog) {
  const auto limit = static_cast<std::uintmax_t>(StoreOptions::kLogPages) * (4096 + 24) + 32;
  TempDirectory fast(std::filesystem::exists("/dev/shm") ? "/dev/shm" : testing::TempDir());
  file_ = fast.path() + "/store.db";
  open();
  for (int i = 0; i < 3 * StoreOptions::kLogPages; ++i) set("a", std::to_string(i));
  EXPECT_LE(std::filesystem::file_size(file_ + "-wal"), limit + std::uintmax_t{16} * 4120);
  EXPECT_EQ(open().revision(), 3U * StoreOptions::kLogPages);
  close();
}

TEST_F(StoreTest, EveryCodeHasAName) {
  EXPECT_STREQ(storeCodeName(StoreCode::kOk), "ok");
  EXPECT_STREQ(storeCodeName(StoreCode::kDiskFull), "disk full");
  EXPECT_STREQ(storeCodeName(StoreCode::kIo), "disk failure");
  EXPECT_STREQ(storeCodeName(StoreCode::kInUse), "in use");
  EXPECT_STREQ(storeCodeName(StoreCode::kNewerFormat), "newer format");
  EXPECT_STREQ(storeCodeName(StoreCode::kUnusable), "unusable path");
}

TEST_F(StoreTest, WritesAndTheirBytesAreCountedAndTransactionsThatComeTogetherShareOne) {
  open();
  EXPECT_EQ(store().counters().writes, 0U);
  ASSERT_TRUE(store().commit({{setting("a", "1")}, {setting("b", "2")}}).status.ok());
  set("a", std::string(20000, 'x'));
  EXPECT_EQ(store().counters().writes, 2U);
  constexpr std::uint64_t kReserved = std::uint64_t{32} * 1024;
  const std::uint64_t frames = framesIn(readFile(file_ + "-wal"));
  EXPECT_GE(frames, 6U);
  EXPECT_EQ(store().counters().bytes, frames * kLogFrameBytes + kReserved);
}

// Zeros over the pages that become free, which some builds of SQLite write, would double it.
TEST_F(StoreTest, AValueOfAMegabyteThatReplacesAnotherIsWrittenOnce) {
  constexpr std::size_t kMegabyte = std::size_t{1} << 20;
  open();
  set("a", std::string(kMegabyte, 'x'));
  const std::uint64_t before = store().counters().bytes;
  set("a", std::string(kMegabyte + 1, 'y'));
  const std::uint64_t written = store().counters().bytes - before;
  EXPECT_GE(written, kMegabyte);
  EXPECT_LE(written, kMegabyte + kMegabyte * 3 / 4) << "the value, and what is kept ready for more";
}

TEST_F(StoreTest, TheLogIsCopiedByTheSecondCommitThatFindsItFullOrByWhoeverComesBefore) {
  StoreOptions options{file_};
  options.logPages = 10;
  opened_ = Store::open(options);
  ASSERT_NE(opened_.store, nullptr) << opened_.status.text;
  const auto commitUntilDue = [this] {
    for (int i = 0; i < 20 && !store().isCheckpointDue(); ++i) set("a", std::to_string(i));
    return store().isCheckpointDue();
  };
  ASSERT_TRUE(commitUntilDue());
  store().checkpoint();
  EXPECT_FALSE(store().isCheckpointDue());
  set("a", "after the copying");
  EXPECT_FALSE(store().isCheckpointDue());
  ASSERT_TRUE(commitUntilDue());
  set("a", "first");
  EXPECT_TRUE(store().isCheckpointDue());
  set("a", "second");
  EXPECT_FALSE(store().isCheckpointDue());
  open();
  EXPECT_EQ(value("a"), "second");
}

// One of each kind by turns, of values short and long.
StoreChange someChange(std::mt19937& random, const ConfigVar& key) {
  const std::string text(random() % 2 == 0 ? 3 : 9000, static_cast<char>('a' + random() % 26));
  const int role = static_cast<int>(random() % 6);
  switch (random() % 5) {
    case 0:
      return {key, StoreChange::SetValue{{text, "second"}}};
    case 1:
      return {key, StoreChange::ResetValue{}};
    case 2:
      return {key, StoreChange::SetOptions{{{text, "other"}}, random() % 2}};
    case 3:
      return {key, StoreChange::SetAccess{role, std::nullopt}};
    default:
      return {key, StoreChange::ResetAttributes{}};
  }
}

TEST_F(StoreTest, AChangeThatBringsItsRowLeavesTheStoreAsOneWhoseRowIsRead) {
  std::mt19937 random(3);
  std::map<std::string, StoredVariable> rows;
  open();
  for (int i = 0; i < 300; ++i) {
    const std::string name = std::to_string(random() % 7);
    StoreChange change = someChange(random, keyOf(name));
    const auto row = rows.find(name);
    if (random() % 4 != 0)
      change.row = rowBefore(row == rows.end() ? nullptr : &row->second, change);
    const std::uint64_t revision = commit({change});
    applyChange(change, revision, &rows.emplace(name, keyOf(name)).first->second);
  }
  const StoreMark mark = store().mark();
  open();
  EXPECT_EQ(store().mark(), mark);
  ASSERT_EQ(variables().size(), rows.size());
  for (const StoredVariable& variable : variables())
    EXPECT_EQ(variable, rows.at(variable.key.name())) << variable.key.name();
}

TEST_F(StoreTest, ARowThatIsWronglySaidToBeThereIsAdded) {
  open();
  StoreChange change = setting("a", "1");
  change.row = StoreChange::Row{true, 0, StoredVariable(change.key)};
  commit({change});
  open();
  EXPECT_EQ(value("a"), "1");
}

TEST_F(StoreTest, ACommitOfNothingWritesNothing) {
  open();
  set("a", "1");
  const StoreCounters before = store().counters();
  EXPECT_TRUE(store().commit({{}, {}}).status.ok());
  EXPECT_EQ(store().counters().writes, before.writes);
  EXPECT_EQ(store().counters().bytes, before.bytes);
}

}  // namespace
}  // namespace ConfigSrv
