#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>

namespace VELA {
namespace {

class APIRunnerTest : public testing::Test {
 protected:
  APIRunnerTest() {
    quillon::platform::Configuration quiet;
    quiet.log = {"file", "/dev/null"};
    quillon::platform::UseConfiguration(quiet);
    APIRunner::Register("Test.Echo", 1, "get", [](const Json::Value& params) { return params; });
    APIRunner::Register("Test.Echo", 2, "fetch",
                        [](const Json::Value&) { return Json::Value("two"); });
  }

  static Json::Value Exec(const char* api, int version, const char* method,
                          const Json::Value& params = Json::Value()) {
    Json::Value response = "what was there before";
    APIRunner::Exec(response, api, version, method, params, "admin");
    return response;
  }

  static Json::Value Error(int code, const char* message) {
    Json::Value envelope;
    envelope["success"] = false;
    envelope["error"]["code"] = code;
    envelope["error"]["message"] = message;
    return envelope;
  }

  static void Register(const char* method, const APIRunner::Handler& handler) {
    APIRunner::Register("Test.Fail", 1, method, handler);
  }
};

TEST_F(APIRunnerTest, AnswersTheHandlersDataInAnEnvelope) {
  Json::Value expected;
  expected["success"] = true;
  expected["data"]["a"] = 1;

  Json::Value params;
  params["a"] = 1;
  EXPECT_EQ(Exec("Test.Echo", 1, "get", params), expected);
}

TEST_F(APIRunnerTest, KeepsVersionsApart) {
  EXPECT_EQ(Exec("Test.Echo", 2, "fetch")["data"], "two");
}

TEST_F(APIRunnerTest, NamesWhatItDoesNotKnow) {
  EXPECT_EQ(Exec("Test.None", 1, "get"), Error(404, "no API [Test.None]"));
  EXPECT_EQ(Exec("Test.Echo", 3, "get"), Error(505, "API [Test.Echo] has no version 3"));
  EXPECT_EQ(Exec("Test.Echo", 1, "fetch"),
            Error(405, "API [Test.Echo] version 1 has no method [fetch]"));
  EXPECT_EQ(Exec("", 0, ""), Error(404, "no API []"));
}

TEST_F(APIRunnerTest, AnswersAHandlersRefusalWithItsCode) {
  Register("refuse", [](const Json::Value&) -> Json::Value {
    throw APIError(APIRunner::kBadParameters, "names: must be an array");
  });
  EXPECT_EQ(Exec("Test.Fail", 1, "refuse"), Error(400, "names: must be an array"));
}

TEST_F(APIRunnerTest, AnswersARefusalsData) {
  Register("refuse_with_data", [](const Json::Value&) -> Json::Value {
    Json::Value data;
    data["rows"] = 3;
    throw APIError(7, "bad rows", data);
  });
  Json::Value expected = Error(7, "bad rows");
  expected["error"]["data"]["rows"] = 3;
  EXPECT_EQ(Exec("Test.Fail", 1, "refuse_with_data"), expected);
}

TEST_F(APIRunnerTest, AnswersALogExceptionWithItsErrorCodeAndDetail) {
  Register("log", [](const Json::Value&) -> Json::Value {
    throw velamailserver::LogException(velamailserver::ERR_DB_SELECT, "the detail", 3, "file", 1);
  });
  EXPECT_EQ(Exec("Test.Fail", 1, "log"), Error(4009, "the detail"));
}

TEST_F(APIRunnerTest, LetsNoOtherExceptionEscape) {
  Register("json", [](const Json::Value& params) { return Json::Value(params["a"].asInt()); });
  Json::Value params;
  params["a"] = "text";
  const Json::Value failure = Exec("Test.Fail", 1, "json", params);
  EXPECT_EQ(failure["error"]["code"], 500);
  EXPECT_THAT(failure["error"]["message"].asString(),
              testing::StartsWith("API [Test.Fail] method [json] failed: "));

  Register("memory", [](const Json::Value&) -> Json::Value { throw std::bad_alloc(); });
  EXPECT_EQ(Exec("Test.Fail", 1, "memory")["error"]["code"], 500);

  Register("other", [](const Json::Value&) -> Json::Value { throw 5; });
  EXPECT_EQ(
      Exec("Test.Fail", 1, "other"),
      Error(500, "API [Test.Fail] method [other] failed with an exception of an unknown type"));
}

TEST_F(APIRunnerTest, LetsAHandlerRunAnotherAPI) {
  APIRunner::Register("Test.Outer", 1, "get", [](const Json::Value& params) {
    return Exec("Test.Echo", 1, "get", params)["data"];
  });
  EXPECT_EQ(Exec("Test.Outer", 1, "get", "deep")["data"], "deep");
}

TEST_F(APIRunnerTest, TakesParametersFromTheDocumentThatItReplaces) {
  Json::Value document;
  document["params"]["a"] = 1;
  const Json::Value& params = document["params"];

  APIRunner::Exec(document, "Test.Echo", 1, "get", params, "admin");

  EXPECT_EQ(document["data"]["a"], 1);
  EXPECT_FALSE(document.isMember("params"));
}

TEST_F(APIRunnerTest, FinishesACallWithTheHandlerItBeganWith) {
  APIRunner::Register("Test.Replace", 1, "get", [text = std::string("old")](const Json::Value&) {
    APIRunner::Register("Test.Replace", 1, "get",
                        [](const Json::Value&) { return Json::Value("new"); });
    return Json::Value(text);
  });
  EXPECT_EQ(Exec("Test.Replace", 1, "get")["data"], "old");
  EXPECT_EQ(Exec("Test.Replace", 1, "get")["data"], "new");
}

}  // namespace
}  // namespace VELA
