// What has a fixed size or place, on machines of either word size. The compiler checks most of it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <type_traits>

#include "platform/messaging/msg.h"
#include "platform/messaging/wire/frame.h"
#include "tests/support/temp_dir.h"

namespace {

static_assert(std::is_standard_layout_v<MSG_Callback>);
static_assert(offsetof(MSG_Callback, receiver) == 0 * sizeof(void*));
static_assert(offsetof(MSG_Callback, userData) == 1 * sizeof(void*));
static_assert(offsetof(MSG_Callback, firstId) == 2 * sizeof(void*));
static_assert(offsetof(MSG_Callback, lastId) == 3 * sizeof(void*));
static_assert(offsetof(MSG_Callback, reserved) == 4 * sizeof(void*));
static_assert(sizeof(MSG_Callback) == 5 * sizeof(void*), "no padding: tables are arrays of words");
static_assert(sizeof(void*) != 4 || sizeof(MSG_Callback) == 20, "five words of 32 bits");
static_assert(sizeof(void*) != 4 ||
              (offsetof(MSG_Callback, firstId) == 8 && offsetof(MSG_Callback, lastId) == 12 &&
               offsetof(MSG_Callback, reserved) == 16));

static_assert(sizeof(MSG_Sender) == 8, "senders are never reused, so 32 bits would not last");
static_assert(sizeof(off_t) == 8, "a store may pass 2 GiB");
static_assert(sizeof(time_t) == 8, "a device may pass the year 2038");

TEST(WordSizesTest, ATableOfReceiversIsAnArrayOfWords) {
  const MSG_Callback table[] = {{nullptr, nullptr, 0x1A0150, 0x1A0333, 0}, {}};
  const auto* const words = reinterpret_cast<const std::uintptr_t*>(table);
  const std::array<std::uintptr_t, 10> expected = {0, 0, 0x1A0150, 0x1A0333, 0, 0, 0, 0, 0, 0};
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(words[i], expected[i]) << i;
}

TEST(WordSizesTest, AFilePast2GiBCanBeMeasured) {
  const TestSupport::TempDir directory;
  const std::string path = directory.file("sparse");
  constexpr off_t kPast = (off_t{1} << 31) + 1;
  std::ofstream(path).close();
  ASSERT_EQ(::truncate(path.c_str(), kPast), 0);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_size, kPast);
}

TEST(WordSizesTest, ATimePast2038IsATime) {
  const time_t past = time_t{1} << 31;  // one second after 32 bits end
  tm parts{};
  ASSERT_NE(::gmtime_r(&past, &parts), nullptr);
  EXPECT_EQ(parts.tm_year + 1900, 2038);
  EXPECT_EQ(parts.tm_hour, 3);
  EXPECT_EQ(parts.tm_sec, 8);
}

// The header of a frame is written number by number: neither the word size nor padding shows.
TEST(WordSizesTest, AFrameIsTheSameOnEveryMachine) {
  PbUtility::FrameHeader header;
  header.kind = PbUtility::FrameKind::Request;
  header.messageId = 0xFFFFFFFFU;
  header.sequence = 0x80000000U;
  header.payloadBytes = 0;
  header.revision = 0x8000000000000001ULL;
  std::array<unsigned char, PbUtility::kFrameHeaderBytes> bytes{};
  PbUtility::encodeHeader(header, bytes.data());
  const std::array<unsigned char, 24> expected = {
      1, 3, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0x80, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0x80};
  EXPECT_EQ(bytes, expected);
}

}  // namespace
