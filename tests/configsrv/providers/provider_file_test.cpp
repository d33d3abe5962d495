#include "configsrv/providers/internal/provider_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class ProviderFileTest : public testing::Test {
 protected:
  static KnownProvider provider(const std::string& name) {
    KnownProvider provider;
    provider.pid = 1234;
    provider.startedAt = 5678901;
    provider.uid = 1000;
    provider.gid = 100;
    provider.role = AppConfig::eRoleUser;
    provider.type = 2;
    provider.endpoint = "gateway network%";
    provider.name = name;
    return provider;
  }
  std::string text() const {
    std::ostringstream text;
    text << std::ifstream(path_).rdbuf();
    return text.str();
  }

  TestSupport::TempDir directory_;
  const std::string path_ = directory_.file("providers");
  std::vector<std::string> lines_;
  const Log log_{LogLevel::Info,
                 [this](LogLevel, const std::string& line) { lines_.push_back(line); }};
  ProviderFile::Contents contents_;
  ProviderFile file_{path_, log_, [this] { return contents_; }};
};

TEST_F(ProviderFileTest, WhatWasAddedIsReadBackFieldByField) {
  file_.rewrite();
  file_.add(7, provider("net.\xC3\xA4 x"));
  const std::set<KnownProvider> read = ProviderFile(path_, log_, {}).read();
  ASSERT_THAT(read, SizeIs(1));
  const KnownProvider& one = *read.begin();
  EXPECT_FALSE(one < provider("net.\xC3\xA4 x") || provider("net.\xC3\xA4 x") < one);
}

TEST_F(ProviderFileTest, ItsLinesAreWhatTheHeaderShows) {
  file_.rewrite();
  file_.add(7, provider("net"));
  file_.remove(7);
  EXPECT_EQ(text(),
            "appconfig providers 1\n"
            "+ 7 1234 5678901 1000 100 1 2 :gateway%20network%25 :net\n"
            "- 7\n");
}

TEST_F(ProviderFileTest, WhatWasRemovedIsNotReadAndNeitherIsAFileThatIsNotThere) {
  EXPECT_THAT(file_.read(), IsEmpty());
  file_.rewrite();
  file_.add(7, provider("net"));
  file_.add(8, provider("dev"));
  file_.remove(7);
  const std::set<KnownProvider> read = file_.read();
  ASSERT_THAT(read, SizeIs(1));
  EXPECT_EQ(read.begin()->name, "dev");
  EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(ProviderFileTest, AfterManyLinesItIsWrittenAnewWithWhatItHasToHold) {
  file_.rewrite();
  contents_[7].insert(provider("net"));
  for (int i = 0; i < 300; ++i) file_.remove(9);
  EXPECT_THAT(text(), StartsWith("appconfig providers 1\n+ 7 "));
  EXPECT_LT(text().size(), 300U);
}

TEST_F(ProviderFileTest, OneThatCannotBeMadeIsReportedOnce) {
  ProviderFile file(directory_.file("missing/file"), log_, [] { return ProviderFile::Contents(); });
  file.rewrite();
  file.add(7, provider("net"));
  ASSERT_THAT(lines_, SizeIs(1));
  EXPECT_THAT(lines_[0], HasSubstr("cannot be made"));
}

}  // namespace
}  // namespace ConfigSrv
