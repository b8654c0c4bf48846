#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>

#include "handlers/api_test.h"

namespace quillon::handlers {
namespace {

using test::Column;
using testing::ElementsAre;
using testing::IsEmpty;

class UserAPITest : public APITest {
 protected:
  UserAPITest() : APITest("Quillon.MailServer.User") {}

  void SetQuota(const std::string& name, unsigned long long limit,
                unsigned long long warning) const {
    Json::Value params;
    params["names"].append(name);
    params["limit"] = Json::UInt64{limit};
    params["warning"] = Json::UInt64{warning};
    Data("set_quota", params);
  }

  std::vector<std::string> Names(const Json::Value& params) const {
    return Column(Data("list", params), "name");
  }

  std::vector<std::string> SortedBy(const char* key, const char* direction) const {
    Json::Value params;
    params["sort"] = key;
    params["direction"] = direction;
    return Names(params);
  }

  std::vector<std::string> Page(Json::UInt64 offset, Json::Int64 limit) const {
    Json::Value params;
    params["offset"] = offset;
    params["limit"] = limit;
    const Json::Value data = Data("list", params);
    EXPECT_EQ(data["total"].asUInt(), 3U);
    return Column(data, "name");
  }
};

TEST_F(UserAPITest, ListsAllMailUsersInOrderOfTheirNames) {
  world_.AddAccount("aaron", 1009);
  world_.AddAccount("daemon2", 999);
  EXPECT_THAT(Names(Json::Value()), ElementsAre("aaron", "alice", "bob", "carol"));
  EXPECT_EQ(Data("names", Json::Value())["names"], Array({"alice", "bob", "carol", "aaron"}));
}

TEST_F(UserAPITest, AnEmptySelectionIsNotEverybody) {
  const Json::Value data = Data("list", Selection({}));
  EXPECT_EQ(data["users"], Json::Value(Json::arrayValue));
  EXPECT_EQ(data["total"].asUInt(), 0U);
  EXPECT_EQ(Data("names", Selection({}))["names"], Json::Value(Json::arrayValue));
}

TEST_F(UserAPITest, AnswersNamesAsTheAccountsSpellThem) {
  EXPECT_EQ(Data("names", Selection({"BOB", "alice", "bob"}))["names"], Array({"bob", "alice"}));
}

TEST_F(UserAPITest, AsksForTheReportByRealNames) {
  world_.SetUsage("alice", "77");
  world_.SetUsage("ALICE", "88");
  const Json::Value data = Data("list", Selection({"ALICE", "alice"}));
  EXPECT_THAT(Column(data, "name"), ElementsAre("alice"));
  EXPECT_THAT(Column(data, "usage"), ElementsAre("77"));
}

TEST_F(UserAPITest, TellsAWarningAtTheLimitFromNone) {
  SetQuota("alice", 100, 100);
  SetQuota("bob", 100, 0);
  const Json::Value data = Data("list", Json::Value());
  EXPECT_THAT(Column(data, "remaining_usage_notification"), ElementsAre("0", "100", "0"));
  EXPECT_THAT(Column(data, "warning"), ElementsAre("100", "0", "null"));
}

TEST_F(UserAPITest, TellsALimitOf0FromNone) {
  SetQuota("alice", 100, 50);
  SetQuota("bob", 0, 0);
  const Json::Value data = Data("list", Json::Value());
  EXPECT_THAT(Column(data, "quota"), ElementsAre("100", "0", "0"));
  EXPECT_THAT(Column(data, "limit"), ElementsAre("100", "0", "null"));
  EXPECT_THAT(SortedBy("limit", "ASC"), ElementsAre("carol", "bob", "alice"));
}

// Quotas are kept by uid and reported by name.
TEST_F(UserAPITest, ReportsTheQuotaOfAUidWithItsFirstName) {
  world_.AddAccount("alias", 1001);
  SetQuota("alias", 100, 100);
  const Json::Value data = Data("list", Selection({"alias", "alice"}));
  EXPECT_THAT(Column(data, "name"), ElementsAre("alias", "alice"));
  EXPECT_THAT(Column(data, "limit"), ElementsAre("null", "100"));
  EXPECT_THAT(Column(data, "warning"), ElementsAre("null", "100"));
}

TEST_F(UserAPITest, ReportsOneQuotaForNamesThatDifferInLetterCase) {
  world_.AddAccount("ALICE", 1004);
  SetQuota("alice", 100, 100);
  const Json::Value data = Data("list", Selection({"ALICE", "alice"}));
  EXPECT_THAT(Column(data, "name"), ElementsAre("ALICE", "alice"));
  EXPECT_THAT(Column(data, "limit"), ElementsAre("100", "100"));
  EXPECT_THAT(Column(data, "warning"), ElementsAre("100", "100"));
}

TEST_F(UserAPITest, PercentagesAreExact) {
  SetQuota("alice", 100, 0);
  world_.SetUsage("alice", "29");
  const unsigned long long largest = std::numeric_limits<unsigned long long>::max();
  SetQuota("bob", largest, 0);
  world_.SetUsage("bob", std::to_string(largest));
  const Json::Value data = Data("list", Json::Value());
  EXPECT_EQ(data["users"][0]["percent"].asDouble(), 29.0);
  EXPECT_EQ(data["users"][1]["percent"].asDouble(), 100.0);
  EXPECT_TRUE(data["users"][2]["percent"].isNull());
}

TEST_F(UserAPITest, AboveKeepsWhoReachesThePercentage) {
  SetQuota("alice", 100, 0);
  SetQuota("bob", 100, 0);
  world_.SetUsage("alice", "29");
  world_.SetUsage("bob", "28");
  world_.SetUsage("carol", "5000");
  Json::Value params;
  params["above"] = 29;
  EXPECT_THAT(Names(params), ElementsAre("alice"));
  params["above"] = -1;
  EXPECT_THAT(Names(params), ElementsAre("alice", "bob"));
  params["above"] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(Exec("list", params)["error"]["code"].asInt(), VELA::APIRunner::kBadParameters);
}

TEST_F(UserAPITest, SortsWhatIsNotSetLowestAndTiesByName) {
  world_.AddAccount("abe", 1009);  // after alice, bob and carol in the order of uids
  SetQuota("carol", 100, 0);
  SetQuota("bob", 200, 0);
  world_.SetUsage("carol", "50");
  world_.SetUsage("bob", "50");
  EXPECT_THAT(SortedBy("name", "DESC"), ElementsAre("carol", "bob", "alice", "abe"));
  EXPECT_THAT(SortedBy("limit", "ASC"), ElementsAre("abe", "alice", "carol", "bob"));
  EXPECT_THAT(SortedBy("limit", "DESC"), ElementsAre("bob", "carol", "abe", "alice"));
  EXPECT_THAT(SortedBy("usage", "ASC"), ElementsAre("abe", "alice", "bob", "carol"));
  EXPECT_THAT(SortedBy("usage", "DESC"), ElementsAre("bob", "carol", "abe", "alice"));
  EXPECT_THAT(SortedBy("percent", "ASC"), ElementsAre("abe", "alice", "bob", "carol"));
  EXPECT_THAT(SortedBy("percent", "DESC"), ElementsAre("carol", "bob", "abe", "alice"));
  // A warning of 0 is set.
  EXPECT_THAT(SortedBy("warning", "ASC"), ElementsAre("abe", "alice", "bob", "carol"));
  EXPECT_THAT(SortedBy("warning", "DESC"), ElementsAre("bob", "carol", "abe", "alice"));
}

TEST_F(UserAPITest, CutsOutAPage) {
  constexpr Json::UInt64 kLargest = std::numeric_limits<Json::UInt64>::max();
  constexpr Json::Int64 kMost = std::numeric_limits<Json::Int64>::max();
  EXPECT_THAT(Page(0, 2), ElementsAre("alice", "bob"));
  EXPECT_THAT(Page(2, 2), ElementsAre("carol"));
  EXPECT_THAT(Page(1, kMost), ElementsAre("bob", "carol"));
  EXPECT_THAT(Page(1, -1), ElementsAre("bob", "carol"));
  EXPECT_THAT(Page(0, std::numeric_limits<Json::Int64>::min()),
              ElementsAre("alice", "bob", "carol"));
  EXPECT_THAT(Page(0, 0), IsEmpty());
  EXPECT_THAT(Page(3, 1), IsEmpty());
  EXPECT_THAT(Page(kLargest, kMost), IsEmpty());
}

TEST_F(UserAPITest, TotalCountsWhoPassedTheFilter) {
  SetQuota("alice", 100, 0);
  SetQuota("bob", 100, 0);
  Json::Value params;
  params["above"] = 0;
  params["limit"] = 1;
  const Json::Value data = Data("list", params);
  EXPECT_THAT(Column(data, "name"), ElementsAre("alice"));
  EXPECT_EQ(data["total"].asUInt(), 2U);
}

TEST_F(UserAPITest, NamesTheUserWhoseStoredWarningIsAboveTheLimit) {
  SetQuota("alice", 100, 50);
  world_.SetWarning("bob", 1);
  world_.SetWarning("carol", 1);
  const Json::Value response = Exec("list", Json::Value());
  EXPECT_EQ(response["error"]["code"].asInt(), velamailserver::ERR_INTERNAL);
  EXPECT_EQ(response["error"]["message"].asString(),
            "user [bob]: warning byte [1] can't be larger than limit byte [0]; set both again or "
            "clear them");
}

TEST_F(UserAPITest, OtherFailuresOfTheReportNameNoUser) {
  world_.redis().Stop();
  const std::string message = Exec("list", Json::Value())["error"]["message"].asString();
  EXPECT_THAT(message, testing::HasSubstr("usage store"));
  EXPECT_THAT(message, testing::Not(testing::HasSubstr("user [")));
}

TEST_F(UserAPITest, NamesTheFirstOfManyUnknownUsers) {
  std::vector<std::string> names;
  for (int i = 1; i <= 11; ++i) {
    names.push_back("n" + std::to_string(i));
  }
  EXPECT_EQ(Exec("list", Selection(names))["error"]["message"].asString(),
            "no such user: [n1], [n2], [n3], [n4], [n5], [n6], [n7], [n8], [n9], [n10] and 1 more");
  names.resize(5000, "nemo");
  EXPECT_EQ(Exec("list", Selection(names))["error"]["message"].asString(),
            "no such user: [n1], [n2], [n3], [n4], [n5], [n6], [n7], [n8], [n9], [n10] and more");
}

TEST_F(UserAPITest, StopsLookingForUnknownUsers) {
  Exec("list", Selection(std::vector<std::string>(5000, "nemo")));
  const std::string log = world_.folder().Read("mail.log");
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 101);
}

TEST_F(UserAPITest, RefusesAChangeForUnknownUsersBeforeAnythingElse) {
  SetQuota("alice", 10, 5);
  Json::Value params;
  params["names"] = Array({"alice", "eve", "mallory"});
  params["limit"] = 1;
  params["warning"] = 2;
  Json::Value response = Exec("set_quota", params);
  EXPECT_EQ(response["error"]["code"].asInt(), velamailserver::ERR_SDK_USER_GET);
  EXPECT_EQ(response["error"]["message"].asString(), "no such user: [eve], [mallory]");

  params["names"] = Array({"alice"});
  response = Exec("set_quota", params);
  EXPECT_EQ(response["error"]["code"].asInt(), velamailserver::ERR_INTERNAL);
  EXPECT_EQ(response["error"]["message"].asString(),
            "warning byte [2] can't be larger than limit byte [1]");
  EXPECT_THAT(Column(Data("list", Json::Value()), "quota"), ElementsAre("10", "0", "0"));
}

}  // namespace
}  // namespace quillon::handlers
