#include "configsrv/in_force/last_good.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::HasSubstr;

class LastGoodTest : public testing::Test {
 protected:
  static std::string bytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void write(const std::string& bytes) const {
    std::ofstream(kept_.file(), std::ios::binary) << bytes;
    EXPECT_EQ(chmod(kept_.file().c_str(), 0600), 0);
  }
  struct stat stats() const {
    struct stat status {};
    EXPECT_EQ(stat(kept_.file().c_str(), &status), 0);
    return status;
  }
  // "path=text" of each file, or why it is not used.
  std::string read() const {
    const LastGood::Kept kept = kept_.read();
    if (!kept.isThere) return kept.why.empty() ? "nothing" : kept.why;
    std::string all;
    for (const TextFile& file : kept.files) all += file.path + "=" + file.text + ";";
    return all;
  }

  const TestSupport::TempDir directory_;
  const LastGood kept_{directory_.file("store.db.definitions")};
};

TEST_F(LastGoodTest, WhatWasKeptIsReadAgainByteForByte) {
  const std::string odd("\0\n\xff 3 4\n", 9);
  ASSERT_TRUE(kept_.keep({{"/a b/1.toml", "x = 1\n"}, {"2", ""}, {"3\n", odd}}).ok());
  EXPECT_EQ(read(), "/a b/1.toml=x = 1\n;2=;3\n=" + odd + ";");
}

TEST_F(LastGoodTest, NothingIsThereUntilSomethingWasKept) {
  EXPECT_EQ(read(), "nothing");
  ASSERT_TRUE(kept_.keep({}).ok());
  EXPECT_EQ(read(), "") << "that there was no file is kept, too";
  EXPECT_EQ(LastGood("").read().isThere, false);
}

TEST_F(LastGoodTest, NobodyElseMayReadIt) {
  ASSERT_TRUE(kept_.keep({{"a", "b"}}).ok());
  EXPECT_EQ(stats().st_mode & 07777, 0600U);
}

TEST_F(LastGoodTest, TheSameIsNotWrittenTwice) {
  ASSERT_TRUE(kept_.keep({{"a", "b"}}).ok());
  const ino_t first = stats().st_ino;
  ASSERT_TRUE(kept_.keep({{"a", "b"}}).ok());
  EXPECT_EQ(stats().st_ino, first);
  ASSERT_TRUE(kept_.keep({{"a", "c"}}).ok());
  EXPECT_NE(stats().st_ino, first);
}

TEST_F(LastGoodTest, WhatAKilledWriterLeftIsNotReadAndDoesNotDisturb) {
  ASSERT_TRUE(kept_.keep({{"a", "old"}}).ok());
  const std::string whole = bytesOf(kept_.file());
  for (const std::size_t size : {std::size_t{0}, whole.size() / 2, whole.size()}) {
    std::ofstream(kept_.file() + ".new", std::ios::binary) << whole.substr(0, size);
    EXPECT_EQ(read(), "a=old;");
    ASSERT_TRUE(kept_.keep({{"a", "new " + std::to_string(size)}}).ok());
    EXPECT_EQ(read(), "a=new " + std::to_string(size) + ";");
    EXPECT_FALSE(std::filesystem::exists(kept_.file() + ".new"));
    ASSERT_TRUE(kept_.keep({{"a", "old"}}).ok());
  }
}

TEST_F(LastGoodTest, EveryCutAndEveryChangedByteIsNoticed) {
  ASSERT_TRUE(kept_.keep({{"a.toml", "x = 1\n"}, {"b.toml", "y = 2\n"}}).ok());
  const std::string whole = bytesOf(kept_.file());
  for (std::size_t i = 0; i < whole.size(); ++i) {
    write(whole.substr(0, i));
    EXPECT_EQ(read(), "it is damaged") << i;
    std::string changed = whole;
    changed[i] = static_cast<char>(changed[i] ^ 1);
    write(changed);
    EXPECT_EQ(read(), "it is damaged") << i;
  }
  write(whole + "1");
  EXPECT_EQ(read(), "it is damaged");
}

TEST_F(LastGoodTest, WhatOthersCouldHaveWrittenIsNotUsed) {
  ASSERT_TRUE(kept_.keep({{"a", "b"}}).ok());
  ASSERT_EQ(chmod(kept_.file().c_str(), 0620), 0);
  EXPECT_EQ(read(), "it can be written by its group");
  ASSERT_EQ(rename(kept_.file().c_str(), directory_.file("other").c_str()), 0);
  ASSERT_EQ(symlink("other", kept_.file().c_str()), 0);
  EXPECT_EQ(read(), "it is a symbolic link");
  ASSERT_TRUE(kept_.keep({{"a", "c"}}).ok()) << "and is replaced, not written through";
  EXPECT_EQ(read(), "a=c;");
  EXPECT_THAT(bytesOf(directory_.file("other")), HasSubstr("\nb\n"));
}

TEST_F(LastGoodTest, AFullDiskLeavesWhatWasKeptBefore) {
  ASSERT_TRUE(kept_.keep({{"a", "old"}}).ok());
  // A limit on the size of files ends a write as a full disk does.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit tight{64, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
  const Base::Status<> done = kept_.keep({{"a", std::string(1000, 'n')}});
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_FALSE(done.ok());
  EXPECT_EQ(done.text, "File too large");
  EXPECT_EQ(read(), "a=old;");
  EXPECT_FALSE(std::filesystem::exists(kept_.file() + ".new"));
}

TEST_F(LastGoodTest, ADirectoryThatIsNotThereIsSaid) {
  const LastGood nowhere(directory_.file("none/kept"));
  EXPECT_FALSE(nowhere.read().isThere);
  EXPECT_EQ(nowhere.keep({{"a", "b"}}).text, "No such file or directory");
}

}  // namespace
}  // namespace ConfigSrv
