#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <velamailserver/account/group.h>
#include <velamailserver/account/user.h>
#include <velamailserver/log_exception.h>

#include "handlers/api_test.h"
#include "support/as_nobody.h"
#include "support/typed_json.h"

namespace quillon::handlers {
namespace {

using test::Column;
using test::Typed;
using testing::ElementsAre;
using testing::HasSubstr;
using velamailserver::velasdk::VelaGroup;
using velamailserver::velasdk::VelaUser;

class UserDetailsAPITest : public APITest {
 protected:
  UserDetailsAPITest() : APITest("Quillon.MailServer.User") { ScriptShareQuotas({}); }

  static void LimitUser(const std::string& name, unsigned long long limit) {
    velamailserver::webapi::User().SetQuota({VelaUser(name)}, limit, 0);
  }

  static void LimitGroup(const std::string& name, unsigned long long limit) {
    velamailserver::webapi::Group().SetQuota({VelaGroup(name)}, limit, 0);
  }

  // A mail directory with a message in it.
  void GiveMail(const std::string& account, unsigned int uid) {
    world_.Deliver(account, "cur", 10);
    world_.Give(account, uid);
  }

  void MakeSpool() const { std::filesystem::create_directories(world_.folder() / "spool"); }

  std::vector<std::string> Details(const char* member, const std::vector<std::string>& names) {
    MakeSpool();
    return Column(Data("details", Selection(names)), member);
  }
};

TEST_F(UserDetailsAPITest, TellsAboutAllMailUsersInOrderOfTheirUids) {
  GiveMail("alice", 1001);
  world_.SetUsage("alice", "500");
  world_.SetUsage("bob", "0");
  world_.AddAccount("daemon2", 99, 99);
  ScriptShareQuotas({{"bob", 2}});
  EXPECT_EQ(Typed(Data("details")),
            R"({"users":[{"has_app_privilege":true,"maildir":")" + world_.Maildir("alice") +
                R"(","name":"alice","quota_limit":0u,"share_quota":null,"usage":500u},)"
                R"({"has_app_privilege":true,"maildir":null,"name":"bob","quota_limit":0u,)"
                R"("share_quota":2097152u,"usage":0u},)"
                R"({"has_app_privilege":true,"maildir":null,"name":"carol","quota_limit":0u,)"
                R"("share_quota":null,"usage":null}]})");
}

TEST_F(UserDetailsAPITest, TellsAboutThoseWhoAreNamedEachOnce) {
  EXPECT_THAT(Details("name", {"CAROL", "alice", "carol", "Alice"}), ElementsAre("carol", "alice"));
}

TEST_F(UserDetailsAPITest, RefusesUnknownNames) {
  const Json::Value error = Error("details", Selection({"alice", "eve", "mallory"}));
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_SDK_USER_GET);
  EXPECT_EQ(error["message"].asString(), "no such user: [eve], [mallory]");
}

TEST_F(UserDetailsAPITest, ALinkIsNoMailDirectory) {
  GiveMail("alice", 1001);
  std::filesystem::create_directory_symlink(world_.Maildir("alice"), world_.Maildir("bob"));
  EXPECT_THAT(Details("maildir", {"alice", "bob"}), ElementsAre(world_.Maildir("alice"), "null"));
}

TEST_F(UserDetailsAPITest, TellsTheMailDirectoryOfWhomeverItBelongsTo) {
  GiveMail("alice", 1002);
  EXPECT_THAT(Details("maildir", {"alice"}), ElementsAre(world_.Maildir("alice")));
}

TEST_F(UserDetailsAPITest, TellsTheLimitThatApplies) {
  world_.AddGroup("staff", 200, {"alice", "bob"});
  world_.AddGroup("sales", 300, {"alice", "carol"});
  world_.AddAccount("dora", 1004, 300);
  world_.AddAccount("emil", 1005, 400);
  LimitUser("bob", 50);
  LimitUser("carol", 0);
  LimitGroup("staff", 100);
  LimitGroup("sales", 200);
  EXPECT_THAT(Details("quota_limit", {"alice", "bob", "carol", "dora", "emil"}),
              ElementsAre("200", "50", "0", "200", "0"));
}

TEST_F(UserDetailsAPITest, TellsWhoMayNotUseTheMailClient) {
  Json::Value response;
  VELA::APIRunner::Exec(response, "Quillon.MailServer.Privilege", 1, "revoke", Selection({"bob"}),
                        "admin");
  ASSERT_TRUE(response["success"].asBool()) << response;
  EXPECT_THAT(Details("has_app_privilege", {"alice", "bob"}), ElementsAre("true", "false"));
}

TEST_F(UserDetailsAPITest, AnAdministratorHasNoShareQuota) {
  world_.AddGroup("admins", 500, {"alice"});
  ScriptShareQuotas({{"alice", 2}, {"bob", 2}});
  EXPECT_THAT(Details("share_quota", {"alice", "bob"}), ElementsAre("null", "2097152"));
}

TEST_F(UserDetailsAPITest, OneFailureIsNoAnswerAboutAnybody) {
  const std::vector<std::string> everybody = {"alice", "bob", "carol"};
  const std::string root = world_.folder() / "spool";
  Json::Value error = Error("details", Selection(everybody));
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_LSTAT_FILE);
  EXPECT_EQ(error["message"].asString(), root + " (maildir.root): No such file or directory");

  MakeSpool();
  FailShareQuotas();
  error = Error("details", Selection(everybody));
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_RUN_WEBAPI);

  ScriptShareQuotas({});
  world_.redis().Stop();
  error = Error("details");
  EXPECT_THAT(error["message"].asString(), HasSubstr("usage store"));
}

TEST_F(UserDetailsAPITest, BecomesRootForWhatOnlyRootMay) {
  GiveMail("alice", 1001);
  LetEverybodyIn();
  const test::AsNobody nobody;
  EXPECT_THAT(Column(Data("details", Selection({"alice"})), "maildir"),
              ElementsAre(world_.Maildir("alice")));
}

}  // namespace
}  // namespace quillon::handlers
