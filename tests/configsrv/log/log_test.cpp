#include "configsrv/log/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "configsrv/log/flood_guard.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;

class LogTest : public testing::Test {
 protected:
  Log at(LogLevel level) {
    return Log(level, [this](LogLevel, const std::string& line) { lines_.push_back(line); });
  }
  std::vector<std::string> lines_;
};

TEST_F(LogTest, OnlyLinesUpToTheChosenLevelAreWritten) {
  const Log log = at(LogLevel::Warning);
  log.error("a");
  log.warning("b");
  log.info("c");
  log.debug("d");
  EXPECT_THAT(lines_, ElementsAre("a", "b"));
  EXPECT_TRUE(log.isOn(LogLevel::Warning));
  EXPECT_FALSE(log.isOn(LogLevel::Info));
}

TEST_F(LogTest, BytesThatWouldBreakALineAreEscaped) {
  at(LogLevel::Info).info(std::string("a\nb\r\x1B[31m\0c\x7F \xC3\xA4", 15));
  EXPECT_THAT(lines_, ElementsAre("a\\x0Ab\\x0D\\x1B[31m\\x00c\\x7F \xC3\xA4"));
}

TEST_F(LogTest, LevelsHaveNames) {
  for (const LogLevel level : {LogLevel::Error, LogLevel::Warning, LogLevel::Info, LogLevel::Debug})
    EXPECT_EQ(parseLevel(levelName(level)), level);
  EXPECT_EQ(parseLevel("verbose"), std::nullopt);
}

TEST(LogToStandardErrorTest, ALineBeginsWithItsLevel) {
  unsetenv("JOURNAL_STREAM");
  testing::internal::CaptureStderr();
  Log(LogLevel::Info, Log::toStandardError()).warning("careful");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "warning: careful\n");
}

TEST(LogToStandardErrorTest, ALineForTheJournalBeginsWithTheJournalsMark) {
  testing::internal::CaptureStderr();
  struct stat status {};
  ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
  const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  setenv("JOURNAL_STREAM", stream.c_str(), 1);
  Log(LogLevel::Info, Log::toStandardError()).warning("careful");
  unsetenv("JOURNAL_STREAM");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "<4>careful\n");
}

TEST(LogToStandardErrorTest, AnotherStreamsJournalMarkIsNotUsed) {
  testing::internal::CaptureStderr();
  setenv("JOURNAL_STREAM", "1:1", 1);
  Log(LogLevel::Info, Log::toStandardError()).error("careful");
  unsetenv("JOURNAL_STREAM");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error: careful\n");
}

TEST_F(LogTest, OfManyLinesOfOneKindTheFirstAreWrittenAndTheRestIsSummedUp) {
  const Log log = at(LogLevel::Info);
  for (std::size_t i = 0; i < FloodGuard::kLines + 3; ++i)
    log.repeatable(LogLevel::Warning, "refused", "refused " + std::to_string(i));
  log.repeatable(LogLevel::Warning, "denied", "denied");
  EXPECT_EQ(lines_.size(), FloodGuard::kLines + 1);
  EXPECT_EQ(lines_.back(), "denied");
  EXPECT_TRUE(log.holdsBack());
  log.sumUp(true);
  EXPECT_EQ(lines_.back(), "3 more like it, the last: refused 12");
  EXPECT_FALSE(log.holdsBack());
}

TEST_F(LogTest, ItTellsOnceWhenThereBeginsToBeSomethingToSumUp) {
  const Log log = at(LogLevel::Info);
  int told = 0;
  log.whenHeldBack([&] { ++told; });
  for (std::size_t i = 0; i < FloodGuard::kLines; ++i)
    log.repeatable(LogLevel::Warning, "refused", "x");
  EXPECT_EQ(told, 0);
  for (int i = 0; i < 5; ++i) log.repeatable(LogLevel::Warning, "refused", "x");
  EXPECT_EQ(told, 1);
}

TEST_F(LogTest, ARepeatableLineThatIsTooDetailedIsNotCounted) {
  const Log log = at(LogLevel::Warning);
  for (std::size_t i = 0; i < 2 * FloodGuard::kLines; ++i)
    log.repeatable(LogLevel::Info, "one-way", "x");
  EXPECT_FALSE(log.holdsBack());
}

TEST(FloodGuardTest, ASpanThatHasEndedIsToldOnceAndTheNextOneBeginsAfresh) {
  FloodGuard guard;
  FloodGuard::Clock::time_point now;
  for (std::size_t i = 0; i < FloodGuard::kLines; ++i)
    EXPECT_TRUE(guard.admit(LogLevel::Warning, "kind", "line", now));
  EXPECT_FALSE(guard.admit(LogLevel::Warning, "kind", "line", now));
  EXPECT_TRUE(guard.ended(now + FloodGuard::kSpan / 2).empty());
  now += FloodGuard::kSpan;
  ASSERT_EQ(guard.ended(now).size(), 1U);
  EXPECT_TRUE(guard.ended(now).empty());
  EXPECT_TRUE(guard.admit(LogLevel::Warning, "kind", "line", now));
}

TEST(FloodGuardTest, ASpanWithoutAFloodIsNotTold) {
  FloodGuard guard;
  const FloodGuard::Clock::time_point now;
  EXPECT_TRUE(guard.admit(LogLevel::Warning, "kind", "line", now));
  EXPECT_TRUE(guard.ended(now + FloodGuard::kSpan).empty());
  EXPECT_TRUE(guard.all().empty());
}

}  // namespace
}  // namespace ConfigSrv
