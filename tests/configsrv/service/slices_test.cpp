#include "configsrv/service/internal/slices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ConfigSrv {
namespace {

using testing::ElementsAre;

// Turns are taken by hand.
class SlicesTest : public testing::Test {
 protected:
  // Work of so many slices, which says its name at each.
  void add(uid_t user, const std::string& name, int slices) {
    slices_.add(user, [this, name, left = slices]() mutable {
      said_.push_back(name);
      return --left > 0;
    });
  }
  bool takeTurn() {
    if (turns_.empty()) return false;
    const std::function<void()> turn = std::move(turns_.front());
    turns_.erase(turns_.begin());
    turn();
    return true;
  }
  void takeTurns() {
    while (takeTurn()) continue;
  }

  std::vector<std::function<void()>> turns_;
  std::vector<std::string> said_;
  std::vector<uid_t> users_;
  Slices slices_{[this](uid_t user, std::function<void()> task) {
    users_.push_back(user);
    turns_.push_back(std::move(task));
  }};
};

TEST_F(SlicesTest, NothingRunsBeforeALaterTurnAndEachTurnRunsOneSlice) {
  add(0, "a", 2);
  EXPECT_TRUE(said_.empty());
  takeTurn();
  EXPECT_THAT(said_, ElementsAre("a"));
  takeTurn();
  EXPECT_THAT(said_, ElementsAre("a", "a"));
  EXPECT_FALSE(takeTurn());
}

TEST_F(SlicesTest, EachSliceIsATurnOfTheUserWhomItIsFor) {
  add(1000, "a", 2);
  add(0, "b", 1);
  takeTurns();
  EXPECT_THAT(said_, ElementsAre("a", "b", "a"));
  EXPECT_THAT(users_, ElementsAre(1000, 0, 1000));
}

TEST_F(SlicesTest, WorkMayBeAddedFromInsideASlice) {
  slices_.add(0, [this] {
    add(0, "added", 1);
    return false;
  });
  takeTurns();
  EXPECT_THAT(said_, ElementsAre("added"));
}

}  // namespace
}  // namespace ConfigSrv
