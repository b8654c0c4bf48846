#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include <gmock/gmock.h>
#include <json/json.h>

#include <velamailserver/utils.h>

#include "lib-webapi/remote_call.h"
#include "recording_platform/world_test.h"
#include "support/parse_json.h"
#include "support/typed_json.h"

namespace {

using quillon::test::Alloc;
using quillon::test::CanFail;
using quillon::test::Exchange;
using quillon::test::FailedProbe;
using quillon::test::Joined;
using quillon::test::Lines;
using quillon::test::LogCall;
using quillon::test::Logged;
using quillon::test::Parse;
using quillon::test::Probe;
using quillon::test::Release;
using quillon::test::ReleaseBeforeCreated;
using quillon::test::ReleaseBeforeQueued;
using quillon::test::SetAccount;
using quillon::test::SetPort;
using quillon::test::Typed;
using recording::Throw;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::StartsWith;

static_assert(std::is_same_v<decltype(&WebAPIRequest),
                             int (*)(const std::string&, const std::string&, const std::string&,
                                     const Json::Value&, Json::Value&, const std::string&, int,
                                     long, const Json::Value&)>);

constexpr char kCall[] = R"({"api": "A", "version": 1, "method": "m"})";
constexpr char kCallArguments[] = R"("A", 1, "m", null)";

// What a call does until the host is known.
Lines Prepared() {
  return Joined(
      {Alloc(), SetAccount("h", "a", "p"), Probe("https://h:443"), SetPort("https", 443)});
}

// The first so many calls of an exchange.
Lines Begun(std::size_t calls, const std::string& arguments = kCallArguments) {
  Lines lines = Exchange(arguments);
  lines.resize(calls);
  return Joined({Prepared(), lines});
}

class WebAPIRequestTest : public recording::WorldTest {
 protected:
  int Run(const std::string& request, const std::string& account, const std::string& password) {
    const Json::Value document = Parse(request);
    const std::string before = Typed(document);
    struct Unchanged {
      ~Unchanged() { EXPECT_EQ(Typed(document), before) << "the request is only read"; }
      const Json::Value& document;
      const std::string& before;
    };
    const Unchanged unchanged{document, before};
    return WebAPIRequest("h", account, password, document, response_, "https", 443, timeout_,
                         Json::Value());
  }
  int RunLocally(const std::string& request) { return Run(request, "", ""); }
  int RunRemotely(const std::string& request = kCall) { return Run(request, "a", "p"); }

  // A call that fails on this side.
  void ExpectFails(const Lines& calls, int line, const std::string& message,
                   const Lines& releases) {
    response_ = Parse(R"({"before": 1})");
    EXPECT_EQ(RunRemotely(), 117);
    EXPECT_THAT(world_.transcript,
                ElementsAreArray(Joined({calls, {LogCall(line, message)}, releases})));
    EXPECT_THAT(world_.log, ElementsAre(Logged(line, message)));
    EXPECT_EQ(Typed(response_), R"({"before":1})");
  }

  Json::Value response_;
  long timeout_ = -1;
};

// The request object

TEST_F(WebAPIRequestTest, NeedsAPIVersionAndMethod) {
  for (const char* request :
       {"null", "{}", R"({"version": 1, "method": "m"})", R"({"api": "A", "method": "m"})",
        R"({"api": "A", "version": 1})", R"({"API": "A", "Version": 1, "Method": "m"})"}) {
    for (const char* account : {"", "a"}) {
      SCOPED_TRACE(request);
      world_ = recording::World();
      EXPECT_EQ(Run(request, account, account), 117);
      EXPECT_THAT(world_.transcript, ElementsAre("CredRequestMgr()", LogCall(126, "params error"),
                                                 "~CredRequestMgr()"));
      EXPECT_THAT(world_.log, ElementsAre(Logged(126, "params error")));
      EXPECT_TRUE(response_.isNull());
    }
  }
}

TEST_F(WebAPIRequestTest, IsAnObject) {
  for (const char* request : {"[]", "5", R"("api")", "true", R"(["api", "version", "method"])"}) {
    for (const char* account : {"", "a"}) {
      SCOPED_TRACE(request);
      world_ = recording::World();
      EXPECT_THROW(Run(request, account, account), Json::LogicError);
      EXPECT_THAT(world_.transcript, ElementsAre("CredRequestMgr()", "~CredRequestMgr()"));
    }
  }
}

// On this host

TEST_F(WebAPIRequestTest, WithoutAccountAndPasswordRunsHereAsAdmin) {
  world_.api_response = Parse(R"({"success": true, "data": [1]})");
  EXPECT_EQ(RunLocally(R"({"api": "A", "version": 2, "method": "m", "params": {"p": [1]}})"), 0);
  EXPECT_THAT(world_.transcript,
              ElementsAre("CredRequestMgr()", R"(Exec(null, "A", 2, "m", {"p":[1]}, "admin"))",
                          "~CredRequestMgr()"));
  EXPECT_EQ(Typed(response_), R"({"data":[1],"success":true})");
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(WebAPIRequestTest, HereNothingElseMatters) {
  world_.api_response = Parse(R"({"success": true})");
  response_ = Parse(R"({"before": 1})");
  EXPECT_EQ(WebAPIRequest("another", "", "", Parse(kCall), response_, "gopher", -7, -7, 5), 0);
  EXPECT_THAT(world_.transcript,
              ElementsAre("CredRequestMgr()", R"(Exec({"before":1}, "A", 1, "m", null, "admin"))",
                          "~CredRequestMgr()"));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(WebAPIRequestTest, HereAPIAndMethodAreTexts) {
  for (const char* request : {R"({"api": null, "version": 1, "method": "m"})",
                              R"({"api": 5, "version": 1, "method": "m"})",
                              R"({"api": "A", "version": 1, "method": null})",
                              R"({"api": "A", "version": 1, "method": 5})",
                              R"({"api": "A", "version": "1", "method": "m"})",
                              R"({"api": "A", "version": {}, "method": "m"})",
                              R"({"api": "A", "version": 2147483648, "method": "m"})"}) {
    SCOPED_TRACE(request);
    world_ = recording::World();
    EXPECT_THROW(RunLocally(request), Json::LogicError);
    EXPECT_THAT(world_.transcript, ElementsAre("CredRequestMgr()", "~CredRequestMgr()"));
    EXPECT_THAT(world_.log, IsEmpty());
  }
}

TEST_F(WebAPIRequestTest, HereAFailureOfTheRunnerPassesThrough) {
  world_.FailCall(2, Throw<std::out_of_range>("broken"));
  EXPECT_THROW(RunLocally(kCall), std::out_of_range);
  EXPECT_THAT(world_.transcript,
              ElementsAre("CredRequestMgr()", R"(Exec(null, "A", 1, "m", null, "admin"))",
                          "~CredRequestMgr()"));
}

// On another host

TEST_F(WebAPIRequestTest, WithAnAccountLogsInAndAsks) {
  world_.body = R"({"success": true, "data": [1]})";
  EXPECT_EQ(RunRemotely(R"({"api": "A", "version": 2, "method": "m", "params": {"p": [1]}})"), 0);
  EXPECT_THAT(
      world_.transcript,
      ElementsAreArray(Joined({Prepared(), Exchange(R"("A", 2, "m", {"p":[1]})"), Release()})));
  EXPECT_EQ(Typed(response_), R"({"data":[1],"success":true})");
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(WebAPIRequestTest, EitherOfAccountAndPasswordIsEnough) {
  EXPECT_EQ(Run(kCall, "a", ""), 0);
  EXPECT_EQ(Run(kCall, "", "p"), 0);
  const Lines probe = Joined({Probe("https://h:443"), SetPort("https", 443)});
  EXPECT_THAT(world_.transcript, ElementsAreArray(Joined({Alloc(), SetAccount("h", "a", ""), probe,
                                                          Exchange(kCallArguments), Release(),
                                                          Alloc(), SetAccount("h", "", "p"), probe,
                                                          Exchange(kCallArguments), Release()})));
}

TEST_F(WebAPIRequestTest, LooksForAPort) {
  world_.unreachable_urls = {"http://h:5000"};
  EXPECT_EQ(WebAPIRequest("h", "a", "p", Parse(kCall), response_, "http", -1, -1, Json::Value()),
            0);
  EXPECT_THAT(
      world_.transcript,
      ElementsAreArray(Joined({Alloc(), SetAccount("h", "a", "p"), FailedProbe("http://h:5000"),
                               Probe("https://h:5001"), SetPort("https", 5001),
                               Exchange(kCallArguments), Release()})));
}

TEST_F(WebAPIRequestTest, ThereAPIAndMethodBecomeTexts) {
  const std::pair<const char*, const char*> kCases[] = {
      {R"({"api": null, "version": null, "method": null, "params": null})", R"("", 0, "", null)"},
      {R"({"api": 5, "version": true, "method": false})", R"("5", 1, "false", null)"},
      {R"({"api": "", "version": -2.9, "method": "", "params": [{}]})", R"("", -2, "", [{}])"},
      {R"({"api": "A", "version": 2147483647, "method": "m", "params": "p"})",
       R"("A", 2147483647, "m", "p")"}};
  for (const auto& [request, arguments] : kCases) {
    SCOPED_TRACE(request);
    world_.transcript.clear();
    EXPECT_EQ(RunRemotely(request), 0);
    EXPECT_THAT(world_.transcript,
                ElementsAreArray(Joined({Prepared(), Exchange(arguments), Release()})));
  }
}

TEST_F(WebAPIRequestTest, ThereWhatCannotBeSaidInTheRequestThrowsAfterTheLogin) {
  for (const char* request : {R"({"api": [], "version": 1, "method": "m"})",
                              R"({"api": "A", "version": 1, "method": {}})",
                              R"({"api": "A", "version": "1", "method": "m"})",
                              R"({"api": "A", "version": 2147483648, "method": "m"})",
                              R"({"api": "A", "version": [], "method": "m"})"}) {
    SCOPED_TRACE(request);
    world_ = recording::World();
    EXPECT_THROW(RunRemotely(request), Json::LogicError);
    EXPECT_THAT(world_.transcript, ElementsAreArray(Joined({Begun(1), ReleaseBeforeCreated()})));
    EXPECT_THAT(world_.log, IsEmpty());
  }
}

TEST_F(WebAPIRequestTest, WaitsAsLongAsItIsTold) {
  const std::pair<long, const char*> kCases[] = {
      {-5, "SetResponseTimeout(60)"},
      {-1, "SetResponseTimeout(60)"},
      {0, "SetResponseTimeout(0)"},
      {1, "SetResponseTimeout(1)"},
      {300, "SetResponseTimeout(300)"},
      {std::numeric_limits<long>::min(), "SetResponseTimeout(60)"},
      {std::numeric_limits<long>::max(), "SetResponseTimeout(9223372036854775807)"}};
  for (const auto& [timeout, call] : kCases) {
    world_.transcript.clear();
    timeout_ = timeout;
    EXPECT_EQ(RunRemotely(), 0);
    EXPECT_THAT(world_.transcript, testing::Contains(call));
  }
}

TEST_F(WebAPIRequestTest, AsksForTheAnswerOfItsOwnRequest) {
  world_.queue_index = 3;
  EXPECT_EQ(RunRemotely(), 0);
  Lines exchange = Exchange(kCallArguments);
  exchange.back() = "GetResponse(3)";
  EXPECT_THAT(world_.transcript, ElementsAreArray(Joined({Prepared(), exchange, Release()})));
}

// Failures on this side

TEST_F(WebAPIRequestTest, FailsWithoutACredential) {
  world_.alloc_cred = false;
  ExpectFails({"CredRequestMgr()", "VELACredAlloc()"}, 141, "get default cred fail",
              {"~CredRequestMgr()"});
}

TEST_F(WebAPIRequestTest, FailsWithoutASession) {
  world_.alloc_session = false;
  ExpectFails(Alloc(), 146, "alloc sess fail", {"VELACredFree(cred)", "~CredRequestMgr()"});
}

TEST_F(WebAPIRequestTest, FailsWhenNothingAnswers) {
  world_.unreachable_urls = {"https://h:443"};
  EXPECT_EQ(RunRemotely(), 117);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({Alloc(),
                                       SetAccount("h", "a", "p"),
                                       FailedProbe("https://h:443"),
                                       {LogCall(94, "host: h doesn't open https port 443"),
                                        LogCall(151, "prepare login fail")},
                                       ReleaseBeforeCreated()})));
  EXPECT_EQ(world_.log.back(), Logged(151, "prepare login fail"));
}

TEST_F(WebAPIRequestTest, FailsWithoutALogin) {
  world_.login = false;
  ExpectFails(Begun(1), 156, "login fail", ReleaseBeforeCreated());
}

TEST_F(WebAPIRequestTest, FailsWithoutARequest) {
  world_.create_request = false;
  ExpectFails(Begun(2), 161, "create request fail", ReleaseBeforeCreated());
}

TEST_F(WebAPIRequestTest, ReleasesARequestThatIsNotQueued) {
  for (const int index : {-1, -7, std::numeric_limits<int>::min()}) {
    world_ = recording::World();
    world_.queue_index = index;
    ExpectFails(Begun(3), 177, "add request fail", ReleaseBeforeQueued());
  }
}

TEST_F(WebAPIRequestTest, FailsSilentlyWithoutATimeout) {
  world_.set_response_timeout = false;
  EXPECT_EQ(RunRemotely(), 117);
  EXPECT_THAT(world_.transcript, ElementsAreArray(Joined({Begun(4), Release()})));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(WebAPIRequestTest, LogsABodyThatIsNoJSONAndTheRequest) {
  for (const std::string body : {"", "<html>", "%s%n100", R"({"success": tru)", "{", "nul", "'a'",
                                 R"({"success" true})", R"("open)"}) {
    SCOPED_TRACE(body);
    world_ = recording::World();
    world_.body = body;
    EXPECT_EQ(RunRemotely(), 117);
    const std::string text = "parse response fail, error: " + body +
                             R"(, webapi: {"api":"A","method":"m","version":1})" + "\n";
    EXPECT_THAT(world_.transcript,
                ElementsAreArray(Joined({Begun(6), {LogCall(198, text)}, Release()})));
    EXPECT_THAT(world_.log,
                ElementsAre(Logged(198, "parse response fail, error: %s, webapi: %s", text)));
  }
}

TEST_F(WebAPIRequestTest, LogsTheWholeOfALongBody) {
  world_.body = std::string(5000, 'x');
  EXPECT_EQ(RunRemotely(), 117);
  EXPECT_THAT(world_.log[0].text, testing::HasSubstr("error: " + world_.body + ", webapi: {"));
}

TEST_F(WebAPIRequestTest, ABodyThatBreaksOffMayBePartlyInTheResponse) {
  world_.body = R"([1, {"a": )";
  EXPECT_EQ(RunRemotely(), 117);
  EXPECT_EQ(Typed(response_), R"([1,{"a":null}])");
}

TEST_F(WebAPIRequestTest, ReleasesAllOnEveryPathThatThrows) {
  const Lines calls = Joined({Alloc(), SetAccount("h", "a", "p"), FailedProbe("http://h:5000"),
                              Probe("https://h:5001"), SetPort("https", 5001),
                              Exchange(kCallArguments), Release()});
  int number = 0;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (!CanFail(calls[i])) {
      continue;
    }
    SCOPED_TRACE(calls[i]);
    world_ = recording::World();
    world_.unreachable_urls = {"http://h:5000"};
    world_.FailCall(++number, Throw<std::runtime_error>("broken"));
    EXPECT_THROW(
        WebAPIRequest("h", "a", "p", Parse(kCall), response_, "http", -1, -1, Json::Value()),
        std::runtime_error);

    const Lines until(calls.begin(), calls.begin() + static_cast<Lines::difference_type>(i) + 1);
    const Lines before(until.begin(), until.end() - 1);
    const auto has = [&](const std::string& call) {
      return std::any_of(before.begin(), before.end(),
                         [&](const std::string& line) { return line.starts_with(call); });
    };
    const auto released = [](bool is, const std::string& call) {
      return is ? Lines{call} : Lines{};
    };
    const auto probes_left = std::count(before.begin(), before.end(), "CredRequest()") -
                             std::count(before.begin(), before.end(), "~CredRequest()");
    const bool is_queued = has("AddCredRequest");
    EXPECT_THAT(world_.transcript,
                ElementsAreArray(
                    Joined({until,
                            released(probes_left > 0 || (has("CreateWebAPIRequest") && !is_queued),
                                     "~CredRequest()"),
                            released(has("VELACredAlloc"), "VELACredFree(cred)"),
                            released(has("VELACredSessAlloc"), "VELACredSessFree(session)"),
                            released(has("CredRequestMgr"), "~CredRequestMgr()"),
                            released(is_queued, "~CredRequest()")})));
    EXPECT_TRUE(response_.isNull());
  }
  EXPECT_EQ(number, 24);
}

// Answers, from here and from there

class AnswerTest : public WebAPIRequestTest, public testing::WithParamInterface<bool> {
 protected:
  int RunWithAnswer(const std::string& answer) {
    world_ = recording::World();
    response_ = Parse(R"({"before": 1})");
    if (GetParam()) {
      world_.api_response = Parse(answer);
      return RunLocally(kCall);
    }
    world_.body = answer;
    return RunRemotely();
  }

  void ExpectNothingLeft() {
    EXPECT_THAT(world_.log, IsEmpty());
    const Lines local = {"CredRequestMgr()", R"(Exec({"before":1}, "A", 1, "m", null, "admin"))",
                         "~CredRequestMgr()"};
    EXPECT_THAT(world_.transcript,
                ElementsAreArray(GetParam() ? local : Joined({Begun(6), Release()})));
  }
};

INSTANTIATE_TEST_SUITE_P(Here, AnswerTest, testing::Values(true));
INSTANTIATE_TEST_SUITE_P(There, AnswerTest, testing::Values(false));

TEST_P(AnswerTest, TellsTheCode) {
  struct Case {
    const char* answer;
    int code;
    const char* response;  // members that were looked for are there afterwards
  };
  const Case kCases[] = {
      {R"({"success": true})", 0, R"({"success":true})"},
      {R"({"success": true, "error": {"code": 105}})", 0,
       R"({"error":{"code":105},"success":true})"},
      {R"({"success": 1})", 0, R"({"success":1})"},
      {R"({"success": -0.5, "x": [null]})", 0, R"({"success":-0.5,"x":[null]})"},
      {R"({"success": false, "error": {"code": 105, "message": "no"}})", 105,
       R"({"error":{"code":105,"message":"no"},"success":false})"},
      {R"({"success": 0, "error": {"code": -3}})", -3, R"({"error":{"code":-3},"success":0})"},
      {R"({"success": null, "error": {"code": 7.5}})", 7,
       R"({"error":{"code":7.5},"success":null})"},
      {R"({"error": {"code": 2147483647}})", 2147483647,
       R"({"error":{"code":2147483647},"success":null})"},
      {R"({"success": false, "error": {"code": true}})", 1,
       R"({"error":{"code":true},"success":false})"},
      {R"({"success": false, "error": {"code": 0}})", 0, R"({"error":{"code":0},"success":false})"},
      {R"({"success": false, "error": {"code": null}})", 0,
       R"({"error":{"code":null},"success":false})"},
      {R"({"success": false, "error": {"message": "no"}})", 0,
       R"({"error":{"code":null,"message":"no"},"success":false})"},
      {R"({"success": false, "error": null})", 0, R"({"error":{"code":null},"success":false})"},
      {R"({"success": false})", 0, R"({"error":{"code":null},"success":false})"},
      {R"({"data": 1})", 0, R"({"data":1,"error":{"code":null},"success":null})"},
      {"{}", 0, R"({"error":{"code":null},"success":null})"},
      {"null", 0, R"({"error":{"code":null},"success":null})"}};
  for (const Case& test : kCases) {
    SCOPED_TRACE(test.answer);
    EXPECT_EQ(RunWithAnswer(test.answer), test.code);
    EXPECT_EQ(Typed(response_), test.response);
    ExpectNothingLeft();
  }
}

TEST_P(AnswerTest, ThrowsWhereItDoesNotHoldWhatItShould) {
  for (const char* answer :
       {"5", "[1]", "[]", "true", R"("success")", R"({"success": "true"})", R"({"success": ""})",
        R"({"success": []})", R"({"success": {}})", R"({"success": false, "error": 5})",
        R"({"success": false, "error": "no"})", R"({"success": false, "error": []})",
        R"({"success": false, "error": {"code": "105"}})",
        R"({"success": false, "error": {"code": {}}})",
        R"({"success": false, "error": {"code": 2147483648}})"}) {
    SCOPED_TRACE(answer);
    EXPECT_THROW(RunWithAnswer(answer), Json::LogicError);
    EXPECT_EQ(response_.type(), Parse(answer).type()) << "the answer is there";
    ExpectNothingLeft();
  }
}

TEST_F(WebAPIRequestTest, JunkBehindAnAnswerIsNoMatter) {
  world_.body = "{} junk";
  EXPECT_EQ(RunRemotely(), 0);
  EXPECT_EQ(Typed(response_), R"({"error":{"code":null},"success":null})");
}

TEST_F(WebAPIRequestTest, KeepsTheCommentsOfAnAnswer) {
  world_.body = "// read me\n{\"success\": true}";
  EXPECT_EQ(RunRemotely(), 0);
  EXPECT_THAT(response_.getComment(Json::commentBefore), StartsWith("// read me"));
}

TEST_F(WebAPIRequestTest, AnAnswerThatIsNestedTooDeeplyThrows) {
  world_.body = std::string(1100, '[');
  EXPECT_THROW(RunRemotely(), Json::RuntimeError);
  EXPECT_THAT(world_.transcript, ElementsAreArray(Joined({Begun(6), Release()})));
}

}  // namespace
