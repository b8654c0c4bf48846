#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>

#include <quillon/platform/login_server.h>
#include <quillon/platform/session_token.h>
#include <quillon/platform/web_accounts.h>
#include <vela/cred.h>

#include "platform/cred_fixture.h"
#include "support/parse_json.h"
#include "support/scripted_server.h"
#include "utils/base64.h"

namespace quillon::platform {
namespace {

using test::Conversation;
using test::Parse;
using test::ScriptedServer;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr char kToken[] = "AbcdefghijklmnopqrstuvwxyzABCDEFGHIJK-_0123";

// What a host answers a step of a login with, given what the client says.
using Step = std::function<Json::Value(const Json::Value&)>;

Json::Value Success(const Json::Value& data) {
  Json::Value envelope;
  envelope["success"] = true;
  envelope["data"] = data;
  return envelope;
}

Json::Value Refusal() {
  Json::Value envelope;
  envelope["success"] = false;
  envelope["error"]["code"] = 401;
  envelope["error"]["message"] = "wrong account or password";
  return envelope;
}

class CredLogin : public CredTest {
 protected:
  CredLogin() { AddAccount("operator", "the password"); }

  void AddAccount(const std::string& name, const std::string& password) {
    const std::string path = folder_ / "web-accounts";
    AddWebAccount(path, name, WebRole::kAdmin, Secret(password));
    accounts_ = ParseWebAccounts(ReadWebAccountsFile(path).Get(), path);
  }

  // The host's honest answers.
  Json::Value Start(const Json::Value& params) {
    const auto result = host_->Start("127.0.0.1", params["message"].asString(), {});
    const auto* challenge = std::get_if<LoginChallenge>(&result);
    if (challenge == nullptr) {
      return Refusal();
    }
    Json::Value data;
    data["login"] = challenge->login;
    data["message"] = challenge->message;
    return Success(data);
  }
  Json::Value Finish(const Json::Value& params) {
    const auto result =
        host_->Finish("127.0.0.1", params["login"].asString(), params["message"].asString(), {});
    const auto* success = std::get_if<LoginSuccess>(&result);
    if (success == nullptr) {
      return Refusal();
    }
    Json::Value data;
    data["message"] = success->message;
    data["token"] = kToken;
    data["role"] = "admin";
    data["expires_in"] = 1800;
    return Success(data);
  }

  // Whether a login at a host succeeds; `session_` is what it left.
  bool Login(const std::string& password, const Step& start, const Step& finish) {
    if (host_ == nullptr) {
      host_ = std::make_unique<LoginServer>(accounts_, 5);
    }
    const ScriptedServer server([&](Conversation& client) {
      while (const auto request = client.Next()) {
        requests_.push_back(*request);
        const Json::Value object = Parse(request->body);
        const Step& step = object["method"] == "start" ? start : finish;
        client.Answer(Json::FastWriter().write(step(object["params"])));
      }
    });
    const Cred cred = MakeCred(server.port(), "http", password.c_str());
    VELACredItemSetRemoteAccount(cred.get(), account_.c_str());
    session_->token.Set("a token of before");
    return log_in_(cred.get(), session_.get());
  }
  bool Login(const std::string& password) { return Login(password, start_, finish_); }

  void ExpectFailure(bool is_logged_in, const std::string& reason) {
    EXPECT_FALSE(is_logged_in);
    EXPECT_TRUE(session_->token.IsEmpty());
    EXPECT_THAT(Log(), AllOf(HasSubstr("login as " + account_ + " at 127.0.0.1 failed: " + reason),
                             Not(HasSubstr("the password")), Not(HasSubstr(kToken))));
  }

  // A member of the data of a good answer made another.
  static Step With(const Step& step, const char* key, const Json::Value& value) {
    return [=](const Json::Value& params) {
      Json::Value envelope = step(params);
      envelope["data"][key] = value;
      return envelope;
    };
  }
  static Step Without(const Step& step, const char* key) {
    return [=](const Json::Value& params) {
      Json::Value envelope = step(params);
      envelope["data"].removeMember(key);
      return envelope;
    };
  }
  static Step Always(const Json::Value& answer) {
    return [=](const Json::Value&) { return answer; };
  }

  // A server's first message that asks for a number of iterations.
  static Step AskForIterations(const std::string& iterations) {
    return [=](const Json::Value& params) {
      const std::string first = DecodeBase64(params["message"].asString()).value();
      const std::string nonce = first.substr(first.find(",r=") + 3);
      Json::Value data;
      data["login"] = "1";
      data["message"] =
          EncodeBase64("r=" + nonce + "more,s=c2FsdHNhbHRzYWx0c2FsdA==,i=" + iterations);
      return Success(data);
    };
  }

  bool (*log_in_)(_tag_vela_cred_*, _tag_vela_cred_sess_*) = VELA::CredRequestUtil::Login;
  std::string account_ = "operator";
  std::vector<WebAccount> accounts_;
  std::unique_ptr<LoginServer> host_;
  Session session_{VELACredSessAlloc()};
  std::vector<test::ReceivedRequest> requests_;
  const Step start_ = [this](const Json::Value& params) { return Start(params); };
  const Step finish_ = [this](const Json::Value& params) { return Finish(params); };
};

TEST_F(CredLogin, KeepsTheTokenOfAGoodOne) {
  EXPECT_TRUE(Login("the password"));
  EXPECT_EQ(session_->token.Get(), kToken);
  EXPECT_EQ(Log(), "");
  ASSERT_EQ(requests_.size(), 2U);
  EXPECT_THAT(requests_[0].body, HasSubstr(R"("api":"VELA.Core.Login","method":"start")"));
  for (const auto& request : requests_) {
    EXPECT_THAT(request.head, Not(HasSubstr("Authorization")));
    EXPECT_THAT(request.head + request.body, Not(HasSubstr("the password")));
  }
}

TEST_F(CredLogin, AsksForAShortSessionUnlessALongOneIsMeant) {
  ASSERT_TRUE(Login("the password"));
  EXPECT_EQ(Parse(requests_[1].body)["params"]["lifetime"], 300);
  requests_.clear();
  log_in_ = LogInForLong;
  ASSERT_TRUE(Login("the password"));
  EXPECT_FALSE(Parse(requests_[1].body)["params"].isMember("lifetime"));
  EXPECT_EQ(SessionToken(*session_), kToken);
}

TEST_F(CredLogin, TakesAnAccentedLetterInBothItsForms) {
  AddAccount("accented", "caf\xc3\xa9 au lait");
  account_ = "accented";
  EXPECT_TRUE(Login("caf\xc3\xa9 au lait"));
  EXPECT_TRUE(Login("cafe\xcc\x81 au lait"));
  ExpectFailure(Login("cafe au lait"), "refused by the host");
}

TEST_F(CredLogin, FailsWithAPasswordThatIsNoText) {
  for (const char* password : {"secret \xff", "secret\t1"}) {
    requests_.clear();
    EXPECT_FALSE(Login(password));
    EXPECT_EQ(requests_.size(), 1U);
  }
  EXPECT_THAT(Log(),
              AllOf(HasSubstr("failed: the password must be UTF-8"), Not(HasSubstr("secret"))));
}

TEST_F(CredLogin, FailsWithAWrongPasswordOrAnUnknownAccount) {
  ExpectFailure(Login("another password"), "refused by the host: wrong account or password");
  ExpectFailure(Login(""), "");
  account_ = "nobody-here";
  ExpectFailure(Login("the password"), "refused by the host: wrong account or password");
}

TEST_F(CredLogin, FailsAtAHostThatDoesNotKnowTheVerifier) {
  accounts_[0].server_key = Secret(EncodeBase64(std::string(32, 'x')));
  ExpectFailure(Login("the password"), "");
  EXPECT_EQ(requests_.size(), 2U);
}

TEST_F(CredLogin, FailsWithoutTheHostsLastMessage) {
  ExpectFailure(Login("the password", start_, Without(finish_, "message")),
                "the host's answer lacks \"message\"");
  ExpectFailure(Login("the password", start_, With(finish_, "message", "")), "");
  ExpectFailure(Login("the password", start_, With(finish_, "message", 5)), "");
  ExpectFailure(Login("the password", start_, With(finish_, "message", "dj0=")), "");
  ExpectFailure(Login("the password", start_, With(finish_, "message", "not base64!")), "");
  // A host that does not mind who logs in.
  Json::Value data;
  data["token"] = kToken;
  ExpectFailure(Login("the password", start_, Always(Success(data))),
                "the host's answer lacks \"message\"");
  data["message"] = EncodeBase64("v=" + EncodeBase64(std::string(32, 'x')));
  ExpectFailure(Login("the password", start_, Always(Success(data))), "");
}

TEST_F(CredLogin, FailsWithMessagesOfAnEarlierOne) {
  Json::Value challenge;
  Json::Value success;
  const Step record_start = [&](const Json::Value& params) { return challenge = Start(params); };
  const Step record_finish = [&](const Json::Value& params) { return success = Finish(params); };
  ASSERT_TRUE(Login("the password", record_start, record_finish));
  requests_.clear();

  ExpectFailure(Login("the password", Always(challenge), Always(success)), "");
  EXPECT_EQ(requests_.size(), 1U) << "the client answered a challenge that was not for it";
  ExpectFailure(Login("the password", start_, Always(success)), "");
}

TEST_F(CredLogin, RefusesTooFewAndTooManyIterations) {
  for (const char* iterations : {"1", "4095", "1000001", "4294967296", "99999999999999999999"}) {
    requests_.clear();
    ExpectFailure(Login("the password", AskForIterations(iterations), finish_),
                  "the host asks for ");
    EXPECT_EQ(requests_.size(), 1U) << iterations;
  }
  EXPECT_THAT(Log(), AllOf(HasSubstr("for 1 iterations, which is not from 4096 to 1000000"),
                           HasSubstr("for 4095 iterations, which is not from 4096 to 1000000"),
                           HasSubstr("for 1000001 iterations, which is not from 4096 to 1000000")));
  requests_.clear();
  ExpectFailure(Login("the password", AskForIterations("4096"), finish_), "");
  EXPECT_EQ(requests_.size(), 2U);
}

TEST_F(CredLogin, FailsWithATokenThatIsNone) {
  for (const Json::Value& token :
       {Json::Value(""), Json::Value("a\r\nX-Evil: 1"), Json::Value("a b"), Json::Value(5),
        Json::Value(), Json::Value("\xc3\xa4"), Json::Value(std::string(1025, 'a'))}) {
    ExpectFailure(Login("the password", start_, With(finish_, "token", token)), "");
  }
  ExpectFailure(Login("the password", start_, Without(finish_, "token")), "");
}

TEST_F(CredLogin, FailsWithAnswersOfOtherShapes) {
  for (const char* text :
       {"null", "[]", "5", "\"text\"", "{}", R"({"success":1})", R"({"success":true})",
        R"({"success":true,"data":[]})", R"({"success":true,"data":{"login":1,"message":"bQ=="}})",
        R"({"success":true,"data":{"login":"1","message":"bQ=="}})", R"({"success":false})",
        R"({"success":false,"error":5})", R"({"success":false,"error":{"message":[]}})"}) {
    requests_.clear();
    ExpectFailure(Login("the password", Always(Parse(text)), finish_), "");
    EXPECT_EQ(requests_.size(), 1U) << text;
  }
}

TEST_F(CredLogin, FailsAtAServerThatIsNoHost) {
  for (const std::string& body :
       {std::string("<html>hello</html>"), std::string(""), std::string(100000, '['),
        std::string("{\"success\":true,"), std::string("\0", 1)}) {
    const ScriptedServer server(test::AnswerAlways(body));
    EXPECT_FALSE(VELA::CredRequestUtil::Login(MakeCred(server.port()).get(), session_.get()));
    EXPECT_TRUE(session_->token.IsEmpty());
  }
  const ScriptedServer cut(
      test::SendAndHangUp("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"success\""));
  EXPECT_FALSE(VELA::CredRequestUtil::Login(MakeCred(cut.port()).get(), session_.get()));
  EXPECT_THAT(Log(), AllOf(HasSubstr("is not one of this system's: <html>hello</html>"),
                           HasSubstr("the host was not reached")));
}

TEST_F(CredLogin, FailsWithoutAHost) {
  const Cred cred(VELACredAlloc());
  EXPECT_FALSE(VELA::CredRequestUtil::Login(cred.get(), session_.get()));
  EXPECT_THAT(Log(), HasSubstr("not a host, a protocol and a port"));
}

TEST_F(CredLogin, FailsWithAConfigurationThatForbidsThePlainProtocol) {
  configuration_.cluster.allow_http = false;
  Use();
  ExpectFailure(Login("the password"), "the host was not reached");
  EXPECT_TRUE(requests_.empty());
}

}  // namespace
}  // namespace quillon::platform
