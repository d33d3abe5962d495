#include "configsrv/access/name_claims.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

constexpr uid_t kFirst = 61001;
constexpr uid_t kSecond = 61002;
constexpr uid_t kOwner = 61003;
constexpr gid_t kGroup = 100;

class NameClaimsTest : public testing::Test {
 protected:
  bool mayCome(const std::string& name, uid_t uid) {
    return claims_.ask(name, uid, kGroup).accepted;
  }
  void come(const std::string& name, uid_t uid) { claims_.came(name, uid, kGroup); }

  static AccessPolicy policy(const TestSupport::TempDir& directory) {
    const std::string file = directory.file("roles.toml");
    std::ofstream(file)
        << "[users]\n61002 = \"installer\"\n[names]\nmine = \"61003\"\nall = \"*\"\n";
    EXPECT_EQ(chmod(file.c_str(), 0644), 0);
    AccessLoadResult loaded = AccessPolicy::load(file, getuid());
    EXPECT_EQ(formatMistakes(loaded.mistakes), "");
    return std::move(loaded.policy);
  }

  TestSupport::TempDir directory_;
  const AccessPolicy policy_ = policy(directory_);
  NameClaims claims_{policy_};
};

TEST_F(NameClaimsTest, ANameBelongsToTheUserWhoCameFirstAsLongAsTheyAreThere) {
  EXPECT_TRUE(mayCome("ui", kFirst));
  come("ui", kFirst);
  const NameClaims::Answer answer = claims_.ask("ui", kOwner, kGroup);
  EXPECT_FALSE(answer.accepted);
  EXPECT_EQ(answer.text, "user 61003 claims the endpoint name \"ui\", which user 61001 has");
  EXPECT_TRUE(mayCome("other", kOwner));
  claims_.went("ui", kFirst);
  EXPECT_TRUE(mayCome("ui", kOwner));
}

TEST_F(NameClaimsTest, TheSameUserMayHaveAnyNumberOfEndpointsOfOneName) {
  come("ui", kFirst);
  EXPECT_TRUE(mayCome("ui", kFirst));
  come("ui", kFirst);
  claims_.went("ui", kFirst);
  EXPECT_FALSE(mayCome("ui", kOwner));
}

TEST_F(NameClaimsTest, AUserWithAHigherRoleIsLetInBesideOthersAndThatIsSaid) {
  come("ui", kFirst);
  const NameClaims::Answer answer = claims_.ask("ui", kSecond, kGroup);
  EXPECT_TRUE(answer.accepted);
  EXPECT_EQ(
      answer.text,
      "user 61002 claims the endpoint name \"ui\", which user 61001 has: both are connected now");
  EXPECT_TRUE(mayCome("ui", 0));
}

TEST_F(NameClaimsTest, AUserWithALowerRoleIsKeptOut) {
  come("ui", kSecond);
  EXPECT_FALSE(mayCome("ui", kFirst));
}

TEST_F(NameClaimsTest, ANameThatTheTableGivesAwayIsItsUsersAlsoWhileTheyAreNotThere) {
  EXPECT_FALSE(mayCome("mine", kFirst));
  EXPECT_TRUE(mayCome("mine", kOwner));
  EXPECT_TRUE(mayCome("mine", 0));
}

TEST_F(NameClaimsTest, ANameThatLooksLikeAnotherUsersIsTheirs) {
  come("Thermostat-UI", kFirst);
  const NameClaims::Answer answer = claims_.ask("thermostat-ui ", kOwner, kGroup);
  EXPECT_FALSE(answer.accepted);
  EXPECT_EQ(answer.text,
            "user 61003 claims the endpoint name \"thermostat-ui \", which looks like "
            "\"Thermostat-UI\", which user 61001 has");
  EXPECT_TRUE(mayCome("thermostat-uj", kOwner));
}

TEST_F(NameClaimsTest, TheSameUserMaySpellANameAsTheyLike) {
  come("ui", kFirst);
  EXPECT_TRUE(mayCome("UI", kFirst));
  come("UI", kFirst);
  claims_.went("ui", kFirst);
  EXPECT_FALSE(mayCome("Ui", kOwner));
  claims_.went("UI", kFirst);
  EXPECT_TRUE(mayCome("Ui", kOwner));
}

TEST_F(NameClaimsTest, ANameOfTheTableIsItsUsersHoweverItIsSpelled) {
  for (const char* name : {"Mine", "MINE", " mine", "mine  "}) {
    EXPECT_FALSE(mayCome(name, kFirst)) << name;
    EXPECT_TRUE(mayCome(name, kOwner)) << name;
  }
  come("ALL", kFirst);
  EXPECT_TRUE(mayCome("All", kOwner));
}

TEST_F(NameClaimsTest, ANameThatHoldsWhatCannotBeSeenIsNobodysNotEvenRoots) {
  for (const uid_t user : {kFirst, uid_t{0}}) {
    const NameClaims::Answer answer = claims_.ask("ui\u200b", user, kGroup);
    EXPECT_FALSE(answer.accepted);
    EXPECT_EQ(answer.text, "user " + std::to_string(user) +
                               " claims the endpoint name \"ui<U+200B>\", which holds U+200B, "
                               "which cannot be seen");
  }
  EXPECT_EQ(claims_.ask("ui\xff", kFirst, kGroup).text,
            "user 61001 claims the endpoint name \"ui<FF>\", which holds the byte FF, which is no "
            "UTF-8");
  EXPECT_TRUE(claims_.ask("ui\xff", kFirst, kGroup).repeated);
}

TEST_F(NameClaimsTest, ANameThatIsEverybodysTakesAllAtOnce) {
  come("all", kFirst);
  EXPECT_TRUE(mayCome("all", kOwner));
  come("appcfg", kSecond);
  EXPECT_TRUE(mayCome("appcfg", kFirst));
}

TEST_F(NameClaimsTest, ARefusalIsRepeatedUntilTheNameIsFree) {
  come("ui", kFirst);
  EXPECT_FALSE(claims_.ask("ui", kOwner, kGroup).repeated);
  EXPECT_TRUE(claims_.ask("ui", kOwner, kGroup).repeated);
  claims_.went("ui", kFirst);
  come("ui", kFirst);
  EXPECT_FALSE(claims_.ask("ui", kOwner, kGroup).repeated);
}

TEST_F(NameClaimsTest, WhoNeverCameCanGoWithoutHarm) {
  claims_.went("ui", kFirst);
  come("ui", kFirst);
  claims_.went("ui", kSecond);
  EXPECT_FALSE(mayCome("ui", kOwner));
}

}  // namespace
}  // namespace ConfigSrv
