#include "login_api.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/web_accounts.h>

#include "envelope.h"
#include "support/parse_json.h"
#include "support/scram_client.h"
#include "support/temporary_folder.h"

namespace quillon::webapid {
namespace {

using test::Parse;
using test::ScramClient;
using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

constexpr char kPassword[] = "correct horse";
constexpr char kHere[] = "192.0.2.1";

Json::Value Call(const std::string& method) {
  Json::Value request;
  request["api"] = kLoginApi;
  request["version"] = 1;
  request["method"] = method;
  return request;
}

class LoginApiTest : public testing::Test {
 protected:
  LoginApiTest() {
    platform::Configuration configuration;
    configuration.log.target = "file";
    configuration.log.file = folder_ / "log";
    platform::UseConfiguration(std::move(configuration));
    folder_.Write("log", "");
    platform::AddWebAccount(folder_ / "accounts", "boss", platform::WebRole::kAdmin,
                            platform::Secret(kPassword));
    logins_ = std::make_unique<LoginApi>(Settings(), refusals_);
  }

  FrontSettings Settings() const {
    FrontSettings settings;
    settings.web.session_lifetime = 100;
    settings.web.max_sessions_per_account = 2;
    settings.web.max_login_failures = 1;
    settings.accounts = platform::ReadWebAccountsFile(folder_ / "accounts");
    return settings;
  }

  Reply Run(const Json::Value& request, const char* authorization = nullptr) {
    return logins_->Run(request, kHere, authorization, now_);
  }

  Reply Login(const std::string& password = kPassword) {
    ScramClient client("boss", password);
    Json::Value start = Call("start");
    start["params"]["message"] = client.Step("");
    const Reply started = Run(start);
    if (started.status != 200) {
      return started;
    }
    const Json::Value data = Parse(started.text)["data"];
    Json::Value finish = Call("finish");
    finish["params"]["login"] = data["login"];
    finish["params"]["message"] = client.Step(data["message"].asString());
    const Reply finished = Run(finish);
    if (finished.status == 200) {
      client.Step(Parse(finished.text)["data"]["message"].asString());
      EXPECT_EQ(client.result(), GSASL_OK) << "the server has not proved itself";
    }
    return finished;
  }

  std::string Bearer(const Reply& reply) const {
    return "Bearer " + Parse(reply.text)["data"]["token"].asString();
  }
  bool Knows(const std::string& authorization) {
    return logins_->Find(authorization.c_str(), now_).has_value();
  }
  std::string Log() const { return folder_.Read("log"); }

  test::TemporaryFolder folder_;
  RefusalLog refusals_;
  std::unique_ptr<LoginApi> logins_;
  LoginApi::Time now_ = LoginApi::Time() + 1000s;
};

TEST_F(LoginApiTest, LogsIn) {
  const Reply reply = Login();
  ASSERT_EQ(reply.status, 200) << reply.text;
  const Json::Value answer = Parse(reply.text);
  EXPECT_TRUE(answer["success"].asBool());
  EXPECT_EQ(answer["data"]["token"].asString().size(), 43U);
  EXPECT_EQ(answer["data"]["role"], "admin");
  EXPECT_EQ(answer["data"]["expires_in"], 100);
  EXPECT_THAT(Log(), HasSubstr("login_api:35 boss logged in from 192.0.2.1\n"));
  EXPECT_THAT(Log(), Not(HasSubstr(answer["data"]["token"].asString())));

  const auto session = logins_->Find(Bearer(reply).c_str(), now_);
  ASSERT_TRUE(session);
  EXPECT_EQ(session->account, "boss");
  EXPECT_EQ(session->role, platform::WebRole::kAdmin);
}

TEST_F(LoginApiTest, KnowsATokenUntilItExpires) {
  const std::string bearer = Bearer(Login());
  now_ += 99s;
  EXPECT_TRUE(Knows(bearer));
  now_ += 1s;
  EXPECT_FALSE(Knows(bearer));
}

TEST_F(LoginApiTest, ReadsTheTokenOfABearerOnly) {
  const std::string token = Bearer(Login()).substr(7);
  EXPECT_TRUE(Knows("bEARER " + token));
  for (const std::string& none :
       {"Basic " + token, token, std::string("Bearer"), std::string("Bearer "), "Bearer  " + token,
        "Bearer " + token + " ", "Bearer " + token.substr(1), std::string()}) {
    EXPECT_FALSE(Knows(none)) << none;
  }
  EXPECT_FALSE(logins_->Find(nullptr, now_));
}

TEST_F(LoginApiTest, EndsASession) {
  const std::string bearer = Bearer(Login());
  const Reply reply = Run(Call("end"), bearer.c_str());
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.text, R"({"data":{},"success":true})");
  EXPECT_FALSE(Knows(bearer));
  EXPECT_EQ(Run(Call("end"), bearer.c_str()).status, 401);
  EXPECT_EQ(Run(Call("end")).status, 401);
}

TEST_F(LoginApiTest, EndsASessionWhenThereAreTooMany) {
  const std::string first = Bearer(Login());
  now_ += 1s;
  const std::string second = Bearer(Login());
  now_ += 1s;
  const std::string third = Bearer(Login());
  EXPECT_FALSE(Knows(first));
  EXPECT_TRUE(Knows(second));
  EXPECT_TRUE(Knows(third));
  EXPECT_THAT(Log(), HasSubstr("login_api:41 boss has too many sessions, one was ended\n"));
}

TEST_F(LoginApiTest, MakesWhoGuessesWait) {
  for (int i = 0; i < 2; ++i) {
    const Reply refused = Login("wrong password");
    EXPECT_EQ(refused.status, 401);
    EXPECT_EQ(refused.text, FailureText(401, "login refused"));
    EXPECT_EQ(refused.retry_after.count(), 0);
  }
  const Reply reply = Login();
  EXPECT_EQ(reply.status, 429);
  EXPECT_EQ(reply.retry_after, 1s);
  EXPECT_THAT(Log(), HasSubstr("login_api:29 login from 192.0.2.1 refused: wrong password for "));
  now_ += 1s;
  EXPECT_EQ(Login().status, 200);
}

TEST_F(LoginApiTest, LogsAFloodOfRefusalsOnlyInPart) {
  Json::Value start = Call("start");
  start["params"]["message"] = "x";
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(Run(start).status, 401);
  }
  refusals_.Report(now_ + 1s);
  EXPECT_THAT(Log(), HasSubstr(" 980 more lines about refused clients were left out\n"));
  const std::string text = Log();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 21);
}

TEST_F(LoginApiTest, RefusesWhatIsNoCallOfIts) {
  for (const char* text :
       {R"({"method":"start"})", R"({"version":2,"method":"start"})",
        R"({"version":"1","method":"start"})", R"({"version":1})", R"({"version":1,"method":1})",
        R"({"version":1,"method":"none"})", R"({"version":1,"method":"start"})",
        R"({"version":1,"method":"start","params":[]})",
        R"({"version":1,"method":"start","params":"message"})",
        R"({"version":1,"method":"start","params":{"message":1}})",
        R"({"version":1,"method":"finish","params":{"message":"x"}})",
        R"({"version":1,"method":"finish","params":{"login":"x"}})",
        R"({"version":1,"method":"finish","params":{"login":[],"message":"x"}})"}) {
    const Json::Value request = Parse(text);
    EXPECT_EQ(Run(request).status, 400) << text;
  }
  EXPECT_EQ(
      Run(Parse(R"({"version":1,"method":"finish","params":{"login":"x","message":"x"}})")).status,
      401);
}

TEST_F(LoginApiTest, LogsOutWhoIsGone) {
  const std::string bearer = Bearer(Login());
  logins_->UseAccounts(Settings());
  EXPECT_TRUE(Knows(bearer)) << "nothing has changed";
  FrontSettings broken = Settings();
  broken.accounts.Set("nonsense");
  EXPECT_THROW(logins_->UseAccounts(broken), platform::WebAccountsError);
  EXPECT_TRUE(Knows(bearer));
  platform::ChangeWebRole(folder_ / "accounts", "boss", platform::WebRole::kMonitor);
  logins_->UseAccounts(Settings());
  EXPECT_FALSE(Knows(bearer));
}

}  // namespace
}  // namespace quillon::webapid
