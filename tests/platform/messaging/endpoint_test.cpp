#include "platform/messaging/endpoint.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <set>
#include <thread>

#include "platform/messaging/msg.h"
#include "platform/messaging/serving/internal/listener.h"
#include "platform/schema/config_if.pb.h"
#include "tests/platform/messaging/raw_client.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"

namespace PbUtility {
namespace {

using std::chrono::milliseconds;
using TestSupport::eventually;
using TestSupport::Serving;

const std::string kService = "ConfigSrvc";

class EndpointTest : public ::testing::Test {
 protected:
  EndpointOptions options() const {
    EndpointOptions made;
    made.runtimeDir = dir.path();
    return made;
  }

  static int read(Endpoint& endpoint, const std::string& name = "me") {
    ConfigIF::ReadReq request;
    request.set_client_name(name);
    ConfigIF::ReadRsp response;
    const int status = endpoint.sendWaitResponse(request, &response, kService);
    if (status == 0) {
      EXPECT_EQ(response.values(0), name);
    }
    return status;
  }

  static int registerFor(Endpoint& endpoint, const std::string& name) {
    ConfigIF::RegisterClientCallbackReq request;
    request.set_client_name("me");
    request.set_name(name);
    ConfigIF::RegisterClientCallbackRsp response;
    return endpoint.sendWaitResponse(request, &response, kService);
  }

  static std::vector<Serving::Request> registrations(const Serving& serving) {
    std::vector<Serving::Request> found;
    for (const Serving::Request& request : serving.requests()) {
      if (request.messageId == 0x1A0210) found.push_back(request);
    }
    return found;
  }

  TestSupport::TempDir dir;
};

// Receivers for the tables of MSG_Callback records: they collect what came.
struct Received {
  std::mutex mutex;
  std::vector<std::string> payloads;
  std::string owner;
  std::thread::id thread;
  std::function<void(const MSG_Message*)> then;

  std::vector<std::string> all() {
    const std::lock_guard<std::mutex> guard(mutex);
    return payloads;
  }
  static void receive(void* userData, const MSG_Message* message) {
    auto& self = *static_cast<Received*>(userData);
    char owner[128];
    MSG_GetOwnerName(message, owner, sizeof owner);
    {
      const std::lock_guard<std::mutex> guard(self.mutex);
      self.payloads.emplace_back(static_cast<const char*>(MSG_GetPayload(message)),
                                 static_cast<std::size_t>(MSG_GetPayloadBytes(message)));
      self.owner = owner;
      self.thread = std::this_thread::get_id();
    }
    if (self.then) self.then(message);
  }
  // A table that takes one message id.
  std::vector<MSG_Callback> table(std::uint32_t messageId) {
    return {{&receive, this, messageId, messageId, 0}, {nullptr, nullptr, 0, 0, 0}};
  }
};

TEST_F(EndpointTest, EachStatusHasItsOwnText) {
  std::set<std::string> texts;
  int count = 0;
  for (const CallStatus status :
       {kCallOk, kCallNoService, kCallServiceDied, kCallTimedOut, kCallRefused, kCallBrokenAnswer,
        kCallBadRequest, kCallBadEndpoint, kCallUntrusted, kCallForbidden,
        static_cast<CallStatus>(99)}) {
    const char* text = describe(status);
    ASSERT_NE(text, nullptr);
    EXPECT_STRNE(text, "");
    texts.insert(text);
    ++count;
  }
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(count));
}

// What was woken and not put to sleep again takes a processor for itself. Looked at is a stretch of time
// in which nothing happens: nobody serves, and what there is to do was done.
TEST_F(EndpointTest, AnEndpointThatWaitsForItsServiceTakesNoProcessor) {
  Endpoint endpoint("me", options());
  endpoint.addRemoteEndpoint(kService, 0);
  Received received;
  const MSG_Callback table[] = {{Received::receive, &received, 0x1A0143, 0x1A0143, 0},
                                {nullptr, nullptr, 0, 0, 0}};
  endpoint.addHandlers(table);
  // Wakes the thread that the first one and the table have started.
  endpoint.addRemoteEndpoint("Other", 0);
  const auto spent = [] {
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
  };
  const auto before = spent();
  std::this_thread::sleep_for(milliseconds(400));
  EXPECT_LT(spent() - before, milliseconds(100));
}

TEST_F(EndpointTest, ARequestIsAnsweredOnTheCallersThread) {
  Serving serving(dir.path());
  Endpoint endpoint("ui", options());
  EXPECT_EQ(read(endpoint), kCallOk);
  EXPECT_EQ(serving.requests()[0].peer.name, "ui");
}

TEST_F(EndpointTest, TellsTheNameThatItWasGiven) {
  const Endpoint endpoint("me", options());
  EXPECT_EQ(endpoint.localEndpoint(), "me");
}

TEST_F(EndpointTest, WithoutAServiceACallFailsAtOnce) {
  Endpoint endpoint("ui", options());
  EXPECT_EQ(read(endpoint), kCallNoService);
  EXPECT_NE(endpoint.lastRefusal().find(dir.path()), std::string::npos);
}

TEST_F(EndpointTest, AfterARestartOfTheServiceTheNextCallSimplyWorks) {
  Endpoint endpoint("ui", options());
  for (int i = 0; i < 3; ++i) {
    Serving serving(dir.path());
    EXPECT_EQ(read(endpoint), kCallOk);
  }
  EXPECT_EQ(read(endpoint), kCallNoService);
}

TEST_F(EndpointTest, WhoAllowsNoConnectionHasOne) {
  const Serving serving(dir.path());
  EndpointOptions none = options();
  none.maxConnections = 0;
  Endpoint endpoint("ui", none);
  EXPECT_EQ(read(endpoint), kCallOk);
}

TEST_F(EndpointTest, AServiceThatDiesMidAnswerFailsTheCallAtOnce) {
  auto serving = std::make_unique<Serving>(dir.path());
  serving->onRequestDo = [](Server& server, const Serving::Request&) { server.stop(); };
  EndpointOptions patient = options();
  patient.deadline = std::chrono::hours(1);
  Endpoint endpoint("ui", patient);
  std::thread undertaker([&] {
    EXPECT_TRUE(eventually([&] { return serving->requests().size() == 1; }));
    serving.reset();
  });
  EXPECT_EQ(read(endpoint), kCallServiceDied);
  undertaker.join();
}

TEST_F(EndpointTest, AnAnswerThatDoesNotComeEndsTheCallAtItsDeadline) {
  Serving serving(dir.path());
  serving.onRequestDo = [](Server&, const Serving::Request&) {};
  EndpointOptions hasty = options();
  hasty.deadline = milliseconds(30);
  Endpoint endpoint("ui", hasty);
  EXPECT_EQ(read(endpoint), kCallTimedOut);
}

TEST_F(EndpointTest, ALateAnswerIsNeverTakenForTheNextOne) {
  Serving serving(dir.path());
  std::vector<RequestId> late;
  serving.onRequestDo = [&late](Server& server, const Serving::Request& request) {
    ConfigIF::ReadReq read;
    read.ParseFromString(request.payload);
    if (read.client_name() == "late") return late.push_back(request.id);
    ConfigIF::ReadRsp tooLate;
    tooLate.add_values("late");
    for (const RequestId& id : late) server.respond(id, tooLate, 1);
    ConfigIF::ReadRsp response;
    response.add_values(read.client_name());
    server.respond(request.id, response, 1);
  };
  EndpointOptions hasty = options();
  hasty.deadline = milliseconds(30);
  Endpoint endpoint("ui", hasty);
  EXPECT_EQ(read(endpoint, "late"), kCallTimedOut);
  // On a busy machine it may itself be too late, once or twice.
  EXPECT_TRUE(eventually([&] { return read(endpoint, "prompt") == kCallOk; }));
}

TEST_F(EndpointTest, AServiceThatAcceptsButNeverAnswersTheGreetingEndsTheCallAtItsDeadline) {
  Listener mute;
  ASSERT_TRUE(mute.open(dir.path(), kService).ok());
  EndpointOptions hasty = options();
  hasty.deadline = milliseconds(30);
  Endpoint endpoint("ui", hasty);
  EXPECT_EQ(read(endpoint), kCallTimedOut);
}

TEST_F(EndpointTest, ARefusalReachesTheCallerWithItsText) {
  Serving serving(dir.path());
  serving.onRequestDo = [](Server& server, const Serving::Request& request) {
    server.refuse(request.id, 13, "too old for that");
  };
  Endpoint endpoint("ui", options());
  EXPECT_EQ(read(endpoint), kCallRefused);
  EXPECT_EQ(endpoint.lastRefusal(), "too old for that");
}

TEST_F(EndpointTest, AnAnswerThatNoFrameHoldsBecomesARefusalThatSaysSo) {
  Serving serving(dir.path());
  serving.onRequestDo = [](Server& server, const Serving::Request& request) {
    ConfigIF::ReadRsp response;
    response.add_values(std::string(std::size_t{17} << 20, 'x'));
    server.respond(request.id, response, 1);
  };
  Endpoint endpoint("ui", options());
  EXPECT_EQ(read(endpoint), kCallRefused);
  EXPECT_EQ(endpoint.lastRefusal(), "the answer is larger than 16 MiB");
}

TEST_F(EndpointTest, AnAnswerOfAnotherTypeIsBroken) {
  Serving serving(dir.path());
  serving.onRequestDo = [](Server& server, const Serving::Request& request) {
    server.respond(request.id, ConfigIF::WriteRsp(), 1);
  };
  Endpoint endpoint("ui", options());
  EXPECT_EQ(read(endpoint), kCallBrokenAnswer);
}

TEST_F(EndpointTest, ALargeValueTravelsBothWaysAndATooLargeOneIsRefusedHere) {
  Serving serving(dir.path());
  Endpoint endpoint("ui", options());
  serving.onRequestDo = [](Server& server, const Serving::Request& request) {
    ConfigIF::WriteReq write;
    ASSERT_TRUE(write.ParseFromString(request.payload));
    ConfigIF::WriteRsp response;
    response.mutable_result()->add_messages(write.value().values(0));
    server.respond(request.id, response, 1);
  };
  ConfigIF::WriteReq request;
  request.mutable_value()->add_values(std::string(std::size_t{2} << 20, 'v'));
  ConfigIF::WriteRsp response;
  EXPECT_EQ(endpoint.sendWaitResponse(request, &response, kService), kCallOk);
  EXPECT_EQ(response.result().messages(0), request.value().values(0));
  request.mutable_value()->add_values(std::string(std::size_t{1} << 20, 'v'));
  EXPECT_EQ(endpoint.sendWaitResponse(request, &response, kService), kCallBadRequest);
  request.mutable_value()->mutable_values()->RemoveLast();
  EXPECT_EQ(endpoint.sendWaitResponse(request, &response, kService), kCallOk);
}

TEST_F(EndpointTest, AMessageThatIsNoPartOfTheProtocolIsRefusedHere) {
  Endpoint endpoint("ui", options());
  EXPECT_EQ(endpoint.send(ConfigIF::Node(), kService, nullptr), kCallBadRequest);
}

TEST_F(EndpointTest, ANameThatCannotBeUsedIsToldAtTheFirstCall) {
  Endpoint nameless("", options());
  EXPECT_EQ(read(nameless), kCallBadEndpoint);
  Endpoint endpoint("ui", options());
  ConfigIF::ReadRsp response;
  EXPECT_EQ(endpoint.sendWaitResponse(ConfigIF::ReadReq(), &response, "../up"), kCallBadEndpoint);
  EXPECT_NE(endpoint.lastRefusal().find("would leave"), std::string::npos);
}

TEST_F(EndpointTest, ThreadsShareAFewConnections) {
  Serving serving(dir.path());
  EndpointOptions few = options();
  few.maxConnections = 3;
  Endpoint endpoint("ui", few);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        failures += read(endpoint, std::to_string(t) + "/" + std::to_string(i)) != 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  std::set<std::uint64_t> connections;
  for (const Serving::Request& request : serving.requests()) {
    connections.insert(request.id.connection);
  }
  EXPECT_LE(connections.size(), 3U);
}

TEST_F(EndpointTest, OneRemoteMoreThanTheLimitIsRefusedAndTheOthersServeOn) {
  Serving serving(dir.path());
  Endpoint endpoint("ui", options());
  EXPECT_EQ(read(endpoint), 0);
  ConfigIF::ReadRsp response;
  for (std::size_t i = 1; i < kMaxRemotes; ++i) {
    EXPECT_EQ(endpoint.sendWaitResponse(ConfigIF::ReadReq(), &response, std::to_string(i)),
              kCallNoService);
  }
  EXPECT_EQ(endpoint.sendWaitResponse(ConfigIF::ReadReq(), &response, "more"), kCallBadEndpoint);
  EXPECT_EQ(endpoint.lastRefusal(), "more remote endpoints than the limit of 64");
  endpoint.addRemoteEndpoint("more", -1);
  EXPECT_EQ(read(endpoint), 0);
}

TEST_F(EndpointTest, OneWayRequestsOfAThreadArriveInTheirOrderWhateverOthersDo) {
  Serving serving(dir.path());
  Endpoint endpoint("ui", options());
  constexpr int kThreads = 4;
  constexpr int kEach = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        ConfigIF::WriteReq write;
        write.set_client_name(std::to_string(t));
        write.mutable_value()->add_values(std::to_string(i));
        EXPECT_EQ(endpoint.send(write, kService, nullptr), 0);
        if (i % 50 == t) {
          EXPECT_EQ(read(endpoint), 0);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto writes = [&] {
    std::vector<ConfigIF::WriteReq> found;
    for (const Serving::Request& request : serving.requests()) {
      if (request.messageId != 0x1A0140) continue;
      found.emplace_back().ParseFromString(request.payload);
    }
    return found;
  };
  ASSERT_TRUE(eventually([&] { return writes().size() == kThreads * kEach; }));
  std::map<std::string, int> next;
  for (const ConfigIF::WriteReq& write : writes()) {
    EXPECT_EQ(write.value().values(0), std::to_string(next[write.client_name()]++));
  }
}

TEST_F(EndpointTest, ANoticeReachesEveryReceiverOfItsIdOnTheDeliveryThread) {
  Serving serving(dir.path());
  Received first;
  Received second;
  Received other;
  Endpoint endpoint("ui", options());
  endpoint.addHandlers(first.table(0x1A0143).data());
  endpoint.addHandlers(second.table(0x1A0143).data());
  endpoint.addHandlers(other.table(0x1A0253).data());
  ASSERT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
  ConfigIF::ConfigChangedNtfy notice;
  notice.set_callback_identity("link");
  serving.onServer([&](Server& server) { server.notify(serving.readyPeer(), notice, 8, ""); });
  ASSERT_TRUE(eventually([&] { return second.all().size() == 1; }));
  EXPECT_EQ(first.all(), second.all());
  EXPECT_EQ(first.all()[0], notice.SerializeAsString());
  EXPECT_EQ(first.owner, kService);
  EXPECT_NE(first.thread, std::this_thread::get_id());
  EXPECT_TRUE(other.all().empty());
}

TEST_F(EndpointTest, AReceiverMayCallAndItsRequestSaysSo) {
  Serving serving(dir.path());
  Endpoint endpoint("ui", options());
  Received received;
  std::atomic<int> status{-1};
  bool hasWaited = true;
  received.then = [&](const MSG_Message*) {
    hasWaited = endpoint.waitUntilConnected(kService, TestSupport::kPatience);
    status = read(endpoint);
  };
  endpoint.addHandlers(received.table(0x1A0143).data());
  ASSERT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
  EXPECT_EQ(read(endpoint), 0);
  serving.onServer([&](Server& server) {
    server.notify(serving.readyPeer(), ConfigIF::ConfigChangedNtfy(), 8, "");
  });
  ASSERT_TRUE(eventually([&] { return status == 0; }));
  EXPECT_FALSE(hasWaited) << "a receiver would wait for itself";
  const auto requests = serving.requests();
  EXPECT_FALSE(requests[0].insideReceiver);
  EXPECT_TRUE(requests[1].insideReceiver);
}

void answerWith(const MSG_Message* question, const std::string& text) {
  ConfigIF::DynamicValidateRsp response;
  response.mutable_result()->add_messages(text);
  MSG_Message* reply = msgUtil_buildMsgWithHeader(response, question, nullptr);
  EXPECT_EQ(MSG_SendMsg("", MSG_GetSender(question), reply), 0);
}

TEST_F(EndpointTest, AQuestionIsOverWhenAllReceiversHaveAnsweredOrNot) {
  Serving serving(dir.path());
  Received yes;
  Received no;
  Received silent;
  yes.then = [](const MSG_Message* question) { answerWith(question, "yes"); };
  no.then = [](const MSG_Message* question) { answerWith(question, "no"); };
  Endpoint endpoint("provider", options());
  for (Received* receiver : {&yes, &silent, &no}) {
    endpoint.addHandlers(receiver->table(0x1A0150).data());
  }
  ASSERT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
  ASSERT_NE(serving.ask(serving.readyPeer(), ConfigIF::DynamicValidateReq()), 0U);
  // Nobody takes this one: it is over all the same, without an answer.
  ASSERT_NE(serving.ask(serving.readyPeer(), ConfigIF::OnChangeReq()), 0U);
  ASSERT_TRUE(eventually([&] { return serving.questions().size() == 2; }));
  ASSERT_TRUE(eventually([&] { return serving.questions()[1].done; }));
  EXPECT_EQ(serving.questions()[0].answers.size(), 2U);
  EXPECT_TRUE(serving.questions()[0].done);
  EXPECT_TRUE(serving.questions()[1].answers.empty());
}

TEST_F(EndpointTest, AReplyAfterTheReceiverReturnedIsRefused) {
  Serving serving(dir.path());
  Received received;
  std::atomic<MSG_Sender> sender{0};
  std::atomic<MSG_Message*> kept{nullptr};
  received.then = [&](const MSG_Message* question) {
    kept = msgUtil_buildMsgWithHeader(ConfigIF::DynamicValidateRsp(), question, nullptr);
    sender = MSG_GetSender(question);
  };
  Endpoint endpoint("provider", options());
  endpoint.addHandlers(received.table(0x1A0150).data());
  ASSERT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
  ASSERT_NE(serving.ask(serving.readyPeer(), ConfigIF::DynamicValidateReq()), 0U);
  ASSERT_TRUE(eventually([&] { return sender != 0; }));
  EXPECT_NE(MSG_SendMsg("ConfigSrvc", sender, kept), 0);
  EXPECT_NE(MSG_SendMsg("ConfigSrvc", sender, nullptr), 0);
}

TEST_F(EndpointTest, AnOwnerNameLongerThanTheBufferIsCut) {
  Serving serving(dir.path());
  Endpoint endpoint("ui", options());
  Received received;
  char small[4] = "xxx";
  std::atomic<bool> seen{false};
  received.then = [&](const MSG_Message* message) {
    MSG_GetOwnerName(message, small, sizeof small);
    seen = true;
  };
  endpoint.addHandlers(received.table(0x1A0143).data());
  ASSERT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
  serving.onServer([&](Server& server) {
    server.notify(serving.readyPeer(), ConfigIF::ConfigChangedNtfy(), 8, "");
  });
  ASSERT_TRUE(eventually([&] { return seen.load(); }));
  EXPECT_STREQ(small, "Con");
}

TEST_F(EndpointTest, ARegistrationAfterAReadCarriesTheReadsRevision) {
  Serving serving(dir.path());
  serving.revision = 41;
  Endpoint endpoint("ui", options());
  ASSERT_EQ(registerFor(endpoint, "a"), 0);
  ASSERT_EQ(read(endpoint), 0);
  ASSERT_EQ(registerFor(endpoint, "b"), 0);
  const auto made = registrations(serving);
  EXPECT_EQ(made.front().revision, kRevisionNow);
  EXPECT_EQ(made.back().revision, 41U);
}

TEST_F(EndpointTest, RegistrationsAreRepeatedToARestartedServiceAlsoThoseItNeverHeardOf) {
  Endpoint endpoint("ui", options());
  EXPECT_EQ(registerFor(endpoint, "early"), kCallNoService);
  {
    Serving first(dir.path());
    ASSERT_TRUE(eventually([&] { return registrations(first).size() == 1; }));
    ASSERT_EQ(registerFor(endpoint, "late"), 0);
  }
  Serving second(dir.path());
  ASSERT_TRUE(eventually([&] { return registrations(second).size() == 2; }));
  EXPECT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
}

// The delivery connection is as good as before, so nothing else would make it known.
TEST_F(EndpointTest, ARegistrationWithoutAnAnswerIsRepeatedOnTheDeliveryConnection) {
  Serving serving(dir.path());
  EndpointOptions impatient = options();
  impatient.deadline = milliseconds(200);
  Endpoint endpoint("ui", impatient);
  ASSERT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
  serving.onServer([&](Server&) { serving.onRequestDo = [](Server&, const Serving::Request&) {}; });
  EXPECT_EQ(registerFor(endpoint, "a"), kCallTimedOut);
  serving.onServer([&](Server&) { serving.onRequestDo = nullptr; });
  ASSERT_TRUE(eventually([&] { return registrations(serving).size() == 2; }));
  EXPECT_EQ(registrations(serving)[0].payload, registrations(serving)[1].payload);
}

TEST_F(EndpointTest, ARegistrationThatCannotBeSentIsNotRepeatedEither) {
  Endpoint endpoint("ui", options());
  const std::string tooLong(kMaxPayloadBytes, 'x');
  {
    Serving first(dir.path());
    EXPECT_EQ(registerFor(endpoint, tooLong), kCallBadRequest);
    ASSERT_EQ(registerFor(endpoint, "a"), 0);
  }
  Serving second(dir.path());
  ASSERT_TRUE(eventually([&] { return !registrations(second).empty(); }));
  EXPECT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
  EXPECT_EQ(registrations(second).size(), 1U);
}

TEST_F(EndpointTest, AServiceOfAnotherEpochIsAskedForEverything) {
  Endpoint endpoint("ui", options());
  {
    Serving first(dir.path(), 1);
    ASSERT_EQ(read(endpoint), 0);
    ASSERT_EQ(registerFor(endpoint, "a"), 0);
    ASSERT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
  }
  Serving second(dir.path(), 2);
  ASSERT_TRUE(eventually([&] { return registrations(second).size() == 1; }));
  EXPECT_EQ(registrations(second)[0].revision, kRevisionNone);
}

TEST_F(EndpointTest, WithdrawnRegistrationsAreNotRepeated) {
  Endpoint endpoint("ui", options());
  {
    Serving first(dir.path());
    for (const char* name : {"a", "b", ""}) ASSERT_EQ(registerFor(endpoint, name), 0);
    for (const char* name : {"a", ""}) {
      ConfigIF::UnregisterClientCallbackReq withdrawal;
      withdrawal.set_client_name("me");
      withdrawal.set_role(CommonIF::SECURITY_ROLE_FACTORY);
      withdrawal.set_name(name);
      ASSERT_EQ(endpoint.send(withdrawal, kService, nullptr), 0);
    }
  }
  Serving second(dir.path());
  ASSERT_TRUE(eventually([&] { return !registrations(second).empty(); }));
  ASSERT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
  ASSERT_EQ(registrations(second).size(), 1U);
  ConfigIF::RegisterClientCallbackReq left;
  ASSERT_TRUE(left.ParseFromString(registrations(second)[0].payload));
  EXPECT_EQ(left.name(), "b");
}

TEST_F(EndpointTest, AnEndpointMayStartBeforeItsService) {
  Endpoint endpoint("ui", options());
  Received received;
  endpoint.addHandlers(received.table(0x1A0143).data());
  endpoint.addRemoteEndpoint(kService, -1);
  EXPECT_FALSE(endpoint.waitUntilConnected(kService, milliseconds(20)));
  Serving serving(dir.path());
  EXPECT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
}

TEST_F(EndpointTest, OneEndpointSpeaksWithTwoServices) {
  ServerOptions second;
  second.runtimeDir = dir.path();
  second.name = "/engine/ConfigSrvc";
  Serving local(dir.path());
  Serving engine(second);
  Endpoint endpoint("ui", options());
  EXPECT_TRUE(endpoint.waitUntilConnected(kService, TestSupport::kPatience));
  EXPECT_TRUE(endpoint.waitUntilConnected("/engine/ConfigSrvc", TestSupport::kPatience));
  ConfigIF::ReadRsp response;
  EXPECT_EQ(endpoint.sendWaitResponse(ConfigIF::ReadReq(), &response, "/engine/ConfigSrvc"), 0);
  EXPECT_EQ(engine.requests().size(), 1U);
  EXPECT_TRUE(local.requests().empty());
}

TEST_F(EndpointTest, CallsOfOneThreadShareOneConnectionWithOneFrameEach) {
  Serving serving(dir.path());
  Endpoint endpoint("ui", options());
  constexpr std::size_t kCalls = 200;
  for (std::size_t i = 0; i < kCalls; ++i) ASSERT_EQ(read(endpoint), 0);
  const auto requests = serving.requests();
  ASSERT_EQ(requests.size(), kCalls);
  for (const Serving::Request& request : requests) {
    EXPECT_EQ(request.id.connection, requests[0].id.connection);
  }
}

}  // namespace
}  // namespace PbUtility
