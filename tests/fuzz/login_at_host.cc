// A login at another host, which answers what it likes. An input is its answers to the two steps,
// with a line "--" in between; $LOGIN and $MESSAGE in them become what an honest host would say,
// $TOKEN a token.
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include <json/reader.h>

#include <quillon/platform/login_server.h>
#include <vela/cred.h>

#include "cred/exchange.h"
#include "cred/records.h"
#include "fuzz/known_account.h"
#include "fuzz/platform.h"
#include "utils/salted_password.h"

namespace quillon::platform {

// In the place of the platform's: the way from a password to this is slow on purpose, and not what
// is tried here.
std::optional<Secret> SaltedPassword(const Secret& /*password*/, std::string_view /*salt*/,
                                     unsigned /*iterations*/) {
  return Secret(fuzz::KnownSaltedPassword());
}

}  // namespace quillon::platform

namespace quillon::fuzz {
namespace {

using platform::LoginServer;
using Clock = std::chrono::steady_clock;

constexpr char kAddress[] = "192.0.2.1";
constexpr char kToken[] = "a-token_of-this-host";
constexpr int kAnyNumberOfFailures = 100000000;

std::vector<platform::WebAccount> Accounts() {
  std::vector<platform::WebAccount> accounts;
  accounts.push_back(KnownAccount());
  return accounts;
}

// The host: what it says honestly, and what it makes of it.
struct Host {
  LoginServer server{Accounts(), kAnyNumberOfFailures};
  std::array<std::string, 2> answers;
  std::size_t asked = 0;
  bool has_proved_itself = false;
};

Host& TheHost() {
  static Host host;
  return host;
}

std::string Start(const Json::Value& params, std::string answer) {
  const auto outcome = TheHost().server.Start(kAddress, params["message"].asString(), Clock::now());
  const auto* challenge = std::get_if<platform::LoginChallenge>(&outcome);
  Require(challenge != nullptr, "the client begins as it should");
  return Replaced(Replaced(std::move(answer), "$LOGIN", challenge->login), "$MESSAGE",
                  challenge->message);
}

std::string Finish(const Json::Value& params, std::string answer) {
  const auto outcome = TheHost().server.Finish(kAddress, params["login"].asString(),
                                               params["message"].asString(), Clock::now());
  if (const auto* success = std::get_if<platform::LoginSuccess>(&outcome)) {
    TheHost().has_proved_itself = answer.find("$MESSAGE") != std::string::npos;
    answer = Replaced(std::move(answer), "$MESSAGE", success->message);
  }
  return Replaced(std::move(answer), "$TOKEN", kToken);
}

std::string AnswerTo(const std::string& body) {
  Host& host = TheHost();
  Json::Value request;
  Json::Reader parser;
  Require(parser.parse(body, request, false), "what is sent parses");
  Require(host.asked < host.answers.size(), "a login has two steps");
  const bool is_start = request["method"] == "start";
  Require(is_start == (host.asked == 0), "the steps come in their order");
  const std::string& answer = host.answers[host.asked++];
  return is_start ? Start(request["params"], answer) : Finish(request["params"], answer);
}

bool IsToken(const std::string& text) {
  return !text.empty() && text.size() <= 1024 &&
         text.find_first_not_of(
             "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_") ==
             std::string::npos;
}

}  // namespace
}  // namespace quillon::fuzz

namespace quillon::platform {

// In the place of the platform's.
Answer Exchange(const Question& question) {
  return {CURLE_OK, fuzz::AnswerTo(question.body.value())};
}

}  // namespace quillon::platform

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon::fuzz;
  [[maybe_unused]] static const bool is_prepared =
      (quillon::platform::UseConfiguration(QuietConfiguration()), true);
  Host& host = TheHost();
  std::string_view input = TextOf(data, size);
  host.answers[0] = Cut(input, "\n--\n");
  host.answers[1] = input;
  host.asked = 0;
  host.has_proved_itself = false;

  _tag_vela_cred_ cred;
  cred.host = "192.0.2.2";
  cred.account = "boss";
  cred.password.Set("correct horse");
  cred.protocol = "http";
  cred.port = 5000;
  _tag_vela_cred_sess_ session;
  session.token.Set("of-an-earlier-login");
  if (VELA::CredRequestUtil::Login(&cred, &session)) {
    Require(host.has_proved_itself, "a host that has not proved itself is not believed");
    Require(IsToken(session.token.Get()), "a token fits into a header");
  } else {
    Require(session.token.IsEmpty(), "without a login there is no token");
  }
  return 0;
}
