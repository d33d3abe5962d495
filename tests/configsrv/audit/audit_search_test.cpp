#include "configsrv/audit/internal/audit_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::Each;
using testing::ElementsAre;

class AuditSearchTest : public testing::Test {
 protected:
  void write(const std::string& text) {
    std::ofstream file(path_, std::ios::binary | std::ios::app);
    file << text;
  }
  std::vector<bool> find(const std::vector<std::string>& lines,
                         std::size_t maxBytes = kMaxSearchBytes) const {
    return linesInFile(path_, lines, maxBytes);
  }

  TestSupport::TempDir directory_;
  const std::string path_ = directory_.file("audit");
};

TEST_F(AuditSearchTest, ALineIsFoundWholeOrRepaired) {
  write("{\"a\":1}\n{\"b\":2,\"repaired\":true}\n");
  EXPECT_THAT(find({"{\"a\":1", "{\"b\":2", "{\"a\":12", "{\"a\":"}),
              ElementsAre(true, true, false, false));
}

TEST_F(AuditSearchTest, ALineThatWasCutShortIsNotThere) {
  write("{\"a\":1}\n{\"b\":2");
  EXPECT_THAT(find({"{\"b\":2"}), ElementsAre(false));
  write("\n\n\0\0{\"c\":3}\n");
  EXPECT_THAT(find({"{\"b\":2", "{\"a\":1"}), ElementsAre(false, true));
}

TEST_F(AuditSearchTest, LinesAreFoundWhereverThePiecesOfTheFileEnd) {
  std::vector<std::string> lines;
  for (int i = 0; i < 3000; ++i)
    lines.push_back("{\"n\":" + std::to_string(i) +
                    std::string(static_cast<std::size_t>(i % 97), ' '));
  for (const std::string& line : lines) write(line + "}\n");
  EXPECT_THAT(find(lines), Each(true));
}

TEST_F(AuditSearchTest, ALineLongerThanAPieceIsFound) {
  const std::string line = "{\"v\":\"" + std::string(200'000, 'x') + '"';
  write("{\"a\":1}\n" + line + "}\n{\"b\":2}\n");
  EXPECT_THAT(find({line, "{\"a\":1", "{\"b\":2"}), Each(true));
}

TEST_F(AuditSearchTest, WhatStandsFartherFromTheEndThanTheLimitIsNotFound) {
  write("{\"a\":1}\n" + std::string(1000, 'x') + "\n{\"b\":2}\n");
  EXPECT_THAT(find({"{\"a\":1", "{\"b\":2"}, 500), ElementsAre(false, true));
}

TEST_F(AuditSearchTest, AFileThatIsNotThereOrNoneHasNothing) {
  EXPECT_THAT(find({"{\"a\":1"}), ElementsAre(false));
  write("");
  EXPECT_THAT(find({"{\"a\":1"}), ElementsAre(false));
  std::filesystem::remove(path_);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_THAT(find({"{\"a\":1"}), ElementsAre(false));
}

}  // namespace
}  // namespace ConfigSrv
