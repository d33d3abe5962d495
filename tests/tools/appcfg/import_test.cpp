// export and import against the real configsrvd; submit, too.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/support/service_process.h"
#include "tests/support/test_client.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"

namespace AppCfgTool {
namespace {

using testing::HasSubstr;
using testing::Not;
using TestSupport::Appcfg;
using TestSupport::Ended;
using TestSupport::readFile;
using TestSupport::Words;
using TestSupport::writeFile;
using Json = nlohmann::ordered_json;

const char* const kImportDefinitions = R"(
[variable."net.host"]
type = "string"
default = "gateway"

[variable."net.dns"]
type = "list"
default = ["192.0.2.1"]

[variable."net.eth.mtu"]
type = "int"
default = 1500
min = 576
max = 9000
group-instances = { from = 0, to = 1 }

[variable."net.on"]
type = "bool"
default = true

[variable."net.password"]
type = "string"
default = "1234"
secret = true

[variable."lab.key"]
type = "string"
default = ""
read-role = "service"
write-role = "user"

[variable."engine.speed"]
namespace = 3
type = "int"
default = 7
)";

class ImportTest : public testing::Test {
 protected:
  ImportTest() { service_.start(); }

  std::string file(const std::string& text, const std::string& name = "values") {
    const std::string path = service_.directory().file(name);
    writeFile(path, text);
    return path;
  }
  std::string valueOf(const std::string& key) { return appcfg_({"get", key}).out; }
  std::uint64_t revision() {
    return Json::parse(appcfg_({"status", "--json"}).out)["revision"].get<std::uint64_t>();
  }
  std::string exported(Words words) {
    words.insert(words.begin(), "export");
    const Ended run = appcfg_(words);
    EXPECT_EQ(run.code, 0) << run.err;
    return run.out;
  }

  TestSupport::ServiceProcess service_{kImportDefinitions};
  const Appcfg appcfg_{service_.runtimeDir()};
};

TEST_F(ImportTest, ExportPrintsAllThatTheRoleMayReadAndSaysWhatItLeavesOut) {
  const Ended run = appcfg_({"export"});
  EXPECT_EQ(run.code, 0);
  EXPECT_EQ(run.out,
            "\"net.dns\" = [\"192.0.2.1\"]\n"
            "\"net.host\" = \"gateway\"\n"
            "\"net.on\" = true\n"
            "\"net.eth.mtu\" = 1500\n"
            "\"net.eth[1].mtu\" = 1500\n"
            "\"3:engine.speed\" = 7\n");
  EXPECT_EQ(run.err,
            "appcfg: 1 more are hidden from this role: see --role\n"
            "appcfg: 1 more are secret: see --secrets\n");
}

TEST_F(ImportTest, SecretValuesAreExportedOnlyWhenAskedFor) {
  EXPECT_THAT(exported({"--format", "json"}), Not(HasSubstr("1234")));
  EXPECT_THAT(exported({"--secrets"}), HasSubstr("\"net.password\" = \"1234\"\n"));
}

TEST_F(ImportTest, ExportOfAPrefixAndOfChangesAlone) {
  ASSERT_EQ(appcfg_({"set", "net.eth[1].mtu", "600"}).code, 0);
  EXPECT_EQ(exported({"net.eth"}), "\"net.eth.mtu\" = 1500\n\"net.eth[1].mtu\" = 600\n");
  EXPECT_EQ(exported({"net", "--changed-only"}), "\"net.eth[1].mtu\" = 600\n");
  EXPECT_EQ(exported({"3:engine"}), "\"3:engine.speed\" = 7\n");
  EXPECT_EQ(appcfg_({"export", "nothing"}).code, kExitNotFound);
  EXPECT_EQ(appcfg_({"export", "--format", "xml"}).code, kExitUsage);
  EXPECT_EQ(appcfg_({"export", "--format", "toml", "--json"}).code, kExitUsage);
}

TEST_F(ImportTest, ImportingAnExportChangesNothingWhateverTheBytes) {
  ASSERT_EQ(appcfg_({"set", "net.host", "\xff\xfe \"x\"\n\\"}).code, 0);
  ASSERT_EQ(appcfg_({"set", "net.dns", "", "Z\xc3\xbcrich", "\x80"}).code, 0);
  ASSERT_EQ(appcfg_({"set", "net.on", "false"}).code, 0);
  const std::uint64_t before = revision();
  for (const Words& form :
       {Words{"--secrets"}, Words{"--secrets", "--format", "json"}, Words{"--secrets", "--json"}}) {
    const std::string path = file(exported(form));
    const Ended run = appcfg_({"import", path, "--json"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(Json::parse(run.out), Json::parse(R"({"dry_run":false,"changed":0,"unchanged":7,
        "variables":[],"unknown":[],"unknown_file":null})"));
  }
  EXPECT_EQ(revision(), before);
}

TEST_F(ImportTest, AnExportBringsItsValuesBack) {
  ASSERT_EQ(appcfg_({"set", "net.host", "\xff"}).code, 0);
  ASSERT_EQ(appcfg_({"set", "net.dns", "--empty"}).code, 0);
  ASSERT_EQ(appcfg_({"set", "3:engine.speed", "-9"}).code, 0);
  for (const char* const format : {"toml", "json"}) {
    const std::string text = exported({"--format", format});
    ASSERT_EQ(appcfg_({"reset", "--all", "--yes", "--role", "service"}).code, 0);
    const Ended run = appcfg_({"import", "-"}, text);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out + run.err, "");
    EXPECT_EQ(valueOf("net.host"), "\xff\n");
    EXPECT_EQ(valueOf("net.dns"), "");
    EXPECT_EQ(valueOf("3:engine.speed"), "-9\n");
  }
}

TEST_F(ImportTest, ADryRunShowsALineForEachDifferenceAndChangesNothing) {
  const std::string path =
      file("[net]\nhost = \"a\\nb\"\ndns = [\"x\", \"y\"]\non = true\npassword = \"new\"\n");
  const std::uint64_t before = revision();
  const Ended run = appcfg_({"import", path, "--dry-run"});
  EXPECT_EQ(run.code, 0) << run.err;
  EXPECT_EQ(run.out,
            "net.host: gateway -> a\\nb\n"
            "net.dns: 192.0.2.1 -> [\"x\", \"y\"]\n"
            "net.password: (secret) -> (secret)\n");
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(revision(), before);
  EXPECT_EQ(valueOf("net.host"), "gateway\n");
  const Json json = Json::parse(appcfg_({"import", path, "-n", "--json"}).out);
  EXPECT_EQ(json["dry_run"], true);
  EXPECT_EQ(json["variables"][0], Json::parse(R"({"key":"net.host","present":["gateway"],
      "new":["a\nb"],"error":null,"reasons":[]})"));
  EXPECT_TRUE(json["variables"][2]["present"].is_null());
  EXPECT_TRUE(json["variables"][2]["new"].is_null());
}

TEST_F(ImportTest, ADryRunTellsWhatWouldBeRefusedAndWritesNoFile) {
  const std::string path = file("net.eth.mtu = 1\nno.such = 1\nnet.host = \"x\"\n");
  const Ended run = appcfg_({"import", path, "--dry-run"});
  EXPECT_EQ(run.code, kExitNotFound);
  EXPECT_EQ(run.out, "net.host: gateway -> x\n");
  EXPECT_THAT(run.err, HasSubstr("net.eth.mtu"));
  EXPECT_THAT(run.err, HasSubstr("no.such"));
  EXPECT_FALSE(std::filesystem::exists(path + ".unknown"));
}

TEST_F(ImportTest, WhatIsInvalidIsToldForEachKeyAndTheRestIsImported) {
  const std::string path = file(
      "net.eth.mtu = 1\nnet.on = \"maybe\"\nnet.dns = 1.5\nnet.host = \"x\"\n"
      "\"net.eth[1].mtu\" = 700\n");
  const Ended run = appcfg_({"import", path});
  EXPECT_EQ(run.code, kExitInvalidValue);
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(run.err, HasSubstr("appcfg: not all of "));
  EXPECT_THAT(run.err, HasSubstr("cannot set net.eth.mtu: "));
  EXPECT_THAT(run.err, HasSubstr("576"));
  EXPECT_THAT(run.err, HasSubstr("cannot set net.on: "));
  EXPECT_THAT(run.err, HasSubstr("cannot set net.dns: "));
  EXPECT_EQ(valueOf("net.host"), "x\n");
  EXPECT_EQ(valueOf("net.eth[1].mtu"), "700\n");
  EXPECT_EQ(valueOf("net.dns"), "192.0.2.1\n");
}

TEST_F(ImportTest, UnknownKeysAreToldAndKeptApart) {
  const std::string path =
      file("no.such = [1, \"\\u0000\"]\nnokey = true\nnet.host = \"x\"\n\"a.b\\\\xff\" = 3\n");
  const Ended run = appcfg_({"import", path});
  EXPECT_EQ(run.code, kExitNotFound);
  EXPECT_THAT(run.err, HasSubstr("there is no variable no.such"));
  EXPECT_THAT(run.err, HasSubstr("there is no variable nokey"));
  EXPECT_THAT(run.err, HasSubstr(path + ".unknown"));
  EXPECT_EQ(readFile(path + ".unknown"),
            "\"nokey\" = true\n\"no.such\" = [\"1\", \"\\u0000\"]\n\"a.b\\\\xff\" = 3\n");
  struct stat status {};
  ASSERT_EQ(::stat((path + ".unknown").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  EXPECT_EQ(valueOf("net.host"), "x\n");
}

TEST_F(ImportTest, UnknownKeysGoWhereTheUserSaysInTheFormatOfTheFile) {
  const std::string path = file(R"({"no.such": 1, "net.host": "x"})");
  const std::string kept = service_.directory().file("kept");
  const Ended run = appcfg_({"import", path, "--unknown", kept, "--json"});
  EXPECT_EQ(run.code, kExitNotFound);
  EXPECT_EQ(readFile(kept), "{\n  \"no.such\": 1\n}\n");
  const Json json = Json::parse(run.out);
  EXPECT_EQ(json["unknown"], Json::parse(R"([{"key":"no.such","value":["1"]}])"));
  EXPECT_EQ(json["unknown_file"], kept);
  EXPECT_EQ(Json::parse(run.err)["error"], "not-found");
}

TEST_F(ImportTest, NothingIsImportedWhenUnknownKeysCannotBeKept) {
  const std::string path = file("no.such = 1\nnet.host = \"x\"\n");
  const Ended run = appcfg_({"import", path, "--unknown", "/no/such/directory/file"});
  EXPECT_EQ(run.code, kExitFailed);
  EXPECT_THAT(run.err, HasSubstr("--unknown"));
  EXPECT_EQ(valueOf("net.host"), "gateway\n");
}

TEST_F(ImportTest, FromStandardInputUnknownKeysAreToldWithTheirValues) {
  const Ended run = appcfg_({"import", "-"}, "no.such = \"kept\"\n");
  EXPECT_EQ(run.code, kExitNotFound);
  EXPECT_THAT(run.err, HasSubstr("there is no variable no.such, whose value was kept"));
}

TEST_F(ImportTest, AllOrNothingChangesNothingWhenAnythingIsRefusedOrUnknown) {
  for (const char* const bad :
       {"net.eth.mtu = 1\n", "no.such = 1\n", "net.dns = 1.5\n", "\"lab.key\" = \"x\"\n"}) {
    const std::string path = file("net.host = \"x\"\n" + std::string(bad));
    const Ended run = appcfg_({"import", path, "--all-or-nothing"});
    EXPECT_NE(run.code, 0) << bad;
    EXPECT_THAT(run.err, HasSubstr("nothing of ")) << bad;
    EXPECT_EQ(valueOf("net.host"), "gateway\n") << bad;
    EXPECT_FALSE(std::filesystem::exists(path + ".unknown")) << bad;
  }
  const std::string path = file("net.host = \"x\"\nnet.on = false\n");
  EXPECT_EQ(appcfg_({"import", path, "--all-or-nothing"}).code, 0);
  EXPECT_EQ(valueOf("net.host"), "x\n");
}

TEST_F(ImportTest, AllOrNothingPutsBackWhatItWroteWhenALaterWriteFails) {
  ASSERT_EQ(appcfg_({"set", "net.on", "false"}).code, 0);
  TestSupport::TestClient provider("provider", service_.runtimeDir());
  provider.provide("net.eth", [](const TestSupport::ProviderQuestion& question) {
    return question.onChange ? TestSupport::veto("not now") : TestSupport::consent();
  });
  const std::string path = file("net.host = \"x\"\nnet.on = true\nnet.eth.mtu = 600\n");
  const Ended run = appcfg_({"import", path, "--all-or-nothing", "--json"});
  EXPECT_EQ(run.code, kExitVetoed);
  EXPECT_EQ(Json::parse(run.out)["changed"], 0);
  EXPECT_THAT(run.err, HasSubstr("not now"));
  EXPECT_EQ(valueOf("net.host"), "gateway\n");
  EXPECT_EQ(appcfg_({"is-default", "net.host"}).code, 0);
  EXPECT_EQ(valueOf("net.on"), "false\n");
}

TEST_F(ImportTest, WhatTheRoleMayWriteButNotReadIsImported) {
  const std::string path = file("lab.key = \"x\"\n");
  EXPECT_EQ(appcfg_({"import", path, "-n"}).out, "lab.key: (unreadable) -> (secret)\n");
  EXPECT_EQ(appcfg_({"import", path}).code, 0);
  EXPECT_EQ(appcfg_({"get", "lab.key", "--role", "service"}).out, "x\n");
}

TEST_F(ImportTest, AFileThatCannotBeUsedIsRefusedAsAWhole) {
  EXPECT_EQ(appcfg_({"import", "/no/such/file"}).code, kExitFailed);
  EXPECT_EQ(appcfg_({"import", service_.directory().path()}).code, kExitFailed);
  EXPECT_EQ(appcfg_({"import", file("net.host = \n")}).code, kExitFailed);
  EXPECT_EQ(appcfg_({"import", file("x"), "--format", "xml"}).code, kExitUsage);
  const Ended twice = appcfg_({"import", file("net.host = \"a\"\nNet.Host = \"b\"\n")});
  EXPECT_EQ(twice.code, kExitFailed);
  EXPECT_THAT(twice.err, HasSubstr("net.host stands in it twice"));
  EXPECT_EQ(valueOf("net.host"), "gateway\n");
  service_.kill();
  EXPECT_EQ(appcfg_({"import", file("net.host = \"a\"\n")}).code, kExitUnreachable);
}

TEST_F(ImportTest, ANamespaceIsThatOfKeysThatNameNone) {
  EXPECT_EQ(appcfg_({"import", "-", "--namespace", "3"}, "engine.speed = 8\n").code, 0);
  EXPECT_EQ(valueOf("3:engine.speed"), "8\n");
}

// --- submit ---

TEST_F(ImportTest, SubmitReachesThoseWhoRegisteredForItOrAGroupAbove) {
  TestSupport::TestClient listener("listener", service_.runtimeDir());
  ASSERT_TRUE(listener.registerFor(ConfigIF::CALLBACK_SUBMIT, "net").ok());
  const Ended run = appcfg_({"submit", "net.host"});
  EXPECT_EQ(run.code, 0);
  EXPECT_EQ(run.out + run.err, "");
  EXPECT_TRUE(listener.waitForNotice("submit net.host"));
  EXPECT_EQ(Json::parse(appcfg_({"submit", "net.on", "--discard", "--json"}).out),
            Json::parse(R"({"key":"net.on","type":"discard"})"));
  EXPECT_TRUE(listener.waitForNotice("submit net.on"));
  EXPECT_EQ(appcfg_({"submit", "no.such"}).code, kExitNotFound);
  EXPECT_EQ(appcfg_({"submit", "net.host", "--role", "public"}).code, kExitDenied);
}

}  // namespace
}  // namespace AppCfgTool
