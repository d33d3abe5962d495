// What clients can do that mean harm and know the protocol: other users' processes, which claim the
// names, tokens, roles and questions of others, and look for what they may not read.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <set>

#include "platform/schema/message_ids.h"
#include "tests/integration/access_fixture.h"

namespace TestSupport {
namespace {

using PbUtility::ConnectionUse;
using PbUtility::FrameHeader;
using PbUtility::FrameKind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// --- Names ---

TEST_F(AccessTest, AnEndpointNameIsRefusedToAnotherUserWhileItsOwnerIsConnected) {
  const Child owner(kOneUser, [&](Child::Parent& test) {
    TestClient client("thermostat", service_.runtimeDir());
    test.say(told(client.read("net.mtu")));
    test.hear();
  });
  ASSERT_EQ(owner.hear(), "ok");
  const auto claim = [](TestClient& client) { return told(client.read("net.mtu")); };
  EXPECT_THAT(
      asUser(kOtherUser, "thermostat", claim),
      HasSubstr("user 61002 claims the endpoint name \"thermostat\", which user 61001 has"));
  EXPECT_EQ(asUser(kOneUser, "thermostat", claim), "ok") << "a second process of the owner";
  EXPECT_EQ(service_.linesWith("refused: user 61002 claims"), 1);
}

TEST_F(AccessTest, ANameThatIsRefusedIsLoggedOnceHoweverOftenItIsTried) {
  TestClient owner("thermostat", service_.runtimeDir());
  ASSERT_TRUE(owner.read("net.mtu").ok());
  EXPECT_EQ(asUser(kNobody, "thermostat",
                   [](TestClient& client) {
                     int refused = 0;
                     for (int i = 0; i < 100; ++i)
                       refused += client.read("net.mtu").call == PbUtility::kCallRefused ? 1 : 0;
                     return std::to_string(refused);
                   }),
            "100");
  EXPECT_EQ(service_.linesWith("\"thermostat\""), 1);
}

TEST_F(AccessTest, AFreedNameIsTheNextUsers) {
  {
    const Child owner(kOneUser, [&](Child::Parent& test) {
      TestClient client("thermostat", service_.runtimeDir());
      test.say(told(client.read("net.mtu")));
      test.hear();
    });
    ASSERT_EQ(owner.hear(), "ok");
  }
  EXPECT_TRUE(eventually([&] {
    return asUser(kOtherUser, "thermostat",
                  [](TestClient& client) { return told(client.read("net.mtu")); }) == "ok";
  }));
}

TEST_F(AccessTest, WhoComesFirstCannotKeepRootsProgramsOut) {
  const Child squatter(kNobody, [&](Child::Parent& test) {
    TestClient client("thermostat", service_.runtimeDir());
    test.say(told(client.read("net.mtu")));
    test.hear();
  });
  ASSERT_EQ(squatter.hear(), "ok");
  TestClient owner("thermostat", service_.runtimeDir());
  EXPECT_TRUE(owner.read("net.mtu").ok());
  EXPECT_EQ(service_.linesWith("which user 65534 has: both are connected now"), 1);
}

TEST_F(AccessTest, ANameThatOnlyLooksLikeAnotherUsersIsRefusedToo) {
  TestClient owner("thermostat", service_.runtimeDir());
  ASSERT_TRUE(owner.read("net.mtu").ok());
  const auto claim = [](TestClient& client) { return told(client.read("net.mtu")); };
  for (const char* name : {"Thermostat", "thermostat ", " thermostat"}) {
    EXPECT_THAT(asUser(kNobody, name, claim),
                HasSubstr("which looks like \"thermostat\", which user 0 has"))
        << name;
  }
  EXPECT_THAT(asUser(kNobody, "thermostat\u200d", claim),
              HasSubstr("\"thermostat<U+200D>\", which holds U+200D, which cannot be seen"));
  EXPECT_THAT(asUser(kNobody, "thermostat\xc2", claim),
              HasSubstr("the byte C2, which is no UTF-8"));
  EXPECT_EQ(asUser(kNobody, "thermostats", claim), "ok");
  TestClient again("THERMOSTAT", service_.runtimeDir());
  EXPECT_TRUE(again.read("net.mtu").ok()) << "the same user may spell it as they like";
}

class NamesTest : public AccessTest {
 protected:
  NamesTest() : AccessTest({"--roles", roles_.file("roles.toml")}) {
    writeFile(roles_.file("roles.toml"), "[names]\nthermostat = \"61001\"\n");
    EXPECT_EQ(chmod(roles_.file("roles.toml").c_str(), 0644), 0);
  }
  static TempDir roles_;
};
TempDir NamesTest::roles_;

TEST_F(NamesTest, ANameOfTheTableIsItsUsersBeforeTheyCame) {
  const auto claim = [](TestClient& client) { return told(client.read("net.mtu")); };
  for (const char* name : {"thermostat", "THERMOSTAT", "thermostat "}) {
    EXPECT_THAT(asUser(kOtherUser, name, claim),
                HasSubstr("which the table of roles gives to another user"))
        << name;
  }
  EXPECT_EQ(asUser(kOneUser, "thermostat", claim), "ok");
}

TEST_F(AccessTest, TheCommandLineMayBeUsedBySeveralUsersAtOnce) {
  TestClient roots("appcfg", service_.runtimeDir());
  ASSERT_TRUE(roots.read("net.mtu").ok());
  EXPECT_EQ(
      asUser(kNobody, "appcfg", [](TestClient& client) { return told(client.read("net.mtu")); }),
      "ok");
}

// --- Tokens ---

std::string greeting(const std::string& name, unsigned char token, ConnectionUse use,
                     const std::string& socket) {
  RawClient raw(socket);
  if (!raw.connected()) return "cannot connect";
  raw.send(RawClient::hello(name, token, use));
  const std::string answer = raw.receive();
  if (answer.size() < PbUtility::kFrameHeaderBytes) return "closed";
  return answer[1] == static_cast<char>(FrameKind::Welcome) ? "welcome" : answer.substr(28);
}

TEST_F(AccessTest, ATokenOfAnotherProcessIsRefusedWhoeverUsesItAndUnderWhateverName) {
  RawClient victim(service_.socket());
  ASSERT_TRUE(victim.send(RawClient::hello("victim", 9)));
  ASSERT_NE(victim.receive(), "");
  for (const uid_t user : {uid_t{0}, kNobody}) {
    for (const char* name : {"victim", "other"}) {
      for (const ConnectionUse use : {ConnectionUse::Requests, ConnectionUse::Delivery}) {
        const Child thief(user, [&](Child::Parent& test) {
          test.say(greeting(name, 9, use, service_.socket()));
        });
        EXPECT_EQ(thief.hear(), "it claims to be client \"victim\" of another process")
            << user << name;
      }
    }
  }
  EXPECT_EQ(greeting("other", 9, ConnectionUse::Requests, service_.socket()),
            "it claims to be client \"victim\" of another process");
  EXPECT_EQ(greeting("victim", 9, ConnectionUse::Delivery, service_.socket()), "welcome");
}

// 128 bits from the kernel: what can be seen of that is that no two are the same, and that no bit of
// them stands still.
TEST(TokenTest, TokensOfEndpointsCannotBeForetold) {
  TempDir directory;
  const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  directory.file("ConfigSrvc").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listening, 128), 0);
  std::set<PbUtility::EndpointToken> tokens;
  PbUtility::EndpointToken ones{};
  PbUtility::EndpointToken zeros{};
  zeros.fill(0xFF);
  for (int i = 0; i < 100; ++i) {
    TestClient client("client", directory.path());
    const auto asking = std::async(std::launch::async, [&] { client.read("net.mtu"); });
    const int connection = accept(listening, nullptr, nullptr);
    std::string bytes(PbUtility::kFrameHeaderBytes + 25, '\0');
    ASSERT_EQ(recv(connection, bytes.data(), bytes.size(), MSG_WAITALL),
              static_cast<ssize_t>(bytes.size()));
    close(connection);
    PbUtility::Hello hello;
    ASSERT_TRUE(decode(std::string_view(bytes).substr(PbUtility::kFrameHeaderBytes), hello).ok());
    tokens.insert(hello.token);
    for (std::size_t byte = 0; byte < hello.token.size(); ++byte) {
      ones[byte] |= hello.token[byte];
      zeros[byte] &= hello.token[byte];
    }
  }
  close(listening);
  EXPECT_EQ(tokens.size(), 100u);
  for (const unsigned char byte : ones) EXPECT_EQ(byte, 0xFF);
  for (const unsigned char byte : zeros) EXPECT_EQ(byte, 0);
}

// --- Registrations of others ---

TEST_F(AccessTest, NobodyWithdrawsTheRegistrationsOfOthers) {
  TestClient victim("victim", service_.runtimeDir());
  ASSERT_TRUE(victim.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  EXPECT_EQ(asUser(kNobody, "thief",
                   [](TestClient& client) {
                     ConfigIF::UnregisterClientCallbackReq one;
                     ConfigIF::UnregisterClientCallbackRsp oneAnswer;
                     one.set_client_name("victim");
                     one.set_role(CommonIF::SECURITY_ROLE_USER);
                     one.set_name("net.mtu");
                     one.set_type(ConfigIF::CALLBACK_VALUE_CHANGED);
                     one.set_endpoint_name("link of victim");
                     ConfigIF::UnregisterAllClientCallbacksReq all;
                     ConfigIF::UnregisterAllClientCallbacksRsp allAnswer;
                     all.set_client_name("victim");
                     return told(client.call(one, &oneAnswer)) + ", " +
                            told(client.call(all, &allAnswer));
                   }),
            "error 2 there is no such registration, ok");
  EXPECT_TRUE(victim.write("net.mtu", "1400").ok());
  EXPECT_TRUE(victim.waitForNotice("value net.mtu = 1400"));
}

// --- Providers ---

TEST_F(AccessTest, NobodyAnswersAQuestionThatAnotherWasAsked) {
  std::promise<void> asked;
  std::promise<void> attacked;
  TestClient provider("provider", service_.runtimeDir());
  provider.provide("net.mtu", [&](const ProviderQuestion& question) {
    if (question.onChange) return consent();
    asked.set_value();
    attacked.get_future().wait();
    return veto("no");
  });
  TestClient writer("writer", service_.runtimeDir());
  auto written = std::async(std::launch::async, [&] { return writer.write("net.mtu", "1400"); });
  asked.get_future().wait();
  const Child thief(kNobody, [&](Child::Parent& test) {
    int closed = 0;
    for (std::uint32_t question = 1; question <= 20; ++question) {
      for (const FrameKind kind : {FrameKind::Answer, FrameKind::Done}) {
        RawClient raw(service_.socket());
        raw.send(RawClient::hello("thief", 7, ConnectionUse::Delivery));
        raw.receive();
        FrameHeader header;
        header.kind = kind;
        header.sequence = question;
        header.messageId = kind == FrameKind::Answer ? 0x1A0151 : 0;
        raw.send(RawClient::frame(header, ""));
        closed += raw.isClosedByService() ? 1 : 0;
      }
    }
    test.say(std::to_string(closed));
  });
  EXPECT_EQ(thief.hear(), "40");
  attacked.set_value();
  const Outcome outcome = written.get();
  EXPECT_EQ(outcome.error, CommonIF::ERROR_VETOED);
  EXPECT_EQ(outcome.text, "no\n");
}

TEST_F(AccessTest, NobodyProvidesWhatTheirUserMayNotWriteOrTheirRoleNotRead) {
  const Child thief(kNobody, [&](Child::Parent& test) {
    TestClient client("thief", service_.runtimeDir());
    for (const char* name : {"net.admin", "net.hidden"}) {
      for (const auto type : {ConfigIF::CALLBACK_DYNAMIC_VALIDATE, ConfigIF::CALLBACK_ON_CHANGE})
        test.say(told(client.registerFor(type, name)));
    }
    client.provide("net", [](const ProviderQuestion& question) { return veto(question.key); });
    test.say("provides");
    test.hear();
  });
  for (int i = 0; i < 4; ++i) EXPECT_THAT(thief.hear(), HasSubstr("error 3 net."));
  ASSERT_EQ(thief.hear(), "provides");
  TestClient root("root", service_.runtimeDir());
  root.actAs(CommonIF::SECURITY_ROLE_FACTORY);
  EXPECT_TRUE(root.write("net.admin", "y").ok());
  EXPECT_TRUE(root.write("net.hidden", "WHAT-NOBODY-MAY-SEE-2").ok());
  EXPECT_EQ(root.write("net.mtu", "1400").error, CommonIF::ERROR_VETOED);
  EXPECT_EQ(service_.linesWith("denied: it may not provide"), 4);
}

// --- What may not be read ---

// Everything that a client can ask for about a variable, as requests; the role and the name are
// filled in later. None of it changes anything.
template <typename Request>
Request about(const std::string& key) {
  Request request;
  ConfigIF::Inst* inst = nullptr;
  if constexpr (std::is_same_v<Request, ConfigIF::BatchReadReq> ||
                std::is_same_v<Request, ConfigIF::BatchGetValueOptionsAccessReq>)
    inst = request.add_inst();
  else
    inst = request.mutable_inst();
  inst->add_path()->set_name(key.substr(0, key.find('.')));
  inst->add_path()->set_name(key.substr(key.find('.') + 1));
  return request;
}

class Searcher {
 public:
  explicit Searcher(TestClient& client) : client_(client) {}

  // How many answers held what may not be read; "0 of N".
  std::string search() {
    const std::string key = "net.hidden";
    ask<ConfigIF::ReadRsp>(about<ConfigIF::ReadReq>(key));
    ask<ConfigIF::BatchReadRsp>(about<ConfigIF::BatchReadReq>(key));
    ask<ConfigIF::GetAttributeOptionsRsp>(about<ConfigIF::GetAttributeOptionsReq>(key));
    ask<ConfigIF::GetAccessLevelsRsp>(about<ConfigIF::GetAccessLevelsReq>(key));
    ask<ConfigIF::ReadAttributesRsp>(about<ConfigIF::ReadAttributesReq>(key));
    ask<ConfigIF::GetValueOptionsAccessRsp>(about<ConfigIF::GetValueOptionsAccessReq>(key));
    ask<ConfigIF::BatchGetValueOptionsAccessRsp>(
        about<ConfigIF::BatchGetValueOptionsAccessReq>(key));
    ask<ConfigIF::SubmitRsp>(about<ConfigIF::SubmitReq>(key));
    named<ConfigIF::GetDefaultOptionsRsp, ConfigIF::GetDefaultOptionsReq>(key);
    for (const char* prefix : {"", "net", "net.hidden", "NET.HIDDEN"}) {
      ConfigIF::ListReq request;
      request.set_prefix(prefix);
      ask<ConfigIF::ListRsp>(request);
    }
    ask<ConfigIF::StatusRsp>(ConfigIF::StatusReq());
    ask<ConfigIF::ClientsRsp>(ConfigIF::ClientsReq());
    for (const char* value : {"", "guess", "what-nobody-may-see"}) {
      ConfigIF::ValidateReq request;
      request.mutable_value()->mutable_inst()->add_path()->set_name("net");
      request.mutable_value()->mutable_inst()->add_path()->set_name("hidden");
      request.mutable_value()->add_values(value);
      ask<ConfigIF::ValidateRsp>(request);
    }
    for (const char* option : {"guess", "a"}) {
      auto request = about<ConfigIF::SetAttributeOptionsReq>(key);
      request.add_options(option);
      ask<ConfigIF::SetAttributeOptionsRsp>(request);
    }
    for (const char* name : {"", "net", "net.hidden"}) {
      for (int type = ConfigIF::CALLBACK_ON_CHANGE;
           type <= ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED; ++type)
        registerKnowingNothing(name, static_cast<ConfigIF::CallbackType>(type));
    }
    return std::to_string(found_) + " of " + std::to_string(asked_);
  }

 private:
  template <typename Response, typename Request>
  void ask(const Request& request) {
    Response response;
    client_.request(request, &response);
    look(response);
  }
  template <typename Response, typename Request>
  void named(const std::string& name) {
    Request request;
    request.set_name(name);
    ask<Response>(request);
  }
  template <typename Response>
  void look(const Response& response) {
    ++asked_;
    found_ += response.SerializeAsString().find(kHidden) == std::string::npos ? 0 : 1;
  }
  // In another epoch, so that everything is owed.
  void registerKnowingNothing(const std::string& name, ConfigIF::CallbackType type) {
    ConfigIF::RegisterClientCallbackReq request;
    ConfigIF::RegisterClientCallbackRsp response;
    if (!name.empty()) request.set_name(name);
    request.set_type(type);
    request.set_endpoint_name("link of " + client_.name());
    client_.request(request, &response);
    look(response);
  }

  TestClient& client_;
  int asked_ = 0;
  int found_ = 0;
};

TEST_F(AccessTest, WhatARoleMayNotReadStandsInNoAnswerWhateverRoleIsClaimed) {
  for (const auto role : {CommonIF::SECURITY_ROLE_PUBLIC, CommonIF::SECURITY_ROLE_USER,
                          CommonIF::SECURITY_ROLE_INSTALLER, CommonIF::SECURITY_ROLE_SERVICE,
                          CommonIF::SECURITY_ROLE_FACTORY}) {
    const std::string found = asUser(kNobody, "searcher", [&](TestClient& client) {
      client.actAs(role);
      return Searcher(client).search();
    });
    std::cout << "[ requests ] as role " << role << ": " << found << '\n';
    EXPECT_THAT(found, testing::MatchesRegex("0 of [0-9]+"));
  }
  TestClient root("root", service_.runtimeDir());
  root.actAs(CommonIF::SECURITY_ROLE_FACTORY);
  EXPECT_THAT(Searcher(root).search(), Not(testing::StartsWith("0 of"))) << "the search finds it";
}

TEST_F(AccessTest, WhatARoleMayNotReadStandsInNoNotice) {
  const Child thief(kNobody, [&](Child::Parent& test) {
    TestClient client("thief", service_.runtimeDir());
    for (int type = ConfigIF::CALLBACK_ON_CHANGE; type <= ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED;
         ++type)
      client.registerFor(static_cast<ConfigIF::CallbackType>(type), "");
    test.say("registered");
    test.hear();
    client.waitForNotice("value test.marker = 1");
    std::string all;
    for (const std::string& notice : client.notices()) all += notice + "; ";
    test.say(all);
  });
  ASSERT_EQ(thief.hear(), "registered");
  TestClient root("root", service_.runtimeDir());
  root.actAs(CommonIF::SECURITY_ROLE_FACTORY);
  ASSERT_TRUE(root.write("net.hidden", "WHAT-NOBODY-MAY-SEE-2").ok());
  ConfigIF::SetAttributeOptionsReq options = about<ConfigIF::SetAttributeOptionsReq>("net.hidden");
  ConfigIF::SetAttributeOptionsRsp response;
  options.add_options("WHAT-NOBODY-MAY-SEE-2");
  ASSERT_TRUE(root.request(options, &response).ok());
  ASSERT_TRUE(root.write("test.marker", "1").ok());
  thief.say("look");
  const std::string notices = thief.hear();
  EXPECT_THAT(notices, HasSubstr("value test.marker = 1"));
  EXPECT_THAT(notices, Not(HasSubstr(kHidden)));
}

TEST_F(AccessTest, ARegistrationIsToldNothingMoreOnceItsRoleIsTooLowAndAllOnceItIsNot) {
  TestClient root("root", service_.runtimeDir());
  root.actAs(CommonIF::SECURITY_ROLE_FACTORY);
  const auto demand = [&](CommonIF::eSecurityRole role) {
    ConfigIF::SetAccessLevelsReq request;
    ConfigIF::SetAccessLevelsRsp response;
    *request.add_inst() = about<ConfigIF::ReadReq>("net.mtu").inst();
    request.set_read_role(role);
    return root.request(request, &response).ok();
  };
  TestClient reader("reader", service_.runtimeDir());
  ASSERT_TRUE(reader.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  ASSERT_TRUE(reader.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "test.marker").ok());
  ASSERT_TRUE(reader.registerFor(ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED, "net.mtu").ok());
  ASSERT_TRUE(root.write("net.mtu", "1400").ok());
  ASSERT_TRUE(demand(CommonIF::SECURITY_ROLE_INSTALLER));
  ASSERT_TRUE(root.write("net.mtu", "1300").ok());
  ASSERT_TRUE(root.write("test.marker", "1").ok());
  ASSERT_TRUE(reader.waitForNotice("value test.marker = 1"));
  EXPECT_THAT(reader.notices(),
              ElementsAre("value net.mtu = 1400", "access net.mtu", "value test.marker = 1"));
  EXPECT_EQ(reader.read("net.mtu").error, CommonIF::ERROR_DENIED);
  ASSERT_TRUE(demand(CommonIF::SECURITY_ROLE_USER));
  EXPECT_TRUE(reader.waitForNotice("value net.mtu = 1300"));
}

// --- Files ---

class ModesTest : public testing::TestWithParam<mode_t> {
 protected:
  static mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }
};

TEST_P(ModesTest, SocketsAndFilesHaveTheirModesWhateverTheMaskOfWhoStartsTheService) {
  TempDir audit;
  ServiceProcess service(kGuarded, {"--audit", audit.file("audit.jsonl"), "--prefix", "a/b"});
  const mode_t old = umask(GetParam());
  service.useStore(service.directory().file("new/store/store.db"));
  service.start();
  umask(old);
  EXPECT_EQ(modeOf(service.runtimeDir() + "/a/b/ConfigSrvc"), 0666u) << "everybody may connect";
  EXPECT_EQ(modeOf(service.runtimeDir()), 0755u);
  EXPECT_EQ(modeOf(service.runtimeDir() + "/a/b"), 0755u);
  EXPECT_EQ(modeOf(service.runtimeDir() + "/a/b/ConfigSrvc.lock"), 0600u);
  EXPECT_EQ(modeOf(service.runtimeDir() + "/a/b/ConfigSrvc.providers"), 0600u);
  EXPECT_EQ(modeOf(audit.file("audit.jsonl")), 0600u);
  EXPECT_EQ(modeOf(service.storeFile()), 0600u);
  EXPECT_EQ(modeOf(service.storeFile() + ".lock"), 0600u);
  EXPECT_EQ(modeOf(service.storeFile() + "-wal"), 0600u);
  EXPECT_EQ(modeOf(service.directory().file("new/store")), 0700u);
  EXPECT_EQ(modeOf(service.directory().file("new")), 0700u);
  service.terminate();
}
INSTANTIATE_TEST_SUITE_P(Masks, ModesTest, testing::Values(mode_t{0}, mode_t{022}, mode_t{077}),
                         [](const auto& mask) { return "Umask" + std::to_string(mask.index); });

class DistrustedTest : public AccessTest {
 protected:
  DistrustedTest() : AccessTest({"--roles", directory_.file("roles.toml")}) {
    unlink(path_.c_str());
    writeFile(path_, "default = \"factory\"\n");
    EXPECT_EQ(chmod(path_.c_str(), 0644), 0);
  }
  void SetUp() override {
    if (!canBecomeOthers()) GTEST_SKIP() << "only root can send clients of another user";
  }
  std::string asFactory() {
    return asUser(kNobody, "stranger", [](TestClient& client) {
      client.actAs(CommonIF::SECURITY_ROLE_FACTORY);
      return told(client.read("net.hidden"));
    });
  }
  void expectDefaults(const std::string& why) {
    service_.start();
    EXPECT_THAT(asFactory(), HasSubstr("user 65534 may act as user at most, not as factory"));
    EXPECT_EQ(service_.linesWith("roles.toml: the table of roles " + why), 1) << service_.log();
  }
  static TempDir directory_;
  const std::string path_ = directory_.file("roles.toml");
};
TempDir DistrustedTest::directory_;

TEST_F(DistrustedTest, ATrustworthyTableOfRolesIsUsed) {
  service_.start();
  EXPECT_EQ(asFactory(), "ok");
}

TEST_F(DistrustedTest, ATableOfRolesThatOthersMayWriteGivesNobodyARole) {
  ASSERT_EQ(chmod(path_.c_str(), 0664), 0);
  expectDefaults("can be written by its group");
}

TEST_F(DistrustedTest, ATableOfRolesOfAnotherUserGivesNobodyARole) {
  ASSERT_EQ(chown(path_.c_str(), kNobody, 0), 0);
  expectDefaults("belongs to user 65534");
}

TEST_F(DistrustedTest, ALinkToATableOfRolesGivesNobodyARole) {
  ASSERT_EQ(rename(path_.c_str(), (path_ + ".real").c_str()), 0);
  ASSERT_EQ(symlink((path_ + ".real").c_str(), path_.c_str()), 0);
  expectDefaults("is a symbolic link");
}

TEST_F(DistrustedTest, DefinitionsAndASocketsDirectoryThatOthersMayWriteAreWarnedOf) {
  const std::string definitions = service_.directory().file("definitions.d");
  ASSERT_EQ(chmod((definitions + "/test.toml").c_str(), 0666), 0);
  ASSERT_EQ(mkdir(service_.runtimeDir().c_str(), 0755), 0);
  ASSERT_EQ(chmod(service_.runtimeDir().c_str(), 0777), 0);
  service_.start();
  EXPECT_EQ(service_.linesWith("test.toml: this definition can be written by everybody"), 1);
  EXPECT_EQ(service_.linesWith("the socket's directory can be written by everybody"), 1);
}

// --- Secrets ---

TEST(SecretTest, WhatASecretVariableHoldsStandsInNoLogAuditRecordListOfClientsOrErrorText) {
  const std::string secret = "S3CR3T-VALUE";
  TempDir audit;
  ServiceProcess service(kGuarded, {"--log-level", "debug", "--audit", audit.file("audit.jsonl")});
  service.start();
  std::string texts;
  {
    TestClient client("client", service.runtimeDir());
    TestClient provider("provider", service.runtimeDir());
    ASSERT_TRUE(client.write("net.password", secret).ok());
    texts += client.write("net.password", secret + std::string(64, 'x')).text;
    texts += client.validate("net.password", secret + std::string(64, 'x')).text;
    texts += client.write("net.pasword", secret).text;
    provider.provide("net.password", [](const ProviderQuestion&) { return veto("weak"); });
    texts += client.write("net.password", secret + "-2").text;
    client.writeOneWay("net.password", secret + std::string(64, 'x'));
    client.actAs(CommonIF::SECURITY_ROLE_FACTORY);
    auto options = about<ConfigIF::SetAttributeOptionsReq>("net.password");
    ConfigIF::SetAttributeOptionsRsp response;
    options.add_options(secret + std::string(64, 'x'));
    texts += client.request(options, &response).text;
    ConfigIF::ClientsRsp clients;
    ASSERT_TRUE(client.request(ConfigIF::ClientsReq(), &clients).ok());
    texts += clients.SerializeAsString();
  }
  // A value that no longer fits its definition, and a default that never did.
  EXPECT_EQ(service.terminate(), 0);
  std::string narrow = kGuarded;
  narrow.replace(narrow.find("max-length = 64"), 15, "max-length = 3 ");
  service.redefine(narrow);
  service.start();
  EXPECT_EQ(service.linesWith("net.password: the stored value is not used"), 1) << service.log();
  EXPECT_EQ(service.terminate(), 0);
  std::string bad = narrow;
  const std::string none = "default = \"\"";
  bad.replace(bad.find(none), none.size(), "default = \"" + secret + "\"");
  service.redefine(bad);
  service.start();
  EXPECT_EQ(service.linesWith("the last good ones"), 1) << service.log();
  TestClient curious("curious", service.runtimeDir());
  ConfigIF::StatusRsp status;
  ASSERT_TRUE(curious.request(ConfigIF::StatusReq(), &status).ok());
  EXPECT_EQ(status.mistakes_size(), 1);
  texts += status.SerializeAsString();
  EXPECT_THAT(service.log(), HasSubstr("committing -> ended"));
  EXPECT_THAT(service.log(), Not(HasSubstr("S3CR3T")));
  EXPECT_THAT(readFile(audit.file("audit.jsonl")), HasSubstr("net.password"));
  EXPECT_THAT(readFile(audit.file("audit.jsonl")), Not(HasSubstr("S3CR3T")));
  EXPECT_THAT(texts, HasSubstr("net.password"));
  EXPECT_THAT(texts, Not(HasSubstr("S3CR3T")));
}

class StoreAccessTest : public AccessTest {};

// Whatever role the table lets them claim: the store holds what no role may read, too.
TEST_F(StoreAccessTest, OthersThanRootAndTheServicesUserNeitherCopyNorReplaceTheStore) {
  writeFile(service_.storeFile() + ".restore", "planted");
  const std::string said = asUser(kNobody, "intruder", [](TestClient& client) {
    std::string all;
    for (const auto role : {CommonIF::SECURITY_ROLE_PUBLIC, CommonIF::SECURITY_ROLE_USER}) {
      client.actAs(role);
      ConfigIF::StoreSnapshotRsp made;
      all += told(client.request(ConfigIF::StoreSnapshotReq(), &made)) + made.file() + ";";
      ConfigIF::StoreRestoreRsp taken;
      all += told(client.request(ConfigIF::StoreRestoreReq(), &taken)) + ";";
    }
    return all;
  });
  const std::string refusal =
      "error 3 the store is for root and the service's own user (0) alone, and this is user 65534;";
  EXPECT_EQ(said, refusal + refusal + refusal + refusal);
  EXPECT_TRUE(std::filesystem::exists(service_.storeFile() + ".restore"));
  EXPECT_FALSE(std::filesystem::exists(service_.storeFile() + ".snapshot"));
}

}  // namespace
}  // namespace TestSupport
