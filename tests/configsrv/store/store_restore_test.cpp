// A copy that takes a store's place.
#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>

#include "configsrv/store/internal/file_system.h"
#include "configsrv/store/internal/store_format.h"
#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class StoreRestoreTest : public StoreFixture {
 protected:
  std::string restoreFile() const { return file_ + ".restore"; }

  // A store of three revisions, of which a copy of the first is kept.
  void begin() {
    open();
    set("a", "old");
    EXPECT_TRUE(store().snapshot().ok());
    copy_ = readFile(file_ + ".snapshot");
    set("a", "new");
    set("b", "new");
    id_ = store().storeId();
  }
  void place() { writeFile(restoreFile(), copy_); }
  StoreStatus check(std::uint64_t* revision) { return Store::checkRestore({file_}, revision); }

  std::string copy_;
  std::uint64_t id_ = 0;
};

TEST_F(StoreRestoreTest, ACopyTakesTheStoresPlaceUnderANewIdAtTheNextOpening) {
  begin();
  place();
  EXPECT_EQ(store().revision(), 3U);
  open();
  EXPECT_EQ(value("a"), "old");
  EXPECT_EQ(value("b"), "-");
  EXPECT_EQ(store().revision(), 1U);
  EXPECT_NE(store().storeId(), id_);
  EXPECT_THAT(notice(), AllOf(HasSubstr("is now the copy of revision 1"),
                              HasSubstr("what was there is now " + file_ + ".replaced-")));
  EXPECT_EQ(set("c", "3"), 2U);
}

TEST_F(StoreRestoreTest, ItIsTakenOnceAndItsSnapshotIsItsOwn) {
  begin();
  place();
  const std::uint64_t id = open().storeId();
  EXPECT_THAT(filesNamed(".restore"), IsEmpty());
  EXPECT_THAT(filesNamed(".snapshot"), IsEmpty()) << "of the store that was replaced";
  EXPECT_EQ(store().commitsSinceSnapshot(), 1U);
  open();
  EXPECT_EQ(store().storeId(), id);
  EXPECT_THAT(notice(), IsEmpty());
}

TEST_F(StoreRestoreTest, WhatWasThereIsKeptWhole) {
  begin();
  close();
  place();
  open();
  std::vector<std::string> kept = filesNamed(".replaced-");
  ASSERT_THAT(kept, SizeIs(1));
  const OpenedStore before = Store::open({directory_.path() + "/" + kept[0]});
  ASSERT_TRUE(before.status.ok()) << before.status.text;
  EXPECT_EQ(valueIn(before.variables, "a"), "new");
  EXPECT_EQ(before.store->revision(), 3U);
}

// A killed service leaves commits in the log alone.
TEST_F(StoreRestoreTest, TheLogOfAKilledServiceIsKeptBesideIt) {
  begin();
  const std::string main = readFile(file_);
  const std::string log = readFile(file_ + "-wal");
  close();
  writeFile(file_, main);
  writeFile(file_ + "-wal", log);
  place();
  open();
  EXPECT_EQ(value("b"), "-") << "a stranger's log was read into the copy";
  std::string kept;
  for (const std::string& name : filesNamed(".replaced-")) {
    if (name.find("-wal") == std::string::npos) kept = name;
  }
  const OpenedStore before = Store::open({directory_.path() + "/" + kept});
  EXPECT_EQ(valueIn(before.variables, "b"), "new");
}

TEST_F(StoreRestoreTest, ADeviceWithoutAStoreTakesIt) {
  begin();
  close();
  file_ = directory_.path() + "/other.db";
  place();
  open();
  EXPECT_EQ(value("a"), "old");
  EXPECT_THAT(notice(), Not(HasSubstr("replaced-")));
}

TEST_F(StoreRestoreTest, TheNewestOfThoseReplacedAreKept) {
  begin();
  for (int i = 0; i < Store::kMaxSetAside + 2; ++i) {
    place();
    open();
  }
  EXPECT_THAT(filesNamed(".replaced-"), SizeIs(Store::kMaxSetAside));
}

TEST_F(StoreRestoreTest, OneThatIsDamagedIsSetAsideAndTheStoreGoesOn) {
  begin();
  std::string flipped = copy_;
  flipped[flipped.find("old")] = 'O';
  for (const std::string& bad : {flipped, std::string("no store"), std::string()}) {
    copy_ = bad;
    place();
    open();
    EXPECT_EQ(value("a"), "new");
    EXPECT_EQ(store().storeId(), id_);
    EXPECT_THAT(notice(), AllOf(HasSubstr(restoreFile() + " did not take the store's place: it is"),
                                HasSubstr(restoreFile() + ".damaged-")));
    EXPECT_FALSE(std::filesystem::exists(restoreFile()));
    EXPECT_THAT(filesNamed(".new"), IsEmpty());
  }
}

// The name for it would be longer than a file system takes.
TEST_F(StoreRestoreTest, OneThatIsDamagedAndCannotBeSetAsideIsNotServedPast) {
  const std::string file =
      file_ + std::string(240 - std::filesystem::path(file_).filename().string().size(), 's');
  { ASSERT_TRUE(Store::open({file}).status.ok()); }
  writeFile(file + ".restore", "no store");
  const OpenedStore opened = Store::open({file});
  EXPECT_EQ(opened.status.code, StoreCode::kUnusable);
  EXPECT_THAT(opened.status.text, HasSubstr("File name too long"));
  EXPECT_EQ(opened.store, nullptr);
}

TEST_F(StoreRestoreTest, AFileThatCannotBeMadeIsAnError) {
  EXPECT_EQ(posixFileSystem().create(file_), 0);
  EXPECT_EQ(posixFileSystem().create(file_), EEXIST);
  EXPECT_EQ(posixFileSystem().create(file_ + "/x"), ENOTDIR);
}

TEST_F(StoreRestoreTest, OneOfALaterVersionIsSetAsideAndTheStoreGoesOn) {
  begin();
  StoreFormats later = presentFormats();
  ++later.newest;
  later.steps.emplace_back(
      [](Database& database) { return database.run("CREATE TABLE later (x)"); });
  place();
  StoreOptions options{restoreFile()};
  options.formats = &later;
  { ASSERT_TRUE(Store::open(options).status.ok()); }
  std::uint64_t revision = 0;
  EXPECT_EQ(check(&revision).code, StoreCode::kNewerFormat);
  open();
  EXPECT_EQ(value("a"), "new");
  EXPECT_THAT(notice(), HasSubstr("install the newer version again"));
}

TEST_F(StoreRestoreTest, WithoutRoomForItTheStoreGoesOnAndTheNextOpeningTakesIt) {
  begin();
  close();
  place();
  {
    const FileSizeLimit full(4096);
    open();
    EXPECT_EQ(value("a"), "new");
    EXPECT_THAT(notice(), HasSubstr("the next start tries again"));
    close();
  }
  open();
  EXPECT_EQ(value("a"), "old");
}

TEST_F(StoreRestoreTest, ACheckSaysWhatAnOpeningWouldAndChangesNothing) {
  begin();
  place();
  std::uint64_t revision = 0;
  EXPECT_TRUE(check(&revision).ok());
  EXPECT_EQ(revision, 1U);
  EXPECT_EQ(readFile(restoreFile()), copy_);
  EXPECT_THAT(filesNamed(".new"), IsEmpty());
  EXPECT_EQ(set("c", "3"), 4U) << "the store is open all the time";
  writeFile(restoreFile(), "no store");
  const StoreStatus bad = check(&revision);
  EXPECT_EQ(bad.code, StoreCode::kUnusable);
  EXPECT_THAT(bad.text, AllOf(HasSubstr(file_), HasSubstr("it is damaged")));
  std::filesystem::remove(restoreFile());
  EXPECT_THAT(check(&revision).text, HasSubstr("No such file"));
}

// The file of a service that was stopped expects a log beside it.
TEST_F(StoreRestoreTest, TheFileOfAStoppedServiceIsACopyToo) {
  begin();
  close();
  copy_ = readFile(file_);
  open();
  set("a", "newer");
  place();
  open();
  EXPECT_EQ(value("a"), "new");
  EXPECT_THAT(filesNamed("new-"), IsEmpty());
  EXPECT_THAT(filesNamed(".restore"), IsEmpty());
}

}  // namespace
}  // namespace ConfigSrv
