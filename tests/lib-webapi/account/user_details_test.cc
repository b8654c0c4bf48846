#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>

#include <velamailserver/account/user.h>

#include "lib-webapi/account/user_world_test.h"
#include "lib-webapi/pass_through.h"
#include "recording_platform/world_test.h"
#include "support/parse_json.h"

namespace velamailserver::webapi {
namespace {

using quillon::test::Concatenated;
using quillon::test::ExpectPassesThrough;
using quillon::test::Lines;
using quillon::test::LinesOf;
using quillon::test::Parse;
using quillon::test::Step;
using quillon::test::Thrown;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::StartsWith;

constexpr unsigned long long kLargest = std::numeric_limits<unsigned long long>::max();

static_assert(std::is_aggregate_v<MoreInfo>);

// All that is to know, one user in one text; "-" is what is absent.
std::string Text(const MoreInfo& info) {
  const auto number = [](const std::optional<unsigned long long>& value) {
    return value ? std::to_string(*value) : "-";
  };
  const auto maildir = [](const account::Maildir& found) {
    return std::to_string(found.uid) + ":" + found.path + ":" + (found.flag ? "found" : "missing");
  };
  return info.name + (info.has_app_privilege ? " may use" : " may not use") +
         " the client, maildir " + (info.maildir ? maildir(*info.maildir) : "-") + ", share " +
         number(info.share_quota) + ", limit " + number(info.quota_limit) + ", usage " +
         number(info.usage);
}

Lines Texts(const std::vector<MoreInfo>& infos) {
  Lines texts;
  for (const MoreInfo& info : infos) {
    texts.push_back(Text(info));
  }
  return texts;
}

// What the API of the host answers about a user who may store so much in the shared folder.
Json::Value ShareQuotaOf(unsigned long long mb) {
  return Parse(R"({"success": true, "data": {"user_quota": [{"support_share_quota": true,
                   "shares": [{"name": "Quillon", "quota": )" +
               std::to_string(mb) + "}]}]}}");
}

std::string Exec(const std::string& name) {
  return R"(Exec(null, "VELA.Core.Quota", 1, "get", {"name":")" + name +
         R"(","support_share_quota":true}, "admin"))";
}

// What is looked up about a user.
std::vector<Step> StepsOf(const std::string& name, unsigned int uid) {
  return {{"RealName(" + name + ")"},
          {"Uid(" + name + ")"},
          {"Maildir(uid=" + std::to_string(uid) + ")"},
          {"Name(" + name + ")"},
          {"VLIBAppPrivUserHas(" + name + ", VELA.WUI.MailClient.Application, ignore)"},
          {"Name(" + name + ")"},
          {"IsAdminGroupMember(" + name + ")"},
          {Exec(name)}};
}

class MoreInfosTest : public UserWorldTest {
 protected:
  MoreInfosTest() {
    AddUser("bob", 1001, "Bob.Real");
    AddUser("alice", 1002, "alice");
    world_.api_response = Parse(R"({"success": true})");
  }

  // A user without a mail directory.
  void AddUser(const std::string& name, unsigned int uid, const std::string& real_name) {
    world_.AddUser(name, uid, real_name);
    SetMaildir(uid, "", false);
  }

  std::vector<MoreInfo> InfosOf(const std::vector<std::string>& names) {
    return user_.MoreInfos(Users(names));
  }
  MoreInfo InfoOf(const std::string& name) {
    const std::vector<MoreInfo> infos = InfosOf({name});
    EXPECT_EQ(infos.size(), 1U);
    return infos.at(0);
  }
};

TEST_F(MoreInfosTest, OfAUserWithNothing) {
  EXPECT_THAT(Texts(InfosOf({"alice"})),
              ElementsAre("alice may use the client, maildir -, share -, limit 0, usage -"));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(MoreInfosTest, OfAUserWithEverything) {
  SetMaildir(1001, "/maildir/local/bob", true);
  world_.privileges = {{"bob", 1}};
  world_.api_response = ShareQuotaOf(2);
  world_.effective_limits = {{"Bob.Real", 4096}};
  world_.usage = {{"Bob.Real", "1234"}};
  EXPECT_THAT(Texts(InfosOf({"bob"})),
              ElementsAre("Bob.Real may use the client, maildir 1001:/maildir/local/bob:found, "
                          "share 2097152, limit 4096, usage 1234"));
}

TEST_F(MoreInfosTest, AreInTheOrderOfTheUsersAndOneForEach) {
  const std::string alice = "alice may use the client, maildir -, share -, limit 0, usage -";
  const std::string bob = "Bob.Real may use the client, maildir -, share -, limit 0, usage -";
  EXPECT_THAT(Texts(InfosOf({"alice", "bob", "alice"})), ElementsAre(alice, bob, alice));
  EXPECT_THAT(world_.transcript, Contains("ListUsage([alice, Bob.Real, alice])"));
  EXPECT_THAT(Texts(InfosOf({"bob", "alice"})), ElementsAre(bob, alice));
}

TEST_F(MoreInfosTest, OfNobodyInParticularAreOfAllUsersInTheOrderOfTheSettings) {
  world_.users.clear();
  world_.maildirs.clear();
  AddUser("zoe", 1009, "zoe");
  AddUser("bob", 1001, "Bob.Real");
  AddUser("mia", 1005, "mia");
  EXPECT_THAT(Texts(user_.MoreInfos({})),
              ElementsAre("zoe may use the client, maildir -, share -, limit 0, usage -",
                          "Bob.Real may use the client, maildir -, share -, limit 0, usage -",
                          "mia may use the client, maildir -, share -, limit 0, usage -"));
  const std::vector<Step> steps = Concatenated(
      Concatenated(Concatenated(Concatenated({{"SmtpConf()"}, {"SmtpExt()"}, {"EnumUsers()"}},
                                             StepsOf("zoe", 1009)),
                                StepsOf("bob", 1001)),
                   StepsOf("mia", 1005)),
      {{"RedisClient()"},
       {"QuotaRedisClient()"},
       {"ListUsage([zoe, Bob.Real, mia])"},
       {"GetResultUserQuotaLimit(zoe)"},
       {"GetResultUserQuotaLimit(Bob.Real)"},
       {"GetResultUserQuotaLimit(mia)"},
       {"~RedisClient()"}});
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOf(steps)));
}

TEST_F(MoreInfosTest, OfNobodyWhereNobodyHasMailAreNone) {
  world_.users.clear();
  EXPECT_THAT(user_.MoreInfos({}), IsEmpty());
  EXPECT_THAT(world_.transcript,
              ElementsAre("SmtpConf()", "SmtpExt()", "EnumUsers()", "RedisClient()",
                          "QuotaRedisClient()", "ListUsage([])", "~RedisClient()"));
}

TEST_F(MoreInfosTest, OfChosenUsersNeedNoSettings) {
  InfosOf({"bob"});
  EXPECT_THAT(world_.transcript, Contains(StartsWith("Smtp")).Times(0));
  EXPECT_THAT(world_.transcript, Contains("EnumUsers()").Times(0));
}

// The mail client

TEST_F(MoreInfosTest, TellWhoMayUseTheMailClientByAccountName) {
  world_.privileges = {{"bob", 0}, {"alice", 1}};
  EXPECT_FALSE(InfoOf("bob").has_app_privilege);
  EXPECT_TRUE(InfoOf("alice").has_app_privilege);
  world_.privileges = {{"Bob.Real", 0}};
  EXPECT_TRUE(InfoOf("bob").has_app_privilege);
}

TEST_F(MoreInfosTest, EveryAnswerButZeroIsAPrivilege) {
  for (const int answer : {1, 2, -1, 256, std::numeric_limits<int>::min()}) {
    world_.privileges = {{"bob", answer}};
    EXPECT_TRUE(InfoOf("bob").has_app_privilege) << answer;
  }
}

TEST_F(MoreInfosTest, OfAUserWhoMayNotUseTheMailClientAreComplete) {
  SetMaildir(1001, "/maildir/local/bob", true);
  world_.privileges = {{"bob", 0}};
  world_.api_response = ShareQuotaOf(1);
  world_.effective_limits = {{"Bob.Real", 5}};
  world_.usage = {{"Bob.Real", "6"}};
  EXPECT_EQ(
      Text(InfoOf("bob")),
      "Bob.Real may not use the client, maildir 1001:/maildir/local/bob:found, share 1048576, "
      "limit 5, usage 6");
}

// The mail directory

TEST_F(MoreInfosTest, HaveTheMailDirectoryOnlyIfItWasFound) {
  SetMaildir(1001, "/maildir/local/bob", false);
  EXPECT_FALSE(InfoOf("bob").maildir.has_value());
  SetMaildir(1001, "", true);
  const MoreInfo info = InfoOf("bob");
  ASSERT_TRUE(info.maildir.has_value());
  EXPECT_EQ(info.maildir->path, "");
}

TEST_F(MoreInfosTest, HaveTheMailDirectoryAsItWasFound) {
  world_.maildirs[0].account = "bob the account";
  world_.maildirs[0].path = "/maildir/example.org/b o b";
  world_.maildirs[0].flag = true;
  const MoreInfo info = InfoOf("bob");
  ASSERT_TRUE(info.maildir.has_value());
  EXPECT_EQ(info.maildir->uid, 1001U);
  EXPECT_EQ(info.maildir->path, "/maildir/example.org/b o b");
  EXPECT_TRUE(info.maildir->flag);
  EXPECT_EQ(info.maildir->account, "bob the account");
}

// The quota on the shared folder

TEST_F(MoreInfosTest, HaveTheShareQuotaInBytes) {
  world_.api_response = ShareQuotaOf(2);
  EXPECT_EQ(InfoOf("bob").share_quota, 2097152U);
  world_.api_response = ShareQuotaOf(1);
  EXPECT_EQ(InfoOf("bob").share_quota, 1048576U);
  world_.api_response = ShareQuotaOf(17592186044415);
  EXPECT_EQ(InfoOf("bob").share_quota, 18446744073708503040U);
}

TEST_F(MoreInfosTest, HaveNoShareQuotaOfZero) {
  world_.api_response = ShareQuotaOf(0);
  EXPECT_EQ(InfoOf("bob").share_quota, std::nullopt);
}

TEST_F(MoreInfosTest, HaveNoShareQuotaOfAnAdministrator) {
  world_.api_response = ShareQuotaOf(2);
  world_.administrators = {"bob"};
  EXPECT_EQ(InfoOf("bob").share_quota, std::nullopt);
  EXPECT_THAT(world_.transcript, Contains(StartsWith("Exec(")).Times(0));
  EXPECT_EQ(InfoOf("alice").share_quota, 2097152U);
  // Asked by account name.
  world_.administrators = {"Bob.Real"};
  EXPECT_EQ(InfoOf("bob").share_quota, 2097152U);
}

TEST_F(MoreInfosTest, TheBytesOfAShareQuotaWrapAroundAt64Bits) {
  world_.api_response = ShareQuotaOf(1ULL << 44U);
  EXPECT_EQ(InfoOf("bob").share_quota, 0U);
  world_.api_response = ShareQuotaOf((1ULL << 44U) + 1);
  EXPECT_EQ(InfoOf("bob").share_quota, 1048576U);
  world_.api_response = ShareQuotaOf(kLargest);
  EXPECT_EQ(InfoOf("bob").share_quota, 18446744073708503040U);
}

TEST_F(MoreInfosTest, AShareQuotaThatTheHostCannotTellFailsThemAll) {
  world_.api_response = Parse(R"({"success": false, "error": {"code": 105}})");
  EXPECT_EQ(Thrown([&] {
              InfosOf({"bob", "alice"});
            }),
            "LogException 3008 lib-webapi/run_api:23 api: [VELA.Core.Quota], method: [get]");
  EXPECT_THAT(world_.transcript, Contains(StartsWith("RealName(")).Times(1));
  EXPECT_THAT(world_.transcript, Contains("RedisClient()").Times(0));
}

// Usage and limit

TEST_F(MoreInfosTest, HaveTheUsageByRealNameExactly) {
  world_.usage = {{"bob", "1"}, {"bob.real", "2"}, {"Bob.Real", "3"}, {"alice", "4"}};
  EXPECT_EQ(InfoOf("bob").usage, 3U);
  world_.usage = {{"bob", "1"}, {"bob.real", "2"}};
  EXPECT_EQ(InfoOf("bob").usage, std::nullopt);
}

TEST_F(MoreInfosTest, HaveAUsageOfZeroButNoneOfAnEmptyText) {
  world_.usage = {{"Bob.Real", "0"}, {"alice", ""}};
  const std::vector<MoreInfo> infos = InfosOf({"bob", "alice"});
  ASSERT_EQ(infos.size(), 2U);
  EXPECT_EQ(infos[0].usage, 0U);
  EXPECT_EQ(infos[1].usage, std::nullopt);
  EXPECT_THAT(world_.transcript, Contains(StartsWith("ToULL(")).Times(1));
}

TEST_F(MoreInfosTest, KeepTheLargestValues) {
  world_.usage = {{"Bob.Real", "18446744073709551615"}};
  world_.effective_limits = {{"Bob.Real", kLargest}};
  EXPECT_EQ(Text(InfoOf("bob")),
            "Bob.Real may use the client, maildir -, share -, limit 18446744073709551615, "
            "usage 18446744073709551615");
}

TEST_F(MoreInfosTest, AUsageThatIsNoNumberFailsThemAll) {
  world_.usage = {{"Bob.Real", "many"}};
  EXPECT_EQ(Thrown([&] {
              InfosOf({"alice", "bob"});
            }),
            "LogException 1001 recording_platform/text:11 not a number: many");
  EXPECT_THAT(world_.transcript, Contains("GetResultUserQuotaLimit(alice)"));
  EXPECT_THAT(world_.transcript, Contains("GetResultUserQuotaLimit(Bob.Real)").Times(0));
  EXPECT_EQ(world_.transcript.back(), "~RedisClient()");
}

TEST_F(MoreInfosTest, AlwaysHaveALimitByRealName) {
  world_.effective_limits = {{"bob", 1}, {"alice", 2}};
  EXPECT_EQ(InfoOf("bob").quota_limit, 0U);
  EXPECT_EQ(InfoOf("alice").quota_limit, 2U);
}

TEST_F(MoreInfosTest, AMailDirectoryThatCannotBeLookedUpFailsThemAll) {
  world_.maildirs.clear();
  EXPECT_EQ(Thrown([&] { InfosOf({"bob"}); }),
            "LogException 2106 recording_platform/mail_directories:11 no user 1001");
}

// Every call of the platform in turn

class WholeMoreInfosTest : public MoreInfosTest {
 protected:
  WholeMoreInfosTest() {
    world_.api_response = ShareQuotaOf(1);
    world_.usage = {{"Bob.Real", "7"}, {"alice", "8"}};
  }

  // The same of whichever users it is about.
  static std::vector<Step> StepsOfBoth(const std::vector<Step>& choice) {
    const Lines end = {"~RedisClient()"};
    return Concatenated(
        Concatenated(choice, Concatenated(StepsOf("bob", 1001), StepsOf("alice", 1002))),
        {{"RedisClient()"},
         {"QuotaRedisClient()", end},
         {"ListUsage([Bob.Real, alice])", end},
         {"ToULL(7)", end},
         {"GetResultUserQuotaLimit(Bob.Real)", end},
         {"ToULL(8)", end},
         {"GetResultUserQuotaLimit(alice)", end},
         {"~RedisClient()", {}, false}});
  }

  std::vector<Step> chosen_ = StepsOfBoth({});
  std::vector<Step> all_ = StepsOfBoth({{"SmtpConf()"}, {"SmtpExt()"}, {"EnumUsers()"}});
};

TEST_F(WholeMoreInfosTest, AreGatheredUserByUserThenFromTheStores) {
  InfosOf({"bob", "alice"});
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOf(chosen_)));
  world_.transcript.clear();
  user_.MoreInfos({});
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOf(all_)));
}

TEST_F(WholeMoreInfosTest, EveryFailureOfThePlatformPassesThrough) {
  ExpectPassesThrough(chosen_, [&] { InfosOf({"bob", "alice"}); });
  ExpectPassesThrough(all_, [&] { user_.MoreInfos({}); });
}

}  // namespace
}  // namespace velamailserver::webapi
