#include "configsrv/access/access_policy.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <thread>

#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using AppConfig::eRoleFactory;
using AppConfig::eRoleInstaller;
using AppConfig::eRolePublic;
using AppConfig::eRoleService;
using AppConfig::eRoleUser;

// Files belong to whoever runs the test; root's are trusted whoever the service is.
const uid_t kOwn = getuid() == 0 ? 900 : getuid();
constexpr uid_t kThermostat = 61001;
constexpr uid_t kTechnician = 61002;
constexpr uid_t kStranger = 61003;
constexpr gid_t kUsers = 100;
constexpr gid_t kNetdev = 101;
constexpr gid_t kAdmin = 102;
constexpr gid_t kGuests = 103;

// A device with two users and four groups; the technician is in netdev and admin as well.
class FewUsers : public UserDatabase {
 public:
  std::optional<uid_t> userId(const std::string& name) const override {
    return find(name, {{"thermostat", kThermostat}, {"technician", kTechnician}});
  }
  std::optional<gid_t> groupId(const std::string& name) const override {
    return find(name,
                {{"users", kUsers}, {"netdev", kNetdev}, {"admin", kAdmin}, {"guests", kGuests}});
  }
  std::vector<gid_t> groupsOf(uid_t uid, gid_t primary) const override {
    ++lookUps;
    if (uid == kTechnician) return {primary, kNetdev, kAdmin};
    return {primary};
  }
  mutable std::atomic<int> lookUps{0};

 private:
  static std::optional<std::uint32_t> find(const std::string& name,
                                           const std::map<std::string, std::uint32_t>& ids) {
    const auto found = ids.find(name);
    if (found == ids.end()) return std::nullopt;
    return found->second;
  }
};

class AccessPolicyTest : public testing::Test {
 protected:
  AccessLoadResult load(const std::string& text) {
    std::ofstream(directory_.file("roles.toml"), std::ios::binary) << text;
    EXPECT_EQ(chmod(directory_.file("roles.toml").c_str(), 0644), 0);
    return AccessPolicy::load(directory_.file("roles.toml"), kOwn, users_);
  }
  AccessPolicy policy(const std::string& text) {
    AccessLoadResult result = load(text);
    EXPECT_EQ(formatMistakes(result.mistakes), "");
    return std::move(result.policy);
  }
  // The mistakes without the directory.
  std::string mistakes(const std::string& text) {
    std::string out;
    for (Mistake& mistake : load(text).mistakes) {
      EXPECT_EQ(mistake.file, directory_.file("roles.toml"));
      mistake.file = "roles.toml";
      out += formatMistake(mistake) + '\n';
    }
    return out;
  }

  FewUsers users_;
  TestSupport::TempDir directory_;
};

TEST_F(AccessPolicyTest, WithoutAFileRootAndTheServicesUserMayClaimAnyRoleAndOthersTheInitialOne) {
  AccessLoadResult result = AccessPolicy::load(directory_.file("none.toml"), kOwn, users_);
  EXPECT_TRUE(result.mistakes.empty());
  EXPECT_EQ(result.policy.highestRole(0, 0), eRoleFactory);
  EXPECT_EQ(result.policy.highestRole(kOwn, kUsers), eRoleFactory);
  EXPECT_EQ(result.policy.highestRole(kStranger, kUsers), eRoleUser);
}

TEST_F(AccessPolicyTest, AnEmptyFileIsLikeNone) {
  const AccessPolicy empty = policy("");
  EXPECT_EQ(empty.highestRole(0, 0), eRoleFactory);
  EXPECT_EQ(empty.highestRole(kStranger, kUsers), eRoleUser);
}

TEST_F(AccessPolicyTest, UsersAndGroupsAreGivenByNameOrNumber) {
  const AccessPolicy roles = policy(
      "[users]\nthermostat = \"installer\"\n61003 = \"service\"\n"
      "[groups]\nnetdev = \"service\"\n4711 = \"factory\"\n");
  EXPECT_EQ(roles.highestRole(kThermostat, kUsers), eRoleInstaller);
  EXPECT_EQ(roles.highestRole(kStranger, kUsers), eRoleService);
  EXPECT_EQ(roles.highestRole(2000, kNetdev), eRoleService);
  EXPECT_EQ(roles.highestRole(2000, 4711), eRoleFactory);
  EXPECT_EQ(roles.highestRole(2000, kUsers), eRoleUser);
}

TEST_F(AccessPolicyTest, TheHighestOfAUsersGroupsCounts) {
  const AccessPolicy roles =
      policy("[groups]\nusers = \"public\"\nnetdev = \"installer\"\nadmin = \"factory\"\n");
  EXPECT_EQ(roles.highestRole(kTechnician, kUsers), eRoleFactory);
  EXPECT_EQ(roles.highestRole(kStranger, kNetdev), eRoleInstaller);
}

TEST_F(AccessPolicyTest, AGroupMayHaveLessThanTheDefault) {
  const AccessPolicy roles = policy("default = \"installer\"\n[groups]\nguests = \"public\"\n");
  EXPECT_EQ(roles.highestRole(kStranger, kGuests), eRolePublic);
  EXPECT_EQ(roles.highestRole(kStranger, kUsers), eRoleInstaller);
}

TEST_F(AccessPolicyTest, AUserWhoIsNamedHasThatRoleWhateverTheGroups) {
  const AccessPolicy roles =
      policy("[users]\ntechnician = \"public\"\n0 = \"user\"\n[groups]\nadmin = \"factory\"\n");
  EXPECT_EQ(roles.highestRole(kTechnician, kUsers), eRolePublic);
  EXPECT_EQ(roles.highestRole(0, 0), eRoleUser);
}

TEST_F(AccessPolicyTest, ARoleMayBeClaimedUpToTheHighest) {
  const AccessPolicy roles = policy("[users]\nthermostat = \"installer\"\n");
  EXPECT_TRUE(roles.mayClaim(kThermostat, kUsers, eRolePublic));
  EXPECT_TRUE(roles.mayClaim(kThermostat, kUsers, eRoleInstaller));
  EXPECT_FALSE(roles.mayClaim(kThermostat, kUsers, eRoleService));
}

TEST_F(AccessPolicyTest, ARoleThatIsNoneOfTheFiveMayNotBeClaimedEvenByRoot) {
  const AccessPolicy roles(kOwn);
  EXPECT_FALSE(roles.mayClaim(0, 0, static_cast<AppConfig::SecurityRole>(5)));
  EXPECT_FALSE(roles.mayClaim(0, 0, static_cast<AppConfig::SecurityRole>(-1)));
}

TEST_F(AccessPolicyTest, ADenialSaysWhoMayDoWhat) {
  EXPECT_EQ(AccessPolicy(kOwn).denial(1000, 1000, eRoleInstaller),
            "user 1000 may act as user at most, not as installer");
}

TEST_F(AccessPolicyTest, GroupsAreLookedUpOnceForMany) {
  const AccessPolicy roles = policy("[groups]\nadmin = \"factory\"\n");
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(roles.highestRole(kTechnician, kUsers), eRoleFactory);
    EXPECT_EQ(roles.highestRole(kTechnician + 1, kAdmin), eRoleFactory);
  }
  EXPECT_EQ(users_.lookUps, 2);
}

TEST_F(AccessPolicyTest, GroupsAreNotLookedUpWhenNoneIsNamed) {
  EXPECT_EQ(policy("default = \"public\"\n").highestRole(kTechnician, kUsers), eRolePublic);
  EXPECT_EQ(users_.lookUps, 0);
}

TEST_F(AccessPolicyTest, MoreUsersThanAreRememberedAreAnsweredAndTheFirstAreForgotten) {
  const AccessPolicy roles = policy("[groups]\nnetdev = \"service\"\n");
  for (uid_t uid = 10000; uid < 13000; ++uid) {
    EXPECT_EQ(roles.highestRole(uid, kNetdev), eRoleService);
  }
  const int before = users_.lookUps;
  EXPECT_EQ(roles.highestRole(10000, kNetdev), eRoleService);
  EXPECT_EQ(users_.lookUps, before + 1);
}

TEST_F(AccessPolicyTest, ManyThreadsMayAskAtOnce) {
  const AccessPolicy roles = policy("[groups]\nnetdev = \"service\"\n");
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (uid_t first = 0; first < 4; ++first) {
    threads.emplace_back([&roles, &wrong, first] {
      for (uid_t uid = 2000 + first; uid < 4000; uid += 3) {
        if (roles.highestRole(uid, kNetdev) != eRoleService) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

struct BadFile {
  const char* text;
  const char* mistakes;
};

const BadFile kBadFiles[] = {
    {"[users]\nthermostat = \"root\"\n",
     "roles.toml:2:1: \"thermostat\" is given the role \"root\", which is none of public, user, "
     "installer, service, factory\n"},
    {"default = 3\n",
     "roles.toml:1:1: \"default\" takes a role, one of public, user, installer, service, factory, "
     "not an integer\n"},
    {"users = \"thermostat\"\n",
     "roles.toml:1:1: \"users\" takes a table, as in [users], not a string\n"},
    {"[user]\nthermostat = \"user\"\n",
     "roles.toml:1:2: \"user\" is not known here, did you mean \"users\"?\n"},
    {"[access]\n",
     "roles.toml:1:2: \"access\" is not known here: a file holds default, [users], "
     "[groups] and [names]\n"},
    {"[users]\nthermostat = \"user\"\n61001 = \"public\"\n",
     "roles.toml:3:1: \"61001\" is user 61001, which has a role already\n"},
    {"default = \"nobody\"\n[users]\nx = \"user\"\ny = 5\n",
     "roles.toml:1:1: \"default\" is given the role \"nobody\", which is none of public, user, "
     "installer, service, factory\n"
     "roles.toml:4:1: \"y\" takes a role, one of public, user, installer, service, factory, not an "
     "integer\n"},
};

TEST_F(AccessPolicyTest, EveryMistakeIsReportedWithItsPlaceAndWhatIsAllowed) {
  for (const BadFile& bad : kBadFiles) EXPECT_EQ(mistakes(bad.text), bad.mistakes) << bad.text;
}

TEST_F(AccessPolicyTest, WithAMistakeNothingOfTheFileCounts) {
  const AccessLoadResult result =
      load("[users]\nthermostat = \"factory\"\ntechnician = \"king\"\n");
  ASSERT_EQ(result.mistakes.size(), 1U);
  EXPECT_EQ(result.policy.highestRole(kThermostat, kUsers), eRoleUser);
}

TEST_F(AccessPolicyTest, WhatIsNotTomlOrCannotBeReadIsAMistake) {
  EXPECT_NE(mistakes("[users\n"), "");
  EXPECT_NE(mistakes("\xff\xfe rubbish \x01"), "");
  const AccessLoadResult result = AccessPolicy::load(directory_.path(), kOwn, users_);
  ASSERT_EQ(result.mistakes.size(), 1U);
  EXPECT_EQ(result.mistakes[0].text, "cannot be read: it is no regular file");
}

TEST_F(AccessPolicyTest, ANameThatTheFileGivesToAUserIsTheirsAndRootsAndTheServicesOwn) {
  using NameUse = AccessPolicy::NameUse;
  const AccessPolicy roles =
      policy("[names]\nthermostat-ui = \"thermostat\"\n\"a/b\" = \"61003\"\npanel = \"*\"\n");
  EXPECT_EQ(roles.useOfName("thermostat-ui", kThermostat), NameUse::Theirs);
  EXPECT_EQ(roles.useOfName("thermostat-ui", 0), NameUse::Theirs);
  EXPECT_EQ(roles.useOfName("thermostat-ui", kOwn), NameUse::Theirs);
  EXPECT_EQ(roles.useOfName("thermostat-ui", kStranger), NameUse::NotTheirs);
  EXPECT_EQ(roles.useOfName("a/b", kStranger), NameUse::Theirs);
  EXPECT_EQ(roles.useOfName("panel", kStranger), NameUse::Everybody);
  EXPECT_EQ(roles.useOfName("other", kStranger), NameUse::FirstUser);
}

TEST_F(AccessPolicyTest, TheCommandLinesNameIsEverybodysUnlessTheFileSaysOtherwise) {
  using NameUse = AccessPolicy::NameUse;
  EXPECT_EQ(policy("").useOfName("appcfg", kStranger), NameUse::Everybody);
  EXPECT_EQ(policy("[names]\nappcfg = \"technician\"\n").useOfName("appcfg", kStranger),
            NameUse::NotTheirs);
}

TEST_F(AccessPolicyTest, NamesThatAreGivenToNoUserInQuotesAreMistakes) {
  EXPECT_EQ(
      mistakes("[names]\nb = 7\n"),
      "roles.toml:2:1: \"b\" takes a user in quotes, or \"*\" for everybody, not an integer\n");
  EXPECT_EQ(mistakes("names = 1\n"),
            "roles.toml:1:1: \"names\" takes a table, as in [names], not an integer\n");
}

TEST_F(AccessPolicyTest, ALineForSomebodyWhoIsNotKnownGrantsNothingAndTheOthersHold) {
  const AccessLoadResult result = load(
      "[users]\ngone = \"factory\"\n4294967295 = \"factory\"\nthermostat = \"installer\"\n"
      "[groups]\nnobodys = \"factory\"\nnetdev = \"service\"\n");
  EXPECT_TRUE(result.mistakes.empty()) << formatMistakes(result.mistakes);
  EXPECT_EQ(result.policy.highestRole(kThermostat, kUsers), eRoleInstaller);
  EXPECT_EQ(result.policy.highestRole(kStranger, kNetdev), eRoleService);
  EXPECT_EQ(result.policy.highestRole(kStranger, kUsers), eRoleUser);
  const std::string path = directory_.file("roles.toml");
  EXPECT_EQ(formatMistakes(result.unknown),
            path +
                ":2:1: no user \"gone\" is known here, so this line grants nothing: correct the "
                "name, or give its number\n" +
                path +
                ":3:1: no user \"4294967295\" is known here, so this line grants nothing: correct "
                "the name, or give its number\n" +
                path +
                ":6:1: no group \"nobodys\" is known here, so this line grants nothing: correct "
                "the name, or give its number\n");
}

TEST_F(AccessPolicyTest, ANameOfAUserWhoIsNotKnownIsNobodysAndNotEverybodys) {
  using NameUse = AccessPolicy::NameUse;
  const AccessLoadResult result = load("[names]\nui = \"gone\"\n");
  EXPECT_TRUE(result.mistakes.empty());
  EXPECT_EQ(result.policy.useOfName("ui", kStranger), NameUse::NotTheirs);
  EXPECT_EQ(result.policy.useOfName("ui", 0), NameUse::Theirs);
  EXPECT_EQ(formatMistakes(result.unknown),
            directory_.file("roles.toml") +
                ":2:1: no user \"gone\" is known here, so only root and the service's own user may "
                "have this endpoint name: correct the name, or give its number\n");
}

TEST_F(AccessPolicyTest, AByteOrderMarkBeforeTheTableMakesNoDifference) {
  EXPECT_EQ(policy("\xEF\xBB\xBF"
                   "default = \"public\"\n")
                .highestRole(kStranger, kUsers),
            eRolePublic);
}

TEST_F(AccessPolicyTest, NamesThatLookAlikeOrCannotBeSeenAreMistakes) {
  EXPECT_EQ(
      mistakes("[names]\n\"ui\" = \"61001\"\n\"UI \" = \"*\"\n\"u\\u200Bi\" = \"*\"\n"),
      "roles.toml:3:1: \"UI \" looks like a name above: give it to one user, or to \"*\"\n"
      "roles.toml:4:1: the endpoint name \"u<U+200B>i\" holds U+200B, which cannot be seen: no "
      "endpoint may have it\n");
}

TEST_F(AccessPolicyTest, OnlyWhatRootOrTheServicesUserAloneCanWriteIsTrusted) {
  EXPECT_EQ(whyNotTrusted(0, 0644, kOwn), "");
  EXPECT_EQ(whyNotTrusted(kOwn, 0600, kOwn), "");
  EXPECT_EQ(whyNotTrusted(kStranger, 0600, kOwn), "belongs to user 61003");
  EXPECT_EQ(whyNotTrusted(0, 0664, kOwn), "can be written by its group");
  EXPECT_EQ(whyNotTrusted(0, 0646, kOwn), "can be written by everybody");
}

class DistrustTest : public AccessPolicyTest {
 protected:
  // What is read of the file when the service runs as the user of this test.
  AccessLoadResult loadAsOwner() {
    return AccessPolicy::load(directory_.file("roles.toml"), getuid(), users_);
  }
  void SetUp() override {
    std::ofstream(directory_.file("roles.toml")) << "default = \"factory\"\n";
    ASSERT_EQ(chmod(directory_.file("roles.toml").c_str(), 0644), 0);
  }
  void expectDistrust(const std::string& why) {
    const AccessLoadResult result = loadAsOwner();
    EXPECT_NE(result.distrust.find("roles.toml: the table of roles " + why), std::string::npos)
        << result.distrust;
    EXPECT_TRUE(result.mistakes.empty());
    EXPECT_EQ(result.policy.highestRole(kStranger, kUsers), eRoleUser);
    EXPECT_EQ(result.policy.highestRole(0, 0), eRoleFactory);
  }
};

TEST_F(DistrustTest, AFileOfTheServicesUserThatNobodyElseMayWriteIsUsed) {
  EXPECT_EQ(loadAsOwner().distrust, "");
  EXPECT_EQ(loadAsOwner().policy.highestRole(kStranger, kUsers), eRoleFactory);
}

TEST_F(DistrustTest, AFileThatItsGroupOrEverybodyMayWriteIsNotUsed) {
  ASSERT_EQ(chmod(directory_.file("roles.toml").c_str(), 0664), 0);
  expectDistrust("can be written by its group");
  ASSERT_EQ(chmod(directory_.file("roles.toml").c_str(), 0602), 0);
  expectDistrust("can be written by everybody");
}

TEST_F(DistrustTest, ASymbolicLinkIsNotUsedWhereverItLeads) {
  ASSERT_EQ(rename(directory_.file("roles.toml").c_str(), directory_.file("other").c_str()), 0);
  ASSERT_EQ(symlink("other", directory_.file("roles.toml").c_str()), 0);
  expectDistrust("is a symbolic link");
  ASSERT_EQ(unlink(directory_.file("other").c_str()), 0);
  expectDistrust("is a symbolic link");
}

TEST_F(DistrustTest, AFileOfAnotherUserIsNotUsed) {
  if (getuid() != 0) GTEST_SKIP() << "only root can give a file away";
  ASSERT_EQ(chown(directory_.file("roles.toml").c_str(), kStranger, 0), 0);
  expectDistrust("belongs to user 61003");
}

TEST_F(DistrustTest, WhatIsNoFileIsAMistake) {
  ASSERT_EQ(unlink(directory_.file("roles.toml").c_str()), 0);
  ASSERT_EQ(mkdir(directory_.file("roles.toml").c_str(), 0755), 0);
  const AccessLoadResult result = loadAsOwner();
  ASSERT_EQ(result.mistakes.size(), 1u);
  EXPECT_EQ(result.mistakes[0].text, "cannot be read: it is no regular file");
}

}  // namespace
}  // namespace ConfigSrv
