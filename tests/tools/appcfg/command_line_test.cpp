#include "tools/appcfg/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = CommandLine::Kind;

CommandLine parsed(const std::vector<std::string>& words) {
  CommandLine line = parseCommandLine(words);
  EXPECT_EQ(line.kind, Kind::Run) << line.mistake.text;
  return line;
}

CommandLine refused(const std::vector<std::string>& words) {
  CommandLine line = parseCommandLine(words);
  EXPECT_EQ(line.kind, Kind::Mistake);
  EXPECT_EQ(line.mistake.code, kExitUsage);
  EXPECT_THAT(line.mistake.text, testing::Not(IsEmpty()));
  return line;
}

TEST(CommandLineTest, AVerbGetsItsKeyAndItsValues) {
  const CommandLine line = parsed({"set", "net.dns", "192.0.2.1", "192.0.2.2"});
  EXPECT_EQ(line.verb->name, "set");
  EXPECT_EQ(line.arguments.one("KEY"), "net.dns");
  EXPECT_THAT(line.arguments.all("VALUE"), ElementsAre("192.0.2.1", "192.0.2.2"));
}

TEST(CommandLineTest, AVerbOfTwoWordsIsOneVerb) {
  const CommandLine line = parsed({"options", "set", "net.mode", "a", "b", "--default-index", "1"});
  EXPECT_EQ(line.verb->name, "options set");
  EXPECT_THAT(line.arguments.all("OPTION"), ElementsAre("a", "b"));
  EXPECT_EQ(line.arguments.one("default-index"), "1");
}

TEST(CommandLineTest, EveryVerbOfTheTableIsKnown) {
  for (const Verb& verb : verbs()) {
    std::vector<std::string> words;
    std::string word;
    for (const char c : verb.name + ' ') {
      if (c != ' ') {
        word += c;
      } else {
        words.push_back(std::exchange(word, {}));
      }
    }
    words.emplace_back("--help");
    const CommandLine line = parseCommandLine(words);
    EXPECT_EQ(line.kind, Kind::Help) << verb.name;
    ASSERT_NE(line.verb, nullptr) << verb.name;
    EXPECT_EQ(line.verb->name, verb.name);
  }
}

TEST(CommandLineTest, AValuePassesUnchangedWhateverItLooksLike) {
  const std::vector<std::string> values = {
      "",        "[a,b]", "[]", "{}",    "%%",   "++",   "get",       "set",
      "options", "-5",    "-",  "a=b",   "-0.5", "\x01", "\x01[a]",   "a\nb",
      " ",       "\xff",  "'",  "\"x\"", "//",   "#",    "[section]",
  };
  std::vector<std::string> words = {"set", "a.b"};
  words.insert(words.end(), values.begin(), values.end());
  EXPECT_EQ(parsed(words).arguments.all("VALUE"), values);
}

TEST(CommandLineTest, BehindTwoDashesAValueMayBeginWithADash) {
  const CommandLine line = parsed({"set", "a.b", "x", "--", "-5", "--json", "--", "-h", "--help"});
  EXPECT_THAT(line.arguments.all("VALUE"), ElementsAre("x", "-5", "--json", "--", "-h", "--help"));
  EXPECT_FALSE(line.settings.json);
}

TEST(CommandLineTest, TwoDashesMayStandBeforeTheKey) {
  const CommandLine line = parsed({"set", "--", "a.b", "-x"});
  EXPECT_EQ(line.arguments.one("KEY"), "a.b");
  EXPECT_THAT(line.arguments.all("VALUE"), ElementsAre("-x"));
}

TEST(CommandLineTest, AnEmptyStringIsAValueAndNoValueIsNone) {
  EXPECT_THAT(parsed({"wait", "a.b", ""}).arguments.all("VALUE"), ElementsAre(""));
  EXPECT_FALSE(parsed({"wait", "a.b"}).arguments.has("VALUE"));
}

TEST(CommandLineTest, OptionsOfEveryVerbStandBeforeOrBehindIt) {
  EXPECT_TRUE(parsed({"--json", "get", "a.b"}).settings.json);
  EXPECT_TRUE(parsed({"get", "a.b", "--json"}).settings.json);
  EXPECT_TRUE(parsed({"options", "get", "a.b", "--json"}).settings.json);
}

TEST(CommandLineTest, SettingsAreRead) {
  const Settings settings = parsed({"--runtime-dir", "/run/x", "--service=/engine", "--namespace",
                                    "3", "--role", "installer", "--timeout", "0.25", "status"})
                                .settings;
  EXPECT_EQ(settings.runtimeDir, "/run/x");
  EXPECT_EQ(settings.servicePrefix, "/engine");
  EXPECT_EQ(settings.nameSpace, 3);
  EXPECT_EQ(settings.role, AppConfig::eRoleInstaller);
  EXPECT_EQ(settings.timeout, milliseconds(250));
  EXPECT_FALSE(settings.json);
}

TEST(CommandLineTest, SettingsThatAreNotGivenAreNothing) {
  const Settings settings = parsed({"status"}).settings;
  EXPECT_EQ(settings.runtimeDir, "");
  EXPECT_EQ(settings.servicePrefix, "");
  EXPECT_FALSE(settings.nameSpace.has_value());
  EXPECT_EQ(settings.role, AppConfig::eRoleUser);
  EXPECT_FALSE(settings.timeout.has_value());
}

TEST(CommandLineTest, OfARepeatedOptionTheLastCounts) {
  EXPECT_EQ(parsed({"status", "--timeout", "1", "--timeout", "2"}).settings.timeout,
            milliseconds(2000));
}

TEST(CommandLineTest, AFlagIsGivenOrNot) {
  EXPECT_TRUE(parsed({"reset", "-r", "net"}).arguments.has("recursive"));
  EXPECT_TRUE(parsed({"reset", "net", "--recursive"}).arguments.has("recursive"));
  EXPECT_FALSE(parsed({"reset", "net.mtu"}).arguments.has("recursive"));
}

TEST(CommandLineTest, MistakesAreRefusedWithWhatIsWrong) {
  const struct {
    std::vector<std::string> words;
    const char* message;
  } cases[] = {
      {{}, "a verb is missing"},
      {{"options"}, "a word is missing behind options"},
      {{"frobnicate"}, "there is no verb \"frobnicate\""},
      {{"options", "frobnicate"}, "there is no verb \"options frobnicate\""},
      {{"get"}, "KEY"},
      {{"describe", "a.b", "c.d"}, "c.d"},
      {{"get", "a.b", "--frobnicate"}, "--frobnicate"},
      {{"set", "a.b", "-x"}, "-x"},
      {{"status", "--timeout"}, "--timeout"},
      {{"status", "--timeout", "0"}, "--timeout"},
      {{"status", "--timeout", "-1"}, "--timeout"},
      {{"status", "--timeout", "nan"}, "--timeout"},
      {{"status", "--timeout", "inf"}, "--timeout"},
      {{"status", "--timeout", "5s"}, "--timeout"},
      {{"status", "--timeout", "1e300"}, "--timeout"},
      {{"status", "--namespace", "-1"}, "--namespace"},
      {{"status", "--namespace", "2147483648"}, "--namespace"},
      {{"status", "--namespace", ""}, "--namespace"},
      {{"status", "--role", "king"}, "there is no role \"king\""},
  };
  for (const auto& c : cases) EXPECT_THAT(refused(c.words).mistake.text, HasSubstr(c.message));
}

TEST(CommandLineTest, AMistakeShowsNoMarkOfTheParser) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"describe", "a.b", "[x]"}, {"describe", "a.b", "--", "-x"}}) {
    EXPECT_EQ(refused(words).mistake.text.find_first_of("\x01\x02"), std::string::npos);
  }
}

TEST(CommandLineTest, WordsBehindDashesAreThoseOfTheProgramThatExecNames) {
  const Arguments both = parsed({"watch", "net", "--exec", "logger", "--", "-t", "cfg"}).arguments;
  EXPECT_EQ(both.all("NAME"), std::vector<std::string>({"net"}));
  EXPECT_EQ(both.one("exec"), "logger");
  EXPECT_EQ(both.all(kPassedOn), std::vector<std::string>({"-t", "cfg"}));
  const Arguments program = parsed({"watch", "--exec", "sh", "--", "-c", ""}).arguments;
  EXPECT_FALSE(program.has("NAME"));
  EXPECT_EQ(program.all(kPassedOn), std::vector<std::string>({"-c", ""}));
  const Arguments none = parsed({"watch", "--", "net"}).arguments;
  EXPECT_EQ(none.all("NAME"), std::vector<std::string>({"net"}));
  EXPECT_FALSE(none.has(kPassedOn));
}

TEST(CommandLineTest, AMistakeIsToldInJsonWhenJsonWasAskedFor) {
  EXPECT_TRUE(refused({"get", "--json"}).settings.json);
}

TEST(CommandLineTest, HelpAndVersionNeedNothingElse) {
  EXPECT_EQ(parseCommandLine({"--help"}).kind, Kind::Help);
  EXPECT_EQ(parseCommandLine({"--help"}).verb, nullptr);
  EXPECT_EQ(parseCommandLine({"-h"}).kind, Kind::Help);
  EXPECT_EQ(parseCommandLine({"options", "--help"}).kind, Kind::Help);
  EXPECT_EQ(parseCommandLine({"--version"}).kind, Kind::Version);
}

}  // namespace
}  // namespace AppCfgTool
