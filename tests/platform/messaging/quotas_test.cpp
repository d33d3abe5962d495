#include "platform/messaging/internal/quotas.h"

#include <gtest/gtest.h>

#include "platform/messaging/server.h"

namespace PbUtility {
namespace {

constexpr uid_t kOwn = 500;

class QuotasTest : public ::testing::Test {
 protected:
  QuotasTest() {
    limits.maxConnections = 10;
    limits.reservedConnections = 2;
    limits.maxConnectionsPerUser = 6;
    limits.maxConnectionsPerProcess = 4;
  }

  // How many connections of this process are let in until one is refused, and why that was.
  int letIn(pid_t process, uid_t user) {
    const ucred who{process, user, 0};
    for (int let = 0;; ++let) {
      why = quotas.refusal(who, limits);
      if (!why.empty()) return let;
      quotas.add(who);
    }
  }

  ServerOptions limits;
  Quotas quotas{kOwn};
  std::string why;
};

TEST_F(QuotasTest, AProcessHasItsLimitWhoeverRunsIt) {
  EXPECT_EQ(letIn(1, 1000), 4);
  EXPECT_EQ(why, "all 4 connections that one process may have are in use");
  EXPECT_EQ(letIn(2, 0), 4);
}

TEST_F(QuotasTest, AUserHasItsLimitWithAnyNumberOfProcesses) {
  EXPECT_EQ(letIn(1, 1000), 4);
  EXPECT_EQ(letIn(2, 1000), 2);
  EXPECT_EQ(why, "all 6 connections that one user may have are in use");
  EXPECT_EQ(letIn(3, 1001), 2);
}

TEST_F(QuotasTest, TheLastConnectionsAreKeptForRootAndTheServicesOwnUser) {
  EXPECT_EQ(letIn(1, 1000) + letIn(2, 1001), 8);
  EXPECT_EQ(letIn(3, 1002), 0);
  EXPECT_EQ(why,
            "all 8 connections that are not kept for root and the service's own user are in use");
  EXPECT_EQ(quotas.refusal({4, kOwn, 0}, limits), "");
  EXPECT_EQ(letIn(4, 0), 2);
  EXPECT_EQ(why, "all 10 connections of the service are in use");
}

TEST_F(QuotasTest, AConnectionThatEndsMakesRoom) {
  EXPECT_EQ(letIn(1, 1000), 4);
  quotas.remove({1, 1000, 0});
  EXPECT_EQ(letIn(1, 1000), 1);
}

}  // namespace
}  // namespace PbUtility
