#include <functional>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

#include <velamailserver/utils.h>

#include "lib-webapi/remote_call.h"
#include "recording_platform/world_test.h"
#include "support/parse_json.h"
#include "support/typed_json.h"

namespace {

using quillon::test::Alloc;
using quillon::test::Exchange;
using quillon::test::Joined;
using quillon::test::Lines;
using quillon::test::LogCall;
using quillon::test::Logged;
using quillon::test::Parse;
using quillon::test::Probe;
using quillon::test::Release;
using quillon::test::ReleaseBeforeQueued;
using quillon::test::SetAccount;
using quillon::test::SetPort;
using quillon::test::Typed;
using recording::LogRecord;
using recording::Throw;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char kUpload[] = R"({"file_key": "file", "file_path": "/etc/shadow"})";
constexpr unsigned int kNoId = static_cast<unsigned int>(-1);

const Lines kReadIds = {"geteuid()", "getegid()"};

class WebAPIUploadTest : public recording::WorldTest {
 protected:
  WebAPIUploadTest() { world_.body = R"({"success": false, "error": {"code": 105}})"; }

  static int Run(const std::string& upload) {
    const Json::Value request = Parse(R"({"api": "A", "version": 1, "method": "m"})");
    const Json::Value description = Parse(upload);
    Json::Value response;
    const int code = WebAPIRequest("h", "a", "p", request, response, "https", 443, -1, description);
    EXPECT_EQ(Typed(description), Typed(Parse(upload))) << "the description is only read";
    return code;
  }

  static Lines Created() {
    return Joined(
        {Alloc(),
         SetAccount("h", "a", "p"),
         Probe("https://h:443"),
         SetPort("https", 443),
         {"Login(cred, session)", R"(CreateWebAPIRequest(cred, session, "A", 1, "m", null))"}});
  }

  static Lines Queued() {
    return Joined({Created(),
                   {"SetUploadFile(file, /etc/shadow)", "AddCredRequest(request)",
                    "SetResponseTimeout(60)"}});
  }

  // A call whose request runs, between these calls.
  void ExpectRuns(const Lines& enter, const Lines& leave) {
    EXPECT_EQ(Run(kUpload), 105);
    EXPECT_THAT(world_.transcript, ElementsAreArray(Joined({Queued(),
                                                            kReadIds,
                                                            kReadIds,
                                                            enter,
                                                            {"Run()"},
                                                            kReadIds,
                                                            leave,
                                                            {"GetResponse(0)"},
                                                            Release()})));
    EXPECT_THAT(world_.log, IsEmpty());
  }

  // A call whose request does not run, because the last of the calls on entering fails.
  void ExpectDoesNotRun(const Lines& enter, const Lines& leave) {
    EXPECT_EQ(Run(kUpload), 117);
    EXPECT_THAT(world_.transcript,
                ElementsAreArray(Joined(
                    {Queued(),
                     kReadIds,
                     kReadIds,
                     enter,
                     {SyslogCall(35, "IF_RUN_AS(0, 0)"), LogCall(189, "fail to gain privilege")},
                     kReadIds,
                     leave,
                     Release()})));
    EXPECT_THAT(world_.system_log,
                ElementsAre(LogRecord{35, "%s:%d ERROR: %s(%d, %d)",
                                      "lib-webapi/utils:186 ERROR: IF_RUN_AS(0, 0)"}));
    EXPECT_THAT(world_.log, ElementsAre(Logged(189, "fail to gain privilege")));
  }

  static std::string SyslogCall(int priority, const std::string& what) {
    return "syslog(" + std::to_string(priority) + ", \"lib-webapi/utils:186 ERROR: " + what + "\")";
  }
  void ExpectCannotLeave(const std::string& ids) {
    EXPECT_THAT(world_.system_log,
                ElementsAre(LogRecord{34, "%s:%d ERROR: ~%s(%d, %d)",
                                      "lib-webapi/utils:186 ERROR: ~IF_RUN_AS(" + ids + ")"}));
  }
  static std::string CannotLeave(const std::string& ids) {
    return SyslogCall(34, "~IF_RUN_AS(" + ids + ")");
  }

  void BeUser(unsigned int euid, unsigned int egid) {
    world_.euid = euid;
    world_.egid = egid;
  }
  void ExpectIsUser(unsigned int euid, unsigned int egid) {
    EXPECT_EQ(world_.euid, euid);
    EXPECT_EQ(world_.egid, egid);
  }

  // Something that happens while the request runs.
  void WhenItRuns(const std::function<void()>& action) {
    world_.FailCallsStartingWith("Run()", action);
  }
};

// The description

TEST_F(WebAPIUploadTest, NullIsNone) {
  EXPECT_EQ(Run("null"), 105);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(
                  Joined({Alloc(), SetAccount("h", "a", "p"), Probe("https://h:443"),
                          SetPort("https", 443), Exchange(R"("A", 1, "m", null)"), Release()})));
}

TEST_F(WebAPIUploadTest, MayHaveMoreMembersAndEmptyTexts) {
  EXPECT_EQ(Run(R"({"file_key": "", "file_path": "", "more": 5})"), 105);
  EXPECT_THAT(world_.transcript, testing::Contains("SetUploadFile(, )"));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(WebAPIUploadTest, AnythingElseIsRefused) {
  for (const char* upload : {"true",
                             "false",
                             "0",
                             "5",
                             "1.5",
                             R"("")",
                             R"("file_key")",
                             "[]",
                             "[null]",
                             R"(["file_key", "file_path"])",
                             R"([{"file_key": "file", "file_path": "/f"}])",
                             "{}",
                             R"({"file_key": "file"})",
                             R"({"file_path": "/f"})",
                             R"({"file_key": null, "file_path": "/f"})",
                             R"({"file_key": "file", "file_path": null})",
                             R"({"file_key": 5, "file_path": "/f"})",
                             R"({"file_key": "file", "file_path": 5})",
                             R"({"file_key": true, "file_path": "/f"})",
                             R"({"file_key": "file", "file_path": false})",
                             R"({"file_key": ["file"], "file_path": "/f"})",
                             R"({"file_key": "file", "file_path": {"path": "/f"}})",
                             R"({"file_key": 1.5, "file_path": 1.5})",
                             R"({"File_key": "file", "File_path": "/f"})"}) {
    SCOPED_TRACE(upload);
    world_ = recording::World();
    EXPECT_EQ(Run(upload), 117);
    EXPECT_THAT(world_.transcript,
                ElementsAreArray(
                    Joined({Created(), {LogCall(167, "wrong file info")}, ReleaseBeforeQueued()})));
    EXPECT_THAT(world_.log, ElementsAre(Logged(167, "wrong file info")));
  }
}

TEST_F(WebAPIUploadTest, ThatCannotBeAttachedThrows) {
  world_.FailCallsStartingWith("SetUploadFile(", Throw<std::runtime_error>("broken"));
  EXPECT_THROW(Run(kUpload), std::runtime_error);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined(
                  {Created(), {"SetUploadFile(file, /etc/shadow)"}, ReleaseBeforeQueued()})));
}

TEST_F(WebAPIUploadTest, ThatIsNotQueuedIsReleasedByTheIdentityThatThereIs) {
  BeUser(1000, 100);
  world_.queue_index = -1;
  EXPECT_EQ(Run(kUpload), 117);
  EXPECT_THAT(
      world_.transcript,
      ElementsAreArray(Joined({Created(),
                               {"SetUploadFile(file, /etc/shadow)", "AddCredRequest(request)",
                                LogCall(177, "add request fail")},
                               ReleaseBeforeQueued()})));
}

// Becoming root

TEST_F(WebAPIUploadTest, RootStaysWhatItIs) {
  ExpectRuns({}, {});
  EXPECT_THAT(world_.system_log, IsEmpty());
}

TEST_F(WebAPIUploadTest, RootInAnotherGroupChangesTheGroup) {
  BeUser(0, 100);
  WhenItRuns([this] { ExpectIsUser(0, 0); });
  ExpectRuns({"setresgid(-1, 0, -1)"}, {"setresgid(-1, 100, -1)"});
  ExpectIsUser(0, 100);
}

TEST_F(WebAPIUploadTest, AnotherUserInTheGroupOfRootBecomesRoot) {
  BeUser(1000, 0);
  WhenItRuns([this] { ExpectIsUser(0, 0); });
  ExpectRuns({"setresuid(-1, 0, -1)", "setresuid(-1, 0, -1)"}, {"setresuid(-1, 1000, -1)"});
  ExpectIsUser(1000, 0);
}

TEST_F(WebAPIUploadTest, AnotherUserBecomesRootAndThenChangesTheGroup) {
  BeUser(1000, 100);
  WhenItRuns([this] { ExpectIsUser(0, 0); });
  ExpectRuns({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"},
             {"setresgid(-1, 100, -1)", "setresuid(-1, 1000, -1)"});
  ExpectIsUser(1000, 100);
  EXPECT_THAT(world_.system_log, IsEmpty());
}

TEST_F(WebAPIUploadTest, WhoCannotBecomeRootChangesNothing) {
  BeUser(1000, 100);
  world_.next_identity_results = {-1};
  ExpectDoesNotRun({"setresuid(-1, 0, -1)"}, {});
  ExpectIsUser(1000, 100);
}

TEST_F(WebAPIUploadTest, WhoCannotChangeTheGroupBecomesAnotherAgain) {
  BeUser(1000, 100);
  world_.next_identity_results = {0, -1};
  ExpectDoesNotRun({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)"}, {"setresuid(-1, 1000, -1)"});
  ExpectIsUser(1000, 100);
}

TEST_F(WebAPIUploadTest, RootThatCannotChangeTheGroupChangesNothing) {
  BeUser(0, 100);
  world_.next_identity_results = {-1};
  ExpectDoesNotRun({"setresgid(-1, 0, -1)"}, {});
  ExpectIsUser(0, 100);
}

TEST_F(WebAPIUploadTest, WhoCannotTakeTheLastStepTakesTheOthersBack) {
  BeUser(1000, 100);
  world_.next_identity_results = {0, 0, -1};
  ExpectDoesNotRun({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"},
                   {"setresgid(-1, 100, -1)", "setresuid(-1, 1000, -1)"});
  ExpectIsUser(1000, 100);
}

TEST_F(WebAPIUploadTest, InTheGroupOfRootTheLastStepIsTheSecond) {
  BeUser(1000, 0);
  world_.next_identity_results = {0, -1};
  ExpectDoesNotRun({"setresuid(-1, 0, -1)", "setresuid(-1, 0, -1)"}, {"setresuid(-1, 1000, -1)"});
  ExpectIsUser(1000, 0);
}

TEST_F(WebAPIUploadTest, OnlyANegativeAnswerKeepsFromBecomingRoot) {
  BeUser(1000, 100);
  world_.next_identity_results = {1, 1};
  ExpectDoesNotRun({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)"}, {});
}

TEST_F(WebAPIUploadTest, AnyAnswerButZeroKeepsFromTheLastStep) {
  BeUser(1000, 0);
  world_.next_identity_results = {0, 1};
  ExpectDoesNotRun({"setresuid(-1, 0, -1)", "setresuid(-1, 0, -1)"}, {"setresuid(-1, 1000, -1)"});
}

TEST_F(WebAPIUploadTest, TheIdentityThatIsReadAgainDecidesWhatToChange) {
  world_.next_euids = {1000, 0};
  world_.next_egids = {100, 0};
  ExpectRuns({}, {"setresgid(-1, 100, -1)", "setresuid(-1, 1000, -1)"});
}

// Becoming what it was

TEST_F(WebAPIUploadTest, AnExceptionOfTheRunFindsTheIdentityAsItWas) {
  BeUser(1000, 100);
  WhenItRuns(Throw<std::runtime_error>("broken"));
  EXPECT_THROW(Run(kUpload), std::runtime_error);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({Queued(),
                                       kReadIds,
                                       kReadIds,
                                       {"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)",
                                        "setresuid(-1, 0, -1)", "Run()"},
                                       kReadIds,
                                       {"setresgid(-1, 100, -1)", "setresuid(-1, 1000, -1)"},
                                       Release()})));
  ExpectIsUser(1000, 100);
}

TEST_F(WebAPIUploadTest, WhoCannotHaveTheGroupBackStaysRootAndSaysSo) {
  BeUser(1000, 100);
  world_.next_identity_results = {0, 0, 0, -1};
  ExpectRuns({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"},
             {"setresgid(-1, 100, -1)", CannotLeave("1000, 100")});
  ExpectCannotLeave("1000, 100");
}

TEST_F(WebAPIUploadTest, WhoCannotBecomeTheUserAgainSaysSo) {
  for (const int result : {-1, 1}) {
    world_ = recording::World();
    world_.body = R"({"error": {"code": 105}})";
    BeUser(1000, 100);
    world_.next_identity_results = {0, 0, 0, 0, result};
    ExpectRuns({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"},
               {"setresgid(-1, 100, -1)", "setresuid(-1, 1000, -1)", CannotLeave("1000, 100")});
    ExpectCannotLeave("1000, 100");
  }
}

TEST_F(WebAPIUploadTest, AnExceptionOfTheRunOutlivesWhatCannotBeRestored) {
  BeUser(1000, 100);
  world_.next_identity_results = {0, 0, 0, -1};
  WhenItRuns(Throw<std::out_of_range>("broken"));
  EXPECT_THROW(Run(kUpload), std::out_of_range);
  ExpectCannotLeave("1000, 100");
}

TEST_F(WebAPIUploadTest, LargeIdsAreLoggedAsSignedOnes) {
  BeUser(4294967294, 4294967293);
  world_.next_identity_results = {0, 0, 0, -1};
  ExpectRuns({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"},
             {"setresgid(-1, -3, -1)", CannotLeave("-2, -3")});
  ExpectCannotLeave("-2, -3");
}

TEST_F(WebAPIUploadTest, WhoBecameAThirdUserBecomesRootFirst) {
  BeUser(1000, 100);
  WhenItRuns([this] { BeUser(2000, 200); });
  ExpectRuns({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"},
             {"setresuid(-1, 0, -1)", "setresgid(-1, 100, -1)", "setresuid(-1, 1000, -1)"});
  ExpectIsUser(1000, 100);
}

TEST_F(WebAPIUploadTest, WhoBecameAThirdUserMayNotBeAbleToBecomeRoot) {
  BeUser(1000, 100);
  WhenItRuns([this] { BeUser(2000, 100); });
  world_.next_identity_results = {0, 0, 0, -1};
  ExpectRuns({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"},
             {"setresuid(-1, 0, -1)", CannotLeave("1000, 100")});
  ExpectCannotLeave("1000, 100");
  ExpectIsUser(2000, 100);
}

TEST_F(WebAPIUploadTest, RootThatBecameAnotherComparesWithWhatItIsOnLeaving) {
  WhenItRuns([this] { BeUser(2000, 200); });
  ExpectRuns({}, {"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"});
  ExpectIsUser(0, 0);
}

TEST_F(WebAPIUploadTest, WhoIsTheSavedUserAlreadyChangesTheGroupOnly) {
  BeUser(1000, 100);
  WhenItRuns([this] { BeUser(1000, 0); });
  ExpectRuns({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"},
             {"setresgid(-1, 100, -1)"});
}

TEST_F(WebAPIUploadTest, WhoIsWhoItWasAlreadyChangesNothing) {
  BeUser(1000, 100);
  WhenItRuns([this] { BeUser(1000, 100); });
  ExpectRuns({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"}, {});
}

TEST_F(WebAPIUploadTest, AnIdThatMeansNoneIsNotRestored) {
  world_.next_euids = {kNoId};
  ExpectRuns({}, {});
  world_.transcript.clear();
  world_.next_egids = {kNoId};
  ExpectRuns({}, {});
  world_.transcript.clear();
  world_.next_euids = {kNoId, 2000, 2000};
  world_.next_egids = {kNoId, 200, 200};
  ExpectRuns({"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"},
             {"setresuid(-1, 0, -1)"});
  EXPECT_THAT(world_.system_log, IsEmpty());
}

}  // namespace
