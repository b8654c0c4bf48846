#include <exception>
#include <string_view>

#include <quillon/backend/quota_redis_client.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/maillog.h>

#include "backend/redis_connection.h"
#include "backend/usage_keys.h"
#include "utils/decimal.h"
#include "utils/excerpt.h"

namespace quillon::backend {

namespace {

constexpr char kSourceFile[] = "platform/linux/backend/quota_redis_client";
constexpr int kNoNumberLine = 25;
constexpr int kWrongTypeLine = 34;
constexpr int kDeleteFailedLine = 71;

// One bad figure costs its user's usage, not everybody's report.
void LogNoNumber(const RedisConnection& connection, const std::string& name,
                 std::string_view value) {
  maillog(3, "%s:%d usage store %s: the entry of [%s] is no number of bytes: [%s], taken as absent",
          kSourceFile, kNoNumberLine, connection.ServerName().c_str(), name.c_str(),
          platform::Excerpt(value).c_str());
}

void LogWrongTypes(RedisConnection& connection, const UsageKeys& keys,
                   const std::vector<std::string_view>& names) {
  connection.Exchange(
      names.size(),
      [&](std::size_t i) {
        RedisCommand command("TYPE");
        keys.AddTo(command, names[i]);
        return command;
      },
      [&](std::size_t i, const redisReply& reply) {
        if (reply.type != REDIS_REPLY_STATUS) {
          connection.FailUnexpectedReply();
        }
        const std::string type(reply.str, reply.len);
        if (type != "none" && type != "string") {  // "string": it has come into being just now
          maillog(3, "%s:%d usage store %s: the entry of [%s] is a %s, not text: taken as absent",
                  kSourceFile, kWrongTypeLine, connection.ServerName().c_str(),
                  std::string(names[i]).c_str(), type.c_str());
        }
      });
}

// MGET does not tell a key of another type from a missing one. Nearly all are missing, so a whole
// chunk is asked about at once, and only one in which something exists key by key. TOUCH counts as
// EXISTS does, which some sharding proxies send to one server only.
void ReportWrongTypes(RedisConnection& connection, const UsageKeys& keys,
                      const std::vector<std::string_view>& absent) {
  std::vector<std::string_view> suspects;
  connection.Exchange(
      ChunkCount(absent.size()),
      [&](std::size_t i) { return keys.Command("TOUCH", Chunk(absent, i)); },
      [&](std::size_t i, const redisReply& reply) {
        if (reply.type != REDIS_REPLY_INTEGER) {
          connection.FailUnexpectedReply();
        }
        if (reply.integer != 0) {
          const auto chunk = Chunk(absent, i);
          suspects.insert(suspects.end(), chunk.begin(), chunk.end());
        }
      });
  LogWrongTypes(connection, keys, suspects);
}

}  // namespace

QuotaRedisClient::QuotaRedisClient() = default;

std::unordered_map<std::string, std::string> QuotaRedisClient::ListUsage(
    const std::vector<std::string>& names) {
  std::unordered_map<std::string, std::string> usage;
  if (names.empty()) {
    return usage;
  }
  usage.reserve(names.size());
  std::vector<std::string_view> absent;
  const UsageKeys keys(connection_->Open().key_template);
  connection_->Exchange(
      ChunkCount(names.size()),
      [&](std::size_t i) { return keys.Command("MGET", Chunk(names, i)); },
      [&](std::size_t i, const redisReply& reply) {
        const auto chunk = Chunk(names, i);
        if (reply.type != REDIS_REPLY_ARRAY || reply.elements != chunk.size()) {
          connection_->FailUnexpectedReply();
        }
        for (std::size_t n = 0; n < chunk.size(); ++n) {
          const redisReply& value = *reply.element[n];
          if (value.type == REDIS_REPLY_STRING) {
            const std::string_view bytes(value.str, value.len);
            if (platform::ParseDecimal<unsigned long long>(bytes)) {
              usage.emplace(chunk[n], bytes);
            } else {
              LogNoNumber(*connection_, chunk[n], bytes);
            }
          } else if (value.type == REDIS_REPLY_NIL) {
            absent.push_back(chunk[n]);
          } else {
            connection_->FailUnexpectedReply();
          }
        }
      });
  ReportWrongTypes(*connection_, keys, absent);
  return usage;
}

bool QuotaRedisClient::DeleteUsage(const std::vector<std::string>& names) {
  if (names.empty()) {
    return true;
  }
  try {
    const UsageKeys keys(connection_->Open().key_template);
    connection_->Exchange(
        ChunkCount(names.size()),
        [&](std::size_t i) { return keys.Command("DEL", Chunk(names, i)); },
        [this](std::size_t, const redisReply& reply) {
          if (reply.type != REDIS_REPLY_INTEGER) {
            connection_->FailUnexpectedReply();
          }
        });
    return true;
  } catch (const velamailserver::LogException&) {
    return false;  // it has logged itself
  } catch (const std::exception& error) {
    maillog(3, "%s:%d cannot delete usage: %s", kSourceFile, kDeleteFailedLine, error.what());
    return false;
  }
}

}  // namespace quillon::backend
