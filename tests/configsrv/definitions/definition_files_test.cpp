#include "configsrv/definitions/definition_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DefinitionFilesTest : public testing::Test {
 protected:
  DefinitionFilesTest() {
    std::filesystem::create_directory(product_);
    std::filesystem::create_directory(device_);
  }
  static void write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }
  // "product/10.toml=text", in their order.
  std::vector<std::string> read(const std::vector<std::string>& directories) {
    DefinitionFiles found = readDefinitionFiles(directories);
    mistakes_ = formatMistakes(found.mistakes);
    std::vector<std::string> files;
    for (const TextFile& file : found.files)
      files.push_back(file.path.substr(root_.path().size() + 1) + "=" + file.text);
    return files;
  }

  TestSupport::TempDir root_;
  const std::string product_ = root_.file("product");
  const std::string device_ = root_.file("device");
  std::string mistakes_;
};

TEST_F(DefinitionFilesTest, FilesOfSeveralDirectoriesAreReadInTheOrderOfTheirNames) {
  write(product_ + "/20.toml", "b");
  write(product_ + "/40.toml", "d");
  write(device_ + "/10.toml", "a");
  write(device_ + "/30.toml", "c");
  EXPECT_THAT(read({product_, device_}), ElementsAre("device/10.toml=a", "product/20.toml=b",
                                                     "device/30.toml=c", "product/40.toml=d"));
  EXPECT_EQ(mistakes_, "");
}

TEST_F(DefinitionFilesTest, AFileOfALaterDirectoryReplacesTheOneOfItsName) {
  write(product_ + "/10.toml", "ours");
  write(device_ + "/10.toml", "theirs");
  EXPECT_THAT(read({product_, device_}), ElementsAre("device/10.toml=theirs"));
  EXPECT_THAT(read({device_, product_}), ElementsAre("product/10.toml=ours"));
}

TEST_F(DefinitionFilesTest, ALinkToTheNullDeviceTakesTheFileOfItsNameAway) {
  write(product_ + "/10.toml", "a");
  write(product_ + "/20.toml", "b");
  std::filesystem::create_symlink("/dev/null", device_ + "/10.toml");
  EXPECT_THAT(read({product_, device_}), ElementsAre("product/20.toml=b"));
  EXPECT_EQ(mistakes_, "");
}

TEST_F(DefinitionFilesTest, AMaskedFileIsNotLookedAt) {
  std::filesystem::create_symlink("/nowhere", product_ + "/10.toml");
  write(device_ + "/10.toml", "a");
  EXPECT_THAT(read({product_, device_}), ElementsAre("device/10.toml=a"));
  EXPECT_EQ(mistakes_, "");
}

TEST_F(DefinitionFilesTest, OfSeveralDirectoriesSomeMayBeEmptyOrNotThere) {
  write(product_ + "/10.toml", "a");
  EXPECT_THAT(read({product_, device_, root_.file("none")}), ElementsAre("product/10.toml=a"));
  EXPECT_EQ(mistakes_, "");
}

TEST_F(DefinitionFilesTest, DirectoriesThatAreAllMissingAreMistakes) {
  EXPECT_THAT(read({root_.file("a"), root_.file("b")}), IsEmpty());
  EXPECT_EQ(mistakes_,
            root_.file("a") + ": the directory cannot be read: No such file or directory\n" +
                root_.file("b") + ": the directory cannot be read: No such file or directory\n");
}

TEST_F(DefinitionFilesTest, ADirectoryThatIsNoneIsAMistakeBesideOthersToo) {
  write(product_ + "/10.toml", "a");
  write(root_.file("file"), "");
  read({product_, root_.file("file")});
  EXPECT_EQ(mistakes_, root_.file("file") + ": the directory cannot be read: Not a directory\n");
}

TEST_F(DefinitionFilesTest, NoFileAtAllIsAMistakeAlsoWhenEachIsMasked) {
  const std::string none = product_ + ", " + device_ +
                           ": the directories hold no file that ends in \".toml\", and so no "
                           "variable\n";
  EXPECT_THAT(read({product_, device_}), IsEmpty());
  EXPECT_EQ(mistakes_, none);
  write(product_ + "/10.toml", "a");
  std::filesystem::create_symlink("/dev/null", device_ + "/10.toml");
  EXPECT_THAT(read({product_, device_}), IsEmpty());
  EXPECT_EQ(mistakes_, none);
}

}  // namespace
}  // namespace ConfigSrv
