#include <algorithm>
#include <cstddef>
#include <limits>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>

#include <velamailserver/account/group.h>
#include <velamailserver/log_exception.h>

#include "lib-webapi/pass_through.h"
#include "recording_platform/world_test.h"
#include "support/parse_json.h"
#include "support/typed_json.h"

namespace velamailserver::webapi {
namespace {

using quillon::test::ExpectPassedThrough;
using quillon::test::ExpectPassesThrough;
using quillon::test::FailedRun;
using quillon::test::FailInTurn;
using quillon::test::LinesOf;
using quillon::test::Parse;
using quillon::test::Step;
using quillon::test::Thrown;
using quillon::test::Typed;
using recording::LogRecord;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using velasdk::VelaGroup;

constexpr unsigned long long kLargest = std::numeric_limits<unsigned long long>::max();

static_assert(std::is_base_of_v<account::MailboxQuota, Group>);
static_assert(sizeof(Group) == sizeof(account::MailboxQuota), "no data of its own");

class GroupTest : public recording::WorldTest {
 protected:
  GroupTest() {
    world_.AddGroup("staff", 501);
    world_.AddGroup("Sales", 502);
  }

  static std::vector<VelaGroup> Groups(const std::vector<std::string>& names) {
    const recording::Pause pause;
    return {names.begin(), names.end()};
  }

  // The document after the report, and that nothing kept the report from its end.
  std::string Report(const std::string& list) {
    Json::Value document = Parse(list);
    EXPECT_NO_THROW(group_.UpdateQuotaInfo(document));
    return Typed(document);
  }

  // The same where a warning level above its limit, or another failure, must keep it.
  std::string FailedReport(const std::string& list, const std::string& thrown) {
    Json::Value document = Parse(list);
    EXPECT_EQ(Thrown([&] { group_.UpdateQuotaInfo(document); }), thrown);
    return Typed(document);
  }

  Group group_ = MakeGroup();

 private:
  static Group MakeGroup() {
    const recording::Pause pause;
    return Group();
  }
};

std::string Detail(const std::string& warning, const std::string& limit) {
  return "warning byte [" + warning + "] can't be larger than limit byte [" + limit + "]";
}

// What Thrown() makes of a warning level above its limit.
std::string AboveLimit(int line, const std::string& warning, const std::string& limit) {
  return "LogException 1001 lib-webapi/account/group:" + std::to_string(line) + " " +
         Detail(warning, limit);
}

LogRecord LogOfAboveLimit(int line, const std::string& warning, const std::string& limit) {
  return {3, "%s:%d (%d) %s: %s",
          "lib-webapi/account/group:" + std::to_string(line) +
              " (1001) internal error: " + Detail(warning, limit)};
}

TEST_F(GroupTest, ConsistsOfAQuotaStore) {
  { const Group group; }
  EXPECT_THAT(world_.transcript, ElementsAre("MailboxQuota()", "~MailboxQuota()"));
}

// SetQuota

using SetGroupQuotaTest = GroupTest;

TEST_F(SetGroupQuotaTest, WritesTheLimitThenTheWarning) {
  group_.SetQuota(Groups({"staff", "sales"}), 2048, 1024);
  EXPECT_THAT(world_.transcript, ElementsAre("SetGroupQuotaLimit([staff, Sales], 2048)",
                                             "SetGroupQuotaWarning([staff, Sales], 1024)"));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(SetGroupQuotaTest, AllowsAWarningAtTheLimit) {
  group_.SetQuota(Groups({"staff"}), 1024, 1024);
  EXPECT_THAT(world_.transcript, ElementsAre("SetGroupQuotaLimit([staff], 1024)",
                                             "SetGroupQuotaWarning([staff], 1024)"));
}

TEST_F(SetGroupQuotaTest, PassesZeroesOn) {
  group_.SetQuota(Groups({"staff"}), 0, 0);
  EXPECT_THAT(world_.transcript,
              ElementsAre("SetGroupQuotaLimit([staff], 0)", "SetGroupQuotaWarning([staff], 0)"));
}

TEST_F(SetGroupQuotaTest, PassesTheLargestValuesOn) {
  group_.SetQuota(Groups({"staff"}), kLargest, kLargest);
  group_.SetQuota(Groups({"staff"}), kLargest, 0);
  EXPECT_THAT(world_.transcript, ElementsAre("SetGroupQuotaLimit([staff], 18446744073709551615)",
                                             "SetGroupQuotaWarning([staff], 18446744073709551615)",
                                             "SetGroupQuotaLimit([staff], 18446744073709551615)",
                                             "SetGroupQuotaWarning([staff], 0)"));
}

TEST_F(SetGroupQuotaTest, PassesTheGroupsOnAsTheyAre) {
  group_.SetQuota({}, 2, 1);
  group_.SetQuota(Groups({"staff", "Sales", "staff"}), 2, 1);
  EXPECT_THAT(world_.transcript,
              ElementsAre("SetGroupQuotaLimit([], 2)", "SetGroupQuotaWarning([], 1)",
                          "SetGroupQuotaLimit([staff, Sales, staff], 2)",
                          "SetGroupQuotaWarning([staff, Sales, staff], 1)"));
}

TEST_F(SetGroupQuotaTest, RefusesAWarningAboveTheLimitBeforeAnythingIsWritten) {
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
    EXPECT_EQ(Thrown([&] { group_.SetQuota(Groups({"staff"}), pair.limit, pair.warning); }),
              AboveLimit(26, pair.warning_text, pair.limit_text));
    const LogRecord logged = LogOfAboveLimit(26, pair.warning_text, pair.limit_text);
    EXPECT_THAT(world_.log, ElementsAre(logged));
    EXPECT_THAT(world_.transcript, ElementsAre("maillog(3, \"" + logged.text + "\")"));
  }
}

TEST_F(SetGroupQuotaTest, AFailingStorePassesThrough) {
  ExpectPassesThrough({{"SetGroupQuotaLimit([staff], 2)"}, {"SetGroupQuotaWarning([staff], 1)"}},
                      [&] { group_.SetQuota(Groups({"staff"}), 2, 1); });
}

// ClearQuota

using ClearGroupQuotaTest = GroupTest;

TEST_F(ClearGroupQuotaTest, ClearsTheLimitThenTheWarning) {
  group_.ClearQuota(Groups({"Sales", "staff"}));
  EXPECT_THAT(world_.transcript, ElementsAre("ClearGroupQuotaLimit([Sales, staff])",
                                             "ClearGroupQuotaWarning([Sales, staff])"));
}

TEST_F(ClearGroupQuotaTest, AsksForNoGroupToo) {
  group_.ClearQuota({});
  EXPECT_THAT(world_.transcript,
              ElementsAre("ClearGroupQuotaLimit([])", "ClearGroupQuotaWarning([])"));
}

TEST_F(ClearGroupQuotaTest, AFailingStorePassesThrough) {
  ExpectPassesThrough({{"ClearGroupQuotaLimit([staff])"}, {"ClearGroupQuotaWarning([staff])"}},
                      [&] { group_.ClearQuota(Groups({"staff"})); });
}

// UpdateQuotaInfo: what it writes

using UpdateQuotaInfoTest = GroupTest;

TEST_F(UpdateQuotaInfoTest, LeavesWhatHoldsNoMembersAsItIs) {
  for (const char* document : {"[]", "null", "{}", "5", "true", "\"staff\""}) {
    world_.transcript.clear();
    EXPECT_EQ(Report(document), document);
    EXPECT_THAT(world_.transcript,
                ElementsAre("ListGroupQuotaLimit([])", "ListGroupQuotaWarning([])"));
  }
}

TEST_F(UpdateQuotaInfoTest, WritesLimitAndDistance) {
  world_.group_limits = {{501, "1073741824"}};
  world_.group_warnings = {{501, "1048576000"}};
  EXPECT_EQ(Report(R"([{"name": "staff", "gid": 501, "a": [null]}])"),
            R"([{"a":[null],"gid":501,"name":"staff","quota":1073741824u,)"
            R"("remaining_usage_notification":25165824u}])");
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(UpdateQuotaInfoTest, AWarningAtTheLimitLeavesNoDistance) {
  world_.group_limits = {{501, "1024"}};
  world_.group_warnings = {{501, "1024"}};
  EXPECT_EQ(Report(R"([{"name": "staff"}])"),
            R"([{"name":"staff","quota":1024u,"remaining_usage_notification":0u}])");
}

TEST_F(UpdateQuotaInfoTest, WritesSignedZeroesForWhatIsNotStored) {
  EXPECT_EQ(Report(R"([{"name": "staff"}])"),
            R"([{"name":"staff","quota":0,"remaining_usage_notification":0}])");
}

TEST_F(UpdateQuotaInfoTest, WritesUnsignedZeroesForStoredZeroes) {
  world_.group_limits = {{501, "0"}};
  world_.group_warnings = {{501, "0"}};
  EXPECT_EQ(Report(R"([{"name": "staff"}])"),
            R"([{"name":"staff","quota":0u,"remaining_usage_notification":0u}])");
}

TEST_F(UpdateQuotaInfoTest, EachFigureIsOnItsOwn) {
  world_.group_limits = {{501, "100"}};
  world_.group_warnings = {{502, "0"}};
  EXPECT_EQ(Report(R"([{"name": "staff"}, {"name": "Sales"}])"),
            R"([{"name":"staff","quota":100u,"remaining_usage_notification":0},)"
            R"({"name":"Sales","quota":0,"remaining_usage_notification":0u}])");
}

TEST_F(UpdateQuotaInfoTest, KeepsTheLargestValues) {
  world_.group_limits = {{501, "18446744073709551615"}, {502, "9223372036854775808"}};
  world_.group_warnings = {{501, "1"}, {502, "9223372036854775807"}};
  EXPECT_EQ(Report(R"([{"name": "staff"}, {"name": "Sales"}])"),
            R"([{"name":"staff","quota":18446744073709551615u,)"
            R"("remaining_usage_notification":18446744073709551614u},)"
            R"({"name":"Sales","quota":9223372036854775808u,"remaining_usage_notification":1u}])");
}

TEST_F(UpdateQuotaInfoTest, OverwritesEarlierFiguresAndNothingElse) {
  EXPECT_EQ(Report(R"([{"name": "staff", "quota": "much", "usage": [1],
                        "remaining_usage_notification": {"a": 1}}])"),
            R"([{"name":"staff","quota":0,"remaining_usage_notification":0,"usage":[1]}])");
}

TEST_F(UpdateQuotaInfoTest, AnObjectIsAListToo) {
  world_.group_limits = {{501, "5"}};
  EXPECT_EQ(Report(R"({"x": {"name": "staff"}, "a": {"name": "Sales"}})"),
            R"({"a":{"name":"Sales","quota":0,"remaining_usage_notification":0},)"
            R"("x":{"name":"staff","quota":5u,"remaining_usage_notification":0}})");
  EXPECT_THAT(world_.transcript, Contains("ListGroupQuotaLimit([Sales, staff])"));
}

// UpdateQuotaInfo: whose figures they are

TEST_F(UpdateQuotaInfoTest, FindsFiguresInAnyLetterCaseOfEitherName) {
  world_.group_limits = {{501, "10"}, {502, "20"}};
  world_.group_warnings = {{501, "4"}, {502, "5"}};
  EXPECT_EQ(Report(R"([{"name": "STAFF"}, {"name": "sales"}])"),
            R"([{"name":"STAFF","quota":10u,"remaining_usage_notification":6u},)"
            R"({"name":"sales","quota":20u,"remaining_usage_notification":15u}])");
}

TEST_F(UpdateQuotaInfoTest, FindsFiguresByTheNameOfTheRecordsGid) {
  world_.AddGroup("crew", 503);
  world_.group_limits = {{503, "10"}};
  world_.group_warnings = {{503, "4"}};
  EXPECT_EQ(Report(R"([{"name": "staff"}, {"name": "crew"}])"),
            R"([{"name":"staff","quota":0,"remaining_usage_notification":0},)"
            R"({"name":"crew","quota":10u,"remaining_usage_notification":6u}])");
}

TEST_F(UpdateQuotaInfoTest, ARecordThatWasNotAskedForCanMeetAName) {
  world_.AddGroup("STAFF", 503);  // and "Staff" is found as 501
  world_.group_limits = {{503, "10"}};
  EXPECT_EQ(Report(R"([{"name": "Staff"}])"),
            R"([{"name":"Staff","quota":10u,"remaining_usage_notification":0}])");
}

TEST_F(UpdateQuotaInfoTest, ANameCanComeTwice) {
  world_.group_limits = {{501, "10"}};
  world_.group_warnings = {{501, "4"}};
  EXPECT_EQ(Report(R"([{"name": "staff"}, {"name": "staff"}])"),
            R"([{"name":"staff","quota":10u,"remaining_usage_notification":6u},)"
            R"({"name":"staff","quota":10u,"remaining_usage_notification":6u}])");
  EXPECT_THAT(world_.transcript, testing::IsSupersetOf({"ListGroupQuotaLimit([staff, staff])",
                                                        "ListGroupQuotaWarning([staff, staff])"}));
}

// Names that begin alike, of which some have a limit, a warning level, both or neither, and a
// record that nobody asked for: in whatever order the members come, each gets its own figures.
TEST_F(UpdateQuotaInfoTest, TheOrderOfMembersAndRecordsDoesNotMatter) {
  const std::vector<std::string> names = {"department", "departments", "department-b", "dep", "d"};
  const std::map<std::string, std::string> figures = {
      {"department", R"("quota":1000u,"remaining_usage_notification":900u)"},
      {"departments", R"("quota":2000u,"remaining_usage_notification":0)"},
      {"department-b", R"("quota":0,"remaining_usage_notification":0)"},
      {"dep", R"("quota":4000u,"remaining_usage_notification":3600u)"},
      {"d", R"("quota":5000u,"remaining_usage_notification":4500u)"}};
  unsigned int gid = 600;
  world_.AddGroup("unasked", 599);
  for (const std::string& name : names) {
    world_.AddGroup(name, gid++);
  }
  world_.group_limits = {{599, "7"}, {600, "1000"}, {601, "2000"}, {603, "4000"}, {604, "5000"}};
  world_.group_warnings = {{600, "100"}, {599, "3"}, {604, "500"}, {603, "400"}};

  std::vector<std::size_t> order = {0, 1, 2, 3, 4};
  do {
    std::string list;
    std::string expected;
    for (const std::size_t i : order) {
      list += (list.empty() ? "" : ",") + (R"({"name":")" + names[i] + R"("})");
      expected += (expected.empty() ? "" : ",") + (R"({"name":")" + names[i] + R"(",)") +
                  figures.at(names[i]) + "}";
    }
    EXPECT_EQ(Report("[" + list + "]"), "[" + expected + "]");
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(UpdateQuotaInfoTest, OfSeveralRecordsTheFirstCounts) {
  world_.AddGroup("STAFF", 503);
  world_.group_limits = {{503, "10"}, {501, "20"}, {502, "30"}, {502, "40"}};
  world_.group_warnings = {{501, "3"}, {501, "2"}, {503, "1"}, {502, "30"}, {502, "0"}};
  EXPECT_EQ(Report(R"([{"name": "staff"}, {"name": "Sales"}])"),
            R"([{"name":"staff","quota":10u,"remaining_usage_notification":7u},)"
            R"({"name":"Sales","quota":30u,"remaining_usage_notification":0u}])");
}

// So many that the names, which the index refers to, would move if they were not counted first.
TEST_F(UpdateQuotaInfoTest, OfManyRecordsTheFirstCounts) {
  for (int i = 0; i < 100; ++i) {
    world_.group_limits.emplace_back(501, std::to_string(1000 + i));
    world_.group_limits.emplace_back(502, std::to_string(2000 + i));
  }
  EXPECT_EQ(Report(R"([{"name": "Sales"}, {"name": "staff"}])"),
            R"([{"name":"Sales","quota":2000u,"remaining_usage_notification":0},)"
            R"({"name":"staff","quota":1000u,"remaining_usage_notification":0}])");
}

// UpdateQuotaInfo: the names

TEST_F(UpdateQuotaInfoTest, AnUnknownNameEndsTheReportBeforeAnythingIsWritten) {
  EXPECT_EQ(FailedReport(R"([{"name": "staff"}, {"name": "ghosts"}, {"name": "Sales"}])",
                         "LogException 2204 recording_platform/accounts:11 no account ghosts"),
            R"([{"name":"staff"},{"name":"ghosts"},{"name":"Sales"}])");
  EXPECT_THAT(
      world_.transcript,
      ElementsAre("VelaGroup(name=staff)", "VelaGroup(name=ghosts)",
                  "maillog(3, \"recording_platform/accounts:11 (2204) SDK failed to VELAGroupGet: "
                  "no account ghosts\")"));
}

TEST_F(UpdateQuotaInfoTest, AMemberWithoutANameHasTheEmptyOneAndGainsNoneWhereThatIsNoGroups) {
  for (const char* member : {R"({"gid":5})", R"({"name":null})", R"({"name":""})", "null", "{}"}) {
    SCOPED_TRACE(member);
    const std::string list = std::string(R"([{"name":"staff"},)") + member + "]";
    EXPECT_EQ(FailedReport(list, "LogException 2204 recording_platform/accounts:11 no account "),
              list);
  }
}

// The names are read once to look the groups up and once more to write the figures, and only then
// is a missing one inserted.
TEST_F(UpdateQuotaInfoTest, AMemberWithoutANameGainsANullOneWhereTheEmptyNameIsAGroups) {
  world_.AddGroup("", 503);
  world_.group_limits = {{503, "10"}};
  world_.group_warnings = {{503, "4"}};
  EXPECT_EQ(Report(R"([{"gid": 5}, {"name": null}, {"name": ""}, null, {}])"),
            R"([{"gid":5,"name":null,"quota":10u,"remaining_usage_notification":6u},)"
            R"({"name":null,"quota":10u,"remaining_usage_notification":6u},)"
            R"({"name":"","quota":10u,"remaining_usage_notification":6u},)"
            R"({"name":null,"quota":10u,"remaining_usage_notification":6u},)"
            R"({"name":null,"quota":10u,"remaining_usage_notification":6u}])");
  EXPECT_THAT(world_.transcript, Contains("VelaGroup(name=)").Times(5));
}

TEST_F(UpdateQuotaInfoTest, NoNameIsInsertedBeforeTheLastStep) {
  world_.AddGroup("", 503);
  world_.FailCallsStartingWith("ListGroupQuotaWarning(",
                               recording::Throw<std::runtime_error>("no"));
  Json::Value document = Parse(R"([{"gid": 5}, null])");
  EXPECT_THROW(group_.UpdateQuotaInfo(document), std::runtime_error);
  EXPECT_EQ(Typed(document), R"([{"gid":5},null])");
}

TEST_F(UpdateQuotaInfoTest, ANameIsInsertedEvenWhereItsMemberThenFails) {
  world_.AddGroup("", 503);
  world_.group_warnings = {{503, "4"}};
  EXPECT_EQ(FailedReport(R"([{"gid": 5}, {"gid": 6}])", AboveLimit(73, "4", "0")),
            R"([{"gid":5,"name":null,"quota":0,"remaining_usage_notification":0},{"gid":6}])");
}

TEST_F(UpdateQuotaInfoTest, ANameThatIsNoTextIsReadAsText) {
  world_.AddGroup("5", 503);
  world_.AddGroup("true", 504);
  world_.group_limits = {{503, "10"}, {504, "20"}};
  EXPECT_EQ(Report(R"([{"name": 5}, {"name": true}])"),
            R"([{"name":5,"quota":10u,"remaining_usage_notification":0},)"
            R"({"name":true,"quota":20u,"remaining_usage_notification":0}])");
}

TEST_F(UpdateQuotaInfoTest, ANameThatIsNoValueEndsTheReportBeforeTheStoreIsAsked) {
  for (const char* name : {"[]", R"(["staff"])", "{}", R"({"name":"staff"})"}) {
    world_.transcript.clear();
    const std::string list =
        std::string(R"([{"name":"staff"},{"name":)") + name + R"(},{"name":"Sales"}])";
    Json::Value document = Parse(list);
    EXPECT_THROW(group_.UpdateQuotaInfo(document), Json::LogicError);
    EXPECT_EQ(Typed(document), list);
    EXPECT_THAT(world_.transcript, ElementsAre("VelaGroup(name=staff)"));
  }
}

TEST_F(UpdateQuotaInfoTest, AMemberThatIsNoObjectEndsTheReportBeforeTheStoreIsAsked) {
  for (const char* member : {"5", R"("staff")", "true", R"(["name"])", "[]"}) {
    world_.transcript.clear();
    const std::string list = std::string(R"([{"name":"staff"},)") + member + "]";
    Json::Value document = Parse(list);
    EXPECT_THROW(group_.UpdateQuotaInfo(document), Json::LogicError);
    EXPECT_EQ(Typed(document), list);
    EXPECT_THAT(world_.transcript, ElementsAre("VelaGroup(name=staff)"));
  }
}

TEST_F(UpdateQuotaInfoTest, ARecordOfNoGroupEndsTheReportBeforeAnythingIsWritten) {
  const char* const unknown = "LogException 2205 recording_platform/accounts:12 no account 777";
  world_.group_limits = {{777, "10"}};
  EXPECT_EQ(FailedReport(R"([{"name": "staff"}])", unknown), R"([{"name":"staff"}])");
  EXPECT_THAT(world_.transcript, Contains("ListGroupQuotaWarning([staff])").Times(0));
  world_.group_limits.clear();
  world_.group_warnings = {{777, "10"}};
  EXPECT_EQ(FailedReport(R"([{"name": "staff"}])", unknown), R"([{"name":"staff"}])");
}

// UpdateQuotaInfo: a stored warning level above its limit

TEST_F(UpdateQuotaInfoTest, AStoredWarningAboveItsLimitEndsTheReport) {
  world_.AddGroup("crew", 503);
  world_.group_limits = {{501, "5"}, {502, "1024"}, {503, "5"}};
  world_.group_warnings = {{501, "2"}, {502, "1025"}, {503, "2"}};
  EXPECT_EQ(FailedReport(R"([{"name": "staff"}, {"name": "Sales"}, {"name": "crew", "quota": 1}])",
                         AboveLimit(73, "1025", "1024")),
            R"([{"name":"staff","quota":5u,"remaining_usage_notification":3u},)"
            R"({"name":"Sales","quota":1024u,"remaining_usage_notification":0},)"
            R"({"name":"crew","quota":1}])");
  const LogRecord logged = LogOfAboveLimit(73, "1025", "1024");
  EXPECT_THAT(world_.log, ElementsAre(logged));
  EXPECT_EQ(world_.transcript.back(), "maillog(3, \"" + logged.text + "\")");
}

TEST_F(UpdateQuotaInfoTest, AWarningWithoutALimitIsAboveIt) {
  world_.group_warnings = {{501, "1"}};
  EXPECT_EQ(FailedReport(R"([{"name": "staff"}, {"name": "Sales"}])", AboveLimit(73, "1", "0")),
            R"([{"name":"staff","quota":0,"remaining_usage_notification":0},{"name":"Sales"}])");
}

TEST_F(UpdateQuotaInfoTest, WritesTheLargestWarningInFull) {
  world_.group_limits = {{501, "9223372036854775807"}};
  world_.group_warnings = {{501, "18446744073709551615"}};
  EXPECT_EQ(FailedReport(R"([{"name": "staff"}])",
                         AboveLimit(73, "18446744073709551615", "9223372036854775807")),
            R"([{"name":"staff","quota":9223372036854775807u,"remaining_usage_notification":0}])");
}

TEST_F(UpdateQuotaInfoTest, TheLimitOfOneMemberIsNotThatOfTheNext) {
  world_.group_limits = {{501, "100"}};
  world_.group_warnings = {{502, "1"}};
  EXPECT_EQ(FailedReport(R"([{"name": "staff"}, {"name": "Sales"}])", AboveLimit(73, "1", "0")),
            R"([{"name":"staff","quota":100u,"remaining_usage_notification":0},)"
            R"({"name":"Sales","quota":0,"remaining_usage_notification":0}])");
}

// UpdateQuotaInfo: every call of the platform in turn

constexpr char kUntouched[] = R"([{"name":"STAFF"},{"name":"Sales"}])";
constexpr char kStaffWithoutALimit[] = R"([{"name":"STAFF","quota":0},{"name":"Sales"}])";
constexpr char kStaffWithoutAWarning[] =
    R"([{"name":"STAFF","quota":10u,"remaining_usage_notification":0},{"name":"Sales"}])";
constexpr char kStaffDone[] =
    R"([{"name":"STAFF","quota":10u,"remaining_usage_notification":6u},{"name":"Sales"}])";
constexpr char kSalesWithoutALimit[] =
    R"([{"name":"STAFF","quota":10u,"remaining_usage_notification":6u},)"
    R"({"name":"Sales","quota":0}])";
constexpr char kSalesWithoutAWarning[] =
    R"([{"name":"STAFF","quota":10u,"remaining_usage_notification":6u},)"
    R"({"name":"Sales","quota":20u,"remaining_usage_notification":0}])";
constexpr char kAllDone[] = R"([{"name":"STAFF","quota":10u,"remaining_usage_notification":6u},)"
                            R"({"name":"Sales","quota":20u,"remaining_usage_notification":15u}])";

const std::vector<Step> kLookUps = {
    {"VelaGroup(name=STAFF)"},
    {"VelaGroup(name=Sales)"},
    {"ListGroupQuotaLimit([staff, Sales])"},
    {"VelaGroup(gid=501)"},
    {"Name(staff)"},
    {"ToLowerCase(staff)"},
    {"VelaGroup(gid=502)"},
    {"Name(Sales)"},
    {"ToLowerCase(Sales)"},
    {"ListGroupQuotaWarning([staff, Sales])"},
    {"VelaGroup(gid=502)"},
    {"Name(Sales)"},
    {"ToLowerCase(Sales)"},
    {"VelaGroup(gid=501)"},
    {"Name(staff)"},
    {"ToLowerCase(staff)"},
};

// With the document when that step fails.
struct Annotation {
  const char* call;
  const char* document;
};
constexpr Annotation kAnnotations[] = {
    {"ToLowerCase(STAFF)", kUntouched},  {"ToULL(10)", kStaffWithoutALimit},
    {"ToULL(4)", kStaffWithoutAWarning}, {"ToLowerCase(Sales)", kStaffDone},
    {"ToULL(20)", kSalesWithoutALimit},  {"ToULL(5)", kSalesWithoutAWarning},
};

class WholeGroupReportTest : public GroupTest {
 protected:
  WholeGroupReportTest() {
    world_.group_limits = {{501, "10"}, {502, "20"}};
    world_.group_warnings = {{502, "5"}, {501, "4"}};
    for (const Annotation& annotation : kAnnotations) {
      steps_.push_back({annotation.call});
    }
  }

  std::vector<Step> steps_ = kLookUps;
};

TEST_F(WholeGroupReportTest, LooksEverythingUpBeforeItWrites) {
  EXPECT_EQ(Report(kUntouched), kAllDone);
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOf(steps_)));
}

TEST_F(WholeGroupReportTest, EveryFailureOfThePlatformPassesThroughAndWhatWasWrittenStays) {
  FailInTurn(
      steps_, 0, [] { return Parse(kUntouched); },
      [this](Json::Value& document) { group_.UpdateQuotaInfo(document); },
      [](const Json::Value& document, const FailedRun& run) {
        ExpectPassedThrough(run);
        EXPECT_EQ(Typed(document), run.step < kLookUps.size()
                                       ? kUntouched
                                       : kAnnotations[run.step - kLookUps.size()].document);
      });
}

TEST_F(WholeGroupReportTest, AValueThatIsNoNumberEndsTheReportWhereItIsRead) {
  world_.group_limits = {{501, "10"}, {502, "x"}};
  EXPECT_EQ(
      FailedReport(kUntouched, "LogException 1001 recording_platform/text:11 not a number: x"),
      kSalesWithoutALimit);
  world_.group_limits = {{501, "10"}, {502, "20"}};
  world_.group_warnings = {{502, ""}, {501, "4"}};
  EXPECT_EQ(FailedReport(kUntouched, "LogException 1001 recording_platform/text:11 not a number: "),
            kSalesWithoutAWarning);
}

}  // namespace
}  // namespace velamailserver::webapi
