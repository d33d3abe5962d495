// Records that are kept beside changes, until they are forgotten.
#include <gmock/gmock.h>

#include "configsrv/store/internal/database.h"
#include "configsrv/store/internal/store_contents.h"
#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

class StoreRecordsTest : public StoreFixture {
 protected:
  Store& openKeeping() {
    close();
    StoreOptions options{file_};
    options.keepsRecords = true;
    opened_ = Store::open(options);
    EXPECT_TRUE(opened_.status.ok()) << opened_.status.text;
    return *opened_.store;
  }
  static StoreChange recorded(const std::string& name, const std::string& record) {
    StoreChange change = setting(name, record);
    change.record = record;
    return change;
  }
  // "revision text", as found at the last opening.
  std::vector<std::string> records() const {
    std::vector<std::string> all;
    for (const StoredRecord& record : opened_.records)
      all.push_back(std::to_string(record.revision) + " " + record.text);
    return all;
  }
  std::vector<std::string> reopenedRecords() {
    openKeeping();
    return records();
  }
  std::int64_t number(const std::string& sql) const {
    Database database(file_, "", Database::Access::kReadOnly);
    std::int64_t found = -1;
    EXPECT_TRUE(database.readNumber(sql, &found)) << sql;
    return found;
  }
};

TEST_F(StoreRecordsTest, ARecordIsThereWithItsRevisionAfterAReopening) {
  openKeeping();
  const std::string bytes("\xFF\0\n", 3);
  commit({recorded("a", "first")});
  commit({recorded("a", bytes), recorded("b", "third")});
  set("c", "without");
  EXPECT_THAT(reopenedRecords(), ElementsAre("1 first", "2 " + bytes, "2 third"));
}

TEST_F(StoreRecordsTest, ThoseOfAFailedCommitAreNot) {
  openKeeping();
  {
    const FileSizeLimit full(8192);
    StoreChange large = setting("b", std::string(20000, 'x'));
    large.record = "lost";
    EXPECT_FALSE(store().commit({{recorded("a", "lost")}, {large}}).status.ok());
  }
  commit({recorded("a", "kept")});
  EXPECT_THAT(reopenedRecords(), ElementsAre("1 kept"));
}

TEST_F(StoreRecordsTest, ForgottenOnesGoWithTheNextCommitAndNotBefore) {
  openKeeping();
  for (const char* record : {"1", "2", "3"}) commit({recorded("a", record)});
  store().forgetRecords(2);
  EXPECT_THAT(reopenedRecords(), ElementsAre("1 1", "2 2", "3 3"));
  store().forgetRecords(2);
  commit({recorded("a", "4")});
  EXPECT_THAT(reopenedRecords(), ElementsAre("3 3", "4 4"));
  commit({recorded("a", "5")});
  EXPECT_THAT(reopenedRecords(), ElementsAre("3 3", "4 4", "5 5"));
}

TEST_F(StoreRecordsTest, AFailedCommitForgetsNothingAndTheNextOneDoes) {
  openKeeping();
  commit({recorded("a", "1")});
  store().forgetRecords(1);
  {
    const FileSizeLimit full(8192);
    EXPECT_FALSE(store().commit({{setting("b", std::string(20000, 'x'))}}).status.ok());
  }
  commit({recorded("a", "2")});
  EXPECT_THAT(reopenedRecords(), ElementsAre("2 2"));
}

TEST_F(StoreRecordsTest, ForgettingAtOnceTakesNoRevision) {
  openKeeping();
  commit({recorded("a", "1")});
  const StoreMark before = store().mark();
  EXPECT_TRUE(store().forgetRecordsNow(1).ok());
  EXPECT_EQ(store().mark(), before);
  EXPECT_THAT(reopenedRecords(), IsEmpty());
}

TEST_F(StoreRecordsTest, AStoreThatKeepsNoneHasNoTableOfThem) {
  open();
  commit({recorded("a", "1")});
  close();
  EXPECT_EQ(number("SELECT count(*) FROM sqlite_schema WHERE type='table'"), 2);
}

// An older version checks the format's number and these two tables, and looks at nothing else.
TEST_F(StoreRecordsTest, AnOlderVersionFindsTheStoreThatItKnows) {
  openKeeping();
  commit({recorded("a", "1")});
  close();
  EXPECT_EQ(number("PRAGMA user_version"), 1);
  Database database(file_, "", Database::Access::kReadOnly);
  std::string schema;
  ASSERT_TRUE(database.readText("SELECT sql FROM sqlite_schema WHERE name='meta'", &schema));
  EXPECT_EQ(schema,
            "CREATE TABLE meta (format INTEGER NOT NULL, store_id INTEGER NOT NULL, checksum "
            "INTEGER NOT NULL)");
  const StoreContents contents = readContents(database, presentFormats());
  EXPECT_EQ(contents.condition, StoreContents::Condition::kGood) << contents.damage;
  EXPECT_EQ(valueIn(contents.variables, "a"), "1");
}

// It leaves the table, and adds nothing to it.
TEST_F(StoreRecordsTest, WhatAnOlderVersionLeavesIsStillThere) {
  openKeeping();
  commit({recorded("a", "1")});
  open();
  commit({recorded("a", "2")});
  EXPECT_THAT(reopenedRecords(), ElementsAre("1 1"));
}

TEST_F(StoreRecordsTest, ATableThatIsNoneOfOursIsMadeAnew) {
  open();
  set("a", "1");
  close();
  runSql(file_, "CREATE TABLE audit (other TEXT); INSERT INTO audit VALUES ('x')");
  openKeeping();
  EXPECT_EQ(value("a"), "1");
  EXPECT_THAT(notice(), IsEmpty());
  commit({recorded("a", "2")});
  EXPECT_THAT(reopenedRecords(), ElementsAre("2 2"));
}

TEST_F(StoreRecordsTest, WithoutRoomForTheTableTheStoreIsServedAndSaysSo) {
  open();
  set("a", "1");
  close();
  {
    const FileSizeLimit full(4096);
    openKeeping();
    EXPECT_EQ(value("a"), "1");
    EXPECT_THAT(notice(), MatchesRegex("no records are kept with changes: .*[a-z]"));
  }
  EXPECT_GT(set("a", "2"), 0U);
}

TEST_F(StoreRecordsTest, ACopyThatTakesTheStoresPlaceHasNone) {
  openKeeping();
  commit({recorded("a", "1")});
  ASSERT_TRUE(store().snapshot().ok());
  std::filesystem::copy_file(file_ + ".snapshot", file_ + ".restore");
  EXPECT_THAT(reopenedRecords(), IsEmpty());
  EXPECT_EQ(value("a"), "1");
}

// They may be all that is left of the end of the file that they are written to.
TEST_F(StoreRecordsTest, ASnapshotThatTakesTheStoresPlaceHasItsOwn) {
  openKeeping();
  commit({recorded("a", "1")});
  ASSERT_TRUE(store().snapshot().ok());
  close();
  writeFile(file_, std::string(5000, 'x'));
  EXPECT_THAT(reopenedRecords(), ElementsAre("1 1"));
}

}  // namespace
}  // namespace ConfigSrv
