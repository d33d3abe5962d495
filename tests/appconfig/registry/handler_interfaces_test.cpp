// The handler interfaces are shared by programs that are built apart: where an operation sits in
// the table of virtual operations is as fixed as what it does.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "tests/appconfig/registry/recording_handlers.h"

namespace {

static_assert(std::is_abstract_v<ConsumerConfigHandler>);
static_assert(std::is_abstract_v<ProviderConfigHandler>);
static_assert(std::has_virtual_destructor_v<ConsumerConfigHandler>);
static_assert(std::has_virtual_destructor_v<ProviderConfigHandler>);
static_assert(sizeof(ConsumerConfigHandler) == sizeof(void*), "interfaces hold nothing");
static_assert(sizeof(ProviderConfigHandler) == sizeof(void*), "interfaces hold nothing");

// Position in the table of virtual operations, counted from its start. A pointer to a virtual
// member function begins with its byte offset there, plus one on machines that mark it so. A
// virtual destructor takes the two positions before the operation that follows it.
template <typename Operation>
std::uintptr_t position(Operation operation) {
  std::uintptr_t word = 0;
  std::memcpy(&word, &operation, sizeof(word));
  return word / sizeof(void*);
}

TEST(ConsumerConfigHandlerTest, TheOperationsKeepTheirOrder) {
  EXPECT_EQ(position(&ConsumerConfigHandler::configChanged), 2u);
  EXPECT_EQ(position(&ConsumerConfigHandler::submit), 3u);
  EXPECT_EQ(position(&ConsumerConfigHandler::attributeChanged), 4u);
  EXPECT_EQ(position(&ConsumerConfigHandler::optionsChanged), 5u);
  EXPECT_EQ(position(&ConsumerConfigHandler::accessLevelsChanged), 6u);
}

TEST(ProviderConfigHandlerTest, TheOperationsKeepTheirOrder) {
  EXPECT_EQ(position(&ProviderConfigHandler::dynamicValidate), 2u);
  EXPECT_EQ(position(&ProviderConfigHandler::onChange), 3u);
}

TEST(ConsumerConfigHandlerTest, AttributeChangedNeedsNoImplementation) {
  TestConsumer consumer;
  bool called = false;
  consumer.onConfigChanged = [&called] { called = true; };
  ConsumerConfigHandler& handler = consumer;
  handler.attributeChanged("net", 0, "mtu", 0);
  EXPECT_FALSE(called);
}

}  // namespace
