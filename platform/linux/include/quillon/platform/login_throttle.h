#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_map>

namespace quillon::platform {

/// Makes whoever guesses passwords wait. Failed logins count for an account and an address
/// together, so that nobody locks an account's owner out from elsewhere, and, up to a larger
/// number, for the address alone, so that trying many accounts does not help. The addresses of an
/// IPv6 network of 64 bits count as one: it is what one customer has.
///
/// After the allowed failures, each further one doubles the time to wait, from 1 second to
/// `kLongestWait`. Who has not failed for `kMemory` starts anew. For use by one thread.
class LoginThrottle {
 public:
  /// The clock of all times here.
  using Time = std::chrono::steady_clock::time_point;

  /// Nobody waits longer than this.
  static constexpr std::chrono::seconds kLongestWait{300};
  /// How long a failure is remembered.
  static constexpr std::chrono::seconds kMemory{900};
  /// Failures that are allowed an address, over all accounts, as a multiple of those allowed for
  /// one account.
  static constexpr int kFailuresPerAddress = 10;
  /// What is remembered at most; what has not failed for longest is forgotten first.
  static constexpr std::size_t kMostEntries = 10000;

  /// `allowed_failures`: those of one account from one address that cost no time.
  explicit LoginThrottle(int allowed_failures) : allowed_failures_(allowed_failures) {}

  /// Seconds until a login may be tried, at least 1; 0 when it may be now.
  std::chrono::seconds Wait(const std::string& account, const std::string& address, Time now) const;
  /// Remembers that a login has failed.
  void CountFailure(const std::string& account, const std::string& address, Time now);
  /// Forgets the failures of this account from this address.
  void CountSuccess(const std::string& account, const std::string& address);

  /// How many accounts and addresses are remembered.
  std::size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    int failures = 0;
    Time last;
  };

  static bool IsForgotten(const Entry& entry, Time now) { return now - entry.last >= kMemory; }
  std::chrono::seconds Wait(const std::string& key, int allowed, Time now) const;
  /// Answers the failures that there were.
  int Count(const std::string& key, Time now);
  void MakeRoom(Time now);

  int allowed_failures_;
  std::unordered_map<std::string, Entry> entries_;
};

}  // namespace quillon::platform
