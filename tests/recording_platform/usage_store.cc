#include <fmt/format.h>
#include <fmt/ranges.h>

#include <quillon/backend/quota_redis_client.h>

#include "recording_platform/world.h"

namespace quillon::backend {

using recording::TheWorld;

class RedisClient::Connection {};

RedisClient::RedisClient() { TheWorld().Call("RedisClient()"); }

RedisClient::~RedisClient() { TheWorld().Note("~RedisClient()"); }

QuotaRedisClient::QuotaRedisClient() { TheWorld().Call("QuotaRedisClient()"); }

std::unordered_map<std::string, std::string> QuotaRedisClient::ListUsage(
    const std::vector<std::string>& names) {
  TheWorld().Call(fmt::format("ListUsage([{}])", fmt::join(names, ", ")));
  return TheWorld().usage;
}

bool QuotaRedisClient::DeleteUsage(const std::vector<std::string>& names) {
  TheWorld().Call(fmt::format("DeleteUsage([{}])", fmt::join(names, ", ")));
  return TheWorld().delete_usage;
}

}  // namespace quillon::backend
