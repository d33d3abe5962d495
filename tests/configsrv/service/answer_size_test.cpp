#include "configsrv/service/internal/answer_size.h"

#include <gtest/gtest.h>

#include <vector>

namespace ConfigSrv {
namespace {

using Strings = std::vector<std::string>;

TEST(AnswerSizeTest, ItIsTooLargeByTheBytesOfItsStrings) {
  AnswerSize size;
  const std::string half(
      AnswerSize::kMaxBytes / 2 - AnswerSize::kBytesPerRecord - AnswerSize::kBytesPerString, 'x');
  size.add(Strings{half});
  size.add(Strings{half});
  EXPECT_FALSE(size.isTooLarge());
  size.add();
  EXPECT_TRUE(size.isTooLarge());
}

TEST(AnswerSizeTest, ItIsTooLargeByTheMemoryOfManySmallRecords) {
  AnswerSize size;
  for (std::size_t i = 0; i < AnswerSize::kMaxMemory / AnswerSize::kMemoryPerRecord; ++i)
    size.add();
  EXPECT_FALSE(size.isTooLarge());
  size.add();
  EXPECT_TRUE(size.isTooLarge());
}

TEST(AnswerSizeTest, StringsOfSeveralListsCount) {
  AnswerSize size;
  size.add(Strings{"a", "b"}, Strings(AnswerSize::kMaxMemory / AnswerSize::kMemoryPerString));
  EXPECT_TRUE(size.isTooLarge());
}

}  // namespace
}  // namespace ConfigSrv
