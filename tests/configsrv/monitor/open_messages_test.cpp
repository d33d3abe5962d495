#include "configsrv/monitor/internal/open_messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/definition_builder.h"

namespace ConfigSrv {
namespace {

using testing::IsEmpty;
using TestSupport::keyOf;

class OpenMessagesTest : public testing::Test {
 protected:
  static OpenMessages::Key nth(std::uint32_t n) { return {OpenMessages::Kind::Request, 1, n}; }
  static Facts factsOf(const std::string& key, std::vector<std::string> values) {
    Facts facts;
    facts.variables.push_back(keyOf(key));
    facts.values = std::move(values);
    facts.text = "text";
    return facts;
  }
  static std::size_t fill(OpenMessages& open, const PbUtility::Peer& peer, std::uint32_t from) {
    std::uint32_t n = from;
    while (open.find(nth(n - 1)) != nullptr || n == from)
      open.remember(nth(n++), peer, factsOf("net.mtu", {}), "WriteReq");
    return n - from - 1;
  }

  const PbUtility::Peer root_{1, "root", 0, 0, 42};
  const PbUtility::Peer user_{2, "user", 1000, 1000, 43};
  static constexpr std::size_t kOne =
      OpenMessages::kOpenBytes + OpenMessages::kVariableBytes + 4 + 8 + 6;
  OpenMessages open_{{8 * kOne, 4 * kOne, 2 * kOne, 3 * kOne}, 990};
};

TEST_F(OpenMessagesTest, RemembersTheVariablesAndTheNameAndNeitherValuesNorTexts) {
  Facts facts = factsOf("net.mtu", {"a secret"});
  facts.name = "net";
  open_.remember(nth(1), user_, facts, "WriteReq");
  const std::optional<OpenMessage> open = open_.take(nth(1));
  ASSERT_TRUE(open);
  ASSERT_EQ(open->facts.variables.size(), 1U);
  EXPECT_EQ(open->facts.variables.front().dottedName(), "net.mtu");
  EXPECT_EQ(open->facts.name, "net");
  EXPECT_THAT(open->facts.values, IsEmpty());
  EXPECT_EQ(open->facts.text, "");
  EXPECT_FALSE(open_.take(nth(1)));
}

TEST_F(OpenMessagesTest, AUsersOpenMessagesPastItsShareAreNotRememberedAndRootsAre) {
  EXPECT_EQ(fill(open_, user_, 1), 2U);
  EXPECT_EQ(fill(open_, root_, 100), 3U);
}

TEST_F(OpenMessagesTest, WhatWasTakenReplacedOrClearedMakesRoomToTheByte) {
  fill(open_, user_, 1);
  open_.remember(nth(1), user_, factsOf("net.mtu", {}), "WriteReq");
  EXPECT_NE(open_.find(nth(1)), nullptr);
  EXPECT_EQ(fill(open_, user_, 50), 0U);
  open_.take(nth(1));
  EXPECT_EQ(fill(open_, user_, 100), 1U);
  open_.clear();
  EXPECT_EQ(fill(open_, user_, 200), 2U);
}

}  // namespace
}  // namespace ConfigSrv
