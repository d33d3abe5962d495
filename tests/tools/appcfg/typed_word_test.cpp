#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/appcfg/completion.h"
#include "tools/appcfg/help.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using Kind = TypedWord::Kind;
using testing::Contains;
using testing::ElementsAre;
using Words = std::vector<std::string>;

TEST(TypedWordTest, TheFirstWordIsAVerbAndTheSecondOfSomeVerbsIsItsRest) {
  const TypedWord first = typedWord({"g"});
  EXPECT_EQ(first.kind, Kind::Words);
  for (const Verb& verb : verbs()) {
    EXPECT_THAT(first.words, Contains(verb.name.substr(0, verb.name.find(' '))));
  }
  EXPECT_THAT(typedWord({"options", ""}).words, ElementsAre("get", "set"));
  EXPECT_THAT(typedWord({"--json", "access", ""}).words, ElementsAre("get", "set"));
  EXPECT_TRUE(typedWord({"nothing", ""}).words.empty());
}

TEST(TypedWordTest, EveryVerbCompletesItsOwnOptionsAndThoseOfAll) {
  for (const Verb& verb : verbs()) {
    Words words;
    words.push_back(verb.name.substr(0, verb.name.find(' ')));
    if (words[0] != verb.name) words.push_back(verb.name.substr(words[0].size() + 1));
    words.emplace_back("-");
    const Words completed = typedWord(words).words;
    for (const Option& option : verb.options) EXPECT_THAT(completed, Contains("--" + option.name));
    for (const Option& option : globalOptions()) {
      EXPECT_THAT(completed, Contains("--" + option.name));
    }
  }
}

struct Case {
  Words words;
  Kind kind;
  std::string key;
};

TEST(TypedWordTest, APositionalIsWhatTheTableOfVerbsCallsIt) {
  const Case cases[] = {
      {{"get", "net"}, Kind::Key, ""},
      {{"get", "net.mtu", ""}, Kind::Key, ""},
      {{"describe", "net.mtu", ""}, Kind::Nothing, ""},
      {{"get", "-0", "net"}, Kind::Key, ""},
      {{"set", "net.mtu", ""}, Kind::Value, "net.mtu"},
      {{"set", "--empty", "net.mtu", "1", ""}, Kind::Value, "net.mtu"},
      {{"set", "net.mtu", "--", "-"}, Kind::Value, "net.mtu"},
      {{"options", "set", "net.mode", ""}, Kind::Value, "net.mode"},
      {{"access", "set", "a.b", "c"}, Kind::Key, ""},
      {{"list", ""}, Kind::Name, ""},
      {{"watch", "a", "b"}, Kind::Name, ""},
      {{"import", ""}, Kind::File, ""},
      {{"import", "--unknown", ""}, Kind::File, ""},
      {{"--runtime-dir", ""}, Kind::File, ""},
      {{"--timeout", ""}, Kind::Nothing, ""},
      {{"status", ""}, Kind::Nothing, ""},
      {{}, Kind::Nothing, ""},
  };
  for (const Case& c : cases) {
    const TypedWord typed = typedWord(c.words);
    EXPECT_EQ(typed.kind, c.kind) << testing::PrintToString(c.words);
    EXPECT_EQ(typed.key, c.key) << testing::PrintToString(c.words);
  }
}

TEST(TypedWordTest, SomeOptionsHaveValuesThatAreKnown) {
  EXPECT_THAT(typedWord({"get", "--role", ""}).words, Contains("installer"));
  EXPECT_THAT(typedWord({"access", "set", "a.b", "--read", ""}).words, Contains("public"));
  EXPECT_THAT(typedWord({"export", "--format", ""}).words, ElementsAre("toml", "json"));
  EXPECT_THAT(typedWord({"completion", ""}).words, ElementsAre("bash", "fish", "zsh"));
  EXPECT_THAT(typedWord({"help", ""}).words, Contains("watch"));
  EXPECT_THAT(typedWord({"help", "access", ""}).words, ElementsAre("get", "set"));
}

TEST(TypedWordTest, OptionsSayWhichServiceIsAskedAndInWhichRole) {
  const TypedWord typed = typedWord({"--runtime-dir", "/x", "--service=/engine", "--namespace", "3",
                                     "get", "--role", "service", ""});
  EXPECT_EQ(typed.kind, Kind::Key);
  EXPECT_EQ(typed.settings.runtimeDir, "/x");
  EXPECT_EQ(typed.settings.servicePrefix, "/engine");
  EXPECT_EQ(typed.settings.nameSpace, 3);
  EXPECT_EQ(typed.settings.role, AppConfig::eRoleService);
  EXPECT_EQ(typedWord({"--role", "king", "get", ""}).settings.role, AppConfig::eRoleUser);
  EXPECT_FALSE(typedWord({"--namespace", "many", "get", ""}).settings.nameSpace.has_value());
}

}  // namespace
}  // namespace AppCfgTool
