#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <json/value.h>

#include <quillon/platform/login_server.h>
#include <quillon/platform/web_sessions.h>

#include "refusal_log.h"
#include "settings.h"

namespace quillon::webapid {

/// The name of the API that the front answers by itself.
inline constexpr char kLoginApi[] = "VELA.Core.Login";

/// An answer of the front.
struct Reply {
  int status = 500;
  std::string text;
  std::chrono::seconds retry_after{0};  ///< 0: not said
};

/// A refusal with an envelope of its own.
Reply Refusal(int status, const std::string& message);

/// Logins and tokens: the API "VELA.Core.Login".
class LoginApi {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// Throws `platform::WebAccountsError` for accounts that do not parse.
  LoginApi(const FrontSettings& settings, RefusalLog& refusals);

  /// Replaces the accounts; who is gone or changed is logged out. Throws like the constructor, and
  /// then nothing is changed.
  void UseAccounts(const FrontSettings& settings);

  /// The session of an "Authorization" header, if it has one.
  std::optional<platform::WebSessions::Session> Find(const char* authorization, Time now);

  /// Answers a call of the API. `authorization` may be null.
  Reply Run(const Json::Value& request, const std::string& address, const char* authorization,
            Time now);

 private:
  Reply Start(const Json::Value& params, const std::string& address, Time now);
  Reply Finish(const Json::Value& params, const std::string& address, Time now);
  Reply End(const char* authorization);
  Reply Refuse(const platform::LoginRefusal& refusal, const std::string& address, Time now);

  RefusalLog& refusals_;
  std::chrono::seconds lifetime_;
  platform::LoginServer server_;
  platform::WebSessions sessions_;
};

}  // namespace quillon::webapid
