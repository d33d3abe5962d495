// The completion script in a real bash, against the real service: what bash would offer for a
// command line that is being typed.
#include "tools/appcfg/completion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/support/service_process.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"

namespace AppCfgTool {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::Words;

const char* const kCompletionDefinitions = R"(
[variable."net.host"]
type = "string"
default = "gateway"

[variable."net.mode"]
type = "enumeration"
options = ["dhcp", "static", "by hand"]
default = "dhcp"

[variable."net.on"]
type = "bool"
default = true

[variable."net.eth.mtu"]
type = "int"
default = 1500
group-instances = { from = 0, to = 1 }

[variable."lab.key"]
type = "string"
default = ""
read-role = "service"

[variable."engine.speed"]
namespace = 3
type = "int"
default = 7
)";

std::string quoted(const std::string& word) {
  std::string out = "'";
  for (const char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + '\'';
}

class CompletionTest : public testing::Test {
 protected:
  CompletionTest() { service_.start(); }

  std::string bash(const std::string& script) {
    const std::string path = service_.directory().file("script");
    const std::string bin = std::filesystem::path(TestSupport::Appcfg::program()).parent_path();
    TestSupport::writeFile(path, "PATH=" + quoted(bin) + ":$PATH\nexport APPCONFIG_RUNTIME_DIR=" +
                                     quoted(service_.runtimeDir()) +
                                     "\nsource <(appcfg completion bash) || exit 9\n" + script);
    FILE* const pipe = ::popen(("bash --norc " + quoted(path) + " 2>&1").c_str(), "r");
    std::string out;
    char buffer[4096];
    for (std::size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
      out.append(buffer, got);
    EXPECT_EQ(::pclose(pipe), 0) << out;
    return out;
  }

  // The words as bash breaks them, the last one unfinished.
  Words offered(const Words& words) {
    std::string script = "COMP_WORDBREAKS=$' \\t\\n\"\\'><=;|&(:'\nCOMP_WORDS=(appcfg";
    for (const std::string& word : words) script += ' ' + quoted(word);
    script += ")\nCOMP_CWORD=" + std::to_string(words.size()) +
              "\n_appcfg\n((${#COMPREPLY[@]})) && printf '%s\\n' \"${COMPREPLY[@]}\"; true\n";
    std::istringstream lines(bash(script));
    Words offered;
    for (std::string line; std::getline(lines, line);) offered.push_back(line);
    return offered;
  }

  TestSupport::ServiceProcess service_{kCompletionDefinitions};
  const TestSupport::Appcfg appcfg_{service_.runtimeDir()};
};

TEST_F(CompletionTest, TheScriptIsRegisteredForAppcfg) {
  EXPECT_THAT(bash("complete -p appcfg\n"), HasSubstr("complete -F _appcfg appcfg"));
}

TEST_F(CompletionTest, VerbsAndOptionsAreCompleted) {
  EXPECT_THAT(offered({"exp"}), ElementsAre("export"));
  EXPECT_THAT(offered({"options", ""}), ElementsAre("get", "set"));
  EXPECT_THAT(offered({"import", "--dr"}), ElementsAre("--dry-run"));
  EXPECT_THAT(offered({"--ro"}), ElementsAre("--role"));
  EXPECT_THAT(offered({"get", "--role", "in"}), ElementsAre("installer"));
  EXPECT_THAT(offered({"get", "--role", "=", "in"}), ElementsAre("installer"));
  EXPECT_THAT(offered({"get", "--role", "="}), Contains("installer"));
}

TEST_F(CompletionTest, KeysOfTheServiceAreCompletedAndQuotedWhereTheShellNeedsIt) {
  EXPECT_THAT(offered({"get", "net.h"}), ElementsAre("net.host"));
  EXPECT_THAT(offered({"get", "net.eth"}), ElementsAre("net.eth.mtu", "net.eth\\[1\\].mtu"));
  EXPECT_THAT(offered({"get", "net.eth\\[1"}), ElementsAre("net.eth\\[1\\].mtu"));
  EXPECT_THAT(offered({"get", "'net.eth[1"}), ElementsAre("net.eth[1].mtu"));
  EXPECT_THAT(offered({"get", "nothing"}), IsEmpty());
  EXPECT_THAT(offered({"watch", "net.e"}),
              ElementsAre("net.eth", "net.eth.mtu", "net.eth\\[1\\].mtu"));
}

TEST_F(CompletionTest, ANamespaceIsKeptByTheShellAndTheRestIsCompleted) {
  EXPECT_THAT(offered({"get", "3", ":", "eng"}), ElementsAre("engine.speed"));
  EXPECT_THAT(offered({"get", "3", ":"}), ElementsAre("engine.speed"));
  EXPECT_THAT(offered({"get", "'3:eng"}), ElementsAre("3:engine.speed"));
}

TEST_F(CompletionTest, AllowedValuesOfEnumerationsAndBooleansAreCompleted) {
  EXPECT_THAT(offered({"set", "net.mode", ""}), ElementsAre("dhcp", "static", "by\\ hand"));
  EXPECT_THAT(offered({"set", "net.mode", "s"}), ElementsAre("static"));
  EXPECT_THAT(offered({"validate", "net.on", ""}), ElementsAre("true", "false"));
  EXPECT_THAT(offered({"set", "net.host", ""}), IsEmpty());
  EXPECT_THAT(offered({"set", "net.eth\\[1\\].mtu", ""}), IsEmpty());
}

TEST_F(CompletionTest, OnlyWhatTheRoleOfTheLineMayReadIsOffered) {
  EXPECT_THAT(offered({"get", "lab"}), IsEmpty());
  EXPECT_THAT(offered({"--role", "service", "get", "lab"}), ElementsAre("lab.key"));
}

TEST_F(CompletionTest, AFileNameIsLeftToTheShell) {
  EXPECT_THAT(offered({"import", ""}), IsEmpty());
  EXPECT_EQ(appcfg_({"complete", "--", "import", ""}).code, kExitNo);
}

TEST_F(CompletionTest, AServiceThatIsDeadOrStandsStillHangsNoShell) {
  ASSERT_EQ(::kill(service_.pid(), SIGSTOP), 0);
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_THAT(offered({"get", "net"}), IsEmpty());
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
  ASSERT_EQ(::kill(service_.pid(), SIGCONT), 0);
  service_.kill();
  EXPECT_THAT(offered({"get", "net"}), IsEmpty());
  EXPECT_THAT(offered({"exp"}), ElementsAre("export"));
}

TEST_F(CompletionTest, CompletePrintsWordsAloneAndSaysNothingElse) {
  TestSupport::Ended run = appcfg_({"complete", "--", "get", "net.h"});
  EXPECT_EQ(run.code, 0);
  EXPECT_EQ(run.out, "net.host\n");
  EXPECT_EQ(run.err, "");
  run = appcfg_({"complete", "--json", "--", "get", "net.h"});
  EXPECT_EQ(run.out, "{\"words\":[\"net.host\"]}\n");
  service_.kill();
  run = appcfg_({"complete", "--", "get", "net.h"});
  EXPECT_EQ(run.code, 0);
  EXPECT_EQ(run.out + run.err, "");
}

TEST_F(CompletionTest, CompletionPrintsTheScriptOfEachShell) {
  for (const std::string shell : {"bash", "fish", "zsh"}) {
    const TestSupport::Ended run = appcfg_({"completion", shell});
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(run.out, completionScript(shell));
    const std::string json = appcfg_({"completion", shell, "--json"}).out;
    EXPECT_EQ(nlohmann::json::parse(json)["script"], completionScript(shell));
  }
  EXPECT_EQ(appcfg_({"completion", "tcsh"}).code, kExitUsage);
}

// What a real fish offers, where there is one: words alone, for a description would follow a tab.
TEST_F(CompletionTest, FishOffersTheSame) {
  if (bash("command -v fish; true\n").empty()) GTEST_SKIP() << "no fish here";
  const auto offeredByFish = [&](const std::string& typed) {
    std::istringstream lines(bash(
        "export XDG_CONFIG_HOME=" + quoted(service_.directory().file("none")) + " XDG_DATA_HOME=" +
        quoted(service_.directory().file("none")) + "\nappcfg completion fish > " +
        quoted(service_.directory().file("appcfg.fish")) + "\nfish --no-config -c \"source " +
        service_.directory().file("appcfg.fish") + "; complete -C " + quoted(typed) + "\"\n"));
    Words words;
    for (std::string line; std::getline(lines, line);) words.push_back(line);
    return words;
  };
  EXPECT_THAT(offeredByFish("appcfg exp"), ElementsAre("export"));
  EXPECT_THAT(offeredByFish("appcfg get net.eth"), ElementsAre("net.eth.mtu", "net.eth[1].mtu"));
  EXPECT_THAT(offeredByFish("appcfg set net.mode s"), ElementsAre("static"));
  EXPECT_THAT(offeredByFish("appcfg get 3:eng"), ElementsAre("3:engine.speed"));
  EXPECT_THAT(offeredByFish("appcfg --role service get lab"), ElementsAre("lab.key"));
  EXPECT_THAT(offeredByFish("appcfg get nothing"), IsEmpty());
  EXPECT_THAT(offeredByFish("appcfg import /et"), Contains("/etc/"));
}

// Only where there is a zsh; what it makes of the script beyond its syntax is not tested.
TEST_F(CompletionTest, TheZshScriptIsOneToZsh) {
  if (bash("command -v zsh; true\n").empty()) GTEST_SKIP() << "no zsh here";
  EXPECT_EQ(bash("zsh -n <(appcfg completion zsh)\n"), "");
}

}  // namespace
}  // namespace AppCfgTool
