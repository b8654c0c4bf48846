#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>

#include <quillon/platform/secret.h>
#include <quillon/platform/web_accounts.h>

namespace quillon::platform {

/// Who is logged in to the web server, by token. Of a token only its SHA-256 is kept, so that
/// reading this memory lets nobody in. For use by one thread.
class WebSessions {
 public:
  /// The clock of all times here.
  using Time = std::chrono::steady_clock::time_point;

  /// Who a token stands for.
  struct Session {
    std::string account;  ///< its name
    WebRole role;         ///< what it may do
  };
  /// A session that has begun.
  struct Created {
    Secret token;            ///< 43 characters of base64url
    bool has_ended_another;  ///< the account had as many as it may
  };

  /// An account has at most `most_per_account` sessions: the one that would end first makes room
  /// for a new one. Refusing the new one would let programs that forget to log out lock their
  /// account out; and this way no number of short ones ends a long one that somebody counts on.
  explicit WebSessions(std::size_t most_per_account) : most_per_account_(most_per_account) {}

  /// The session ends `lifetime` from now, used or not.
  Created Create(const std::string& account, WebRole role, std::chrono::seconds lifetime, Time now);
  /// Nothing for a token that is unknown or has expired.
  std::optional<Session> Find(const std::string& token, Time now) const;
  /// False when there was no such session.
  bool End(const std::string& token);
  /// Ends all sessions of an account.
  void DropAccount(const std::string& account);

  /// How many sessions there are; some may have expired.
  std::size_t size() const { return sessions_.size(); }

 private:
  struct Entry {
    Session session;
    Time end;
  };
  using Entries = std::unordered_map<std::string, Entry>;  // by the token's SHA-256

  static bool HasExpired(const Entry& entry, Time now) { return now >= entry.end; }
  void DropExpired(Time now);
  bool MakeRoom(const std::string& account);

  std::size_t most_per_account_;
  Entries sessions_;
};

}  // namespace quillon::platform
