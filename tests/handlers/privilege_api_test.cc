#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <vela/app_privilege.h>
#include <velamailserver/log_exception.h>

#include "handlers/api_test.h"
#include "support/as_nobody.h"
#include "support/typed_json.h"

namespace quillon::handlers {
namespace {

using test::Typed;
using testing::HasSubstr;

constexpr char kMailClient[] = "VELA.WUI.MailClient.Application";

class PrivilegeAPITest : public APITest {
 protected:
  PrivilegeAPITest() : APITest("Quillon.MailServer.Privilege") {}

  static Json::Value Params(const std::vector<std::string>& names, const std::string& app) {
    Json::Value params = Selection(names);
    params["app"] = app;
    return params;
  }

  std::string Revoked() const { return Typed(Data("list")["revoked"]); }

  static bool MayUse(const std::string& user, const char* app = kMailClient) {
    return VLIBAppPrivUserHas(user.c_str(), app, "ignore") != 0;
  }
};

TEST_F(PrivilegeAPITest, ItIsTheMailClientUnlessAnotherApplicationIsNamed) {
  EXPECT_EQ(Typed(Data("revoke", Selection({"bob", "alice"}))),
            R"({"app":"VELA.WUI.MailClient.Application","users":["bob","alice"]})");
  EXPECT_FALSE(MayUse("alice"));
  EXPECT_FALSE(MayUse("bob"));
  EXPECT_TRUE(MayUse("carol"));
  EXPECT_EQ(Typed(Data("grant", Selection({"bob"}))),
            R"({"app":"VELA.WUI.MailClient.Application","users":["bob"]})");
  EXPECT_FALSE(MayUse("alice"));
  EXPECT_TRUE(MayUse("bob"));
}

TEST_F(PrivilegeAPITest, ChangesOneApplicationOnly) {
  EXPECT_EQ(Typed(Data("revoke", Params({"alice"}, "Other.App"))),
            R"({"app":"Other.App","users":["alice"]})");
  EXPECT_FALSE(MayUse("alice", "Other.App"));
  EXPECT_TRUE(MayUse("alice"));
  Data("grant", Selection({"alice"}));
  EXPECT_FALSE(MayUse("alice", "Other.App"));
}

TEST_F(PrivilegeAPITest, ListsWhatIsRevokedInTheOrderOfApplicationsAndNames) {
  EXPECT_EQ(Typed(Data("list")), R"({"revoked":[]})");
  Data("revoke", Params({"carol", "alice"}, "Z.App"));
  Data("revoke", Params({"bob", "alice"}, "A.App"));
  EXPECT_EQ(Revoked(), R"([{"app":"A.App","name":"alice"},{"app":"A.App","name":"bob"},)"
                       R"({"app":"Z.App","name":"alice"},{"app":"Z.App","name":"carol"}])");
}

TEST_F(PrivilegeAPITest, AUserWhoIsNamedTwiceCountsOnceAsTheAccountsSpellIt) {
  EXPECT_EQ(Typed(Data("revoke", Params({"ALICE", "bob", "alice"}, "A"))),
            R"({"app":"A","users":["alice","bob"]})");
  EXPECT_EQ(Revoked(), R"([{"app":"A","name":"alice"},{"app":"A","name":"bob"}])");
}

TEST_F(PrivilegeAPITest, WhatAlreadyIsSoStaysSo) {
  for (int times = 0; times < 2; ++times) {
    Data("revoke", Params({"alice"}, "A"));
    EXPECT_EQ(Revoked(), R"([{"app":"A","name":"alice"}])");
  }
  for (int times = 0; times < 2; ++times) {
    Data("grant", Params({"alice"}, "A"));
    EXPECT_EQ(Revoked(), "[]");
  }
}

TEST_F(PrivilegeAPITest, UnknownNamesKeepEverybodysPrivileges) {
  for (const char* method : {"grant", "revoke"}) {
    const Json::Value error = Error(method, Selection({"alice", "eve"}));
    EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_SDK_USER_GET);
    EXPECT_EQ(error["message"].asString(), "no such user: [eve]");
  }
  EXPECT_EQ(Revoked(), "[]");
}

TEST_F(PrivilegeAPITest, RefusesWhatIsNoNameOfAnApplication) {
  for (const std::string& app :
       {std::string(), std::string("a b"), std::string("a\nb"), std::string(256, 'a')}) {
    for (const char* method : {"grant", "revoke"}) {
      EXPECT_EQ(Error(method, Params({"alice"}, app))["code"].asInt(), velamailserver::ERR_INTERNAL)
          << method << " " << app;
    }
  }
  EXPECT_EQ(Revoked(), "[]");
}

TEST_F(PrivilegeAPITest, AFileThatCannotBeUsedIsNoEmptyOne) {
  const std::string file = world_.folder().Write("app-privileges", "torn");
  for (const char* method : {"grant", "revoke", "list"}) {
    const Json::Value error =
        Error(method, method == std::string("list") ? Json::Value() : Selection({"alice"}));
    EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_OPEN_FILE) << method;
    EXPECT_THAT(error["message"].asString(), HasSubstr(file)) << method;
  }
  EXPECT_EQ(world_.folder().Read("app-privileges"), "torn");
}

TEST_F(PrivilegeAPITest, BecomesRootForWhatOnlyRootMay) {
  LetEverybodyIn();
  {
    const test::AsNobody nobody;
    Data("revoke", Params({"alice"}, "A"));
  }
  EXPECT_EQ(Revoked(), R"([{"app":"A","name":"alice"}])");
}

}  // namespace
}  // namespace quillon::handlers
