#include <algorithm>

#include <quillon/platform/client_network.h>
#include <quillon/platform/login_throttle.h>

namespace quillon::platform {

namespace {

// No account's name holds a NUL character.
std::string PairKey(const std::string& account, const std::string& address) {
  return account + '\0' + ClientNetwork(address);
}

std::string AddressKey(const std::string& address) { return '\0' + ClientNetwork(address); }

}  // namespace

std::chrono::seconds LoginThrottle::Wait(const std::string& account, const std::string& address,
                                         Time now) const {
  return std::max(Wait(PairKey(account, address), allowed_failures_, now),
                  Wait(AddressKey(address), kFailuresPerAddress * allowed_failures_, now));
}

std::chrono::seconds LoginThrottle::Wait(const std::string& key, int allowed, Time now) const {
  constexpr int kMostDoublings = 9;  // 2^9 seconds are more than the longest wait
  const auto found = entries_.find(key);
  if (found == entries_.end() || IsForgotten(found->second, now) ||
      found->second.failures <= allowed) {
    return std::chrono::seconds(0);
  }
  const int doublings = std::min(found->second.failures - allowed - 1, kMostDoublings);
  const auto wait = std::min(std::chrono::seconds(1 << doublings), kLongestWait);
  const auto left = found->second.last + wait - now;
  return std::max(std::chrono::ceil<std::chrono::seconds>(left), std::chrono::seconds(0));
}

void LoginThrottle::CountFailure(const std::string& account, const std::string& address, Time now) {
  // What is delayed already does not count for the address, too: one forgotten script with an old
  // password would lock out all of its host.
  if (Count(PairKey(account, address), now) <= allowed_failures_) {
    Count(AddressKey(address), now);
  }
}

int LoginThrottle::Count(const std::string& key, Time now) {
  auto found = entries_.find(key);
  if (found == entries_.end()) {
    MakeRoom(now);
    found = entries_.emplace(key, Entry()).first;
  }
  Entry& entry = found->second;
  if (IsForgotten(entry, now)) {
    entry.failures = 0;
  }
  entry.last = now;
  return ++entry.failures;
}

void LoginThrottle::MakeRoom(Time now) {
  if (entries_.size() < kMostEntries) {
    return;
  }
  std::erase_if(entries_, [now](const auto& entry) { return IsForgotten(entry.second, now); });
  if (entries_.size() == kMostEntries) {
    entries_.erase(std::min_element(
        entries_.begin(), entries_.end(),
        [](const auto& one, const auto& other) { return one.second.last < other.second.last; }));
  }
}

void LoginThrottle::CountSuccess(const std::string& account, const std::string& address) {
  entries_.erase(PairKey(account, address));
}

}  // namespace quillon::platform
