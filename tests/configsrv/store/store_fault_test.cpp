#include <sys/wait.h>

#include <functional>

#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

class StoreFaultTest : public StoreFixture {
 protected:
  // What opening the file fails with, here and now.
  StoreStatus refusal() const {
    OpenedStore opened = Store::open({file_});
    EXPECT_EQ(opened.store, nullptr);
    EXPECT_NE(opened.status.text.find(file_.substr(0, file_.rfind('/'))), std::string::npos)
        << opened.status.text;
    return opened.status;
  }
};

// Runs in a child process without the rights that root has; whether it returned true.
bool asNobody(const std::function<bool()>& check) {
  const pid_t child = ::fork();
  if (child == 0) {
    const bool dropped = ::geteuid() != 0 || ::seteuid(65534) == 0;
    ::_exit(dropped && check() ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  return status == 0;
}

TEST_F(StoreFaultTest, ASecondOpenInThisProcessIsRefused) {
  open();
  const StoreStatus status = refusal();
  EXPECT_EQ(status.code, StoreCode::kInUse);
  EXPECT_NE(status.text.find(file_ + " is in use"), std::string::npos) << status.text;
  set("a", "1");
}

TEST_F(StoreFaultTest, ASecondOpenInAnotherProcessIsRefusedUntilTheFirstIsGone) {
  int ready[2];
  int finish[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(finish), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const OpenedStore held = Store::open({file_});
    char byte = held.status.ok() ? 'y' : 'n';
    const bool told = ::write(ready[1], &byte, 1) == 1 && ::read(finish[0], &byte, 1) == 1;
    ::_exit(told ? 0 : 1);  // Without closing: as when it is killed.
  }
  char answer = '?';
  ASSERT_EQ(::read(ready[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  EXPECT_EQ(refusal().code, StoreCode::kInUse);
  EXPECT_EQ(::write(finish[1], "x", 1), 1);
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  open();
  EXPECT_EQ(notice(), "");
  for (const int fd : {ready[0], ready[1], finish[0], finish[1]}) ::close(fd);
}

TEST_F(StoreFaultTest, AnotherProgramCannotWriteToAnOpenStore) {
  open();
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(file_.c_str(), &database), SQLITE_OK);
  // The lock is held by this process, and SQLite knows its own connections apart.
  EXPECT_EQ(sqlite3_exec(database, "DELETE FROM meta", nullptr, nullptr, nullptr), SQLITE_BUSY);
  sqlite3_close(database);
}

TEST_F(StoreFaultTest, AStoreThatAnotherProgramHasOpenIsRefused) {
  open();
  close();
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(file_.c_str(), &database), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(database, "PRAGMA locking_mode=EXCLUSIVE; SELECT * FROM meta", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  EXPECT_EQ(refusal().code, StoreCode::kInUse);
  sqlite3_close(database);
}

TEST_F(StoreFaultTest, ADirectoryIsNoStore) {
  std::filesystem::create_directory(file_);
  EXPECT_EQ(refusal().code, StoreCode::kUnusable);
}

TEST_F(StoreFaultTest, AFifoIsNoStoreAndIsNotWaitedFor) {
  ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
  EXPECT_EQ(refusal().code, StoreCode::kUnusable);
}

TEST_F(StoreFaultTest, AFileInPlaceOfTheDirectoryIsNamed) {
  writeFile(directory_.path() + "/file", "x");
  file_ = directory_.path() + "/file/store.db";
  const StoreStatus status = refusal();
  EXPECT_EQ(status.code, StoreCode::kUnusable);
  EXPECT_NE(status.text.find("Not a directory"), std::string::npos) << status.text;
}

TEST_F(StoreFaultTest, AnUnwritableDirectoryIsNamed) {
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0555), 0);
  EXPECT_TRUE(asNobody([&] {
    const StoreStatus status = refusal();
    return status.code == StoreCode::kUnusable &&
           status.text.find("Permission denied") != std::string::npos;
  }));
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0700), 0);
}

// What is unreadable may be readable for somebody else; it is kept, and the device starts.
TEST_F(StoreFaultTest, AFileThatMayNotBeReadIsSetAsideAndTheSnapshotUsed) {
  open();
  set("a", "1");
  ASSERT_TRUE(store().snapshot().ok());
  set("a", "2");
  close();
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0777), 0);
  ASSERT_EQ(::chmod((file_ + ".lock").c_str(), 0666), 0);
  ASSERT_EQ(::chmod((file_ + ".snapshot").c_str(), 0644), 0);
  ASSERT_EQ(::chmod(file_.c_str(), 0), 0);
  EXPECT_TRUE(asNobody([&] {
    const OpenedStore opened = Store::open({file_});
    return opened.status.ok() && valueIn(opened.variables, "a") == "1" &&
           opened.notice.find("Permission denied") != std::string::npos;
  }));
  EXPECT_EQ(filesNamed("store.db.damaged").size(), 1U);
}

TEST_F(StoreFaultTest, AFileThatMayNotBeReadInADirectoryOfOthersIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can make a file that another user owns";
  open();
  close();
  ASSERT_EQ(::chmod(directory_.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod((file_ + ".lock").c_str(), 0666), 0);
  EXPECT_TRUE(asNobody([&] { return refusal().code == StoreCode::kUnusable; }));
  EXPECT_TRUE(filesNamed("damaged").empty());
}

TEST_F(StoreFaultTest, ADirectoryWhereAStoreWasIsSetAsideAndTheSnapshotUsed) {
  for (const char* companion : {"", "-wal"}) {
    open();
    set("a", "1");
    ASSERT_TRUE(store().snapshot().ok());
    close();
    std::filesystem::remove(file_ + companion);
    std::filesystem::create_directory(file_ + companion);
    writeFile(file_ + companion + "/precious", "x");
    open();
    EXPECT_EQ(value("a"), "1");
    EXPECT_NE(notice().find(file_ + companion + " is not a regular file"), std::string::npos)
        << notice();
  }
  EXPECT_EQ(filesNamed("store.db.damaged").size(), 3U);  // A directory; a file and a directory.
}

TEST_F(StoreFaultTest, ASnapshotThatCannotBeReadIsSetAsideToo) {
  open();
  set("a", "1");
  close();
  writeFile(file_, "damaged");
  std::filesystem::create_directory(file_ + ".snapshot");
  open();
  EXPECT_TRUE(variables().empty());
  EXPECT_NE(notice().find("the snapshot cannot be used either"), std::string::npos) << notice();
  EXPECT_EQ(filesNamed("store.db.snapshot.damaged").size(), 1U);
  set("a", "2");
}

TEST_F(StoreFaultTest, AnUnknownVfsIsAClearFailureAndSetsNothingAside) {
  StoreOptions options{file_};
  options.vfs = "no-such-vfs";
  for (int i = 0; i < 2; ++i) {
    const OpenedStore opened = Store::open(options);
    EXPECT_EQ(opened.store, nullptr);
    EXPECT_NE(opened.status.text.find("no-such-vfs"), std::string::npos) << opened.status.text;
    open();
    EXPECT_EQ(notice(), "");
    close();
  }
}

// SQLite's own reason to make no statement is a lack of memory; here it is not allowed to.
class UnreadableValues {
 public:
  UnreadableValues() { sqlite3_auto_extension(reinterpret_cast<void (*)()>(&forbid)); }
  ~UnreadableValues() { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(&forbid)); }
  UnreadableValues(const UnreadableValues&) = delete;
  UnreadableValues& operator=(const UnreadableValues&) = delete;

 private:
  static int forbid(sqlite3* database, char**, const void*) {
    return sqlite3_set_authorizer(database, &mayBeDone, nullptr);
  }
  static int mayBeDone(void*, int action, const char*, const char* column, const char*,
                       const char*) {
    const bool isValue =
        action == SQLITE_READ && column != nullptr && column == std::string("value");
    return isValue ? SQLITE_DENY : SQLITE_OK;
  }
};

TEST_F(StoreFaultTest, AStoreWhoseVariablesCannotBeReadIsNoEmptyStore) {
  open();
  set("a", "1");
  close();
  {
    const UnreadableValues unreadable;
    const OpenedStore opened = Store::open({file_});
    EXPECT_NE(opened.status.text.find("access to variable.value is prohibited"), std::string::npos)
        << opened.status.text;
    EXPECT_EQ(opened.store, nullptr);
  }
  open();
  EXPECT_EQ(value("a"), "1");
}

TEST_F(StoreFaultTest, ANewerFormatIsRefusedAndTheFileIsNotTouched) {
  open();
  set("a", "1");
  close();
  runSql(file_, "PRAGMA user_version=2; UPDATE meta SET format=2; CREATE TABLE unknown(x)");
  const std::string before = readFile(file_);
  const auto time = std::filesystem::last_write_time(file_);
  const StoreStatus status = refusal();
  EXPECT_EQ(status.code, StoreCode::kNewerFormat);
  EXPECT_NE(status.text.find("format 2"), std::string::npos) << status.text;
  EXPECT_TRUE(readFile(file_) == before);
  EXPECT_EQ(std::filesystem::last_write_time(file_), time);
  EXPECT_TRUE(filesNamed("damaged").empty());
}

TEST_F(StoreFaultTest, ANewerFormatKeepsItsLogToo) {
  open();
  close();
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(file_.c_str(), &database), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(database, "PRAGMA user_version=2; UPDATE meta SET format=2", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  // A copy of the two files while they are in use is what a loss of power leaves.
  const std::string main = readFile(file_);
  const std::string log = readFile(file_ + "-wal");
  sqlite3_close(database);
  ASSERT_FALSE(log.empty());
  writeFile(file_, main);
  writeFile(file_ + "-wal", log);
  EXPECT_EQ(refusal().code, StoreCode::kNewerFormat);
  EXPECT_TRUE(readFile(file_) == main);
  EXPECT_TRUE(readFile(file_ + "-wal") == log);
}

TEST_F(StoreFaultTest, AFormatThatOnlyTheHeaderNamesIsDamage) {
  open();
  close();
  runSql(file_, "PRAGMA user_version=2");
  open();
  EXPECT_NE(notice().find("format 2"), std::string::npos) << notice();
}

TEST_F(StoreFaultTest, AFullStoreFailsTheCommitAndTakesSmallerOnes) {
  StoreOptions options{file_};
  options.maxBytes = std::uint64_t{256} << 10;
  opened_ = Store::open(options);
  ASSERT_NE(opened_.store, nullptr) << opened_.status.text;
  set("a", "1");
  const CommitResult result = store().commit(
      {{setting("a", "2")}, {setting("b", std::string(std::size_t{256} << 10, 'x'))}});
  EXPECT_EQ(result.status.code, StoreCode::kDiskFull);
  EXPECT_NE(result.status.text.find(file_), std::string::npos) << result.status.text;
  EXPECT_TRUE(result.revisions.empty());
  EXPECT_EQ(store().revision(), 1U);
  EXPECT_EQ(set("c", "3"), 2U);
  open();
  EXPECT_EQ(value("a"), "1");
  EXPECT_EQ(value("b"), "-");
  EXPECT_EQ(value("c"), "3");
}

TEST_F(StoreFaultTest, AFullDiskFailsTheCommitAndTheStoreWorksWhenSpaceComesBack) {
  open();
  set("a", "1");
  const std::uintmax_t log = std::filesystem::file_size(file_ + "-wal");
  for (std::uintmax_t room : {0U, 1U, 24U, 4096U, 4120U, 5000U, 20000U}) {
    const FileSizeLimit limit(log + room);
    const CommitResult result =
        store().commit({{setting("a", "2"), setting("b", std::string(60000, 'x'))}});
    EXPECT_EQ(result.status.code, StoreCode::kDiskFull) << room << ": " << result.status.text;
    EXPECT_EQ(store().revision(), 1U);
  }
  EXPECT_EQ(set("c", "3"), 2U);
  open();
  EXPECT_EQ(notice(), "");
  EXPECT_EQ(value("a"), "1");
  EXPECT_EQ(value("b"), "-");
  EXPECT_EQ(value("c"), "3");
}

TEST_F(StoreFaultTest, AFailedCommitLeavesNothingAfterALossOfPower) {
  open();
  set("a", "1");
  {
    const FileSizeLimit limit(std::filesystem::file_size(file_ + "-wal") + 20000);
    EXPECT_FALSE(store().commit({{setting("a", std::string(60000, 'x'))}}).status.ok());
  }
  const std::string main = readFile(file_);
  const std::string log = readFile(file_ + "-wal");
  close();
  writeFile(file_, main);
  writeFile(file_ + "-wal", log);
  open();
  EXPECT_EQ(notice(), "");
  EXPECT_EQ(value("a"), "1");
}

TEST_F(StoreFaultTest, ANewStoreOnAFullDiskIsAClearFailureAndBeginsWhenSpaceComesBack) {
  for (std::uintmax_t room : {0U, 1000U, 4096U, 8192U}) {
    const FileSizeLimit limit(room);
    const StoreStatus status = refusal();
    EXPECT_EQ(status.code, StoreCode::kDiskFull) << room << ": " << status.text;
  }
  open();
  EXPECT_EQ(notice(), "");
  EXPECT_EQ(set("a", "1"), 1U);
}

TEST_F(StoreFaultTest, AFullDiskAtStartStillShowsWhatIsStored) {
  open();
  set("a", "1");
  close();
  const FileSizeLimit limit(0);
  open();
  EXPECT_EQ(notice(), "");
  EXPECT_EQ(value("a"), "1");
  EXPECT_EQ(store().commit({{setting("a", "2")}}).status.code, StoreCode::kDiskFull);
  close();
}

}  // namespace
}  // namespace ConfigSrv
