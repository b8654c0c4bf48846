#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include <quillon/platform/web_accounts.h>

namespace quillon::platform {

/// The server's first message of a login.
struct LoginChallenge {
  std::string login;    ///< the name that the login goes on by
  std::string message;  ///< in base64
};

/// Who has logged in, and the server's last message: with it the server proves to the client that
/// it knows the account, too.
struct LoginSuccess {
  std::string message;  ///< in base64
  std::string account;  ///< its name
  WebRole role;         ///< what it may do
};

/// That nobody has logged in.
struct LoginRefusal {
  /// For the log only: a client that is refused learns nothing more.
  std::string reason;
  /// Seconds until it makes sense to try again; 0 when this login was refused for itself.
  std::chrono::seconds wait{0};
};

/// The server's side of logins by SCRAM-SHA-256, without sockets, files or threads. An account that
/// does not exist is answered like one whose password is wrong. For use by one thread.
class LoginServer {
 public:
  /// The clock of all times here.
  using Time = std::chrono::steady_clock::time_point;

  /// A login that was started must be finished within this time.
  static constexpr std::chrono::seconds kHalfOpenLife{30};
  ///@{
  /// When more have been started than this, the oldest is dropped: of the same address, or else of
  /// all.
  static constexpr std::size_t kMostHalfOpenPerAddress = 32;
  static constexpr std::size_t kMostHalfOpen = 1024;
  ///@}
  /// Characters of a message at most.
  static constexpr std::size_t kLongestMessage = 1024;

  /// `allowed_failures`: see `LoginThrottle`.
  LoginServer(std::vector<WebAccount> accounts, int allowed_failures);
  LoginServer(const LoginServer&) = delete;
  LoginServer& operator=(const LoginServer&) = delete;
  ~LoginServer();

  /// Replaces the accounts. Answers the names of those that are gone or not the same any more:
  /// their sessions should end; their half-open logins have.
  std::vector<std::string> UseAccounts(std::vector<WebAccount> accounts);

  /// Takes the client's first message, in base64, from `address`, a numeric IPv4 or IPv6 address.
  std::variant<LoginChallenge, LoginRefusal> Start(const std::string& address,
                                                   const std::string& message, Time now);

  /// Takes the client's last message. Whatever comes of it, the login is over.
  std::variant<LoginSuccess, LoginRefusal> Finish(const std::string& address,
                                                  const std::string& login,
                                                  const std::string& message, Time now);

 private:
  class Logins;
  std::unique_ptr<Logins> logins_;
};

}  // namespace quillon::platform
