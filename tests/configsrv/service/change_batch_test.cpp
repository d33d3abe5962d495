#include "configsrv/service/internal/change_batch.h"

#include "tests/configsrv/service/requests_fixture.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;

class ChangeBatchTest : public RequestsFixture {
 protected:
  static StoreChange writing(const std::string& value) {
    return {TestSupport::keyOf("net.mtu"), StoreChange::SetValue{{value}}};
  }
  void run(ChangeBatch::Wanted wanted) {
    Requester by;
    by.role = AppConfig::eRoleUser;
    ChangeBatch::run(changes_, slices_, by, std::move(wanted),
                     [this](const ChangeBatch::Result& result) {
                       ++ends_;
                       result_ = result;
                     });
  }

  int ends_ = 0;
  ChangeBatch::Result result_;
};

TEST_F(ChangeBatchTest, NoneAtAllEndsAtOnce) {
  run({});
  EXPECT_EQ(ends_, 1);
  EXPECT_EQ(result_.code, eErrNone);
}

TEST_F(ChangeBatchTest, EachSucceedsOrFailsOnItsOwnAndTheFirstFailureIsTheBatchs) {
  const std::vector<std::string> values{"1400", "1", "nonsense"};
  run({3, [&](std::size_t n) { return std::optional<StoreChange>(writing(values[n])); }, 0, true});
  EXPECT_EQ(ends_, 0);
  host_.finishCommit();
  EXPECT_EQ(ends_, 1);
  EXPECT_THAT(result_.errors, ElementsAre(eErrNone, eErrInvalidValue, eErrInvalidValue));
  EXPECT_EQ(result_.code, eErrInvalidValue);
  EXPECT_EQ(result_.changed, 1U);
  EXPECT_EQ(result_.revision, host_.revision);
}

TEST_F(ChangeBatchTest, OnlySoManyAreUnderWayAndTheNextIsMadeWhenOneEnds) {
  std::size_t made = 0;
  run({ChangeBatch::kAtOnce + 1, [&](std::size_t n) {
         made = n + 1;
         return std::optional<StoreChange>(writing(std::to_string(1000 + n)));
       }});
  EXPECT_EQ(made, ChangeBatch::kAtOnce);
  host_.finishCommit();
  EXPECT_EQ(made, ChangeBatch::kAtOnce + 1);
}

TEST_F(ChangeBatchTest, AfterAsManyAsATurnBeginsTheOthersHaveTheirTurn) {
  std::size_t asked = 0;
  run({ChangeBatch::kBegunInOneTurn + 1, [&](std::size_t) {
         ++asked;
         return std::optional<StoreChange>();
       }});
  EXPECT_EQ(asked, ChangeBatch::kBegunInOneTurn);
  EXPECT_EQ(ends_, 0);
  takeTurns();
  EXPECT_EQ(asked, ChangeBatch::kBegunInOneTurn + 1);
  EXPECT_EQ(ends_, 1);
}

TEST_F(ChangeBatchTest, MessagesOfFailuresAreKeptUpToALimit) {
  run({ChangeBatch::kMaxMessages + 5,
       [](std::size_t) { return std::optional<StoreChange>(writing("1")); }});
  takeTurns();
  EXPECT_EQ(ends_, 1);
  EXPECT_EQ(1 + result_.reasons.size(), ChangeBatch::kMaxMessages);
}

}  // namespace
}  // namespace ConfigSrv
