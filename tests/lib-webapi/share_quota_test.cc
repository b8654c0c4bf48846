#include <limits>
#include <string>

#include <gmock/gmock.h>

#include <velamailserver/log_exception.h>
#include <velamailserver/share_quota.h>

#include "lib-webapi/pass_through.h"
#include "recording_platform/world_test.h"
#include "support/parse_json.h"

namespace velamailserver::webapi::tarn {
namespace {

using quillon::test::ExpectPassesThrough;
using quillon::test::Parse;
using recording::LogRecord;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned long long kLargest = std::numeric_limits<unsigned long long>::max();

constexpr char kExecForBob[] =
    R"(Exec(null, "VELA.Core.Quota", 1, "get", {"name":"bob","support_share_quota":true}, "admin"))";
constexpr char kExecForStaff[] =
    R"(Exec(null, "VELA.Core.Quota", 1, "get", )"
    R"({"name":"staff","subject_type":"group","support_share_quota":true}, "admin"))";

class ShareQuotaTest : public recording::WorldTest {
 protected:
  void Answer(const std::string& response) { world_.api_response = Parse(response); }
  // The answer of a success with this "data".
  void AnswerData(const std::string& data) { Answer(R"({"success": true, "data": )" + data + "}"); }
  // The quotas of a user, or of a group.
  void AnswerEntries(const std::string& entries) {
    AnswerData(R"({"user_quota": )" + entries + R"(, "group_quota": )" + entries + "}");
  }
  void AnswerShares(const std::string& shares) {
    AnswerEntries(R"([{"support_share_quota": true, "shares": )" + shares + "}]");
  }
  void AnswerShare(const std::string& share) { AnswerShares("[" + share + "]"); }

  // Both subjects are read in the same way.
  static void ExpectQuota(unsigned long long mb) {
    EXPECT_EQ(GetUserQuillonSharedFolderQuotaMb("bob"), mb);
    EXPECT_EQ(GetGroupQuillonSharedFolderQuotaMb("staff"), mb);
  }
  static void ExpectJsonError() {
    EXPECT_THROW(GetUserQuillonSharedFolderQuotaMb("bob"), Json::LogicError);
    EXPECT_THROW(GetGroupQuillonSharedFolderQuotaMb("staff"), Json::LogicError);
  }
};

// What is asked

TEST_F(ShareQuotaTest, OfAUserIsAskedForByNameOnly) {
  AnswerShare(R"({"name": "Quillon", "quota": 1024})");
  EXPECT_EQ(GetUserQuillonSharedFolderQuotaMb("bob"), 1024U);
  EXPECT_THAT(world_.transcript, ElementsAre("IsAdminGroupMember(bob)", kExecForBob));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(ShareQuotaTest, OfAGroupIsAskedForAsThatOfAGroup) {
  AnswerShare(R"({"name": "Quillon", "quota": 1024})");
  EXPECT_EQ(GetGroupQuillonSharedFolderQuotaMb("staff"), 1024U);
  EXPECT_THAT(world_.transcript, ElementsAre(kExecForStaff));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(ShareQuotaTest, IsAskedForByTheNameExactlyAsItIs) {
  AnswerData("{}");
  EXPECT_EQ(GetUserQuillonSharedFolderQuotaMb(""), 0U);
  EXPECT_EQ(GetUserQuillonSharedFolderQuotaMb(" BoB\\"), 0U);
  EXPECT_EQ(GetGroupQuillonSharedFolderQuotaMb(" StaFF\""), 0U);
  EXPECT_THAT(
      world_.transcript,
      ElementsAre("IsAdminGroupMember()",
                  R"(Exec(null, "VELA.Core.Quota", 1, "get", )"
                  R"({"name":"","support_share_quota":true}, "admin"))",
                  "IsAdminGroupMember( BoB\\)",
                  R"(Exec(null, "VELA.Core.Quota", 1, "get", )"
                  R"({"name":" BoB\\","support_share_quota":true}, "admin"))",
                  R"(Exec(null, "VELA.Core.Quota", 1, "get", )"
                  R"({"name":" StaFF\"","subject_type":"group","support_share_quota":true}, )"
                  R"("admin"))"));
}

TEST_F(ShareQuotaTest, OfAnAdministratorIsNoneAndNotAskedFor) {
  world_.administrators = {"bob"};
  AnswerShare(R"({"name": "Quillon", "quota": 1024})");
  EXPECT_EQ(GetUserQuillonSharedFolderQuotaMb("bob"), 0U);
  EXPECT_THAT(world_.transcript, ElementsAre("IsAdminGroupMember(bob)"));
  EXPECT_EQ(GetUserQuillonSharedFolderQuotaMb("alice"), 1024U);
}

TEST_F(ShareQuotaTest, OfAGroupIsAskedForWhateverItsNameIs) {
  world_.administrators = {"staff"};
  AnswerShare(R"({"name": "Quillon", "quota": 1024})");
  EXPECT_EQ(GetGroupQuillonSharedFolderQuotaMb("staff"), 1024U);
  EXPECT_THAT(world_.transcript, ElementsAre(kExecForStaff));
}

TEST_F(ShareQuotaTest, IsAskedForAnewByEveryCall) {
  AnswerShare(R"({"name": "Quillon", "quota": 1})");
  ExpectQuota(1);
  AnswerShare(R"({"name": "Quillon", "quota": 2})");
  ExpectQuota(2);
}

// The first figure that is not 0

TEST_F(ShareQuotaTest, IsTheSubjectsOwnElseThatOfItsGroup) {
  AnswerShare(R"({"name": "Quillon", "quota": 1024, "group_limit": 2048})");
  ExpectQuota(1024);
  AnswerShare(R"({"name": "Quillon", "quota": 2048, "group_limit": 1024})");
  ExpectQuota(2048);
  AnswerShare(R"({"name": "Quillon", "quota": 0, "group_limit": 2048})");
  ExpectQuota(2048);
  AnswerShare(R"({"name": "Quillon", "group_limit": 2048})");
  ExpectQuota(2048);
  AnswerShare(R"({"name": "Quillon", "quota": 1024, "group_limit": 0})");
  ExpectQuota(1024);
  AnswerShare(R"({"name": "Quillon", "quota": 1024})");
  ExpectQuota(1024);
}

TEST_F(ShareQuotaTest, IsNoneWithoutAFigure) {
  for (const char* share :
       {R"({"name": "Quillon", "quota": 0, "group_limit": 0})",
        R"({"name": "Quillon", "quota": 0})", R"({"name": "Quillon", "group_limit": 0})",
        R"({"name": "Quillon"})", R"({"name": "Quillon", "quota": null, "group_limit": null})",
        R"({"name": "Quillon", "Quota": 5, "user_limit": 5, "groupLimit": 5})"}) {
    SCOPED_TRACE(share);
    AnswerShare(share);
    ExpectQuota(0);
  }
}

TEST_F(ShareQuotaTest, IsSoManyMegabytesAsThePlatformReports) {
  for (const unsigned long long mb :
       {1ULL, 2ULL, 4294967296ULL, 9223372036854775807ULL, 9223372036854775808ULL, kLargest}) {
    AnswerShare(R"({"name": "Quillon", "quota": )" + std::to_string(mb) + "}");
    ExpectQuota(mb);
    AnswerShare(R"({"name": "Quillon", "group_limit": )" + std::to_string(mb) + "}");
    ExpectQuota(mb);
  }
}

TEST_F(ShareQuotaTest, IsLookedForInEveryShareOfTheName) {
  AnswerShares(R"([{"name": "Quillon", "quota": 0, "group_limit": 0}, {"name": "Quillon"},
                   {"name": "Quillon", "group_limit": 3}, {"name": "Quillon", "quota": 4}])");
  ExpectQuota(3);
}

TEST_F(ShareQuotaTest, IsLookedForInEveryEntry) {
  AnswerEntries(R"([{"support_share_quota": true, "shares": [{"name": "Quillon", "quota": 0}]},
                    {"support_share_quota": true, "shares": []},
                    {"support_share_quota": true},
                    {"support_share_quota": true, "shares": [{"name": "Quillon", "quota": 6}]},
                    {"support_share_quota": true, "shares": [{"name": "Quillon", "quota": 7}]}])");
  ExpectQuota(6);
}

TEST_F(ShareQuotaTest, OfAnEarlierEntryGoesBeforeThatOfALater) {
  AnswerEntries(
      R"([{"support_share_quota": true, "shares": [{"name": "Quillon", "group_limit": 9}]},
          {"support_share_quota": true, "shares": [{"name": "Quillon", "quota": 1}]}])");
  ExpectQuota(9);
}

TEST_F(ShareQuotaTest, IsThatOfTheShareOfExactlyThisName) {
  for (const char* name : {"quillon", "QUILLON", "quillonQuillon", "Quillon2", "Quillon ",
                           " Quillon", "Quillo", "", "Quillon\\u0000", "homes"}) {
    SCOPED_TRACE(name);
    AnswerShares(std::string(R"([{"name": ")") + name + R"(", "quota": 5, "group_limit": 6}])");
    ExpectQuota(0);
    AnswerShares(std::string(R"([{"name": ")") + name +
                 R"(", "quota": 5}, {"name": "Quillon", "quota": 7}])");
    ExpectQuota(7);
  }
}

TEST_F(ShareQuotaTest, OfAShareWithoutANameIsNone) {
  AnswerShares(
      R"([{"quota": 5}, {"name": null, "quota": 5}, null, {}, {"Name": "Quillon", "quota": 5},
                   {"name": true, "quota": 5}, {"name": 7, "quota": 5}])");
  ExpectQuota(0);
}

// Entries that are searched

TEST_F(ShareQuotaTest, SkipsEntriesThatDoNotSupportIt) {
  for (const char* support : {R"("support_share_quota": false,)", R"("support_share_quota": null,)",
                              R"("support_share_quota": 0,)", R"("support_share_quota": 0.0,)",
                              R"("Support_Share_Quota": true,)", R"("support": true,)", ""}) {
    SCOPED_TRACE(support);
    AnswerEntries(std::string("[{") + support +
                  R"("shares": [{"name": "Quillon", "quota": 5}]},
                     {"support_share_quota": true, "shares": [{"name": "Quillon", "quota": 7}]}])");
    ExpectQuota(7);
    AnswerEntries(std::string("[{") + support + R"("shares": [{"name": "Quillon", "quota": 5}]}])");
    ExpectQuota(0);
  }
}

TEST_F(ShareQuotaTest, SearchesEntriesWhoseSupportConvertsToTrue) {
  for (const char* support : {"true", "1", "-1", "0.5"}) {
    SCOPED_TRACE(support);
    AnswerEntries(std::string(R"([{"support_share_quota": )") + support +
                  R"(, "shares": [{"name": "Quillon", "quota": 5}]}])");
    ExpectQuota(5);
  }
}

TEST_F(ShareQuotaTest, ASkippedEntryMayHoldAnything) {
  AnswerEntries(R"([{"support_share_quota": false, "shares": [5, {"name": [], "quota": "x"}]}, {},
                    null, {"support_share_quota": true, "shares": [{"name": "Quillon", "quota": 7}]}])");
  ExpectQuota(7);
}

TEST_F(ShareQuotaTest, WhatComesAfterTheFigureMayBeAnything) {
  AnswerEntries(R"([{"support_share_quota": true, "shares":
                     [{"name": "Quillon", "quota": 7, "group_limit": "x"}, 5]}, 5])");
  ExpectQuota(7);
}

TEST_F(ShareQuotaTest, OfAUserAndOfAGroupAreInListsOfTheirOwn) {
  AnswerData(R"({"user_quota":
      [{"support_share_quota": true, "shares": [{"name": "Quillon", "quota": 5}]}]})");
  EXPECT_EQ(GetUserQuillonSharedFolderQuotaMb("bob"), 5U);
  EXPECT_EQ(GetGroupQuillonSharedFolderQuotaMb("staff"), 0U);
  AnswerData(R"({"group_quota":
      [{"support_share_quota": true, "shares": [{"name": "Quillon", "quota": 6}]}]})");
  EXPECT_EQ(GetUserQuillonSharedFolderQuotaMb("bob"), 0U);
  EXPECT_EQ(GetGroupQuillonSharedFolderQuotaMb("staff"), 6U);
}

// Answers of other forms

TEST_F(ShareQuotaTest, IsNoneWhereTheAnswerHasNoList) {
  for (const char* response :
       {R"({"success": true})", R"({"success": true, "data": null})",
        R"({"success": true, "data": {}})",
        R"({"success": true, "data": {"user_quota": null, "group_quota": null}})",
        R"({"success": true, "data": {"user_quota": [], "group_quota": []}})",
        R"({"success": true, "data": {"user_quota": {}, "group_quota": {}}})",
        R"({"success": true, "data": {"user_quota": 5, "group_quota": 5}})",
        R"({"success": true, "data": {"user_quota": "x", "group_quota": "x"}})"}) {
    SCOPED_TRACE(response);
    Answer(response);
    ExpectQuota(0);
  }
}

TEST_F(ShareQuotaTest, IsNoneWhereAnEntryHasNoShares) {
  for (const char* shares : {"null", "[]", "{}", "5", R"("Quillon")", "true"}) {
    SCOPED_TRACE(shares);
    AnswerShares(shares);
    ExpectQuota(0);
  }
}

TEST_F(ShareQuotaTest, AnObjectIsAListToo) {
  AnswerShares(R"({"b": {"name": "Quillon", "quota": 2}, "a": {"name": "Quillon", "quota": 1}})");
  ExpectQuota(1);
  AnswerEntries(R"({"b": {"support_share_quota": false},
                    "c": {"support_share_quota": true, "shares": [{"name": "Quillon", "quota": 3}]}})");
  ExpectQuota(3);
}

TEST_F(ShareQuotaTest, FiguresAreReadAsTheJsonLibraryConvertsThem) {
  AnswerShare(R"({"name": "Quillon", "quota": 5.9})");
  ExpectQuota(5);
  AnswerShare(R"({"name": "Quillon", "quota": 0.9, "group_limit": 6.0})");
  ExpectQuota(6);
  AnswerShare(R"({"name": "Quillon", "quota": true})");
  ExpectQuota(1);
  AnswerShare(R"({"name": "Quillon", "quota": false, "group_limit": true})");
  ExpectQuota(1);
}

TEST_F(ShareQuotaTest, WhatDoesNotConvertPassesThroughAsTheJsonLibrarysError) {
  for (const char* share :
       {R"({"name": "Quillon", "quota": "5"})", R"({"name": "Quillon", "quota": ""})",
        R"({"name": "Quillon", "quota": -1})", R"({"name": "Quillon", "quota": [5]})",
        R"({"name": "Quillon", "quota": {}})", R"({"name": "Quillon", "quota": 1e30})",
        R"({"name": "Quillon", "group_limit": "5"})", R"({"name": "Quillon", "group_limit": -1})",
        R"({"name": "Quillon", "quota": 0, "group_limit": "5"})", R"({"name": ["Quillon"]})",
        R"({"name": {"name": "Quillon"}, "quota": 5})", "5", R"("Quillon")", "true",
        R"([{"name": "Quillon", "quota": 5}])"}) {
    SCOPED_TRACE(share);
    AnswerShare(share);
    ExpectJsonError();
  }
  for (const char* entry :
       {R"({"support_share_quota": "true"})", R"({"support_share_quota": ""})",
        R"({"support_share_quota": "", "shares": []})", "5", R"("x")", "true", "[1]"}) {
    SCOPED_TRACE(entry);
    AnswerEntries(std::string("[") + entry + "]");
    ExpectJsonError();
  }
  for (const char* data : {"5", R"("x")", "true", "[]", R"([{"user_quota": []}])"}) {
    SCOPED_TRACE(data);
    AnswerData(data);
    ExpectJsonError();
  }
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(ShareQuotaTest, AFigureBeforeWhatDoesNotConvertCounts) {
  AnswerShare(R"({"name": "Quillon", "quota": 7, "group_limit": "x"})");
  ExpectQuota(7);
}

// Failures

TEST_F(ShareQuotaTest, AFailureOfTheAPIIsNoAbsence) {
  for (const char* response :
       {R"({"success": false, "error": {"code": 105}})", "null", "{}",
        R"({"success": false, "data": {"user_quota": [{"support_share_quota": true,
            "shares": [{"name": "Quillon", "quota": 5}]}]}})"}) {
    Answer(response);
    for (const bool is_group : {false, true}) {
      SCOPED_TRACE(std::string(response) + (is_group ? " group" : " user"));
      world_.transcript.clear();
      world_.log.clear();
      EXPECT_EQ(quillon::test::Thrown([&] {
                  is_group ? GetGroupQuillonSharedFolderQuotaMb("staff")
                           : GetUserQuillonSharedFolderQuotaMb("bob");
                }),
                "LogException 3008 lib-webapi/run_api:23 api: [VELA.Core.Quota], method: [get]");
      const std::string text =
          "lib-webapi/run_api:23 (3008) failed to run webapi: api: [VELA.Core.Quota], method: "
          "[get]";
      EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, "%s:%d (%d) %s: %s", text}));
      EXPECT_EQ(world_.transcript.size(), is_group ? 2U : 3U);
    }
  }
}

TEST_F(ShareQuotaTest, EveryFailureOfThePlatformPassesThrough) {
  ExpectPassesThrough({{"IsAdminGroupMember(bob)"}, {kExecForBob}},
                      [] { GetUserQuillonSharedFolderQuotaMb("bob"); });
  ExpectPassesThrough({{kExecForStaff}}, [] { GetGroupQuillonSharedFolderQuotaMb("staff"); });
}

}  // namespace
}  // namespace velamailserver::webapi::tarn
