#include <chrono>
#include <cstddef>
#include <string>

#include <quillon/platform/store_check.h>
#include <velamailserver/log_exception.h>

#include "backend/redis_connection.h"
#include "backend/usage_keys.h"
#include "utils/decimal.h"

namespace quillon::platform {

namespace {

using backend::RedisCommand;
using backend::RedisConnection;
using velamailserver::LogException;

constexpr char kNobody[] = "/check";  // no account is called so

void WriteEntry(RedisConnection& connection) {
  const backend::UsageKeys keys(connection.Open().key_template);
  connection.Exchange(
      1,
      [&](std::size_t) {
        RedisCommand command("SETEX");
        keys.AddTo(command, kNobody);
        command.Add({"1"});  // second
        command.Add({"0"});
        return command;
      },
      [&](std::size_t, const redisReply& reply) {
        if (reply.type != REDIS_REPLY_STATUS) {
          connection.FailUnexpectedReply();
        }
      });
}

// Seconds since 1970, by the server's clock.
double ServerTime(RedisConnection& connection) {
  double time = 0;
  connection.Exchange(
      1, [](std::size_t) { return RedisCommand("TIME"); },
      [&](std::size_t, const redisReply& reply) {
        const bool is_pair = reply.type == REDIS_REPLY_ARRAY && reply.elements == 2 &&
                             reply.element[0]->type == REDIS_REPLY_STRING;
        const auto seconds =
            is_pair ? ParseDecimal<unsigned long long>(reply.element[0]->str) : std::nullopt;
        if (!seconds) {
          connection.FailUnexpectedReply();
        }
        time = static_cast<double>(*seconds) + 0.5;  // and up to a million microseconds
      });
  return time;
}

double OwnTime() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

void CheckUsageStore() {
  RedisConnection connection;
  WriteEntry(connection);
}

std::optional<double> ClockOffsetOfUsageStore() {
  RedisConnection connection;
  try {
    connection.Open();
    const double before = OwnTime();
    const double server = ServerTime(connection);
    const double after = OwnTime();
    return server - (before + after) / 2;
  } catch (const LogException&) {
    return std::nullopt;  // proxies do not know the command
  }
}

}  // namespace quillon::platform
