#include "configsrv/audit/internal/audit_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class AuditFileTest : public testing::Test {
 protected:
  void open() {
    file_ = std::make_unique<AuditFile>(
        path_, log_, [](std::uint64_t lost) { return "lost " + std::to_string(lost); });
    file_->open();
  }
  static std::string read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }

  TestSupport::TempDir directory_;
  const std::string path_ = directory_.file("audit.jsonl");
  std::vector<std::string> lines_;
  Log log_{LogLevel::Info, [this](LogLevel level, const std::string& line) {
             lines_.push_back(std::string(levelName(level)) + ": " + line);
           }};
  std::unique_ptr<AuditFile> file_;
};

TEST_F(AuditFileTest, LinesAreAppendedToWhatIsThere) {
  std::ofstream(path_) << "before\n";
  open();
  file_->append("one");
  file_->append("two");
  EXPECT_EQ(read(path_), "before\none\ntwo\n");
  EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(AuditFileTest, ANewFileIsTheServicesAloneWhateverTheMask) {
  for (const mode_t mask : {mode_t{0}, mode_t{077}}) {
    const mode_t old = umask(mask);
    open();
    umask(old);
    EXPECT_EQ(modeOf(path_), 0600u);
    unlink(path_.c_str());
  }
}

TEST_F(AuditFileTest, ARenamedFileIsLeftAndANewOneBegun) {
  open();
  file_->append("one");
  ASSERT_EQ(rename(path_.c_str(), (path_ + ".1").c_str()), 0);
  file_->append("two");
  EXPECT_EQ(read(path_ + ".1"), "one\n");
  EXPECT_EQ(read(path_), "two\n");
  EXPECT_EQ(modeOf(path_), 0600u);
}

TEST_F(AuditFileTest, AFileThatWasPutInItsPlaceIsWrittenAndKeepsItsMode) {
  open();
  file_->append("one");
  std::ofstream(path_ + ".new") << "";
  ASSERT_EQ(chmod((path_ + ".new").c_str(), 0640), 0);
  ASSERT_EQ(rename((path_ + ".new").c_str(), path_.c_str()), 0);
  file_->append("two");
  EXPECT_EQ(read(path_), "two\n");
  EXPECT_EQ(modeOf(path_), 0640u);
}

TEST_F(AuditFileTest, ATruncatedFileGoesOnAtItsNewEnd) {
  open();
  file_->append("one");
  ASSERT_EQ(truncate(path_.c_str(), 0), 0);
  file_->append("two");
  EXPECT_EQ(read(path_), "two\n");
}

TEST_F(AuditFileTest, WhatIsLostIsCountedAndSaidOnceAndMadeUpForWhenItCanBeWrittenAgain) {
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  open();
  for (int i = 0; i < 5; ++i) file_->append("lost");
  EXPECT_EQ(file_->lost(), 5u);
  EXPECT_THAT(lines_,
              ElementsAre(HasSubstr("error: " + path_ + ": the audit record cannot be written")));
  ASSERT_EQ(rmdir(path_.c_str()), 0);
  file_->append("kept");
  EXPECT_EQ(read(path_), "lost 5\nkept\n");
  EXPECT_EQ(file_->lost(), 0u);
  ASSERT_EQ(lines_.size(), 2u);
  EXPECT_THAT(lines_[1], HasSubstr("written again; 5 records of changes were lost"));
}

TEST_F(AuditFileTest, WhatWasLostUntilTheEndIsSaidAtTheEnd) {
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  open();
  file_->append("lost");
  file_.reset();
  ASSERT_EQ(lines_.size(), 2u);
  EXPECT_THAT(lines_[1], HasSubstr("1 record of changes were lost"));
}

// A limit on the size of files stands in for a full disk: what fits is taken, the rest is not.
TEST_F(AuditFileTest, ALineThatTheDiskDoesNotTakeAsAWholeIsTakenBack) {
  signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  open();
  file_->append("12345678");
  rlimit full = before;
  full.rlim_cur = 12;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
  for (int i = 0; i < 3; ++i) file_->append("abcdefgh");
  const std::string while_full = read(path_);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(while_full, "12345678\n");
  file_->append("room");
  EXPECT_EQ(read(path_), "12345678\nlost 3\nroom\n");
  EXPECT_EQ(lines_.size(), 2u);
}

// The line that tells of the loss would fit, and the record would not: nothing is said then.
TEST_F(AuditFileTest, ADiskWithALittleRoomDoesNotFillTheLog) {
  signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  open();
  rlimit full = before;
  full.rlim_cur = 10;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
  for (int i = 0; i < 20; ++i) file_->append("a record that does not fit");
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(read(path_), "");
  EXPECT_EQ(file_->lost(), 20u);
  EXPECT_EQ(lines_.size(), 1u);
}

TEST_F(AuditFileTest, ASymbolicLinkAndWhatIsNoFileAreNotWritten) {
  std::ofstream(directory_.file("other")) << "";
  ASSERT_EQ(symlink("other", path_.c_str()), 0);
  open();
  file_->append("x");
  EXPECT_EQ(read(directory_.file("other")), "");
  EXPECT_THAT(lines_[0], HasSubstr("it is a symbolic link"));
  ASSERT_EQ(unlink(path_.c_str()), 0);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  file_->append("y");
  EXPECT_EQ(file_->lost(), 2u);
}

TEST_F(AuditFileTest, AFileOfAnotherUserIsNotWritten) {
  if (getuid() != 0) GTEST_SKIP() << "only root can give a file away";
  std::ofstream(path_) << "";
  ASSERT_EQ(chown(path_.c_str(), 61001, 0), 0);
  open();
  file_->append("x");
  EXPECT_EQ(read(path_), "");
  EXPECT_THAT(lines_[0], HasSubstr("it belongs to user 61001"));
}

}  // namespace
}  // namespace ConfigSrv
