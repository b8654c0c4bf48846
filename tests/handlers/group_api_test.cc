#include <algorithm>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <velamailserver/account/mailbox_quota.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/vela_group.h>

#include "handlers/api_test.h"
#include "support/typed_json.h"

namespace quillon::handlers {
namespace {

using test::Typed;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using velamailserver::velasdk::VelaGroup;

constexpr char kGetShareQuota[] = "share_quota";

// The groups "users" (100), "staff" (200), "sales" (300) and "board" (400).
class GroupAPITest : public APITest {
 protected:
  GroupAPITest() : APITest("Quillon.MailServer.Group") {
    world_.AddGroup("staff", 200, {"alice"});
    world_.AddGroup("sales", 300);
    world_.AddGroup("board", 400);
    ScriptShareQuotas({});
  }

  void SetQuota(const std::vector<std::string>& names, unsigned long long limit,
                unsigned long long warning) const {
    Json::Value params = Selection(names);
    params["limit"] = Json::UInt64{limit};
    params["warning"] = Json::UInt64{warning};
    EXPECT_EQ(Data("set_quota", params)["groups"].size(), names.size());
  }

  static void SetWarning(const std::string& name, unsigned long long bytes) {
    velamailserver::account::MailboxQuota().SetGroupQuotaWarning({VelaGroup(name)}, bytes);
  }

  static std::vector<std::string> Column(const Json::Value& report, const char* member) {
    std::vector<std::string> values;
    for (const Json::Value& group : report["groups"]) {
      values.push_back(group[member].isNull() ? "null" : group[member].asString());
    }
    return values;
  }

  Json::Value List(const std::vector<std::string>& names) const {
    return Data("list", Selection(names));
  }

  std::vector<std::string> SortedBy(const char* key, const char* direction) const {
    Json::Value params = Selection({"users", "staff", "sales", "board"});
    params["sort"] = key;
    params["direction"] = direction;
    return Column(Data("list", params), "name");
  }

  std::vector<std::string> Page(Json::UInt64 offset, Json::Int64 limit) const {
    Json::Value params = Selection({"users", "staff", "sales"});
    params["offset"] = offset;
    params["limit"] = limit;
    const Json::Value data = Data("list", params);
    EXPECT_EQ(data["total"].asUInt(), 3U);
    return Column(data, "name");
  }

  static Json::Value Name(const std::string& name) {
    Json::Value params;
    params["name"] = name;
    return params;
  }

  std::string ShareQuota(Json::UInt64 megabytes) const {
    ScriptShareQuotas({{"staff", megabytes}});
    return Typed(Data(kGetShareQuota, Name("staff"))["share_quota"]);
  }
};

TEST_F(GroupAPITest, ListsAllGroupsOfMailUsersInOrderOfTheirNames) {
  world_.AddGroup("daemons", 99);
  const Json::Value data = Data("list");
  EXPECT_THAT(Column(data, "name"), ElementsAre("board", "sales", "staff", "users"));
  EXPECT_EQ(data["total"].asUInt(), 4U);
}

TEST_F(GroupAPITest, TellsWhatIsSetFromWhatIsNot) {
  SetQuota({"staff"}, 1073741824, 1048576000);
  SetQuota({"sales"}, 100, 100);
  SetQuota({"users"}, 0, 0);
  EXPECT_EQ(
      Typed(List({"staff", "sales", "users", "board"})),
      R"({"groups":[)"
      R"({"limit":null,"name":"board","quota":0,"remaining_usage_notification":0,"warning":null},)"
      R"({"limit":100u,"name":"sales","quota":100u,"remaining_usage_notification":0u,)"
      R"("warning":100u},)"
      R"({"limit":1073741824u,"name":"staff","quota":1073741824u,)"
      R"("remaining_usage_notification":25165824u,"warning":1048576000u},)"
      R"({"limit":0u,"name":"users","quota":0u,"remaining_usage_notification":0u,)"
      R"("warning":0u}],"total":4u})");
}

TEST_F(GroupAPITest, AnEmptySelectionIsNotAllGroups) {
  EXPECT_EQ(Typed(List({})), R"({"groups":[],"total":0u})");
}

TEST_F(GroupAPITest, AnswersEachGroupOnceAsTheAccountsSpellIt) {
  SetQuota({"STAFF"}, 10, 5);
  const Json::Value data = List({"Staff", "sales", "staff"});
  EXPECT_THAT(Column(data, "name"), ElementsAre("sales", "staff"));
  EXPECT_THAT(Column(data, "limit"), ElementsAre("null", "10"));
}

TEST_F(GroupAPITest, ChangesAreAnsweredInTheOrderOfTheNames) {
  Json::Value params = Selection({"USERS", "board", "users"});
  params["limit"] = 10;
  params["warning"] = 10;
  EXPECT_EQ(Typed(Data("set_quota", params)), R"({"groups":["users","board"]})");
  EXPECT_EQ(Typed(Data("clear_quota", Selection({"Board", "users", "BOARD"}))),
            R"({"groups":["board","users"]})");
  EXPECT_THAT(Column(List({"users", "board"}), "limit"), ElementsAre("null", "null"));
}

TEST_F(GroupAPITest, TakesAllOf64Bits) {
  constexpr unsigned long long kLargest = std::numeric_limits<unsigned long long>::max();
  SetQuota({"staff"}, kLargest, kLargest);
  const Json::Value data = List({"staff"});
  EXPECT_THAT(Column(data, "limit"), ElementsAre("18446744073709551615"));
  EXPECT_THAT(Column(data, "warning"), ElementsAre("18446744073709551615"));
  EXPECT_THAT(Column(data, "remaining_usage_notification"), ElementsAre("0"));
}

TEST_F(GroupAPITest, AGroupsQuotaIsNotTheUserOfTheSameId) {
  world_.AddGroup("thousand", 1001);
  SetQuota({"thousand"}, 10, 5);
  Json::Value response;
  VELA::APIRunner::Exec(response, "Quillon.MailServer.User", 1, "list", Selection({"alice"}),
                        "admin");
  EXPECT_TRUE(response["data"]["users"][0]["limit"].isNull()) << response;
}

TEST_F(GroupAPITest, SortsWhatIsNotSetLowestAndTiesByName) {
  SetQuota({"users"}, 100, 20);
  SetQuota({"sales"}, 200, 20);
  EXPECT_THAT(SortedBy("name", "ASC"), ElementsAre("board", "sales", "staff", "users"));
  EXPECT_THAT(SortedBy("name", "DESC"), ElementsAre("users", "staff", "sales", "board"));
  EXPECT_THAT(SortedBy("limit", "ASC"), ElementsAre("board", "staff", "users", "sales"));
  EXPECT_THAT(SortedBy("limit", "DESC"), ElementsAre("sales", "users", "board", "staff"));
  EXPECT_THAT(SortedBy("warning", "ASC"), ElementsAre("board", "staff", "sales", "users"));
  EXPECT_THAT(SortedBy("warning", "DESC"), ElementsAre("sales", "users", "board", "staff"));
}

TEST_F(GroupAPITest, CutsOutAPage) {
  constexpr Json::UInt64 kLargest = std::numeric_limits<Json::UInt64>::max();
  constexpr Json::Int64 kMost = std::numeric_limits<Json::Int64>::max();
  EXPECT_THAT(Page(0, 2), ElementsAre("sales", "staff"));
  EXPECT_THAT(Page(2, 2), ElementsAre("users"));
  EXPECT_THAT(Page(1, kMost), ElementsAre("staff", "users"));
  EXPECT_THAT(Page(1, -1), ElementsAre("staff", "users"));
  EXPECT_THAT(Page(0, std::numeric_limits<Json::Int64>::min()),
              ElementsAre("sales", "staff", "users"));
  EXPECT_THAT(Page(0, 0), IsEmpty());
  EXPECT_THAT(Page(3, 1), IsEmpty());
  EXPECT_THAT(Page(kLargest, kMost), IsEmpty());
}

TEST_F(GroupAPITest, NamesTheGroupWhoseStoredWarningIsAboveTheLimit) {
  SetQuota({"users"}, 100, 50);
  SetWarning("staff", 1);
  SetWarning("sales", 1);
  const Json::Value error = Error("list", Selection({"board", "users", "staff", "sales"}));
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_INTERNAL);
  EXPECT_EQ(error["message"].asString(),
            "group [staff]: warning byte [1] can't be larger than limit byte [0]; set both again "
            "or clear them");
  SetQuota({"staff"}, 1, 1);
  EXPECT_THAT(Error("list", Selection({"users", "staff", "sales"}))["message"].asString(),
              HasSubstr("group [sales]: "));
}

TEST_F(GroupAPITest, OtherFailuresOfTheReportNameNoGroup) {
  world_.UseStore("sqlite:///nonexistent/quota.db");
  const Json::Value error = Error("list", Selection({"staff"}));
  EXPECT_GE(error["code"].asInt(), 1001);
  EXPECT_THAT(error["message"].asString(), HasSubstr("/nonexistent/quota.db"));
  EXPECT_THAT(error["message"].asString(), Not(HasSubstr("group [")));
}

TEST_F(GroupAPITest, RefusesAChangeForUnknownGroupsBeforeAnythingElse) {
  SetQuota({"staff"}, 10, 5);
  Json::Value params = Selection({"staff", "pirates", "alice"});
  params["limit"] = 1;
  params["warning"] = 2;
  Json::Value error = Error("set_quota", params);
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_SDK_GROUP_GET);
  EXPECT_EQ(error["message"].asString(), "no such group: [pirates], [alice]");

  params["names"] = Array({"staff"});
  error = Error("set_quota", params);
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_INTERNAL);
  EXPECT_EQ(error["message"].asString(), "warning byte [2] can't be larger than limit byte [1]");

  error = Error("clear_quota", Selection({"staff", "pirates"}));
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_SDK_GROUP_GET);
  EXPECT_THAT(Column(List({"staff"}), "limit"), ElementsAre("10"));
}

TEST_F(GroupAPITest, NamesTheFirstOfManyUnknownGroups) {
  std::vector<std::string> names;
  for (int i = 1; i <= 11; ++i) {
    names.push_back("n" + std::to_string(i));
  }
  const std::string first_ten =
      "no such group: [n1], [n2], [n3], [n4], [n5], [n6], [n7], [n8], [n9], [n10]";
  EXPECT_EQ(Error("list", Selection(names))["message"].asString(), first_ten + " and 1 more");
  names.resize(5000, "nemo");
  EXPECT_EQ(Error("list", Selection(names))["message"].asString(), first_ten + " and more");
}

TEST_F(GroupAPITest, StopsLookingForUnknownGroups) {
  Exec("list", Selection(std::vector<std::string>(5000, "nemo")));
  const std::string log = world_.folder().Read("mail.log");
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 101);
}

TEST_F(GroupAPITest, CallsNoGroupUnknownWhileTheAccountsCannotBeRead) {
  std::filesystem::remove(world_.folder() / "group");
  const Json::Value error = Error("list", Selection({"staff"}));
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_SDK_GROUP_INFO_ENUM_BY_SUBSTR);
  EXPECT_THAT(error["message"].asString(), HasSubstr("/group: No such file or directory"));
}

TEST_F(GroupAPITest, ShareQuotaIsInBytes) {
  EXPECT_EQ(Typed(Data(kGetShareQuota, Name("STAFF"))), R"({"name":"staff","share_quota":null})");
  EXPECT_EQ(ShareQuota(0), "null");
  EXPECT_EQ(ShareQuota(2), "2097152u");
  EXPECT_EQ(ShareQuota(17592186044415), "18446744073708503040u");
  EXPECT_EQ(ShareQuota(17592186044416), "18446744073709551615u");
  EXPECT_EQ(ShareQuota(std::numeric_limits<Json::UInt64>::max()), "18446744073709551615u");
}

TEST_F(GroupAPITest, ShareQuotaOfAnUnknownGroupIsNotAskedFor) {
  FailShareQuotas();
  Json::Value error = Error(kGetShareQuota, Name("pirates"));
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_SDK_GROUP_GET);
  EXPECT_EQ(error["message"].asString(), "no such group: [pirates]");
  error = Error(kGetShareQuota, Name("staff"));
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_RUN_WEBAPI);
}

}  // namespace
}  // namespace quillon::handlers
