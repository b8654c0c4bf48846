#include <cstddef>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include <velamailserver/utils.h>

#include "lib-webapi/remote_call.h"
#include "recording_platform/world_test.h"
#include "support/parse_json.h"
#include "support/typed_json.h"

namespace {

using quillon::test::Alloc;
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
using quillon::test::SetAccount;
using quillon::test::SetPort;
using quillon::test::Typed;
using recording::Throw;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

static_assert(std::is_same_v<decltype(&multiWebAPIRequest), void (*)(std::vector<WebAPIParams>&)>);

constexpr char kFailed[] =
    "Failed to call webapi api [%s] method [%s] to host[%s], error code [%d]";

std::string Failed(const std::string& api, const std::string& method, const std::string& host,
                   int code) {
  return "Failed to call webapi api [" + api + "] method [" + method + "] to host[" + host +
         "], error code [" + std::to_string(code) + "]";
}

std::string Request(const std::string& api) {
  return R"({"api": ")" + api + R"(", "version": 1, "method": "m"})";
}

WebAPIParams Call(const std::string& host, const std::string& request) {
  WebAPIParams call;
  call.host = host;
  call.account = "a";
  call.password = "p";
  call.protocol = "https";
  call.port = 443;
  call.request = Parse(request);
  return call;
}

WebAPIParams LocalCall(const std::string& request) {
  WebAPIParams call;
  call.host = "here";
  call.request = Parse(request);
  return call;
}

Lines Until(const std::string& host, const Lines& probe) {
  return Joined({Alloc(), SetAccount(host, "a", "p"), probe});
}

Lines Answered(const std::string& host, const std::string& api) {
  return Joined({Until(host, Probe("https://" + host + ":443")), SetPort("https", 443),
                 Exchange("\"" + api + R"(", 1, "m", null)"), Release()});
}

using MultiWebAPIRequestTest = recording::WorldTest;

TEST_F(MultiWebAPIRequestTest, HasRecordsOfAGivenLayout) {
  const WebAPIParams call;
  const auto offset = [&](const auto& field) {
    return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&call);
  };
  EXPECT_EQ(offset(call.host), 0);
  EXPECT_EQ(offset(call.account), 32);
  EXPECT_EQ(offset(call.password), 64);
  EXPECT_EQ(offset(call.protocol), 96);
  EXPECT_EQ(offset(call.port), 128);
  EXPECT_EQ(offset(call.reserved), 136);
  EXPECT_EQ(offset(call.request), 144);
  EXPECT_EQ(offset(call.response), 144 + static_cast<std::ptrdiff_t>(sizeof(Json::Value)));
  EXPECT_EQ(sizeof(call), 144 + 2 * sizeof(Json::Value));
  EXPECT_EQ(sizeof(call.port), 4U);
  EXPECT_EQ(sizeof(call.reserved), 8U);
}

TEST_F(MultiWebAPIRequestTest, DoesNothingWithoutCalls) {
  std::vector<WebAPIParams> calls;
  multiWebAPIRequest(calls);
  EXPECT_THAT(world_.transcript, IsEmpty());
}

TEST_F(MultiWebAPIRequestTest, MakesTheCallsInOrder) {
  world_.bodies["A1"] = R"({"success": true, "data": 1})";
  world_.bodies["A2"] = R"({"success": true, "data": 2})";
  std::vector<WebAPIParams> calls = {Call("h1", Request("A1")), Call("h2", Request("A2"))};
  multiWebAPIRequest(calls);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({Answered("h1", "A1"), Answered("h2", "A2")})));
  EXPECT_EQ(Typed(calls[0].response), R"({"data":1,"success":true})");
  EXPECT_EQ(Typed(calls[1].response), R"({"data":2,"success":true})");
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(MultiWebAPIRequestTest, LooksForAPortWhereNoneIsGiven) {
  std::vector<WebAPIParams> calls = {Call("h1", Request("A1"))};
  calls[0].port = -1;
  multiWebAPIRequest(calls);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({Alloc(), SetAccount("h1", "a", "p"), Probe("http://h1:5000"),
                                       Probe("https://h1:5001"), SetPort("http", 5000),
                                       Exchange(R"("A1", 1, "m", null)"), Release()})));
}

TEST_F(MultiWebAPIRequestTest, AnUnreachableHostIsMarkedAndTheOthersAnswer) {
  world_.unreachable_urls = {"https://h2:443"};
  std::vector<WebAPIParams> calls = {Call("h1", Request("A1")), Call("h2", Request("A2")),
                                     Call("h3", Request("A3"))};
  multiWebAPIRequest(calls);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({Answered("h1", "A1"),
                                       Until("h2", FailedProbe("https://h2:443")),
                                       {LogCall(94, "host: h2 doesn't open https port 443"),
                                        LogCall(151, "prepare login fail")},
                                       ReleaseBeforeCreated(),
                                       {LogCall(216, Failed("A2", "m", "h2", 117))},
                                       Answered("h3", "A3")})));
  EXPECT_EQ(world_.log.back(), Logged(216, kFailed, Failed("A2", "m", "h2", 117)));
  EXPECT_EQ(Typed(calls[0].response), R"({"success":true})");
  EXPECT_EQ(Typed(calls[1].response), R"({"success":false})");
  EXPECT_EQ(Typed(calls[2].response), R"({"success":true})");
}

TEST_F(MultiWebAPIRequestTest, AnAPIThatFailedKeepsTheRestOfItsAnswer) {
  world_.bodies["A1"] = R"({"error": {"code": 105}, "data": [1]})";
  world_.api_responses["A2"] = Parse(R"({"success": 0, "error": {"code": -2, "x": 1}})");
  std::vector<WebAPIParams> calls = {Call("h1", Request("A1")), LocalCall(Request("A2"))};
  multiWebAPIRequest(calls);
  EXPECT_EQ(Typed(calls[0].response), R"({"data":[1],"error":{"code":105},"success":false})");
  EXPECT_EQ(Typed(calls[1].response), R"({"error":{"code":-2,"x":1},"success":false})");
  EXPECT_THAT(world_.log, ElementsAre(Logged(216, kFailed, Failed("A1", "m", "h1", 105)),
                                      Logged(216, kFailed, Failed("A2", "m", "here", -2))));
}

TEST_F(MultiWebAPIRequestTest, AResponseThatWasThereIsMarkedWhenTheCallCannotBeMade) {
  world_.login = false;
  std::vector<WebAPIParams> calls = {Call("h1", Request("A1"))};
  calls[0].response = Parse(R"({"success": true, "data": 1})");
  multiWebAPIRequest(calls);
  EXPECT_EQ(Typed(calls[0].response), R"({"data":1,"success":false})");
}

TEST_F(MultiWebAPIRequestTest, AFailureWithoutACodeIsNoneHere) {
  world_.body = R"({"success": false})";
  std::vector<WebAPIParams> calls = {Call("h1", Request("A1"))};
  multiWebAPIRequest(calls);
  EXPECT_THAT(world_.log, IsEmpty());
  EXPECT_EQ(Typed(calls[0].response), R"({"error":{"code":null},"success":false})");
}

TEST_F(MultiWebAPIRequestTest, ARequestWithoutMembersIsLoggedWithEmptyNames) {
  const std::pair<const char*, std::string> kCases[] = {
      {R"({"version": 1, "method": "m"})", Failed("", "m", "h1", 117)},
      {R"({"api": "A", "version": 1})", Failed("A", "", "h1", 117)},
      {R"({"api": 5, "method": null})", Failed("5", "", "h1", 117)},
      {"{}", Failed("", "", "h1", 117)},
      {"null", Failed("", "", "h1", 117)}};
  for (const auto& [request, text] : kCases) {
    SCOPED_TRACE(request);
    world_ = recording::World();
    std::vector<WebAPIParams> calls = {Call("h1", request), Call("h2", Request("A2"))};
    multiWebAPIRequest(calls);
    EXPECT_THAT(world_.log, ElementsAre(Logged(126, "params error"), Logged(216, kFailed, text)));
    EXPECT_EQ(Typed(calls[0].request), Typed(Parse(request))) << "the request is only read";
    EXPECT_EQ(Typed(calls[0].response), R"({"success":false})");
    EXPECT_EQ(Typed(calls[1].response), R"({"success":true})");
  }
}

TEST_F(MultiWebAPIRequestTest, NamesAreNoFormats) {
  world_.login = false;
  std::vector<WebAPIParams> calls = {Call("%n", Request("%s"))};
  multiWebAPIRequest(calls);
  EXPECT_EQ(world_.log.back(), Logged(216, kFailed, Failed("%s", "m", "%n", 117)));
}

TEST_F(MultiWebAPIRequestTest, AnAnswerThatBreaksOffDoesNotKeepTheOthersFromTheirs) {
  for (const char* body : {"[1, 2", "[", "<html>", "", "{"}) {
    SCOPED_TRACE(body);
    world_ = recording::World();
    world_.bodies["A1"] = body;
    std::vector<WebAPIParams> calls = {Call("h1", Request("A1")), Call("h2", Request("A2"))};
    multiWebAPIRequest(calls);
    EXPECT_THAT(world_.log, SizeIs(2));
    EXPECT_EQ(world_.log.back(), Logged(216, kFailed, Failed("A1", "m", "h1", 117)));
    EXPECT_EQ(Typed(calls[0].response), R"({"success":false})");
    EXPECT_EQ(Typed(calls[1].response), R"({"success":true})");
  }
}

TEST_F(MultiWebAPIRequestTest, EndsWithAnException) {
  for (const char* body : {"5", "[1]", R"({"success": "true"})"}) {
    SCOPED_TRACE(body);
    world_ = recording::World();
    world_.bodies["A2"] = body;
    std::vector<WebAPIParams> calls = {Call("h1", Request("A1")), Call("h2", Request("A2")),
                                       Call("h3", Request("A3"))};
    EXPECT_THROW(multiWebAPIRequest(calls), Json::LogicError);
    EXPECT_THAT(world_.transcript,
                ElementsAreArray(Joined({Answered("h1", "A1"), Answered("h2", "A2")})));
    EXPECT_TRUE(calls[2].response.isNull());
  }
}

TEST_F(MultiWebAPIRequestTest, ANameThatIsNoTextEndsItBeforeTheMark) {
  world_.login = false;
  std::vector<WebAPIParams> calls = {Call("h1", R"({"api": [1], "version": 1, "method": "m"})"),
                                     Call("h2", Request("A2"))};
  EXPECT_THROW(multiWebAPIRequest(calls), Json::LogicError);
  EXPECT_THAT(world_.log, ElementsAre(Logged(156, "login fail")));
  EXPECT_TRUE(calls[0].response.isNull());
  EXPECT_TRUE(calls[1].response.isNull());
}

TEST_F(MultiWebAPIRequestTest, AnExceptionOfThePlatformEndsIt) {
  world_.FailCallsStartingWith("Run()", Throw<std::runtime_error>("broken"));
  std::vector<WebAPIParams> calls = {Call("h1", Request("A1")), Call("h2", Request("A2"))};
  EXPECT_THROW(multiWebAPIRequest(calls), std::runtime_error);
  EXPECT_THAT(world_.log, IsEmpty());
  EXPECT_EQ(world_.transcript[world_.transcript.size() - 1], "~CredRequest()");
}

TEST_F(MultiWebAPIRequestTest, LooksAtTheNumberOfCallsAfterEachOne) {
  std::vector<WebAPIParams> calls = {LocalCall(Request("shrink")), LocalCall(Request("A2")),
                                     LocalCall(Request("A3"))};
  world_.FailCallsStartingWith(R"(Exec(null, "shrink")", [&] { calls.pop_back(); });
  multiWebAPIRequest(calls);
  EXPECT_EQ(world_.transcript[1], R"(Exec(null, "shrink", 1, "m", null, "admin"))");
  EXPECT_EQ(world_.transcript[4], R"(Exec(null, "A2", 1, "m", null, "admin"))");
  EXPECT_THAT(world_.transcript, SizeIs(6));

  calls = {LocalCall(Request("grow"))};
  calls.reserve(2);
  world_.transcript.clear();
  world_.FailCallsStartingWith(R"(Exec(null, "grow")",
                               [&] { calls.push_back(LocalCall(Request("A2"))); });
  multiWebAPIRequest(calls);
  EXPECT_THAT(world_.transcript, SizeIs(6));
}

}  // namespace
