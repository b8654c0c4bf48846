#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "backend/redis_connection.h"

namespace quillon::backend {

/// The keys of accounts in the usage store.
class UsageKeys {
 public:
  /// `key_template` holds "{name}" once.
  explicit UsageKeys(const std::string& key_template)
      : before_(key_template.substr(0, key_template.find(kName))),
        behind_(key_template.substr(before_.size() + kName.size())) {}

  void AddTo(RedisCommand& command, std::string_view name) const {
    command.Add({before_, name, behind_});
  }

  /// A command whose arguments are the keys of `names`.
  template <typename Name>
  RedisCommand Command(std::string_view verb, std::span<const Name> names) const {
    RedisCommand command(verb);
    for (const Name& name : names) {
      AddTo(command, name);
    }
    return command;
  }

 private:
  static constexpr std::string_view kName = "{name}";

  std::string before_;
  std::string behind_;
};

/// How many accounts one command is about.
inline constexpr std::size_t kChunkSize = 1000;

inline std::size_t ChunkCount(std::size_t size) { return (size + kChunkSize - 1) / kChunkSize; }

template <typename Items>
auto Chunk(const Items& items, std::size_t index) {
  const std::span all(items);
  const auto rest = all.subspan(index * kChunkSize);
  return rest.first(std::min(kChunkSize, rest.size()));
}

}  // namespace quillon::backend
