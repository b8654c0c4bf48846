#include "backend/usage_writer.h"

#include <string>

#include "backend/redis_connection.h"
#include "backend/usage_keys.h"

namespace quillon::backend {

void StoreUsage(const std::vector<platform::CountedUsage>& figures) {
  if (figures.empty()) {
    return;
  }
  RedisConnection connection;
  const UsageKeys keys(connection.Open().key_template);
  connection.Exchange(
      ChunkCount(figures.size()),
      [&](std::size_t i) {
        RedisCommand command("MSET");
        for (const platform::CountedUsage& figure : Chunk(figures, i)) {
          keys.AddTo(command, figure.name);
          command.Add({std::to_string(figure.bytes)});
        }
        return command;
      },
      [&](std::size_t, const redisReply& reply) {
        if (reply.type != REDIS_REPLY_STATUS) {
          connection.FailUnexpectedReply();
        }
      });
}

}  // namespace quillon::backend
