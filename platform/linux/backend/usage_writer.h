#pragma once

#include <optional>
#include <string>
#include <vector>

#include "backend/redis_connection.h"

namespace quillon::backend {

/// The entry of one account in the usage store, on its way through a count.
struct UsageEntry {
  std::string name;
  /// Its text before the count. Nothing for an absent one and for one of another type.
  std::optional<std::string> before;
  unsigned long long bytes = 0;  ///< what was counted
  bool is_stored = false;
};

using UsageEntries = std::vector<UsageEntry*>;

/// Brings counted figures into the usage store, into which the mail server writes at any time. What
/// it writes during a count is newer than what was counted, and stays.
///
/// Both functions throw `LogException`, naming the server, when it is down, slow or refuses. No
/// entries need no server.
class UsageWriter {
 public:
  /// Sets "before", as it is at this moment: the count of these accounts begins after it.
  void Read(const UsageEntries& entries);

  /// Puts "bytes" in the place of each entry that still is as it was read, compared by its text,
  /// and sets "is_stored". An entry of another type is replaced. When it throws, some of them may
  /// have been stored.
  void StoreUnlessChanged(const UsageEntries& entries);

 private:
  RedisConnection connection_;
};

}  // namespace quillon::backend
