#include "appconfig/registry/config_registrar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <type_traits>

#include "tests/appconfig/registry/recording_handlers.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(!std::is_polymorphic_v<ConfigRegistrar>);
static_assert(sizeof(ConfigRegistrar) == 2 * sizeof(std::map<int, int>),
              "a registrar holds its two maps and nothing else");
static_assert(
    std::is_same_v<std::underlying_type_t<ConfigRegistrar::ConsumerCallbackType>, std::int32_t>);

constexpr auto kValue = ConfigRegistrar::eValueChanged;

class ConfigRegistrarTest : public ::testing::Test {
 protected:
  using Consumers = std::list<ConsumerConfigHandler*>;
  using Providers = std::list<ProviderConfigHandler*>;

  static ConfigVar var(const std::string& group, const std::string& name) {
    return ConfigVar(group, 0, name, 0);
  }
  void consumer(const std::string& group, const std::string& name, ConsumerConfigHandler* handler) {
    registrar_.registerHandler(var(group, name), handler, kValue);
  }
  void provider(const std::string& group, const std::string& name, ProviderConfigHandler* handler) {
    registrar_.registerHandler(var(group, name), handler);
  }
  Consumers consumers(const std::string& group, const std::string& name) {
    return registrar_.getHandlers(group, name, kValue);
  }
  Providers providers(const std::string& group, const std::string& name) {
    return registrar_.getProviderHandlers(group, name);
  }

  TestConsumer h1_, h2_, h3_;
  TestProvider p1_, p2_, p3_;
  ConfigRegistrar registrar_;
};

TEST(ConsumerCallbackTypeTest, TheFiveTypesAreNumberedFromZero) {
  EXPECT_EQ(ConfigRegistrar::eValueChanged, 0);
  EXPECT_EQ(ConfigRegistrar::eAttributeChanged, 1);
  EXPECT_EQ(ConfigRegistrar::eOptionsChanged, 2);
  EXPECT_EQ(ConfigRegistrar::eSubmit, 3);
  EXPECT_EQ(ConfigRegistrar::eAccessLevelsChanged, 4);
}

TEST_F(ConfigRegistrarTest, AFreshRegistrarKnowsNobody) {
  EXPECT_THAT(consumers("net", "mtu"), IsEmpty());
  EXPECT_THAT(providers("net", "mtu"), IsEmpty());
  EXPECT_FALSE(registrar_.isHandlerRegistered(var("net", "mtu"), kValue));
  EXPECT_FALSE(registrar_.isProviderHandlerRegistered(var("net", "mtu")));
}

TEST_F(ConfigRegistrarTest, AConsumerIsFoundByNamesInCapitals) {
  consumer("net", "mtu", &h1_);
  EXPECT_THAT(consumers("NET", "MTU"), ElementsAre(&h1_));
}

TEST_F(ConfigRegistrarTest, AHandlerIsFoundForEveryInstanceAndNamespace) {
  registrar_.registerHandler(ConfigVar(2, "Net", 7, "MTU", 8), &h1_, kValue);
  registrar_.registerHandler(ConfigVar(2, "Net", 7, "MTU", 8), &p1_);
  EXPECT_TRUE(registrar_.isHandlerRegistered(ConfigVar(0, "net", -1, "mtu", 3), kValue));
  EXPECT_TRUE(registrar_.isProviderHandlerRegistered(ConfigVar(0, "net", -1, "mtu", 3)));
  EXPECT_THAT(consumers("net", "mtu"), ElementsAre(&h1_));
  EXPECT_THAT(providers("net", "mtu"), ElementsAre(&p1_));
}

TEST_F(ConfigRegistrarTest, RegistrationsThatDifferOnlyInInstancesShareOneList) {
  registrar_.registerHandler(ConfigVar("net", 1, "mtu", 1), &h1_, kValue);
  registrar_.registerHandler(ConfigVar("net", 2, "mtu", 2), &h2_, kValue);
  EXPECT_THAT(consumers("net", "mtu"), ElementsAre(&h1_, &h2_));
  EXPECT_TRUE(registrar_.unregisterHandler(ConfigVar("net", 3, "mtu", 3), &h1_, kValue));
  EXPECT_THAT(consumers("net", "mtu"), ElementsAre(&h2_));
}

TEST_F(ConfigRegistrarTest, AGroupCoversItselfAndTheGroupsBelowButNotNamesItBegins) {
  consumer("net", "", &h1_);
  EXPECT_THAT(consumers("net", "mtu"), ElementsAre(&h1_));
  EXPECT_THAT(consumers("net.eth0", "mtu"), ElementsAre(&h1_));
  EXPECT_THAT(consumers("net.eth0.ip.v6", "mtu"), ElementsAre(&h1_));
  EXPECT_THAT(consumers("net", ""), ElementsAre(&h1_));
  EXPECT_THAT(consumers("network", "mtu"), IsEmpty());
  EXPECT_THAT(consumers("a.net", "mtu"), IsEmpty());
  EXPECT_THAT(consumers("ne", "t"), IsEmpty());
}

TEST_F(ConfigRegistrarTest, ALongerGroupDoesNotCoverAShorterOne) {
  consumer("net.eth0", "", &h1_);
  EXPECT_THAT(consumers("net", "mtu"), IsEmpty());
  EXPECT_THAT(consumers("net", "eth0"), ElementsAre(&h1_));
}

TEST_F(ConfigRegistrarTest, HandlersOfTheVariableComeBeforeThoseOfItsGroup) {
  consumer("net", "", &h2_);
  consumer("net", "mtu", &h1_);
  EXPECT_THAT(consumers("net", "mtu"), ElementsAre(&h1_, &h2_));
}

TEST_F(ConfigRegistrarTest, OuterGroupsComeBeforeInnerOnes) {
  consumer("a.b", "", &h3_);
  consumer("a", "", &h2_);
  consumer("a.b", "c", &h1_);
  EXPECT_THAT(consumers("a.b", "c"), ElementsAre(&h1_, &h2_, &h3_));
}

TEST_F(ConfigRegistrarTest, AHandlerOfTheVariableAndOfItsGroupIsReturnedTwice) {
  consumer("net", "mtu", &h1_);
  consumer("net", "", &h1_);
  EXPECT_THAT(consumers("net", "mtu"), ElementsAre(&h1_, &h1_));
}

TEST_F(ConfigRegistrarTest, NamesThatJoinToTheSameTextFindEachOther) {
  provider("a.b", "c", &p2_);
  provider("a", "b.c", &p1_);
  provider("a.b.c", "", &p3_);
  EXPECT_THAT(providers("a.b", "c"), ElementsAre(&p1_, &p2_, &p3_));
  EXPECT_THAT(providers("a", "b.c"), ElementsAre(&p1_, &p2_, &p3_));
  EXPECT_THAT(providers("a.b.c", ""), ElementsAre(&p1_, &p2_, &p3_));
}

TEST_F(ConfigRegistrarTest, EmptyNamesAndStrayDotsAreOrdinaryNames) {
  provider("", "mtu", &p1_);
  provider("", "", &p2_);
  EXPECT_THAT(providers("", "mtu"), ElementsAre(&p1_, &p2_));
  EXPECT_THAT(providers(".mtu", ""), ElementsAre(&p1_, &p2_));
  EXPECT_THAT(providers("", ""), ElementsAre(&p2_));
  EXPECT_THAT(providers("mtu", ""), IsEmpty());
  provider("a.", "", &p3_);
  EXPECT_THAT(providers("a.", "x"), ElementsAre(&p3_));
  EXPECT_THAT(providers("a..b", "x"), ElementsAre(&p3_));
  EXPECT_THAT(providers("a", "x"), IsEmpty());
}

TEST_F(ConfigRegistrarTest, UnregisteringOnceRemovesADoubleRegistrationWhole) {
  consumer("net", "mtu", &h1_);
  consumer("net", "mtu", &h1_);
  EXPECT_THAT(consumers("net", "mtu"), ElementsAre(&h1_, &h1_));
  EXPECT_TRUE(registrar_.unregisterHandler(var("net", "mtu"), &h1_, kValue));
  EXPECT_FALSE(registrar_.isHandlerRegistered(var("net", "mtu"), kValue));
  EXPECT_FALSE(registrar_.unregisterHandler(var("net", "mtu"), &h1_, kValue));
}

TEST_F(ConfigRegistrarTest, UnregisteringAProviderOnceRemovesADoubleRegistrationWhole) {
  provider("net", "mtu", &p1_);
  provider("net", "mtu", &p2_);
  provider("net", "mtu", &p1_);
  EXPECT_TRUE(registrar_.unregisterHandler(var("net", "mtu"), &p1_));
  EXPECT_THAT(providers("net", "mtu"), ElementsAre(&p2_));
  EXPECT_FALSE(registrar_.unregisterHandler(var("net", "mtu"), &p1_));
}

TEST_F(ConfigRegistrarTest, AMarkerCountsAsRegisteredAndIsNotReturned) {
  consumer("net", "mtu", nullptr);
  EXPECT_TRUE(registrar_.isHandlerRegistered(var("net", "mtu"), kValue));
  EXPECT_THAT(consumers("net", "mtu"), IsEmpty());
}

TEST_F(ConfigRegistrarTest, AMarkerOfTheGroupCountsForItsVariables) {
  consumer("net", "", nullptr);
  provider("net", "", nullptr);
  EXPECT_TRUE(registrar_.isHandlerRegistered(var("net.eth0", "mtu"), kValue));
  EXPECT_TRUE(registrar_.isProviderHandlerRegistered(var("net.eth0", "mtu")));
  EXPECT_THAT(providers("net.eth0", "mtu"), IsEmpty());
}

TEST_F(ConfigRegistrarTest, UnregisteringNullRemovesTheMarkersAlone) {
  consumer("net", "mtu", nullptr);
  consumer("net", "mtu", &h1_);
  consumer("net", "mtu", nullptr);
  EXPECT_TRUE(registrar_.unregisterHandler(var("net", "mtu"),
                                           static_cast<ConsumerConfigHandler*>(nullptr), kValue));
  EXPECT_FALSE(registrar_.unregisterHandler(var("net", "mtu"),
                                            static_cast<ConsumerConfigHandler*>(nullptr), kValue));
  EXPECT_THAT(consumers("net", "mtu"), ElementsAre(&h1_));
}

TEST_F(ConfigRegistrarTest, UnregisteringForAVariableNeverRegisteredReturnsFalse) {
  EXPECT_FALSE(registrar_.unregisterHandler(var("net", "mtu"), &h1_, kValue));
  EXPECT_FALSE(registrar_.unregisterHandler(var("net", "mtu"), &p1_));
  EXPECT_FALSE(registrar_.isHandlerRegistered(var("net", "mtu"), kValue));
  EXPECT_FALSE(registrar_.isProviderHandlerRegistered(var("net", "mtu")));
}

TEST_F(ConfigRegistrarTest, UnregisteringFromAGroupLeavesTheVariablesOwnRegistration) {
  consumer("net", "mtu", &h1_);
  consumer("net", "", &h1_);
  EXPECT_TRUE(registrar_.unregisterHandler(var("net", ""), &h1_, kValue));
  EXPECT_THAT(consumers("net", "mtu"), ElementsAre(&h1_));
}

TEST_F(ConfigRegistrarTest, AHandlerOfOneTypeIsNotReturnedForAnother) {
  registrar_.registerHandler(var("net", "mtu"), &h1_, ConfigRegistrar::eOptionsChanged);
  EXPECT_THAT(consumers("net", "mtu"), IsEmpty());
  EXPECT_FALSE(registrar_.isHandlerRegistered(var("net", "mtu"), kValue));
  EXPECT_FALSE(registrar_.unregisterHandler(var("net", "mtu"), &h1_, kValue));
  EXPECT_THAT(registrar_.getHandlers("net", "mtu", ConfigRegistrar::eOptionsChanged),
              ElementsAre(&h1_));
}

TEST_F(ConfigRegistrarTest, TwoRegistrarsKnowNothingOfEachOther) {
  ConfigRegistrar other;
  other.registerHandler(var("net", "mtu"), &h1_, kValue);
  EXPECT_THAT(consumers("net", "mtu"), IsEmpty());
}

TEST_F(ConfigRegistrarTest, AHandlerMayUnregisterItselfWhileItIsCalled) {
  consumer("net", "mtu", &h1_);
  consumer("net", "mtu", &h2_);
  h1_.onConfigChanged = [this] {
    EXPECT_TRUE(registrar_.unregisterHandler(var("net", "mtu"), &h1_, kValue));
  };
  int others = 0;
  h2_.onConfigChanged = [&others] { ++others; };
  for (ConsumerConfigHandler* handler : consumers("net", "mtu"))
    handler->configChanged("net", 0, "mtu", 0, {"1500"}, "identity");
  EXPECT_EQ(others, 1);
  EXPECT_THAT(consumers("net", "mtu"), ElementsAre(&h2_));
}

TEST_F(ConfigRegistrarTest, TheLookupWorksOnAMapOfTheCallersOwn) {
  ConfigRegistrar::HandlerMap<ProviderConfigHandler> own;
  own[var("net", "mtu")] = {&p1_, nullptr, &p1_};
  own[var("net", "")] = {nullptr, &p2_};
  EXPECT_THAT(registrar_.getHandlers<ProviderConfigHandler>(var("net", "mtu"), own, true),
              ElementsAre(&p1_, nullptr, &p1_, nullptr, &p2_));
  EXPECT_THAT(registrar_.getHandlers<ProviderConfigHandler>(var("net", "mtu"), own, false),
              ElementsAre(&p1_, &p1_, &p2_));
  EXPECT_THAT(providers("net", "mtu"), IsEmpty());
}

// A walk over all registrations would cost a thousand times as much in the larger map; the search
// costs two or three times as much. The bound lies far from both.
TEST_F(ConfigRegistrarTest, ALookupDoesNotWalkAllRegistrations) {
  const auto fill = [this](int count) {
    ConfigRegistrar::HandlerMap<ProviderConfigHandler> map;
    for (int i = 0; i < count; ++i) map[var("group" + std::to_string(i), "name")] = {&p1_};
    return map;
  };
  auto few = fill(100);
  auto many = fill(100000);
  const auto fastest = [this](ConfigRegistrar::HandlerMap<ProviderConfigHandler>& map) {
    auto best = std::chrono::steady_clock::duration::max();
    for (int repetition = 0; repetition < 5; ++repetition) {
      const auto start = std::chrono::steady_clock::now();
      for (int i = 0; i < 100; ++i) {
        const ConfigVar looked = var("group" + std::to_string(i), "name");
        EXPECT_EQ(registrar_.getHandlers<ProviderConfigHandler>(looked, map, false).size(), 1u);
      }
      best = std::min(best, std::chrono::steady_clock::now() - start);
    }
    return best;
  };
  EXPECT_LT(fastest(many), 50 * fastest(few));
}

}  // namespace
