// The audit record of a running service.
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "tests/integration/access_fixture.h"

namespace TestSupport {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<std::string> linesOf(const std::string& path) {
  std::istringstream text(readFile(path));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

class AuditTest : public testing::Test {
 protected:
  AuditTest() {
    EXPECT_EQ(chmod(service_.directory().path().c_str(), 0711), 0);
    service_.start();
  }
  std::vector<std::string> records() const { return linesOf(path_); }
  std::string last() const { return records().empty() ? "" : records().back(); }

  TempDir directory_;
  const std::string path_ = directory_.file("audit.jsonl");
  ServiceProcess service_{kGuarded, {"--audit", path_}};
  TestClient client_{"client", service_.runtimeDir()};
};

TEST_F(AuditTest, AnAcknowledgedChangeIsRecorded) {
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  EXPECT_THAT(
      last(),
      AllOf(HasSubstr("\"uid\":" + std::to_string(getuid())),
            HasSubstr("\"pid\":" + std::to_string(getpid())),
            HasSubstr(R"("endpoint":"client","client":"client","role":"user",)"),
            HasSubstr(R"("variable":"net.mtu","action":"set","old":["1500"],"new":["1400"],)"
                      R"("outcome":"changed","revision":1})")));
}

TEST_F(AuditTest, ReadsAndValidationsAreNotRecorded) {
  client_.read("net.mtu");
  client_.validate("net.mtu", "1400");
  client_.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "net");
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(AuditTest, WhatFailedAndWhatChangedNothingIsRecordedWithItsOutcome) {
  client_.write("net.mtu", "1500");
  EXPECT_THAT(last(), HasSubstr(R"("outcome":"unchanged")"));
  client_.write("net.mtu", "99999");
  EXPECT_THAT(last(),
              HasSubstr(R"("outcome":"invalid-value","reason":"net.mtu: \"99999\" is more)"));
  client_.write("net.admin", "y");
  EXPECT_THAT(last(), HasSubstr(R"("outcome":"denied","reason":"net.admin: writing needs)"));
  client_.write("no.such", "y");
  EXPECT_THAT(last(), HasSubstr(R"("old":null,"new":null,"masked":true,"outcome":"not-found")"));
  TestClient provider("provider", service_.runtimeDir());
  provider.provide("net.mtu", [](const ProviderQuestion&) { return veto("no\nway"); });
  client_.write("net.mtu", "1400");
  EXPECT_THAT(last(), HasSubstr(R"("outcome":"vetoed","reason":"no\u000away"})"));
  EXPECT_THAT(records(), SizeIs(5));
}

TEST_F(AuditTest, AResetOfManyIsARecordForEach) {
  client_.write("net.mtu", "1400");
  ConfigIF::ResetNodeValueReq request;
  ConfigIF::ResetNodeValueRsp response;
  request.set_name("net");
  client_.request(request, &response);
  const std::vector<std::string> all = records();
  EXPECT_EQ(std::count_if(all.begin(), all.end(),
                          [](const std::string& line) {
                            return line.find(R"("action":"reset")") != std::string::npos;
                          }),
            3)
      << "net.hidden, net.mtu and net.password";
}

TEST_F(AuditTest, WhoClaimsMoreThanTheirUserMayIsRecordedForEachKindOfChange) {
  if (!canBecomeOthers()) GTEST_SKIP() << "only root can send clients of another user";
  const Child stranger(kNobody, [&](Child::Parent& test) {
    TestClient client("stranger", service_.runtimeDir());
    client.actAs(CommonIF::SECURITY_ROLE_FACTORY);
    client.write("net.admin", "mine");
    client.writeOneWay("net.admin", "mine");
    client.reset("net.admin");
    ConfigIF::ResetNodeValueReq node;
    ConfigIF::ResetNodeValueRsp nodeAnswer;
    node.set_name("net\n");
    client.request(node, &nodeAnswer);
    ConfigIF::ResetAttributeReq attributes;
    ConfigIF::ResetAttributeRsp attributesAnswer;
    attributes.set_name("net");
    client.request(attributes, &attributesAnswer);
    ConfigIF::SetAccessLevelsReq access;
    ConfigIF::SetAccessLevelsRsp accessAnswer;
    for (const char* name : {"admin", "mtu"}) {
      ConfigIF::Inst* inst = access.add_inst();
      inst->add_path()->set_name("net");
      inst->add_path()->set_name(name);
    }
    access.set_read_role(CommonIF::SECURITY_ROLE_PUBLIC);
    client.request(access, &accessAnswer);
    ConfigIF::SetAttributeOptionsReq options;
    ConfigIF::SetAttributeOptionsRsp optionsAnswer;
    options.mutable_inst()->add_path()->set_name("net");
    options.mutable_inst()->add_path()->set_name("admin");
    options.add_options("mine");
    client.request(options, &optionsAnswer);
    test.say("done");
  });
  ASSERT_EQ(stranger.hear(), "done");
  ASSERT_TRUE(eventually([&] { return records().size() >= 8; }));
  EXPECT_THAT(records(), SizeIs(8));
  for (const std::string& line : records()) {
    EXPECT_THAT(line,
                AllOf(HasSubstr(R"("uid":65534,"gid":65534,)"), HasSubstr(R"("role":"factory")"),
                      HasSubstr(R"("outcome":"denied","reason":"user 65534 may act as user)")));
  }
  EXPECT_TRUE(client_.read("net.mtu").ok());
}

TEST_F(AuditTest, ARecordIsOneLineWhateverAClientSends) {
  ConfigIF::WriteReq request;
  ConfigIF::WriteRsp response;
  request.set_client_name("evil\n{\"variable\":\"forged\"}\xFF");
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  request.mutable_value()->mutable_inst()->add_path()->set_name("no\nsuch");
  request.mutable_value()->mutable_inst()->add_path()->set_name("\xC0\"");
  request.mutable_value()->add_values("x\n");
  client_.call(request, &response);
  ASSERT_THAT(records(), SizeIs(1));
  EXPECT_THAT(last(), AllOf(HasSubstr(R"("client":"evil\u000a{\"variable\":\"forged\"}\udcff")"),
                            HasSubstr(R"("variable":"no\\x0asuch.)"), HasSubstr(R"(\udcc0\")")));
}

TEST_F(AuditTest, ARotatedFileIsFollowedWithoutASignal) {
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  ASSERT_EQ(rename(path_.c_str(), (path_ + ".1").c_str()), 0);
  ASSERT_TRUE(client_.write("net.mtu", "1300").ok());
  EXPECT_THAT(linesOf(path_ + ".1"), SizeIs(1));
  EXPECT_THAT(linesOf(path_), SizeIs(1));
  struct stat status {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(AuditTest, EachOfManyWritersChangesIsRecordedOnce) {
  constexpr int kWriters = 4;
  constexpr int kWrites = 50;
  std::vector<std::thread> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    writers.emplace_back([&, writer] {
      for (int i = 0; i < kWrites; ++i)
        client_.write("test.marker", std::to_string(1 + writer * kWrites + i));
    });
  }
  for (std::thread& writer : writers) writer.join();
  const std::vector<std::string> all = records();
  EXPECT_THAT(all, SizeIs(kWriters * kWrites));
  // Each says what it replaced, which is what the one before it made.
  std::string before = "0";
  for (const std::string& line : all) {
    EXPECT_THAT(line, HasSubstr("\"old\":[\"" + before + "\"]"));
    const std::size_t made = line.find("\"new\":[\"") + 8;
    before = line.substr(made, line.find('"', made) - made);
  }
}

TEST(AuditOffTest, NothingIsRecordedUnlessAskedFor) {
  ServiceProcess service(kGuarded);
  service.start();
  TestClient client("client", service.runtimeDir());
  ASSERT_TRUE(client.write("net.mtu", "1400").ok());
  EXPECT_EQ(service.linesWith("audit"), 0);
}

TEST(AuditFaultTest, ARecordThatCannotBeWrittenStopsNoChangeAndIsCounted) {
  TempDir directory;
  const std::string path = directory.file("missing/audit.jsonl");
  ServiceProcess service(kGuarded, {"--audit", path});
  service.start();
  EXPECT_EQ(service.linesWith("the audit record cannot be written"), 1) << service.log();
  TestClient client("client", service.runtimeDir());
  ASSERT_TRUE(client.write("net.mtu", "1400").ok());
  ASSERT_TRUE(client.write("net.mtu", "1300").ok());
  ASSERT_EQ(mkdir(directory.file("missing").c_str(), 0700), 0);
  ASSERT_TRUE(client.write("net.mtu", "1200").ok());
  ASSERT_THAT(linesOf(path), SizeIs(2));
  EXPECT_THAT(linesOf(path)[0], HasSubstr("\"lost\":2}"));
  EXPECT_THAT(linesOf(path)[1], HasSubstr("\"new\":[\"1200\"]"));
  EXPECT_EQ(service.linesWith("the audit record cannot be written"), 1);
  EXPECT_EQ(service.linesWith("2 records of changes were lost"), 1);
}

TEST(AuditFaultTest, AFullDiskStopsNoChangeAndIsSaidOnceWithWhatWasLost) {
  TempDir directory;
  const std::string disk = directory.file("disk");
  ASSERT_EQ(mkdir(disk.c_str(), 0700), 0);
  if (mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=16k") != 0)
    GTEST_SKIP() << "this user cannot make a small disk";
  {
    ServiceProcess service(kGuarded, {"--audit", disk + "/audit.jsonl"});
    service.start();
    TestClient client("client", service.runtimeDir());
    int written = 0;
    for (int i = 1; i <= 200; ++i)
      written += client.write("test.marker", std::to_string(i)).ok() ? 1 : 0;
    EXPECT_EQ(written, 200);
    EXPECT_EQ(service.linesWith("the audit record cannot be written: No space left"), 1);
    const std::size_t kept = linesOf(disk + "/audit.jsonl").size();
    EXPECT_LT(kept, 200u);
    for (const std::string& line : linesOf(disk + "/audit.jsonl"))
      EXPECT_THAT(line, AllOf(testing::StartsWith("{\"time\""), testing::EndsWith("}")));
    ASSERT_EQ(truncate((disk + "/audit.jsonl").c_str(), 0), 0);
    ASSERT_TRUE(client.write("test.marker", "0").ok());
    ASSERT_THAT(linesOf(disk + "/audit.jsonl"), SizeIs(2));
    EXPECT_THAT(linesOf(disk + "/audit.jsonl")[0],
                HasSubstr("\"lost\":" + std::to_string(200 - kept) + "}"));
    EXPECT_EQ(service.linesWith("is written again"), 1);
  }
  EXPECT_EQ(umount(disk.c_str()), 0);
}

}  // namespace
}  // namespace TestSupport
