#include "tools/appcfg/help.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/appcfg/command_line.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using testing::HasSubstr;

TEST(HelpTest, ListsEveryVerbWithASummaryAndAnExample) {
  const std::string help = helpText();
  for (const Verb& verb : verbs()) {
    EXPECT_THAT(help, HasSubstr("\n  " + verb.name + ' '));
    EXPECT_THAT(help, HasSubstr(verb.summary));
    EXPECT_THAT(help, HasSubstr("\n  " + verb.example + '\n'));
  }
}

TEST(HelpTest, ListsEveryExitCodeOptionAndEnvironmentVariable) {
  const std::string help = helpText();
  for (const ExitCodeInfo& info : exitCodes()) EXPECT_THAT(help, HasSubstr(info.meaning));
  for (const Option& option : globalOptions()) EXPECT_THAT(help, HasSubstr("--" + option.name));
  EXPECT_THAT(help, HasSubstr("APPCONFIG_RUNTIME_DIR"));
}

TEST(HelpTest, TheHelpOfAVerbNamesItsArgumentsAndOptions) {
  for (const Verb& verb : verbs()) {
    const std::string help = helpText(verb);
    EXPECT_THAT(help, HasSubstr("Usage: appcfg " + verb.name));
    for (const Positional& p : verb.positionals) EXPECT_THAT(help, HasSubstr("  " + p.name + ' '));
    for (const Option& o : verb.options) EXPECT_THAT(help, HasSubstr("--" + o.name));
  }
}

TEST(HelpTest, NoLineIsWiderThanAHundredCharacters) {
  std::string line;
  for (const char c : helpText()) {
    if (c != '\n') {
      line += c;
      continue;
    }
    EXPECT_LE(line.size(), 100U) << line;
    line.clear();
  }
}

TEST(HelpTest, UsageShowsWhatMayBeLeftOutAndWhatRepeats) {
  EXPECT_EQ(usageLine(setVerb()), "Usage: appcfg set [OPTIONS] KEY [VALUE...]");
  EXPECT_EQ(usageLine(listVerb()), "Usage: appcfg list [OPTIONS] [PREFIX]");
  EXPECT_EQ(usageLine(accessSetVerb()), "Usage: appcfg access set [OPTIONS] KEY...");
}

}  // namespace
}  // namespace AppCfgTool
