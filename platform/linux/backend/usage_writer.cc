#include "backend/usage_writer.h"

#include <cstddef>
#include <string_view>

#include "backend/usage_keys.h"

namespace quillon::backend {

namespace {

// Nobody comes between the two steps of a script. WATCH and MULTI would do as well, but sharding
// proxies do not know them; a script with a single key goes to that key's server. MGET is answered
// for an entry of another type as for an absent one, as it was when the entry was read.
constexpr std::string_view kStoreUnlessChanged =
    "if redis.call('MGET', KEYS[1])[1] ~= (ARGV[2] or false) then return 0 end "
    "redis.call('SET', KEYS[1], ARGV[1]) "
    "return 1";

}  // namespace

void UsageWriter::Read(const UsageEntries& entries) {
  if (entries.empty()) {
    return;
  }
  const UsageKeys keys(connection_.Open().key_template);
  connection_.Exchange(
      ChunkCount(entries.size()),
      [&](std::size_t i) {
        RedisCommand command("MGET");
        for (const UsageEntry* entry : Chunk(entries, i)) {
          keys.AddTo(command, entry->name);
        }
        return command;
      },
      [&](std::size_t i, const redisReply& reply) {
        const auto chunk = Chunk(entries, i);
        if (reply.type != REDIS_REPLY_ARRAY || reply.elements != chunk.size()) {
          connection_.FailUnexpectedReply();
        }
        for (std::size_t n = 0; n < chunk.size(); ++n) {
          const redisReply& value = *reply.element[n];
          if (value.type == REDIS_REPLY_STRING) {
            chunk[n]->before.emplace(value.str, value.len);
          } else if (value.type == REDIS_REPLY_NIL) {
            chunk[n]->before.reset();
          } else {
            connection_.FailUnexpectedReply();
          }
        }
      });
}

void UsageWriter::StoreUnlessChanged(const UsageEntries& entries) {
  if (entries.empty()) {
    return;
  }
  const UsageKeys keys(connection_.Open().key_template);
  connection_.Exchange(
      entries.size(),
      [&](std::size_t i) {
        const UsageEntry& entry = *entries[i];
        RedisCommand command("EVAL");
        command.Add({kStoreUnlessChanged});
        command.Add({"1"});
        keys.AddTo(command, entry.name);
        command.Add({std::to_string(entry.bytes)});
        if (entry.before) {
          command.Add({*entry.before});
        }
        return command;
      },
      [&](std::size_t i, const redisReply& reply) {
        if (reply.type != REDIS_REPLY_INTEGER) {
          connection_.FailUnexpectedReply();
        }
        entries[i]->is_stored = reply.integer == 1;
      });
}

}  // namespace quillon::backend
