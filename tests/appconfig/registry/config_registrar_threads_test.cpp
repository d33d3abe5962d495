// Many threads on one registrar. What they assert holds only when every operation is one step; what
// they touch is what the thread sanitizer watches.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "appconfig/registry/config_registrar.h"
#include "tests/appconfig/registry/recording_handlers.h"
#include "tests/support/threads.h"

namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

using TestSupport::Threads;

constexpr int kRounds = 2000;
constexpr auto kValueChanges = ConfigRegistrar::eValueChanged;
constexpr auto kOptions = ConfigRegistrar::eOptionsChanged;

TEST(ConfigRegistrarThreadsTest, LookupsFindWhatStaysWhileOthersComeAndGo) {
  const ConfigVar mtu("net", 0, "mtu", 0);
  ConfigRegistrar registrar;
  TestConsumer ofGroup, ofVariable, first, second;
  registrar.registerHandler(mtu, &ofVariable, kValueChanges);
  registrar.registerHandler(ConfigVar("net", 0, "", 0), &ofGroup, kValueChanges);
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};

  Threads readers;
  for (int reader = 0; reader < 2; ++reader) {
    readers.run([&] {
      while (!done) {
        const std::list<ConsumerConfigHandler*> found =
            registrar.getHandlers("Net", "MTU", kValueChanges);
        if (found.size() < 2 || found.front() != &ofVariable || found.back() != &ofGroup) ++wrong;
        if (!registrar.isHandlerRegistered(mtu, kValueChanges)) ++wrong;
      }
    });
  }
  Threads writers;
  for (TestConsumer* handler : {&first, &second}) {
    writers.run([&registrar, &wrong, &mtu, handler] {
      for (int round = 0; round < kRounds; ++round) {
        registrar.registerHandler(mtu, handler, kValueChanges);
        if (!registrar.unregisterHandler(mtu, handler, kValueChanges)) ++wrong;
        registrar.registerHandler(ConfigVar("new", 0, std::to_string(round), 0), handler,
                                  kValueChanges);
      }
    });
  }
  writers.join();
  done = true;
  readers.join();

  EXPECT_EQ(wrong, 0);
  EXPECT_THAT(registrar.getHandlers("net", "mtu", kValueChanges),
              ElementsAre(&ofVariable, &ofGroup));
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_THAT(registrar.getHandlers("new", std::to_string(round), kValueChanges),
                UnorderedElementsAre(&first, &second));
  }
}

TEST(ConfigRegistrarThreadsTest, NoRegistrationIsLost) {
  constexpr int kWriters = 4;
  const ConfigVar mtu("net", 0, "mtu", 0);
  ConfigRegistrar registrar;
  std::vector<TestConsumer> consumers(kWriters);
  std::vector<TestProvider> providers(kWriters);
  Threads writers;
  for (std::size_t writer = 0; writer < kWriters; ++writer) {
    writers.run([&, writer] {
      for (int round = 0; round < kRounds; ++round) {
        registrar.registerHandler(mtu, &consumers[writer],
                                  round % 2 == 0 ? kValueChanges : kOptions);
        registrar.registerHandler(mtu, &providers[writer]);
      }
    });
  }
  writers.join();
  EXPECT_EQ(registrar.getHandlers("net", "mtu", kValueChanges).size(), 1u * kWriters * kRounds / 2);
  EXPECT_EQ(registrar.getHandlers("net", "mtu", kOptions).size(), 1u * kWriters * kRounds / 2);
  EXPECT_EQ(registrar.getProviderHandlers("net", "mtu").size(), 1u * kWriters * kRounds);
}

TEST(ConfigRegistrarThreadsTest, TwoRegistrarsCanBeUsedAtOnce) {
  ConfigRegistrar registrars[2];
  TestProvider providers[2];
  Threads threads;
  for (std::size_t i = 0; i < 2; ++i) {
    threads.run([&, i] {
      for (int round = 0; round < kRounds; ++round) {
        registrars[i].registerHandler(ConfigVar("g", 0, std::to_string(round), 0), &providers[i]);
        registrars[1 - i].getProviderHandlers("g", std::to_string(round));
      }
    });
  }
  threads.join();
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_THAT(registrars[i].getProviderHandlers("g", std::to_string(kRounds - 1)),
                ElementsAre(&providers[i]));
  }
}

}  // namespace
