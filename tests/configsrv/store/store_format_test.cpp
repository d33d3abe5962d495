#include "configsrv/store/internal/store_format.h"

#include "tests/configsrv/store/faulty_disk.h"
#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

// What a later version may be: one more table, filled from the rows there are.
StoreFormats nextVersion() {
  StoreFormats formats;
  formats.newest = 2;
  formats.steps = {[](Database& database) {
    return database.run("CREATE TABLE writer (revision INTEGER PRIMARY KEY, name BLOB)") &&
           database.run("INSERT INTO writer SELECT DISTINCT value_at, x'00' FROM variable");
  }};
  return formats;
}

class StoreFormatTest : public StoreFixture {
 protected:
  OpenedStore openAs(const StoreFormats& formats) {
    close();
    StoreOptions options{file_};
    options.formats = &formats;
    return Store::open(options);
  }
  void fill() {
    open();
    set("a", "1");
    set("b", "2");
  }

  const StoreFormats next_ = nextVersion();
};

TEST_F(StoreFormatTest, ThereIsAStepFromEachFormatToTheNext) {
  EXPECT_EQ(static_cast<std::int64_t>(presentFormats().steps.size()), presentFormats().newest - 1);
}

TEST_F(StoreFormatTest, AnOlderStoreIsBroughtToTheNewFormatWithAllThatIsInIt) {
  fill();
  const std::uint64_t id = store().storeId();
  for (int start = 0; start < 2; ++start) {
    const OpenedStore opened = openAs(next_);
    ASSERT_TRUE(opened.status.ok()) << opened.status.text;
    EXPECT_EQ(opened.notice, "");
    EXPECT_EQ(opened.store->storeId(), id);
    EXPECT_EQ(opened.store->revision(), 2U + static_cast<unsigned>(start));
    EXPECT_EQ(valueIn(opened.variables, "b"), "2");
    EXPECT_TRUE(opened.store->commit({{setting("c", "3")}}).status.ok());
  }
}

TEST_F(StoreFormatTest, ThePresentVersionRefusesWhatTheNextOneMadeAndLeavesItAlone) {
  fill();
  { const OpenedStore opened = openAs(next_); }
  const std::string before = readFile(file_);
  const OpenedStore refused = Store::open({file_});
  EXPECT_EQ(refused.status.code, StoreCode::kNewerFormat);
  EXPECT_NE(refused.status.text.find("install the newer version again"), std::string::npos);
  EXPECT_TRUE(readFile(file_) == before);
  EXPECT_TRUE(filesNamed("damaged").empty());
}

// What a later version adds without a new format, and finds again after this one has run.
TEST_F(StoreFormatTest, TablesThatOnlyALaterVersionKnowsAreKeptThroughEverything) {
  fill();
  close();
  runSql(
      file_,
      "CREATE TABLE history (revision INTEGER, who BLOB); INSERT INTO history VALUES (2, x'61')");
  const auto additions = [](const std::string& file) {
    Database database(file, {}, Database::Access::kReadOnly);
    std::int64_t revision = 0;
    return database.isOpen() && database.readNumber("SELECT revision FROM history", &revision) &&
           revision == 2;
  };
  open();
  EXPECT_EQ(notice(), "");
  set("c", "3");
  ASSERT_TRUE(store().snapshot().ok());
  close();
  EXPECT_TRUE(additions(file_));
  EXPECT_TRUE(additions(file_ + ".snapshot"));
  writeFile(file_, "damaged");
  open();
  EXPECT_EQ(valueIn(variables(), "c"), "3") << notice();
  close();
  EXPECT_TRUE(additions(file_));
}

TEST_F(StoreFormatTest, ASnapshotOfAnOlderFormatTakesTheDamagedFilesPlace) {
  fill();
  ASSERT_TRUE(store().snapshot().ok());
  close();
  writeFile(file_, "damaged");
  const OpenedStore opened = openAs(next_);
  ASSERT_TRUE(opened.status.ok()) << opened.status.text;
  EXPECT_EQ(valueIn(opened.variables, "b"), "2") << opened.notice;
}

TEST_F(StoreFormatTest, ACutAtAnyStepOfTheWayToTheNewFormatLeavesOneOrTheOther) {
  FaultyDisk disk;
  {
    const OpenedStore opened = Store::open(disk.options());
    for (int i = 0; i < 30; ++i) {
      ASSERT_TRUE(opened.store->commit({{setting("v" + std::to_string(i), "x")}}).status.ok());
    }
  }
  const FaultyDisk::Contents old = disk.contents();
  StoreOptions next = disk.options();
  next.formats = &next_;
  using Survivors = FaultyDisk::Survivors;
  for (const Survivors survivors :
       {Survivors::kNothing, Survivors::kEverything, Survivors::kTorn}) {
    for (long step = 1;; ++step) {
      disk.restore(old);
      disk.cutAt(step);
      { const OpenedStore cut = Store::open(next); }
      if (!disk.isCut()) break;
      disk.restart(survivors, static_cast<std::uint32_t>(step));
      const OpenedStore opened = Store::open(next);
      ASSERT_TRUE(opened.status.ok()) << opened.status.text;
      ASSERT_EQ(opened.notice, "") << "cut at step " << step;
      ASSERT_EQ(opened.variables.size(), 30U);
    }
  }
}

TEST_F(StoreFormatTest, AFullDiskLeavesTheOldFormatForALaterStart) {
  fill();
  close();
  {
    const FileSizeLimit limit(100);
    const OpenedStore opened = openAs(next_);
    EXPECT_EQ(opened.status.code, StoreCode::kDiskFull) << opened.status.text;
  }
  open();
  EXPECT_EQ(notice(), "");
  EXPECT_EQ(value("b"), "2");
}

}  // namespace
}  // namespace ConfigSrv
