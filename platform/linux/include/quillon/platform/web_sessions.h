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
  using Time = std::chrono::steady_clock::time_point;

  struct Session {
    std::string account;
    WebRole role;
  };
  struct Created {
    Secret token;            ///< 43 characters of base64url
    bool has_ended_another;  ///< the account had as many as it may
  };

  /// A session ends `lifetime` after it was created, used or not. An account has at most
  /// `most_per_account` of them: the one that was not used for longest makes room for a new one.
  /// Refusing the new one would let programs that forget to log out lock their account out; that
  /// the oldest goes would end those that live longest because they are needed.
  WebSessions(std::chrono::seconds lifetime, std::size_t most_per_account)
      : lifetime_(lifetime), most_per_account_(most_per_account) {}

  Created Create(const std::string& account, WebRole role, Time now);
  /// Nothing for a token that is unknown or has expired.
  std::optional<Session> Find(const std::string& token, Time now);
  /// False when there was no such session.
  bool End(const std::string& token);
  void DropAccount(const std::string& account);

  std::size_t size() const { return sessions_.size(); }

 private:
  struct Entry {
    Session session;
    Time created;
    Time used;
  };
  using Entries = std::unordered_map<std::string, Entry>;  // by the token's SHA-256

  bool HasExpired(const Entry& entry, Time now) const { return now - entry.created >= lifetime_; }
  void DropExpired(Time now);
  bool MakeRoom(const std::string& account);

  std::chrono::seconds lifetime_;
  std::size_t most_per_account_;
  Entries sessions_;
};

}  // namespace quillon::platform
