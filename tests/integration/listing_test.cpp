// Listings in pages, and whole ones for clients that know no pages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "appconfig/core/key_notation.h"
#include "configsrv/changes/wire_forms.h"
#include "tests/support/load.h"
#include "tests/support/service_process.h"
#include "tests/support/test_client.h"

namespace TestSupport {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Two of three cannot be read by a user.
const char* const kHiddenDefinitions = R"(
[variable."z.a"]
type = "int"
default = 1
read-role = "factory"

[variable."z.b"]
type = "int"
default = 2

[variable."z.c"]
type = "int"
default = 3
read-role = "factory"
)";

struct Page {
  Outcome outcome;
  std::vector<std::string> names;
  std::uint32_t hidden = 0;
  std::optional<ConfigIF::Inst> next;
};

class ListingTest : public testing::Test {
 protected:
  explicit ListingTest(const std::string& definitions = loadDefinitions(kVariables) +
                                                        kHiddenDefinitions)
      : service_(definitions) {
    service_.start();
  }

  static constexpr std::size_t kVariables = 1'100;

  Page page(ConfigIF::ListReq request) {
    ConfigIF::ListRsp response;
    Page page{client_->request(std::move(request), &response), {}, response.hidden(), {}};
    for (const ConfigIF::ListRecord& record : response.records())
      page.names.push_back(ConfigSrv::readInst(record.inst())->dottedName());
    if (response.has_next()) page.next = response.next();
    return page;
  }
  Page page(const std::string& prefix, std::uint32_t atMost,
            const std::optional<ConfigIF::Inst>& after = {}) {
    ConfigIF::ListReq request;
    request.set_prefix(prefix);
    request.set_at_most(atMost);
    if (after) *request.mutable_after() = *after;
    return page(std::move(request));
  }
  static ConfigIF::Inst pathOf(const std::string& text) {
    ConfigVar key("", 0, "", 0);
    EXPECT_TRUE(AppConfig::parseKey(text, key).ok()) << text;
    ConfigIF::Inst inst;
    ConfigSrv::fillInst(&inst, key);
    return inst;
  }

  void SetUp() override { client_.emplace("client", service_.runtimeDir()); }

  ServiceProcess service_;
  std::optional<TestClient> client_;
};

TEST_F(ListingTest, PagesFollowEachOtherAndHaveWhatAWholeListingHas) {
  ConfigIF::ListReq whole;
  const Page all = page(whole);
  EXPECT_EQ(all.names.size(), kVariables + 1);
  EXPECT_EQ(all.hidden, 2U);
  EXPECT_FALSE(all.next);
  std::vector<std::string> names;
  std::uint32_t hidden = 0;
  std::vector<std::size_t> sizes;
  std::optional<ConfigIF::Inst> after;
  do {
    const Page one = page("", 400, after);
    ASSERT_TRUE(one.outcome.ok()) << one.outcome.text;
    names.insert(names.end(), one.names.begin(), one.names.end());
    hidden += one.hidden;
    sizes.push_back(one.names.size());
    after = one.next;
  } while (after);
  EXPECT_EQ(names, all.names);
  EXPECT_EQ(hidden, 2U);
  EXPECT_THAT(sizes, ElementsAre(400, 400, 301));
}

TEST_F(ListingTest, APageHasNoMoreThanTheLimitHoweverManyAreAskedFor) {
  EXPECT_EQ(page("", 1'024).names.size(), 1'024U);
  EXPECT_EQ(page("", 1'025).names.size(), 1'024U);
  EXPECT_EQ(page("", 0xFFFFFFFF).names.size(), 1'024U);
  EXPECT_EQ(page("", 0).names.size(), 1U);
}

TEST_F(ListingTest, ThePageThatHasTheLastVariableSaysThatItIsTheLast) {
  EXPECT_TRUE(page("load.g0", 99).next);
  EXPECT_FALSE(page("load.g0", 100).next);
  EXPECT_FALSE(page("load.g0", 101).next);
  EXPECT_THAT(page("nothing", 10).names, IsEmpty());
}

TEST_F(ListingTest, WhatTheRoleMayNotReadIsCountedOnThePageWhereItWouldStand) {
  const Page first = page("z", 1);
  EXPECT_THAT(first.names, ElementsAre("z.b"));
  EXPECT_EQ(first.hidden, 2U);
  EXPECT_FALSE(first.next);
  const Page behind = page("z", 1, pathOf("z.b"));
  EXPECT_THAT(behind.names, IsEmpty());
  EXPECT_EQ(behind.hidden, 1U);
}

TEST_F(ListingTest, APageBeginsBehindAVariableThatNeedNotExist) {
  EXPECT_THAT(page("z", 5, pathOf("z.aa")).names, ElementsAre("z.b"));
  EXPECT_THAT(page("z", 5, pathOf("a.a")).names, ElementsAre("z.b"));
  EXPECT_THAT(page("z", 5, pathOf("z.z")).names, IsEmpty());
  EXPECT_THAT(page("z", 5, pathOf("3:a.a")).names, IsEmpty());
}

TEST_F(ListingTest, AfterNoVariableAtAllIsAMistake) {
  const Page none = page("", 5, ConfigIF::Inst());
  EXPECT_EQ(none.outcome.error, CommonIF::ERROR_INVALID_REQUEST);
  EXPECT_EQ(none.outcome.text, "the path to list after names no variable\n");
}

}  // namespace
}  // namespace TestSupport
