#include "configsrv/service/internal/variable_lookup.h"

#include "tests/configsrv/service/requests_fixture.h"

namespace ConfigSrv {
namespace {

using testing::HasSubstr;

class VariableLookupTest : public RequestsFixture {
 protected:
  static Call callAs(AppConfig::SecurityRole role) {
    Call call{};
    call.by.role = role;
    return call;
  }
  std::string text() const { return result_.messages_size() > 0 ? result_.messages(0) : ""; }

  const VariableLookup lookup_{model_};
  ConfigIF::ReturnMessage result_;
};

TEST_F(VariableLookupTest, AVariableIsFoundByItsPathAndTheResultIsLeftAlone) {
  const Variable* found = lookup_.find(instOf("net.mtu"), result_);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->key().dottedName(), "net.mtu");
  EXPECT_FALSE(result_.has_error());
}

TEST_F(VariableLookupTest, APathThatNamesNoneIsABadRequestAndAnUnknownOneNotFound) {
  EXPECT_EQ(lookup_.find(ConfigIF::Inst(), result_), nullptr);
  EXPECT_EQ(result_.error(), CommonIF::eErrorType(eErrInvalidRequest));
  result_.Clear();
  EXPECT_EQ(lookup_.find(instOf("net.none"), result_), nullptr);
  EXPECT_EQ(result_.error(), CommonIF::eErrorType(eErrNotFound));
  EXPECT_EQ(text(), "net.none: no such variable");
}

TEST_F(VariableLookupTest, WhoseRoleIsTooLowIsToldWhichOneItTakes) {
  EXPECT_EQ(lookup_.findReadable(callAs(AppConfig::eRoleUser), instOf("net.hidden"), result_),
            nullptr);
  EXPECT_EQ(result_.error(), CommonIF::eErrorType(eErrDenied));
  EXPECT_THAT(text(), HasSubstr("needs the role factory, not user"));
  EXPECT_NE(lookup_.findReadable(callAs(AppConfig::eRoleFactory), instOf("net.hidden"), result_),
            nullptr);
}

TEST_F(VariableLookupTest, ADottedNameCountsInAnyCaseAndIsHeldAgainstTheRoleToo) {
  const std::string name = "NET.Mtu";
  EXPECT_NE(lookup_.findReadable(callAs(AppConfig::eRoleUser), name, result_), nullptr);
  EXPECT_EQ(lookup_.findReadable(callAs(AppConfig::eRoleUser), std::string("net.hidden"), result_),
            nullptr);
  result_.Clear();
  EXPECT_EQ(lookup_.findReadable(callAs(AppConfig::eRoleUser), std::string("Net.None"), result_),
            nullptr);
  EXPECT_EQ(text(), "Net.None: no such variable");
}

}  // namespace
}  // namespace ConfigSrv
