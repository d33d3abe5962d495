#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

class StoreSnapshotTest : public StoreFixture {
 protected:
  std::string snapshotFile() const { return file_ + ".snapshot"; }

  void fillAndSnapshot() {
    open();
    set("a", "1");
    set("b", "2");
    const StoreStatus status = store().snapshot();
    EXPECT_TRUE(status.ok()) << status.text;
  }
  void damage(const std::string& file) { writeFile(file, std::string(5000, 'x')); }
};

TEST_F(StoreSnapshotTest, ADamagedStoreIsReplacedByTheSnapshotUnderANewId) {
  fillAndSnapshot();
  const std::uint64_t id = store().storeId();
  set("a", "later");
  close();
  damage(file_);
  open();
  EXPECT_NE(notice().find("snapshot of revision 2"), std::string::npos) << notice();
  EXPECT_EQ(value("a"), "1");
  EXPECT_EQ(value("b"), "2");
  EXPECT_EQ(store().revision(), 2U);
  EXPECT_NE(store().storeId(), id);
  EXPECT_FALSE(filesNamed("store.db.damaged-").empty());
  EXPECT_TRUE(filesNamed(".new").empty());
  const std::uint64_t restored = store().storeId();
  EXPECT_EQ(set("c", "3"), 3U);
  EXPECT_EQ(open().storeId(), restored);
  EXPECT_EQ(notice(), "");
  EXPECT_EQ(value("c"), "3");
}

TEST_F(StoreSnapshotTest, AMissingStoreIsReplacedByTheSnapshot) {
  fillAndSnapshot();
  close();
  std::filesystem::remove(file_);
  open();
  EXPECT_NE(notice().find("missing"), std::string::npos) << notice();
  EXPECT_EQ(value("b"), "2");
}

// What is left of a snapshot that was begun when the power failed.
TEST_F(StoreSnapshotTest, AnEmptySnapshotIsNone) {
  writeFile(snapshotFile(), "");
  open();
  EXPECT_EQ(notice(), "");
  EXPECT_TRUE(filesNamed("damaged-").empty());
}

TEST_F(StoreSnapshotTest, TheSnapshotServesASecondTime) {
  fillAndSnapshot();
  for (int i = 0; i < 2; ++i) {
    close();
    damage(file_);
    open();
    EXPECT_EQ(value("a"), "1");
  }
}

TEST_F(StoreSnapshotTest, ADamagedSnapshotIsSetAsideTooAndAnEmptyStoreBegun) {
  fillAndSnapshot();
  close();
  damage(file_);
  damage(snapshotFile());
  open();
  EXPECT_TRUE(variables().empty());
  EXPECT_NE(notice().find("default"), std::string::npos) << notice();
  EXPECT_FALSE(filesNamed("store.db.damaged-").empty());
  EXPECT_FALSE(filesNamed("store.db.snapshot.damaged-").empty());
  EXPECT_FALSE(std::filesystem::exists(snapshotFile()));
}

TEST_F(StoreSnapshotTest, ASnapshotOfANewerFormatIsSetAside) {
  fillAndSnapshot();
  close();
  damage(file_);
  runSql(snapshotFile(), "PRAGMA user_version=2; UPDATE meta SET format=2");
  open();
  EXPECT_TRUE(variables().empty());
  EXPECT_FALSE(filesNamed("store.db.snapshot.damaged-").empty());
}

TEST_F(StoreSnapshotTest, ANewSnapshotReplacesTheOld) {
  fillAndSnapshot();
  set("a", "later");
  EXPECT_TRUE(store().snapshot().ok());
  close();
  damage(file_);
  open();
  EXPECT_EQ(value("a"), "later");
}

TEST_F(StoreSnapshotTest, ASnapshotThatFailsLeavesThePreviousOne) {
  fillAndSnapshot();
  set("large", std::string(100000, 'x'));
  for (std::uintmax_t room : {0U, 4096U, 50000U}) {
    const FileSizeLimit limit(room);
    EXPECT_EQ(store().snapshot().code, StoreCode::kDiskFull) << room;
  }
  EXPECT_EQ(store().commitsSinceSnapshot(), 1U);
  EXPECT_TRUE(filesNamed(".new").empty());
  EXPECT_EQ(set("a", "later"), 4U);
  close();
  damage(file_);
  open();
  EXPECT_EQ(value("a"), "1");
}

TEST_F(StoreSnapshotTest, ARestoreOnAFullDiskFailsAndSucceedsWhenSpaceComesBack) {
  fillAndSnapshot();
  close();
  damage(file_);
  {
    const FileSizeLimit limit(4096);
    const OpenedStore opened = Store::open({file_});
    EXPECT_EQ(opened.status.code, StoreCode::kDiskFull) << opened.status.text;
  }
  open();
  EXPECT_EQ(value("a"), "1");
}

TEST_F(StoreSnapshotTest, LeftoversOfAnInterruptedSnapshotAreReplaced) {
  open();
  set("a", "1");
  damage(file_ + ".snapshot.new");
  damage(file_ + ".new");
  EXPECT_TRUE(store().snapshot().ok());
  close();
  damage(file_);
  open();
  EXPECT_EQ(value("a"), "1");
}

TEST_F(StoreSnapshotTest, CommitsSinceTheSnapshotAreCountedAcrossReopenings) {
  EXPECT_EQ(open().commitsSinceSnapshot(), 0U);
  set("a", "1");
  EXPECT_EQ(store().commitsSinceSnapshot(), 1U);
  EXPECT_TRUE(store().snapshot().ok());
  EXPECT_EQ(store().commitsSinceSnapshot(), 0U);
  EXPECT_EQ(open().commitsSinceSnapshot(), 0U);
  set("a", "2");
  set("a", "3");
  EXPECT_EQ(open().commitsSinceSnapshot(), 2U);
  damage(snapshotFile());
  EXPECT_EQ(open().commitsSinceSnapshot(), 3U);
}

TEST_F(StoreSnapshotTest, ACommitTakesASnapshotWhenTheLastOneIsOldEnough) {
  StoreOptions options{file_};
  options.snapshotEvery = std::chrono::seconds(0);
  opened_ = Store::open(options);
  set("a", "1");
  EXPECT_EQ(store().counters().snapshots, 1U);
  EXPECT_EQ(store().commitsSinceSnapshot(), 0U);
  set("a", "2");
  close();
  damage(file_);
  open();
  EXPECT_EQ(value("a"), "2");
  set("a", "3");
  EXPECT_EQ(store().counters().snapshots, 0U);
}

TEST_F(StoreSnapshotTest, AnOldSnapshotThatCannotBeReplacedFailsNoCommitAndIsCounted) {
  StoreOptions options{file_};
  options.snapshotEvery = std::chrono::seconds(0);
  opened_ = Store::open(options);
  std::filesystem::create_directories(file_ + ".snapshot.new/in-the-way");
  set("a", "1");
  EXPECT_EQ(store().counters().snapshots, 0U);
  EXPECT_EQ(store().counters().failedSnapshots, 1U);
  open();
  EXPECT_EQ(value("a"), "1");
}

}  // namespace
}  // namespace ConfigSrv
