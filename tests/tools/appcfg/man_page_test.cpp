// The manual page tells of everything that the program has.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tools/appcfg/help.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using testing::HasSubstr;

// As a reader sees it, roughly: without the escapes that stand for single characters.
std::string manPage() {
  std::ostringstream page;
  page << std::ifstream(APPCFG_MAN_PAGE).rdbuf();
  std::string text;
  for (const char c : page.str()) {
    if (c != '\\') text += c;
  }
  return text;
}

TEST(ManPageTest, HasEveryVerbWithEachOfItsOptions) {
  const std::string page = manPage();
  for (const Verb& verb : verbs()) {
    EXPECT_THAT(page, HasSubstr(verb.name));
    for (const Option& option : verb.options) EXPECT_THAT(page, HasSubstr("--" + option.name));
  }
}

TEST(ManPageTest, HasEveryGlobalOptionExitCodeAndErrorName) {
  const std::string page = manPage();
  for (const Option& option : globalOptions()) EXPECT_THAT(page, HasSubstr("--" + option.name));
  const std::string codes = page.substr(page.find(".SH EXIT STATUS"));
  for (const ExitCodeInfo& info : exitCodes()) {
    EXPECT_THAT(codes, HasSubstr(".B " + std::to_string(info.code) + '\n'));
    const bool isFailure = info.code != kExitOk && info.code != kExitNo;
    EXPECT_THAT(codes, HasSubstr(isFailure ? info.name : ""));
  }
}

}  // namespace
}  // namespace AppCfgTool
