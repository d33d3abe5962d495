// What ends with a subscription, and what its end waits for. The test is the delivery thread here, or
// starts one: it hands messages to the receivers itself, so that it says what runs when.
#include "appconfig/registry/subscription.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/registration.h"
#include "appconfig/service/platform_cfg_service.h"
#include "tests/support/eventually.h"
#include "tests/support/recording_handlers.h"
#include "tests/support/scripted_service.h"
#include "tests/support/threads.h"

namespace {

using AppConfig::AppCfgManager;
using AppConfig::Subscription;
using TestSupport::eventually;
using TestSupport::RecordingConsumer;
using TestSupport::RecordingProvider;
using TestSupport::ScriptedPbUtils;
using TestSupport::Threads;

// Long enough for a thread that does not wait to be seen not waiting.
constexpr std::chrono::milliseconds kMoment(30);

// Does something when it is told of a value.
class Doing final : public ConsumerConfigHandler {
 public:
  explicit Doing(std::function<void()> task) : task_(std::move(task)) {}
  void configChanged(const std::string&, int, const std::string&, int,
                     const std::list<std::string>&, const std::string&) override {
    ++calls;
    if (task_) task_();
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }
  std::atomic<int> calls{0};

 private:
  const std::function<void()> task_;
};

// Messages reach the process-wide links alone; ctest gives each case a process of its own.
class SubscriptionTest : public ::testing::Test {
 protected:
  SubscriptionTest() { manager->setPbInterface(&pb); }

  static void tellChange() {
    pb.deliver(TestSupport::kConfigChangedId, TestSupport::changeNotice(mtu, {"1400"}));
  }
  static void askToValidate() {
    ConfigIF::DynamicValidateReq question;
    question.set_role(CommonIF::SECURITY_ROLE_USER);
    *question.mutable_value() = TestSupport::instValue(mtu, {"1400"});
    pb.deliver(TestSupport::kDynamicValidateId, question);
    TestSupport::takeReplies();
  }

  // One for all cases, as the link keeps pointing to it.
  static ScriptedPbUtils pb;
  static const ConfigVar mtu;
  AppCfgManager* const manager = AppCfgManager::getLocalCfgManager();
  RecordingConsumer consumer;
  RecordingProvider provider;
};

ScriptedPbUtils SubscriptionTest::pb;
const ConfigVar SubscriptionTest::mtu{"net", 0, "mtu", 0};

TEST_F(SubscriptionTest, AHandlerIsCalledUntilItsSubscriptionEnds) {
  Subscription ofVariable("Net", "MTU", &consumer, manager);
  Subscription ofProvider("net", "mtu", &provider, manager);
  tellChange();
  askToValidate();
  EXPECT_EQ(consumer.lines.take().size(), 1U);
  EXPECT_EQ(provider.lines.take().size(), 1U);
  ofVariable.end();
  ofProvider.end();
  tellChange();
  askToValidate();
  EXPECT_TRUE(consumer.lines.take().empty());
  EXPECT_TRUE(provider.lines.take().empty());
}

TEST_F(SubscriptionTest, AHandlerOfAGroupIsCalledUntilItsSubscriptionIsDestroyed) {
  {
    const Subscription ofConsumer("net", &consumer, manager);
    const Subscription ofProvider("net", &provider, manager);
    tellChange();
    askToValidate();
  }
  EXPECT_EQ(consumer.lines.take().size(), 1U);
  EXPECT_EQ(provider.lines.take().size(), 1U);
  tellChange();
  askToValidate();
  EXPECT_TRUE(consumer.lines.take().empty());
  EXPECT_TRUE(provider.lines.take().empty());
}

TEST_F(SubscriptionTest, EveryKindOfNoticeEndsWithIt) {
  Subscription told("net", "mtu", &consumer, manager);
  told.end();
  for (const auto type : {ConfigRegistrar::eValueChanged, ConfigRegistrar::eAttributeChanged,
                          ConfigRegistrar::eOptionsChanged, ConfigRegistrar::eSubmit,
                          ConfigRegistrar::eAccessLevelsChanged}) {
    EXPECT_FALSE(manager->getPlatformCfgService()->isHandlerRegistered(mtu, type)) << type;
  }
}

TEST_F(SubscriptionTest, WithoutAServiceItBeginsAndEndsAllTheSame) {
  pb.failAll();
  Subscription told("net", "mtu", &consumer, manager);
  tellChange();
  EXPECT_EQ(consumer.lines.take().size(), 1U);
  told.end();
  tellChange();
  EXPECT_TRUE(consumer.lines.take().empty());
  pb.succeed();
}

TEST_F(SubscriptionTest, TheServiceIsToldNothingOfAnEnd) {
  Subscription told("net", "mtu", &consumer, manager);
  pb.takeSent();
  told.end();
  EXPECT_TRUE(pb.takeSent().empty());
}

TEST_F(SubscriptionTest, OneOfNothingEndsAsOftenAsYouLike) {
  Subscription none;
  Subscription ofNull("net", static_cast<ConsumerConfigHandler*>(nullptr), manager);
  EXPECT_FALSE(none);
  EXPECT_FALSE(ofNull);
  none.end();
  ofNull.end();
  Subscription told("net", &consumer, manager);
  EXPECT_TRUE(told);
  told.end();
  told.end();
  EXPECT_FALSE(told);
}

TEST_F(SubscriptionTest, ItMovesWithItsRegistration) {
  Subscription first("net", "mtu", &consumer, manager);
  Subscription second(std::move(first));
  EXPECT_TRUE(second);
  Subscription third("net", "mtu", &provider, manager);
  third = std::move(second);
  tellChange();
  askToValidate();
  EXPECT_EQ(consumer.lines.take().size(), 1U);
  EXPECT_TRUE(provider.lines.take().empty()) << "what was assigned to has ended";
  Subscription& same = third;
  third = std::move(same);
  EXPECT_TRUE(third);
}

TEST_F(SubscriptionTest, OneOfTwoOfTheSameHandlerEndsAlone) {
  Subscription once("net", "mtu", &consumer, manager);
  Subscription again("net", "mtu", &consumer, manager);
  const Subscription ofGroup("net", &consumer, manager);
  tellChange();
  EXPECT_EQ(consumer.lines.take().size(), 3U);
  once.end();
  tellChange();
  EXPECT_EQ(consumer.lines.take().size(), 2U);
  again.end();
  tellChange();
  EXPECT_EQ(consumer.lines.take().size(), 1U);
}

TEST_F(SubscriptionTest, WhatWasUnregisteredByHandEndsAsWell) {
  Subscription told("net", "mtu", &consumer, manager);
  unregisterHandler("net", "mtu", &consumer, manager);
  told.end();
  tellChange();
  EXPECT_TRUE(consumer.lines.take().empty());
}

TEST_F(SubscriptionTest, AnEndWaitsForTheCallThatIsRunning) {
  std::atomic<bool> isEnding{false};
  bool hasReturned = false;  // Not atomic: the end has to order it before what follows.
  Doing slow([&] {
    EXPECT_TRUE(eventually([&] { return isEnding.load(); }));
    std::this_thread::sleep_for(kMoment);
    hasReturned = true;
  });
  Subscription told("net", "mtu", &slow, manager);
  Threads delivery;
  delivery.run(tellChange);
  ASSERT_TRUE(eventually([&] { return slow.calls == 1; }));
  isEnding = true;
  told.end();
  EXPECT_TRUE(hasReturned);
}

TEST_F(SubscriptionTest, AnEndWaitsForAProvidersAnswerThatIsOnItsWay) {
  std::atomic<bool> isAsked{false};
  std::atomic<bool> isEnding{false};
  bool hasReturned = false;
  provider.verdict = [&](ConfigResult*) {
    isAsked = true;
    EXPECT_TRUE(eventually([&] { return isEnding.load(); }));
    std::this_thread::sleep_for(kMoment);
    hasReturned = true;
    return true;
  };
  Subscription asked("net", &provider, manager);
  Threads delivery;
  delivery.run(askToValidate);
  ASSERT_TRUE(eventually([&] { return isAsked.load(); }));
  isEnding = true;
  asked.end();
  EXPECT_TRUE(hasReturned);
}

TEST_F(SubscriptionTest, AnEndDoesNotWaitForOtherHandlers) {
  std::atomic<bool> goesOn{false};
  Doing slow([&] { EXPECT_TRUE(eventually([&] { return goesOn.load(); })); });
  const Subscription ofSlow("net", "mtu", &slow, manager);
  Subscription told("net", "mtu", &consumer, manager);
  Threads delivery;
  delivery.run(tellChange);
  ASSERT_TRUE(eventually([&] { return slow.calls == 1; }));
  told.end();
  goesOn = true;
  delivery.join();
  EXPECT_TRUE(consumer.lines.take().empty()) << "its turn was to come";
}

// The one that runs began before; those behind it are on account of the other subscription.
TEST_F(SubscriptionTest, AnEndDoesNotWaitForCallsThatComeLater) {
  std::atomic<bool> isOver{false};
  Doing busy({});
  const Subscription other("net", &busy, manager);
  Threads delivery;
  delivery.run([&] {
    while (!isOver) tellChange();
  });
  for (int round = 0; round < 1000; ++round) {
    Subscription told("net", "mtu", &busy, manager);
    told.end();
  }
  isOver = true;
}

// The next call begins in the moment in which the one before returns, and an end that had waited for
// that one before it took the handler out would miss it.
TEST_F(SubscriptionTest, NoCallRunsBehindAnEndHoweverCloselyTheyFollowEachOther) {
  std::atomic<bool> isInside{false};
  std::atomic<bool> isOver{false};
  Doing slow([&] {
    isInside = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    isInside = false;
  });
  Threads delivery;
  delivery.run([&] {
    while (!isOver) tellChange();
  });
  for (int round = 0; round < 20; ++round) {
    const int before = slow.calls;
    Subscription told("net", "mtu", &slow, manager);
    EXPECT_TRUE(eventually([&] { return slow.calls > before; }));
    told.end();
    EXPECT_FALSE(isInside) << "round " << round;
  }
  isOver = true;
}

TEST_F(SubscriptionTest, AHandlerMayEndItsOwnAndDeleteItself) {
  struct Leaving final : RecordingConsumer {
    explicit Leaving(bool& gone) : isGone(gone) {}
    ~Leaving() override { isGone = true; }
    void configChanged(const std::string&, int, const std::string&, int,
                       const std::list<std::string>&, const std::string&) override {
      own.end();
      delete this;
    }
    bool& isGone;
    Subscription own;
  };
  bool isGone = false;
  auto* leaving = new Leaving(isGone);
  leaving->own = Subscription("net", "mtu", leaving, manager);
  const Subscription others("net", &consumer, manager);
  tellChange();
  EXPECT_TRUE(isGone);
  EXPECT_EQ(consumer.lines.take().size(), 1U) << "the others are told";
  tellChange();
  EXPECT_EQ(consumer.lines.take().size(), 1U);
}

TEST_F(SubscriptionTest, AHandlerThatWasEndedInsideAnotherIsNotCalledForTheSameNotice) {
  auto second = std::make_unique<RecordingConsumer>();
  Subscription ofSecond;
  Doing first([&] {
    ofSecond.end();
    second.reset();
  });
  const Subscription ofFirst("net", "mtu", &first, manager);
  ofSecond = Subscription("net", "mtu", second.get(), manager);
  const Subscription ofThird("net", "mtu", &consumer, manager);
  tellChange();
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(consumer.lines.take().size(), 1U);
}

TEST_F(SubscriptionTest, AProviderThatWasEndedInsideAnotherIsNotAskedThen) {
  auto second = std::make_unique<RecordingProvider>();
  Subscription ofSecond;
  provider.verdict = [&](ConfigResult*) {
    ofSecond.end();
    second.reset();
    return true;
  };
  const Subscription ofFirst("net", "mtu", &provider, manager);
  ofSecond = Subscription("net", &*second, manager);
  askToValidate();
  EXPECT_EQ(second, nullptr);
}

TEST_F(SubscriptionTest, OfTwoOfAHandlerThatIsYetToBeCalledOneEndsAlone) {
  Subscription once;
  Doing ending([&] { once.end(); });
  const Subscription first("net", "mtu", &ending, manager);
  once = Subscription("net", "mtu", &consumer, manager);
  const Subscription again("net", &consumer, manager);
  tellChange();
  EXPECT_EQ(consumer.lines.take().size(), 1U);
}

// As with two endpoints: each handler runs on a delivery thread of its own.
TEST_F(SubscriptionTest, TwoHandlersThatEndEachOtherBothReturn) {
  for (int round = 0; round < 100; ++round) {
    std::atomic<int> running{0};
    Subscription ofOne;
    Subscription ofOther;
    const auto bothRun = [&] {
      ++running;
      EXPECT_TRUE(eventually([&] { return running == 2; }));
    };
    Doing one([&] {
      bothRun();
      ofOther.end();
    });
    Doing other([&] {
      bothRun();
      ofOne.end();
    });
    ofOne = Subscription("net", "mtu", &one, manager);
    ofOther = Subscription("net", "speed", &other, manager);
    Threads delivery;
    delivery.run(tellChange);
    delivery.run([] {
      const ConfigVar speed("net", 0, "speed", 0);
      pb.deliver(TestSupport::kConfigChangedId, TestSupport::changeNotice(speed, {"1"}));
    });
    delivery.join();
    EXPECT_EQ(one.calls + other.calls, 2);
  }
}

// The calls of the parent's other threads are not the child's to wait for, nor is the lock theirs.
TEST_F(SubscriptionTest, AChildEndsWhatItsParentIsStillCalling) {
  std::atomic<bool> goesOn{false};
  Doing slow([&] { EXPECT_TRUE(eventually([&] { return goesOn.load(); })); });
  Subscription told("net", "mtu", &slow, manager);
  Threads delivery;
  delivery.run(tellChange);
  ASSERT_TRUE(eventually([&] { return slow.calls == 1; }));
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    told.end();
    _exit(0);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  goesOn = true;
}

TEST_F(SubscriptionTest, AChildThatWasMadeInAHandlerEndsItsSubscription) {
  Subscription told;
  int status = -1;
  Doing forking([&] {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      told.end();
      _exit(0);
    }
    EXPECT_EQ(waitpid(child, &status, 0), child);
  });
  told = Subscription("net", "mtu", &forking, manager);
  tellChange();
  EXPECT_EQ(status, 0);
}

// Without the wait, or with a walk that does not look again, some of these are called when they are
// over, and a sanitizer sees that they are gone.
TEST_F(SubscriptionTest, AThousandComeAndGoWhileNoticesCome) {
  struct Mortal final : RecordingConsumer {
    explicit Mortal(std::atomic<int>& lateCalls) : late(lateCalls) {
      onConfigChanged = [this] {
        if (!isAlive) ++late;
      };
    }
    ~Mortal() override { isAlive = false; }
    std::atomic<bool> isAlive{true};
    std::atomic<int>& late;
  };
  std::atomic<bool> isOver{false};
  std::atomic<int> late{0};
  std::deque<Mortal> kept;
  Threads delivery;
  delivery.run([&] {
    while (!isOver) tellChange();
  });
  for (int round = 0; round < 1000; ++round) {
    Mortal& first = kept.emplace_back(late);
    Subscription ofFirst("net", "mtu", &first, manager);
    auto second = std::make_unique<Mortal>(late);
    Subscription ofSecond("net", second.get(), manager);
    if (round % 8 == 0) std::this_thread::yield();
    ofFirst.end();
    first.isAlive = false;
    ofSecond.end();
    second.reset();
  }
  isOver = true;
  delivery.join();
  EXPECT_EQ(late, 0);
}

}  // namespace
