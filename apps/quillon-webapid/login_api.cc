#include "login_api.h"

#include <strings.h>
#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <variant>

#include <velamailserver/maillog.h>

#include "envelope.h"

namespace quillon::webapid {

namespace {

using platform::LoginChallenge;
using platform::LoginRefusal;
using platform::LoginSuccess;

constexpr char kSourceFile[] = "apps/quillon-webapid/login_api";
constexpr int kRefusedLine = 29;
constexpr int kLoggedInLine = 35;
constexpr int kEndedAnotherLine = 41;

std::vector<platform::WebAccount> Accounts(const FrontSettings& settings) {
  return platform::ParseWebAccounts(settings.accounts.Get(), settings.web.accounts_file);
}

bool IsText(const Json::Value& params, const char* name) {
  return params.isObject() && params[name].isString();
}

// How long a session is wanted, `longest` when that is left open; nothing for what is no lifetime.
std::optional<std::chrono::seconds> LifetimeIn(const Json::Value& params,
                                               std::chrono::seconds longest) {
  const Json::Value& wanted = params["lifetime"];
  if (wanted.isNull()) {
    return longest;
  }
  if (!wanted.isUInt64() || wanted.asUInt64() == 0) {
    return std::nullopt;
  }
  const auto most = static_cast<Json::UInt64>(longest.count());
  return std::chrono::seconds(std::min(wanted.asUInt64(), most));
}

// The token of a header "Bearer TOKEN"; empty for any other.
platform::Secret TokenOf(const char* authorization) {
  constexpr char kScheme[] = "Bearer ";
  constexpr std::size_t kLength = sizeof(kScheme) - 1;
  if (authorization == nullptr || ::strncasecmp(authorization, kScheme, kLength) != 0) {
    return {};
  }
  return platform::Secret(authorization + kLength);
}

}  // namespace

Reply Refusal(int status, const std::string& message) {
  return {status, FailureText(status, message)};
}

LoginApi::LoginApi(const FrontSettings& settings, RefusalLog& refusals)
    : refusals_(refusals),
      lifetime_(settings.web.session_lifetime),
      server_(Accounts(settings), settings.web.max_login_failures),
      sessions_(static_cast<std::size_t>(settings.web.max_sessions_per_account)) {}

void LoginApi::UseAccounts(const FrontSettings& settings) {
  for (const std::string& name : server_.UseAccounts(Accounts(settings))) {
    sessions_.DropAccount(name);
  }
}

std::optional<platform::WebSessions::Session> LoginApi::Find(const char* authorization, Time now) {
  const platform::Secret token = TokenOf(authorization);
  return token.IsEmpty() ? std::nullopt : sessions_.Find(token.Get(), now);
}

Reply LoginApi::Run(const Json::Value& request, const std::string& address,
                    const char* authorization, Time now) {
  const Json::Value& method = request["method"];
  if (request["version"] != 1 || !method.isString()) {
    return Refusal(400, "\"version\" 1 and a \"method\" are needed");
  }
  if (method == "start") {
    return Start(request["params"], address, now);
  }
  if (method == "finish") {
    return Finish(request["params"], address, now);
  }
  if (method == "end") {
    return End(authorization);
  }
  return Refusal(400, "no such method");
}

Reply LoginApi::Start(const Json::Value& params, const std::string& address, Time now) {
  if (!IsText(params, "message")) {
    return Refusal(400, "a \"message\" is needed");
  }
  const auto outcome = server_.Start(address, params["message"].asString(), now);
  if (const auto* refusal = std::get_if<LoginRefusal>(&outcome)) {
    return Refuse(*refusal, address, now);
  }
  const auto& challenge = std::get<LoginChallenge>(outcome);
  Json::Value data;
  data["login"] = challenge.login;
  data["message"] = challenge.message;
  return {200, SuccessText(data)};
}

Reply LoginApi::Finish(const Json::Value& params, const std::string& address, Time now) {
  if (!IsText(params, "login") || !IsText(params, "message")) {
    return Refusal(400, "\"login\" and \"message\" are needed");
  }
  const auto lifetime = LifetimeIn(params, lifetime_);
  if (!lifetime) {
    return Refusal(400, "\"lifetime\" is a number of seconds, at least 1");
  }
  const auto outcome =
      server_.Finish(address, params["login"].asString(), params["message"].asString(), now);
  if (const auto* refusal = std::get_if<LoginRefusal>(&outcome)) {
    return Refuse(*refusal, address, now);
  }
  const auto& success = std::get<LoginSuccess>(outcome);
  const auto created = sessions_.Create(success.account, success.role, *lifetime, now);
  maillog(LOG_INFO, "%s:%d %s logged in from %s", kSourceFile, kLoggedInLine,
          success.account.c_str(), address.c_str());
  if (created.has_ended_another) {
    maillog(LOG_INFO, "%s:%d %s has too many sessions, one was ended", kSourceFile,
            kEndedAnotherLine, success.account.c_str());
  }
  Json::Value data;
  data["message"] = success.message;
  data["token"] = created.token.Get();
  data["role"] = platform::WebRoleName(success.role);
  data["expires_in"] = static_cast<Json::Int64>(lifetime->count());
  return {200, SuccessText(data)};
}

Reply LoginApi::End(const char* authorization) {
  return sessions_.End(TokenOf(authorization).Get())
             ? Reply{200, SuccessText(Json::Value(Json::objectValue))}
             : Refusal(401, "no such session");
}

Reply LoginApi::Refuse(const LoginRefusal& refusal, const std::string& address, Time now) {
  if (refusals_.MayWrite(now)) {
    maillog(LOG_WARNING, "%s:%d login from %s refused: %s", kSourceFile, kRefusedLine,
            address.c_str(), refusal.reason.c_str());
  }
  if (refusal.wait.count() > 0) {
    Reply reply = Refusal(429, "too many failed logins");
    reply.retry_after = refusal.wait;
    return reply;
  }
  return Refusal(401, "login refused");
}

}  // namespace quillon::webapid
