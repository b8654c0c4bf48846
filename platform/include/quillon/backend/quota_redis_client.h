#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include <quillon/backend/redis_client.h>

namespace quillon::backend {

/// The usage store: how many bytes of mail each account holds.
class QuotaRedisClient : public RedisClient {
 public:
  QuotaRedisClient();

  /// The usage in bytes, as decimal text, of those `names` that have an entry, each under its name
  /// exactly as given. An entry that is no decimal number of 64 bits counts as absent and is
  /// logged. No names need no server. Throws `LogException`, naming the server, when it is down,
  /// slow or refuses.
  std::unordered_map<std::string, std::string> ListUsage(const std::vector<std::string>& names);

  /// Deletes the entries of `names`; names without one are no failure, and no names need no server.
  /// False for every failure, whose reason goes to the mail log.
  bool DeleteUsage(const std::vector<std::string>& names);
};

}  // namespace quillon::backend
