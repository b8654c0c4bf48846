#include <algorithm>
#include <utility>

#include <quillon/platform/web_sessions.h>

#include "utils/base64.h"
#include "utils/random_bytes.h"
#include "utils/sha256.h"

namespace quillon::platform {

namespace {

constexpr std::size_t kTokenBytes = 32;

}  // namespace

WebSessions::Created WebSessions::Create(const std::string& account, WebRole role,
                                         std::chrono::seconds lifetime, Time now) {
  DropExpired(now);
  const bool has_ended_another = MakeRoom(account);
  std::string bytes = RandomBytes(kTokenBytes);
  std::string text = EncodeBase64Url(bytes);
  Wipe(bytes);
  Secret token(text);
  Wipe(text);
  sessions_.emplace(Sha256(token.Get()), Entry{{account, role}, now + lifetime});
  return {std::move(token), has_ended_another};
}

// A look-up by the token's hash takes no time that would tell how much of a guess is right.
std::optional<WebSessions::Session> WebSessions::Find(const std::string& token, Time now) const {
  const auto found = sessions_.find(Sha256(token));
  if (found == sessions_.end() || HasExpired(found->second, now)) {
    return std::nullopt;
  }
  return found->second.session;
}

bool WebSessions::End(const std::string& token) { return sessions_.erase(Sha256(token)) != 0; }

void WebSessions::DropAccount(const std::string& account) {
  std::erase_if(sessions_,
                [&](const auto& entry) { return entry.second.session.account == account; });
}

void WebSessions::DropExpired(Time now) {
  std::erase_if(sessions_, [now](const auto& entry) { return HasExpired(entry.second, now); });
}

// Answers whether a session had to go.
bool WebSessions::MakeRoom(const std::string& account) {
  std::size_t count = 0;
  auto first = sessions_.end();
  for (auto entry = sessions_.begin(); entry != sessions_.end(); ++entry) {
    if (entry->second.session.account == account) {
      ++count;
      if (first == sessions_.end() || entry->second.end < first->second.end) {
        first = entry;
      }
    }
  }
  if (count < most_per_account_) {
    return false;
  }
  sessions_.erase(first);
  return true;
}

}  // namespace quillon::platform
