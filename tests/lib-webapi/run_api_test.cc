#include <limits>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

#include <velamailserver/log_exception.h>
#include <velamailserver/run_api.h>

#include "recording_platform/world_test.h"
#include "support/parse_json.h"

namespace velamailserver::webapi {
namespace {

using quillon::test::Parse;
using recording::LogRecord;
using recording::Throw;
using testing::ElementsAre;

class RunWebapiTest : public recording::WorldTest {
 protected:
  void ExpectRefused(const std::string& api, const std::string& method, const std::string& detail) {
    world_.log.clear();
    try {
      RunWebapi(api, method, Json::Value(), 1);
      ADD_FAILURE() << "no exception";
    } catch (const LogException& exception) {
      EXPECT_EQ(exception.code(), ERR_RUN_WEBAPI);
      EXPECT_EQ(exception.what(), detail);
      EXPECT_EQ(exception.file(), "lib-webapi/run_api");
      EXPECT_EQ(exception.line(), 23);
    }
    EXPECT_THAT(world_.log, ElementsAre(LogRecord{
                                3, "%s:%d (%d) %s: %s",
                                "lib-webapi/run_api:23 (3008) failed to run webapi: " + detail}));
  }
};

TEST_F(RunWebapiTest, RunsTheMethodAsAdminAndReturnsTheWholeResponse) {
  world_.api_response = Parse(R"({"success": true, "data": {"quota": [1, 2]}, "extra": null})");
  const Json::Value response =
      RunWebapi("VELA.Core.Quota", "get", Parse(R"({"name": "bob", "deep": [{"a": 1}]})"), 2);
  EXPECT_EQ(response, world_.api_response);
  EXPECT_THAT(world_.transcript, ElementsAre(R"(Exec(null, "VELA.Core.Quota", 2, "get", )"
                                             R"({"deep":[{"a":1}],"name":"bob"}, "admin"))"));
}

TEST_F(RunWebapiTest, ReturnsABareSuccessAsItStands) {
  world_.api_response = Parse(R"({"success": true})");
  EXPECT_EQ(RunWebapi("A", "M", Json::Value(), 1), Parse(R"({"success": true})"));
}

TEST_F(RunWebapiTest, AnySuccessThatConvertsToTrueIsOne) {
  for (const char* text : {R"({"success": 1})", R"({"success": -1})", R"({"success": 1.5})",
                           R"({"success": 18446744073709551615})"}) {
    world_.api_response = Parse(text);
    EXPECT_EQ(RunWebapi("A", "M", Json::Value(), 1), Parse(text)) << text;
  }
}

TEST_F(RunWebapiTest, AnErrorIsNotCarried) {
  world_.api_response = Parse(R"({"success": false, "error": {"code": 105, "message": "no"}})");
  ExpectRefused("A", "M", "api: [A], method: [M]");
  ExpectRefused("VELA.Core.Quota", "get", "api: [VELA.Core.Quota], method: [get]");
}

TEST_F(RunWebapiTest, NothingElseIsASuccess) {
  for (const char* text :
       {R"({})", R"({"success": false})", R"({"success": null})", R"({"success": 0})",
        R"({"success": 0.0})", R"({"success": "true"})", R"({"success": ""})", R"({"success": []})",
        R"({"success": [true]})", R"({"success": {}})", R"({"success": {"success": true}})",
        R"({"Success": true})", R"({"data": {"success": true}})"}) {
    SCOPED_TRACE(text);
    world_.api_response = Parse(text);
    ExpectRefused("A", "M", "api: [A], method: [M]");
  }
}

TEST_F(RunWebapiTest, AResponseThatIsNoObjectIsNone) {
  for (const char* text : {"null", "true", "1", "1.5", R"("success")", "[]", "[true]",
                           R"([{"success": true}])", R"(["success", true])"}) {
    SCOPED_TRACE(text);
    world_.api_response = Parse(text);
    ExpectRefused("A", "M", "api: [A], method: [M]");
  }
}

TEST_F(RunWebapiTest, NamesGoIntoTheDetailAsTheyAre) {
  ExpectRefused("", "M", "api: [], method: [M]");
  ExpectRefused("A", "", "api: [A], method: []");
  ExpectRefused("100%d", "]%s[", "api: [100%d], method: []%s[]");
}

TEST_F(RunWebapiTest, PassesEmptyNamesOn) {
  world_.api_response = Parse(R"({"success": true})");
  RunWebapi("", "", Json::Value(), 1);
  EXPECT_THAT(world_.transcript, ElementsAre(R"(Exec(null, "", 1, "", null, "admin"))"));
}

TEST_F(RunWebapiTest, PassesEveryVersionOn) {
  world_.api_response = Parse(R"({"success": true})");
  for (const int version :
       {0, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
    world_.transcript.clear();
    RunWebapi("A", "M", Json::Value(), version);
    EXPECT_THAT(world_.transcript, ElementsAre(R"(Exec(null, "A", )" + std::to_string(version) +
                                               R"(, "M", null, "admin"))"));
  }
}

TEST_F(RunWebapiTest, LeavesTheParametersAsTheyAre) {
  world_.api_response = Parse(R"({"success": true})");
  const Json::Value params = Parse(R"({"name": "bob"})");
  RunWebapi("A", "M", params, 1);
  EXPECT_EQ(params, Parse(R"({"name": "bob"})"));
}

TEST_F(RunWebapiTest, ALogExceptionOfTheRunnerPassesThroughUnchanged) {
  world_.FailCall(1, Throw<LogException>(ERR_POPEN, "broken runner", 4L, "runner", 5));
  try {
    RunWebapi("A", "M", Json::Value(), 1);
    ADD_FAILURE() << "no exception";
  } catch (const LogException& exception) {
    EXPECT_EQ(exception.code(), ERR_POPEN);
    EXPECT_STREQ(exception.what(), "broken runner");
    EXPECT_EQ(exception.file(), "runner");
    EXPECT_EQ(exception.line(), 5);
  }
  EXPECT_THAT(world_.transcript,
              ElementsAre(R"(Exec(null, "A", 1, "M", null, "admin"))",
                          R"(maillog(4, "runner:5 (1004) failed to popen: broken runner"))"));
}

TEST_F(RunWebapiTest, AnyOtherExceptionOfTheRunnerPassesThroughUnchanged) {
  world_.FailCall(1, Throw<std::out_of_range>("broken runner"));
  EXPECT_THROW(RunWebapi("A", "M", Json::Value(), 1), std::out_of_range);
  EXPECT_THAT(world_.transcript, ElementsAre(R"(Exec(null, "A", 1, "M", null, "admin"))"));
}

}  // namespace
}  // namespace velamailserver::webapi
