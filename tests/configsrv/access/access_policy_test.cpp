#include "configsrv/access/access_policy.h"

#include <gtest/gtest.h>

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

constexpr uid_t kOwn = 900;
constexpr uid_t kThermostat = 1001;
constexpr uid_t kTechnician = 1002;
constexpr uid_t kStranger = 1003;
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
      "[users]\nthermostat = \"installer\"\n1003 = \"service\"\n"
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
  for (int i = 0; i < 100; ++i) EXPECT_EQ(roles.highestRole(kTechnician, kUsers), eRoleFactory);
  EXPECT_EQ(users_.lookUps, 1);
}

TEST_F(AccessPolicyTest, GroupsAreNotLookedUpWhenNoneIsNamed) {
  EXPECT_EQ(policy("default = \"public\"\n").highestRole(kTechnician, kUsers), eRolePublic);
  EXPECT_EQ(users_.lookUps, 0);
}

TEST_F(AccessPolicyTest, MoreUsersThanAreRememberedAreAnsweredAllTheSame) {
  const AccessPolicy roles = policy("[groups]\nnetdev = \"service\"\n");
  for (uid_t uid = 10000; uid < 13000; ++uid) {
    EXPECT_EQ(roles.highestRole(uid, kNetdev), eRoleService);
  }
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
    {"[users]\nnobody-here = \"user\"\n",
     "roles.toml:2:1: this device has no user \"nobody-here\": correct the name, or give its "
     "number\n"},
    {"[groups]\nnobody-here = \"user\"\n",
     "roles.toml:2:1: this device has no group \"nobody-here\": correct the name, or give its "
     "number\n"},
    {"[users]\n4294967295 = \"user\"\n",
     "roles.toml:2:1: this device has no user \"4294967295\": correct the name, or give its "
     "number\n"},
    {"[users]\n99999999999 = \"user\"\n",
     "roles.toml:2:1: this device has no user \"99999999999\": correct the name, or give its "
     "number\n"},
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
     "roles.toml:1:2: \"access\" is not known here: a file holds default, [users] and [groups]\n"},
    {"[users]\nthermostat = \"user\"\n1001 = \"public\"\n",
     "roles.toml:3:1: \"1001\" is user 1001, which has a role already\n"},
    {"default = \"nobody\"\n[users]\nx = \"user\"\ny = 5\n",
     "roles.toml:1:1: \"default\" is given the role \"nobody\", which is none of public, user, "
     "installer, service, factory\n"
     "roles.toml:3:1: this device has no user \"x\": correct the name, or give its number\n"
     "roles.toml:4:1: \"y\" takes a role, one of public, user, installer, service, factory, not an "
     "integer\n"
     "roles.toml:4:1: this device has no user \"y\": correct the name, or give its number\n"},
};

TEST_F(AccessPolicyTest, EveryMistakeIsReportedWithItsPlaceAndWhatIsAllowed) {
  for (const BadFile& bad : kBadFiles) EXPECT_EQ(mistakes(bad.text), bad.mistakes) << bad.text;
}

TEST_F(AccessPolicyTest, WithAMistakeNothingOfTheFileCounts) {
  const AccessLoadResult result =
      load("[users]\nthermostat = \"factory\"\nnobody-here = \"user\"\n");
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

}  // namespace
}  // namespace ConfigSrv
