#include <algorithm>
#include <iterator>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>

#include <velamailserver/account/user.h>
#include <velamailserver/log_exception.h>

#include "lib-webapi/account/user_world_test.h"
#include "lib-webapi/pass_through.h"
#include "recording_platform/world_test.h"
#include "support/parse_json.h"
#include "support/typed_json.h"

namespace velamailserver::webapi {
namespace {

using quillon::test::ExpectPassesThrough;
using quillon::test::Lines;
using quillon::test::Parse;
using quillon::test::Typed;
using recording::LogRecord;
using recording::Throw;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr unsigned long long kLargest = std::numeric_limits<unsigned long long>::max();
constexpr char kExceptionFormat[] = "%s:%d (%d) %s: %s";
constexpr char kSkipFormat[] = "lib-webapi/account/user:88 skip updating [%s]'s quota & usage";

static_assert(std::is_base_of_v<account::MailboxQuota, User>);
static_assert(sizeof(User) == sizeof(account::MailboxQuota), "no data of its own");

class UserTest : public UserWorldTest {
 protected:
  UserTest() {
    world_.AddUser("bob", 1001, "Bob");
    world_.AddUser("alice", 1002);
  }

  // The document after the report, and that nothing kept the report from its end.
  std::string Report(const std::string& list) {
    Json::Value document = Parse(list);
    EXPECT_NO_THROW(user_.UpdateQuotaUsage(document));
    return Typed(document);
  }

  // The same where something must keep it.
  template <typename Exception>
  std::string FailedReport(const std::string& list) {
    Json::Value document = Parse(list);
    EXPECT_THROW(user_.UpdateQuotaUsage(document), Exception);
    return Typed(document);
  }
};

TEST_F(UserTest, ConsistsOfAQuotaStore) {
  { const User user; }
  EXPECT_THAT(world_.transcript, ElementsAre("MailboxQuota()", "~MailboxQuota()"));
}

// SetQuota

using SetQuotaTest = UserTest;

void ExpectWarningAboveLimit(const LogException& exception, const std::string& warning,
                             const std::string& limit, int line) {
  EXPECT_EQ(exception.code(), ERR_INTERNAL);
  EXPECT_EQ(exception.what(),
            "warning byte [" + warning + "] can't be larger than limit byte [" + limit + "]");
  EXPECT_EQ(exception.file(), "lib-webapi/account/user");
  EXPECT_EQ(exception.line(), line);
}

TEST_F(SetQuotaTest, WritesTheLimitThenTheWarning) {
  user_.SetQuota(Users({"bob", "alice"}), 2048, 1024);
  EXPECT_THAT(world_.transcript, ElementsAre("SetUserQuotaLimit([bob, alice], 2048)",
                                             "SetUserQuotaWarning([bob, alice], 1024)"));
}

TEST_F(SetQuotaTest, AllowsAWarningAtTheLimit) {
  user_.SetQuota(Users({"bob"}), 1024, 1024);
  EXPECT_THAT(world_.transcript,
              ElementsAre("SetUserQuotaLimit([bob], 1024)", "SetUserQuotaWarning([bob], 1024)"));
}

TEST_F(SetQuotaTest, PassesZeroesOn) {
  user_.SetQuota(Users({"bob"}), 0, 0);
  EXPECT_THAT(world_.transcript,
              ElementsAre("SetUserQuotaLimit([bob], 0)", "SetUserQuotaWarning([bob], 0)"));
}

TEST_F(SetQuotaTest, PassesTheLargestValuesOn) {
  user_.SetQuota(Users({"bob"}), kLargest, kLargest);
  EXPECT_THAT(world_.transcript, ElementsAre("SetUserQuotaLimit([bob], 18446744073709551615)",
                                             "SetUserQuotaWarning([bob], 18446744073709551615)"));
}

TEST_F(SetQuotaTest, PassesTheUsersOnAsTheyAre) {
  user_.SetQuota({}, 2, 1);
  user_.SetQuota(Users({"bob", "alice", "bob"}), 2, 1);
  EXPECT_THAT(world_.transcript,
              ElementsAre("SetUserQuotaLimit([], 2)", "SetUserQuotaWarning([], 1)",
                          "SetUserQuotaLimit([bob, alice, bob], 2)",
                          "SetUserQuotaWarning([bob, alice, bob], 1)"));
}

TEST_F(SetQuotaTest, RefusesAWarningAboveTheLimitBeforeAnythingIsWritten) {
  struct {
    unsigned long long limit;
    unsigned long long warning;
    const char* limit_text;
    const char* warning_text;
  } const pairs[] = {
      {1024, 1025, "1024", "1025"},
      {1024, 2048, "1024", "2048"},
      {0, 1, "0", "1"},
      {0, kLargest, "0", "18446744073709551615"},
      {9223372036854775808ULL, kLargest, "9223372036854775808", "18446744073709551615"},
      {9223372036854775807ULL, 9223372036854775808ULL, "9223372036854775807",
       "9223372036854775808"},
  };
  for (const auto& pair : pairs) {
    world_.transcript.clear();
    world_.log.clear();
    try {
      user_.SetQuota(Users({"bob"}), pair.limit, pair.warning);
      ADD_FAILURE() << "no exception";
    } catch (const LogException& exception) {
      ExpectWarningAboveLimit(exception, pair.warning_text, pair.limit_text, 67);
    }
    const std::string text =
        std::string("lib-webapi/account/user:67 (1001) internal error: warning byte [") +
        pair.warning_text + "] can't be larger than limit byte [" + pair.limit_text + "]";
    EXPECT_THAT(world_.transcript, ElementsAre("maillog(3, \"" + text + "\")"));
    EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, kExceptionFormat, text}));
  }
}

// Every kind of exception passes through from either store call, and nothing is called after it.
TEST_F(SetQuotaTest, AFailingStorePassesThrough) {
  ExpectPassesThrough({{"SetUserQuotaLimit([bob], 2)"}, {"SetUserQuotaWarning([bob], 1)"}},
                      [&] { user_.SetQuota(Users({"bob"}), 2, 1); });
}

// ClearQuota

using ClearQuotaTest = UserTest;

TEST_F(ClearQuotaTest, ClearsTheLimitThenTheWarning) {
  user_.ClearQuota(Users({"alice", "bob"}));
  EXPECT_THAT(world_.transcript, ElementsAre("ClearUserQuotaLimit([alice, bob])",
                                             "ClearUserQuotaWarning([alice, bob])"));
}

TEST_F(ClearQuotaTest, AsksForNobodyToo) {
  user_.ClearQuota({});
  EXPECT_THAT(world_.transcript,
              ElementsAre("ClearUserQuotaLimit([])", "ClearUserQuotaWarning([])"));
}

TEST_F(ClearQuotaTest, AFailingStorePassesThrough) {
  ExpectPassesThrough({{"ClearUserQuotaLimit([bob])"}, {"ClearUserQuotaWarning([bob])"}},
                      [&] { user_.ClearQuota(Users({"bob"})); });
}

// UpdateQuotaUsage: what it writes

using UpdateQuotaUsageTest = UserTest;

TEST_F(UpdateQuotaUsageTest, LeavesWhatHoldsNoMembersAsItIs) {
  for (const char* document : {"null", "5", "true", "\"bob\"", "[]", "{}"}) {
    world_.transcript.clear();
    EXPECT_EQ(Report(document), document);
    EXPECT_THAT(world_.transcript,
                ElementsAre("ListUserQuotaLimit([])", "ListUserQuotaWarning([])", "RedisClient()",
                            "QuotaRedisClient()", "ListUsage([])", "~RedisClient()"));
  }
}

TEST_F(UpdateQuotaUsageTest, TakesANameWithANulWhole) {
  world_.usage = {{"bob", "4096"}};
  Json::Value document = Parse(R"([{"name":"bob\u0000x"}])");
  user_.UpdateQuotaUsage(document);
  EXPECT_EQ(document[0]["usage"].asInt(), 0);
  EXPECT_EQ(world_.transcript.front(), std::string("VelaUser(name=bob\0x)", 20));
  EXPECT_THAT(world_.transcript, testing::Contains(std::string("ListUsage([bob\0x])", 18)));
}

TEST_F(UpdateQuotaUsageTest, WritesLimitDistanceAndUsage) {
  world_.user_limits = {{1001, "1073741824"}};
  world_.user_warnings = {{1001, "1048576000"}};
  world_.usage = {{"bob", "4096"}};
  EXPECT_EQ(Report(R"([{"name": "bob", "uid": 1001}])"),
            R"([{"name":"bob","quota":1073741824u,"remaining_usage_notification":25165824u,)"
            R"("uid":1001,"usage":4096u}])");
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(UpdateQuotaUsageTest, WritesSignedZeroesForWhatIsNotStored) {
  EXPECT_EQ(Report(R"([{"name": "bob"}])"),
            R"([{"name":"bob","quota":0,"remaining_usage_notification":0,"usage":0}])");
}

TEST_F(UpdateQuotaUsageTest, WritesUnsignedZeroesForStoredZeroes) {
  world_.user_limits = {{1001, "0"}};
  world_.user_warnings = {{1001, "0"}};
  world_.usage = {{"bob", "0"}};
  EXPECT_EQ(Report(R"([{"name": "bob"}])"),
            R"([{"name":"bob","quota":0u,"remaining_usage_notification":0u,"usage":0u}])");
}

TEST_F(UpdateQuotaUsageTest, EachFigureIsOnItsOwn) {
  world_.AddUser("carol", 1003);
  world_.user_limits = {{1001, "100"}};
  world_.user_warnings = {{1002, "0"}};
  world_.usage = {{"carol", "3"}};
  EXPECT_EQ(Report(R"([{"name": "bob"}, {"name": "alice"}, {"name": "carol"}])"),
            R"([{"name":"bob","quota":100u,"remaining_usage_notification":0,"usage":0},)"
            R"({"name":"alice","quota":0,"remaining_usage_notification":0u,"usage":0},)"
            R"({"name":"carol","quota":0,"remaining_usage_notification":0,"usage":3u}])");
}

TEST_F(UpdateQuotaUsageTest, AWarningAtTheLimitLeavesNoDistance) {
  world_.user_limits = {{1001, "1024"}};
  world_.user_warnings = {{1001, "1024"}};
  EXPECT_EQ(Report(R"([{"name": "bob"}])"),
            R"([{"name":"bob","quota":1024u,"remaining_usage_notification":0u,"usage":0}])");
}

TEST_F(UpdateQuotaUsageTest, KeepsTheLargestValues) {
  world_.user_limits = {{1001, "18446744073709551615"}};
  world_.user_warnings = {{1001, "1"}};
  world_.usage = {{"bob", "18446744073709551615"}};
  EXPECT_EQ(Report(R"([{"name": "bob"}])"),
            R"([{"name":"bob","quota":18446744073709551615u,)"
            R"("remaining_usage_notification":18446744073709551614u,)"
            R"("usage":18446744073709551615u}])");
}

TEST_F(UpdateQuotaUsageTest, OverwritesEarlierFigures) {
  EXPECT_EQ(Report(R"([{"name": "bob", "quota": "much", "usage": [1],
                        "remaining_usage_notification": {"a": 1}}])"),
            R"([{"name":"bob","quota":0,"remaining_usage_notification":0,"usage":0}])");
}

TEST_F(UpdateQuotaUsageTest, AsksTheStoresAboutNobodyToo) {
  EXPECT_EQ(Report("[]"), "[]");
  EXPECT_THAT(world_.transcript,
              ElementsAre("ListUserQuotaLimit([])", "ListUserQuotaWarning([])", "RedisClient()",
                          "QuotaRedisClient()", "ListUsage([])", "~RedisClient()"));
}

TEST_F(UpdateQuotaUsageTest, AnObjectIsAListToo) {
  world_.user_limits = {{1001, "5"}};
  world_.usage = {{"alice", "6"}};
  EXPECT_EQ(Report(R"({"x": {"name": "bob"}, "a": {"name": "alice"}})"),
            R"({"a":{"name":"alice","quota":0,"remaining_usage_notification":0,"usage":6u},)"
            R"("x":{"name":"bob","quota":5u,"remaining_usage_notification":0,"usage":0}})");
  EXPECT_THAT(world_.transcript, testing::Contains("ListUsage([alice, bob])"));
}

// UpdateQuotaUsage: whose figures they are

TEST_F(UpdateQuotaUsageTest, FindsLimitsInAnyLetterCaseAndUsageOnlyByTheNameAsGiven) {
  world_.user_limits = {{1001, "10"}};
  world_.user_warnings = {{1001, "4"}};
  world_.usage = {{"bob", "77"}};
  EXPECT_EQ(Report(R"([{"name": "BOB"}])"),
            R"([{"name":"BOB","quota":10u,"remaining_usage_notification":6u,"usage":0}])");
  EXPECT_THAT(world_.transcript, testing::Contains("ListUsage([BOB])"));

  world_.usage = {{"bob", "77"}, {"BOB", "88"}};
  EXPECT_EQ(Report(R"([{"name": "BOB"}])"),
            R"([{"name":"BOB","quota":10u,"remaining_usage_notification":6u,"usage":88u}])");
}

TEST_F(UpdateQuotaUsageTest, FindsLimitsByTheRealNameOfTheRecordsUser) {
  world_.AddUser("robert", 1003, "Bob.Smith");
  world_.user_limits = {{1003, "10"}};
  world_.user_warnings = {{1003, "4"}};
  EXPECT_EQ(Report(R"([{"name": "robert"}])"),
            R"([{"name":"robert","quota":0,"remaining_usage_notification":0,"usage":0}])");
}

TEST_F(UpdateQuotaUsageTest, AnUnknownNameCanMeetTheRealNameOfAnother) {
  world_.AddUser("eve", 1003, "Ghost");
  world_.user_limits = {{1003, "10"}};
  world_.user_warnings = {{1003, "4"}};
  EXPECT_EQ(Report(R"([{"name": "eve"}, {"name": "gHOST"}])"),
            R"([{"name":"eve","quota":0,"remaining_usage_notification":0,"usage":0},)"
            R"({"name":"gHOST","quota":10u,"remaining_usage_notification":6u,"usage":0}])");
}

TEST_F(UpdateQuotaUsageTest, ANameCanComeTwice) {
  world_.user_limits = {{1001, "10"}};
  world_.usage = {{"bob", "7"}};
  EXPECT_EQ(Report(R"([{"name": "bob"}, {"name": "bob"}])"),
            R"([{"name":"bob","quota":10u,"remaining_usage_notification":0,"usage":7u},)"
            R"({"name":"bob","quota":10u,"remaining_usage_notification":0,"usage":7u}])");
  EXPECT_THAT(world_.transcript,
              testing::IsSupersetOf({"ListUserQuotaLimit([bob, bob])",
                                     "ListUserQuotaWarning([bob, bob])", "ListUsage([bob, bob])"}));
}

TEST_F(UpdateQuotaUsageTest, OfSeveralRecordsTheFirstCounts) {
  world_.AddUser("bobby", 1003, "BOB");
  world_.user_limits = {{1003, "10"}, {1001, "20"}, {1002, "30"}, {1002, "40"}};
  world_.user_warnings = {{1001, "3"}, {1001, "2"}, {1003, "1"}, {1002, "30"}, {1002, "0"}};
  EXPECT_EQ(Report(R"([{"name": "bob"}, {"name": "alice"}])"),
            R"([{"name":"bob","quota":10u,"remaining_usage_notification":7u,"usage":0},)"
            R"({"name":"alice","quota":30u,"remaining_usage_notification":0u,"usage":0}])");
}

// UpdateQuotaUsage: names that are no user's

TEST_F(UpdateQuotaUsageTest, SkipsAnUnknownNameWithOneLogLine) {
  world_.usage = {{"bob", "7"}};
  EXPECT_EQ(Report(R"([{"name": "nobody"}, {"name": "bob"}])"),
            R"([{"name":"nobody","quota":0,"remaining_usage_notification":0,"usage":0},)"
            R"({"name":"bob","quota":0,"remaining_usage_notification":0,"usage":7u}])");
  EXPECT_THAT(
      world_.transcript,
      ElementsAre("VelaUser(name=nobody)",
                  "maillog(3, \"recording_platform/accounts:11 (2107) SDK failed to VELAUserGet: "
                  "no account nobody\")",
                  "maillog(2, \"lib-webapi/account/user:88 skip updating [nobody]'s quota & "
                  "usage\")",
                  "VelaUser(name=bob)", "ListUserQuotaLimit([bob])", "ListUserQuotaWarning([bob])",
                  "RedisClient()", "QuotaRedisClient()", "ListUsage([bob])", "ToLowerCase(nobody)",
                  "ToLowerCase(bob)", "ToULL(7)", "~RedisClient()"));
}

TEST_F(UpdateQuotaUsageTest, ASkippedNameIsAnArgumentAndNoFormat) {
  for (const std::string name : {"100%d", "%", "%%", "a\nb", "q\"'uote", "\xc3\xbc"}) {
    world_.log.clear();
    Json::Value list(Json::arrayValue);
    list[0]["name"] = name;
    user_.UpdateQuotaUsage(list);
    ASSERT_EQ(world_.log.size(), 2U);
    EXPECT_EQ(world_.log[1], (LogRecord{2, kSkipFormat,
                                        "lib-webapi/account/user:88 skip updating [" + name +
                                            "]'s quota & usage"}));
  }
}

TEST_F(UpdateQuotaUsageTest, ASkippedNameMayBeLongerThanTheBufferOfTheFormat) {
  const std::string name(5000, 'n');
  Json::Value list(Json::arrayValue);
  list[0]["name"] = name;
  user_.UpdateQuotaUsage(list);
  ASSERT_EQ(world_.log.size(), 2U);
  EXPECT_EQ(world_.log[1],
            (LogRecord{2, kSkipFormat,
                       "lib-webapi/account/user:88 skip updating [" + name + "]'s quota & usage"}));
}

TEST_F(UpdateQuotaUsageTest, AMemberWithoutANameHasTheEmptyOneAndGainsNone) {
  EXPECT_EQ(Report(R"([{"uid": 5}, {"name": null}, {"name": ""}, null])"),
            R"([{"quota":0,"remaining_usage_notification":0,"uid":5,"usage":0},)"
            R"({"name":null,"quota":0,"remaining_usage_notification":0,"usage":0},)"
            R"({"name":"","quota":0,"remaining_usage_notification":0,"usage":0},)"
            R"({"quota":0,"remaining_usage_notification":0,"usage":0}])");
  const LogRecord skipped{2, kSkipFormat,
                          "lib-webapi/account/user:88 skip updating []'s quota & usage"};
  EXPECT_EQ(std::count(world_.log.begin(), world_.log.end(), skipped), 4);
  EXPECT_THAT(world_.transcript, testing::Contains("VelaUser(name=)").Times(4));
}

TEST_F(UpdateQuotaUsageTest, ANameThatIsNoTextIsReadAsText) {
  world_.AddUser("5", 1003);
  world_.user_limits = {{1003, "10"}};
  world_.usage = {{"5", "7"}};
  EXPECT_EQ(Report(R"([{"name": 5}, {"name": true}])"),
            R"([{"name":5,"quota":10u,"remaining_usage_notification":0,"usage":7u},)"
            R"({"name":true,"quota":0,"remaining_usage_notification":0,"usage":0}])");
  EXPECT_THAT(world_.transcript,
              testing::IsSupersetOf({"VelaUser(name=5)", "VelaUser(name=true)", "ListUsage([5])"}));
}

TEST_F(UpdateQuotaUsageTest, ANameThatIsNoValueEndsTheReportBeforeTheStoresAreAsked) {
  for (const char* name : {"[]", R"(["bob"])", "{}", R"({"name": "bob"})"}) {
    world_.transcript.clear();
    const std::string list =
        std::string(R"([{"name": "bob"}, {"name": )") + name + R"(}, {"name": "alice"}])";
    EXPECT_EQ(FailedReport<Json::LogicError>(list), Typed(Parse(list)));
    EXPECT_THAT(world_.transcript, ElementsAre("VelaUser(name=bob)"));
  }
}

TEST_F(UpdateQuotaUsageTest, AMemberThatIsNoObjectEndsTheReportBeforeTheStoresAreAsked) {
  for (const char* member : {"5", R"("bob")", "true", R"(["name"])"}) {
    world_.transcript.clear();
    const std::string list = std::string(R"([{"name": "bob"}, )") + member + "]";
    EXPECT_EQ(FailedReport<Json::LogicError>(list), Typed(Parse(list)));
    EXPECT_THAT(world_.transcript, ElementsAre("VelaUser(name=bob)"));
  }
}

// UpdateQuotaUsage: a stored warning above its limit

TEST_F(UpdateQuotaUsageTest, AStoredWarningAboveItsLimitEndsTheReport) {
  world_.AddUser("carol", 1003);
  world_.user_limits = {{1001, "5"}, {1002, "1024"}, {1003, "5"}};
  world_.user_warnings = {{1001, "2"}, {1002, "1025"}, {1003, "2"}};
  world_.usage = {{"bob", "1"}, {"alice", "1"}, {"carol", "1"}};
  Json::Value list =
      Parse(R"([{"name": "bob"}, {"name": "alice", "usage": "old"}, {"name": "carol"}])");
  try {
    user_.UpdateQuotaUsage(list);
    ADD_FAILURE() << "no exception";
  } catch (const LogException& exception) {
    ExpectWarningAboveLimit(exception, "1025", "1024", 126);
  }
  EXPECT_EQ(Typed(list),
            R"([{"name":"bob","quota":5u,"remaining_usage_notification":3u,"usage":1u},)"
            R"({"name":"alice","quota":1024u,"remaining_usage_notification":0,"usage":"old"},)"
            R"({"name":"carol"}])");
  const std::string text =
      "lib-webapi/account/user:126 (1001) internal error: warning byte [1025] can't be larger "
      "than limit byte [1024]";
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, kExceptionFormat, text}));
  const Lines ending(world_.transcript.end() - 4, world_.transcript.end());
  EXPECT_THAT(ending, ElementsAre("ToULL(1024)", "ToULL(1025)", "maillog(3, \"" + text + "\")",
                                  "~RedisClient()"));
}

TEST_F(UpdateQuotaUsageTest, AWarningWithoutALimitIsAboveIt) {
  world_.user_warnings = {{1001, "1"}};
  Json::Value list = Parse(R"([{"name": "bob"}])");
  try {
    user_.UpdateQuotaUsage(list);
    ADD_FAILURE() << "no exception";
  } catch (const LogException& exception) {
    ExpectWarningAboveLimit(exception, "1", "0", 126);
  }
  EXPECT_EQ(Typed(list), R"([{"name":"bob","quota":0,"remaining_usage_notification":0}])");
}

TEST_F(UpdateQuotaUsageTest, TheLimitOfOneMemberIsNotThatOfTheNext) {
  world_.user_limits = {{1001, "100"}};
  world_.user_warnings = {{1002, "1"}};
  EXPECT_EQ(FailedReport<LogException>(R"([{"name": "bob"}, {"name": "alice"}])"),
            R"([{"name":"bob","quota":100u,"remaining_usage_notification":0,"usage":0},)"
            R"({"name":"alice","quota":0,"remaining_usage_notification":0}])");
}

TEST_F(UpdateQuotaUsageTest, WarningsAreComparedUnsigned) {
  world_.user_limits = {{1001, "9223372036854775808"}};
  world_.user_warnings = {{1001, "9223372036854775807"}};
  EXPECT_EQ(Report(R"([{"name": "bob"}])"),
            R"([{"name":"bob","quota":9223372036854775808u,"remaining_usage_notification":1u,)"
            R"("usage":0}])");
}

// UpdateQuotaUsage: values that are no numbers

TEST_F(UpdateQuotaUsageTest, WhatWasWrittenBeforeAValueThatIsNoNumberStays) {
  struct {
    const char* limit;
    const char* warning;
    const char* usage;
    const char* document;
  } const cases[] = {
      {"x", "2", "1", R"([{"name":"bob","quota":0}])"},
      {"5", "x", "1", R"([{"name":"bob","quota":5u,"remaining_usage_notification":0}])"},
      {"5", "2", "x", R"([{"name":"bob","quota":5u,"remaining_usage_notification":3u,"usage":0}])"},
  };
  for (const auto& values : cases) {
    world_.user_limits = {{1001, values.limit}};
    world_.user_warnings = {{1001, values.warning}};
    world_.usage = {{"bob", values.usage}};
    EXPECT_EQ(FailedReport<LogException>(R"([{"name": "bob"}])"), values.document);
    EXPECT_EQ(world_.transcript.back(), "~RedisClient()");
  }
}

// UpdateQuotaUsage: every call of the platform fails in turn

// A call of the report of Bob and alice, and the document if it fails.
struct Step {
  const char* call;
  const char* document;
};

constexpr char kUntouched[] = R"([{"name":"Bob"},{"name":"alice"}])";
constexpr char kBobWithoutALimit[] = R"([{"name":"Bob","quota":0},{"name":"alice"}])";
constexpr char kBobWithoutAWarning[] =
    R"([{"name":"Bob","quota":10u,"remaining_usage_notification":0},{"name":"alice"}])";
constexpr char kBobWithoutUsage[] =
    R"([{"name":"Bob","quota":10u,"remaining_usage_notification":6u,"usage":0},{"name":"alice"}])";
constexpr char kBobDone[] =
    R"([{"name":"Bob","quota":10u,"remaining_usage_notification":6u,"usage":7u},{"name":"alice"}])";
constexpr char kAliceWithoutALimit[] =
    R"([{"name":"Bob","quota":10u,"remaining_usage_notification":6u,"usage":7u},)"
    R"({"name":"alice","quota":0}])";
constexpr char kAliceWithoutAWarning[] =
    R"([{"name":"Bob","quota":10u,"remaining_usage_notification":6u,"usage":7u},)"
    R"({"name":"alice","quota":20u,"remaining_usage_notification":0}])";
constexpr char kAliceWithoutUsage[] =
    R"([{"name":"Bob","quota":10u,"remaining_usage_notification":6u,"usage":7u},)"
    R"({"name":"alice","quota":20u,"remaining_usage_notification":15u,"usage":0}])";
constexpr char kAllDone[] =
    R"([{"name":"Bob","quota":10u,"remaining_usage_notification":6u,"usage":7u},)"
    R"({"name":"alice","quota":20u,"remaining_usage_notification":15u,"usage":8u}])";

constexpr Step kSteps[] = {
    {"VelaUser(name=Bob)", kUntouched},
    {"VelaUser(name=alice)", kUntouched},
    {"ListUserQuotaLimit([bob, alice])", kUntouched},
    {"VelaUser(uid=1001)", kUntouched},
    {"RealName(bob)", kUntouched},
    {"ToLowerCase(Bob)", kUntouched},
    {"VelaUser(uid=1002)", kUntouched},
    {"RealName(alice)", kUntouched},
    {"ToLowerCase(alice)", kUntouched},
    {"ListUserQuotaWarning([bob, alice])", kUntouched},
    {"VelaUser(uid=1002)", kUntouched},
    {"RealName(alice)", kUntouched},
    {"ToLowerCase(alice)", kUntouched},
    {"VelaUser(uid=1001)", kUntouched},
    {"RealName(bob)", kUntouched},
    {"ToLowerCase(Bob)", kUntouched},
    {"RedisClient()", kUntouched},
    {"QuotaRedisClient()", kUntouched},
    {"ListUsage([Bob, alice])", kUntouched},
    {"ToLowerCase(Bob)", kUntouched},
    {"ToULL(10)", kBobWithoutALimit},
    {"ToULL(4)", kBobWithoutAWarning},
    {"ToULL(7)", kBobWithoutUsage},
    {"ToLowerCase(alice)", kBobDone},
    {"ToULL(20)", kAliceWithoutALimit},
    {"ToULL(5)", kAliceWithoutAWarning},
    {"ToULL(8)", kAliceWithoutUsage},
};

constexpr int kResolvedNames = 2;  // the first steps, whose failure only skips a name

class FailingReportTest : public UserTest {
 protected:
  FailingReportTest() {
    world_.user_limits = {{1001, "10"}, {1002, "20"}};
    world_.user_warnings = {{1002, "5"}, {1001, "4"}};
    world_.usage = {{"Bob", "7"}, {"alice", "8"}};
    script_ = world_;
  }

  // The same world with one failure, and nothing recorded yet.
  void Restart(int failing_call, recording::Failure failure) {
    world_ = script_;
    world_.FailCall(failing_call, std::move(failure));
  }

  // Every call up to the failing one, what the failure logs, and the end of the usage client if
  // there is one.
  static Lines CallsUntil(int failing_call, const Lines& logged) {
    Lines calls;
    bool has_client = false;
    for (int i = 0; i < failing_call; ++i) {
      has_client = has_client || (i > 0 && calls.back() == "RedisClient()");
      calls.emplace_back(kSteps[i].call);
    }
    calls.insert(calls.end(), logged.begin(), logged.end());
    if (has_client) {
      calls.emplace_back("~RedisClient()");
    }
    return calls;
  }

  recording::World script_;
};

TEST_F(FailingReportTest, WithoutAFailureTheStepsAreTheWholeReport) {
  Lines calls;
  for (const Step& step : kSteps) {
    calls.emplace_back(step.call);
  }
  calls.emplace_back("~RedisClient()");
  EXPECT_EQ(Report(kUntouched), kAllDone);
  EXPECT_THAT(world_.transcript, ElementsAreArray(calls));
}

TEST_F(FailingReportTest, ALogExceptionPassesThroughUnchangedAfterTheNames) {
  for (int number = kResolvedNames + 1; number <= static_cast<int>(std::size(kSteps)); ++number) {
    const Step& step = kSteps[number - 1];
    SCOPED_TRACE(std::to_string(number) + ": " + step.call);
    Restart(number, Throw<LogException>(ERR_DB_SELECT, "broken", 4L, "platform", 9));
    Json::Value document = Parse(kUntouched);
    try {
      user_.UpdateQuotaUsage(document);
      ADD_FAILURE() << "no exception";
    } catch (const LogException& exception) {
      EXPECT_EQ(exception.code(), ERR_DB_SELECT);
      EXPECT_STREQ(exception.what(), "broken");
      EXPECT_EQ(exception.file(), "platform");
      EXPECT_EQ(exception.line(), 9);
    }
    EXPECT_THAT(
        world_.transcript,
        ElementsAreArray(CallsUntil(
            number, {"maillog(4, \"platform:9 (4009) failed to execute select query: broken\")"})));
    EXPECT_EQ(Typed(document), step.document);
  }
}

TEST_F(FailingReportTest, AnyOtherExceptionPassesThroughFromEveryCall) {
  for (int number = 1; number <= static_cast<int>(std::size(kSteps)); ++number) {
    const Step& step = kSteps[number - 1];
    SCOPED_TRACE(std::to_string(number) + ": " + step.call);
    const auto expect_as_scripted = [&](const std::string& document) {
      EXPECT_EQ(document, step.document);
      EXPECT_THAT(world_.transcript, ElementsAreArray(CallsUntil(number, {})));
      EXPECT_THAT(world_.log, IsEmpty());
    };
    Restart(number, Throw<std::out_of_range>("broken"));
    expect_as_scripted(FailedReport<std::out_of_range>(kUntouched));
    Restart(number, Throw<std::runtime_error>("broken"));
    expect_as_scripted(FailedReport<std::runtime_error>(kUntouched));
    Restart(number, Throw<Json::LogicError>("broken"));
    expect_as_scripted(FailedReport<Json::LogicError>(kUntouched));
  }
}

TEST_F(FailingReportTest, RunningOutOfMemoryOverANameIsNoReasonToSkipIt) {
  Restart(1, Throw<std::bad_alloc>());
  EXPECT_EQ(FailedReport<std::bad_alloc>(kUntouched), kUntouched);
  EXPECT_THAT(world_.transcript, ElementsAre("VelaUser(name=Bob)"));
}

class AnyLookUpFailure : public FailingReportTest, public testing::WithParamInterface<ErrorCode> {};

INSTANTIATE_TEST_SUITE_P(FailingReportTest, AnyLookUpFailure,
                         testing::Values(ERR_INTERNAL, ERR_SDK_USER_GET, ERR_LOAD_SMTP_SETTINGS,
                                         ERR_BAD_DB_SESSION, static_cast<ErrorCode>(0)));

TEST_P(AnyLookUpFailure, SkipsTheName) {
  Restart(1, Throw<LogException>(GetParam(), "broken", 4L, "platform", 9));
  world_.user_limits = {{1002, "20"}};
  world_.user_warnings = {{1002, "5"}};
  world_.usage = {{"alice", "8"}};
  EXPECT_EQ(Report(kUntouched),
            R"([{"name":"Bob","quota":0,"remaining_usage_notification":0,"usage":0},)"
            R"({"name":"alice","quota":20u,"remaining_usage_notification":15u,"usage":8u}])");
  EXPECT_THAT(
      world_.transcript,
      ElementsAre("VelaUser(name=Bob)", testing::StartsWith("maillog(4, \"platform:9 ("),
                  "maillog(2, \"lib-webapi/account/user:88 skip updating [Bob]'s quota & usage\")",
                  "VelaUser(name=alice)", "ListUserQuotaLimit([alice])", "VelaUser(uid=1002)",
                  "RealName(alice)", "ToLowerCase(alice)", "ListUserQuotaWarning([alice])",
                  "VelaUser(uid=1002)", "RealName(alice)", "ToLowerCase(alice)", "RedisClient()",
                  "QuotaRedisClient()", "ListUsage([alice])", "ToLowerCase(Bob)",
                  "ToLowerCase(alice)", "ToULL(20)", "ToULL(5)", "ToULL(8)", "~RedisClient()"));
}

TEST_F(FailingReportTest, AListOfNamesThatAllFailIsAllZeroes) {
  world_.FailCallsStartingWith("VelaUser(name=",
                               Throw<LogException>(ERR_SDK_USER_GET, "broken", 3L, "platform", 9));
  world_.user_limits.clear();
  world_.user_warnings.clear();
  world_.usage.clear();
  EXPECT_EQ(Report(kUntouched),
            R"([{"name":"Bob","quota":0,"remaining_usage_notification":0,"usage":0},)"
            R"({"name":"alice","quota":0,"remaining_usage_notification":0,"usage":0}])");
  EXPECT_THAT(world_.log, ElementsAre(testing::Field(&LogRecord::priority, 3),
                                      testing::Field(&LogRecord::priority, 2),
                                      testing::Field(&LogRecord::priority, 3),
                                      testing::Field(&LogRecord::priority, 2)));
  EXPECT_THAT(world_.transcript,
              testing::IsSupersetOf(
                  {"ListUserQuotaLimit([])", "ListUserQuotaWarning([])", "ListUsage([])"}));
}

}  // namespace
}  // namespace velamailserver::webapi
