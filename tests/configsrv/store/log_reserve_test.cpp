#include "configsrv/store/internal/log_reserve.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

class LogReserveTest : public StoreFixture {
 protected:
  std::string log() const { return file_ + "-wal"; }
  std::uintmax_t logBytes() const { return std::filesystem::file_size(log()); }
  // As a kill leaves it: the log with its reserve, and no orderly close.
  void killAndOpen() {
    const std::string logAsItIs = readFile(log());
    const std::string fileAsItIs = readFile(file_);
    close();
    writeFile(file_, fileAsItIs);
    writeFile(log(), logAsItIs);
    open();
  }
};

TEST_F(LogReserveTest, ASmallStoreReservesThirtyTwoKibibytesForItsNextCommits) {
  open();
  set("a", "1");
  const std::uintmax_t size = logBytes();
  EXPECT_GE(size, 32U * 1024);
  EXPECT_LE(size, 64U * 1024);
  set("a", "2");
  set("a", "3");
  EXPECT_EQ(logBytes(), size);
}

TEST_F(LogReserveTest, MostCommitsLeaveTheLogsFileAsLongAsItIs) {
  open();
  int grown = 0;
  set("a", "first");
  for (int i = 0; i < 500; ++i) {
    const std::uintmax_t before = logBytes();
    set("a", std::to_string(i));
    grown += logBytes() != before ? 1 : 0;
  }
  EXPECT_LT(grown, 12);
}

TEST_F(LogReserveTest, TheReserveIsNeverMoreThanTheLogItself) {
  open();
  for (int i = 0; i < 300; ++i) {
    set("a", std::to_string(i));
    const std::uint64_t used = static_cast<std::uint64_t>(i + 2) * kLogFrameBytes;
    ASSERT_LE(logBytes(), std::max<std::uint64_t>(64U * 1024, 2 * used + 64U * 1024)) << i;
  }
}

TEST_F(LogReserveTest, TheLogStartsOverAndItsFileStaysBelowTheLimit) {
  open();
  for (int i = 0; i < 1200; ++i) {
    set("a", std::to_string(i));
    ASSERT_LE(logBytes(), logLimitBytes(StoreOptions::kLogPages)) << i;
  }
  open();
  EXPECT_EQ(value("a"), "1199");
}

TEST_F(LogReserveTest, WhatIsReservedIsCountedAsWritten) {
  open();
  set("a", "1");
  EXPECT_GE(store().counters().bytes, 32U * 1024 + kLogFrameBytes);
}

TEST_F(LogReserveTest, AFileThatCannotGrowCostsTheReserveAndNotTheCommit) {
  open();
  const FileSizeLimit limit(20 * 1024);
  set("a", "1");
  EXPECT_LE(logBytes(), 20U * 1024);
  set("a", "2");
}

TEST_F(LogReserveTest, ALogThatEndsInZerosIsReadUpToThere) {
  open();
  set("a", "1");
  set("b", "2");
  ASSERT_EQ(readFile(log()).back(), '\0');
  killAndOpen();
  EXPECT_EQ(value("a"), "1");
  EXPECT_EQ(value("b"), "2");
  EXPECT_EQ(notice(), "");
}

TEST_F(LogReserveTest, CommitsOfAllSizesAreThereAfterAKillWhereverTheReserveEnds) {
  open();
  for (std::size_t pages = 0; pages < 40; ++pages) {
    const std::string value(pages * 4096 + pages * 7, 'x');
    set("large", value);
    set("small", std::to_string(pages));
    killAndOpen();
    ASSERT_EQ(this->value("large"), value) << pages;
    ASSERT_EQ(this->value("small"), std::to_string(pages));
  }
}

TEST_F(LogReserveTest, ManyCommitsOfDifferentSizesAreThereAfterOneKill) {
  open();
  for (std::size_t i = 0; i < 120; ++i) {
    set("v" + std::to_string(i), std::string(i * 613 % 40000, 'x'));
  }
  killAndOpen();
  for (std::size_t i = 0; i < 120; ++i) {
    ASSERT_EQ(value("v" + std::to_string(i)).size(), i * 613 % 40000) << i;
  }
}

}  // namespace
}  // namespace ConfigSrv
