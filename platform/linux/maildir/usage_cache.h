#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quillon::platform {

// What the ownerless mail directories were counted to hold, in a SQLite database of the host's own
// (maildir.usage_cache). A figure is found again only for the same directory (path, inode and uid)
// it was counted for. Root's; safe for use from several threads, and after a fork.

struct CacheKey {
  std::string path;
  std::uint64_t inode;
  std::uint32_t uid;
};

/// The bytes that the directory was counted to hold. Nothing when it was never counted, and when
/// the cache cannot be read, which is logged once.
std::optional<unsigned long long> FindCachedUsage(const CacheKey& key);

/// Throw `LogException`, naming the cache, when it cannot be written.
void StoreCachedUsage(const CacheKey& key, unsigned long long bytes);
void DropCachedUsage(const std::string& path);

// A recount of all directories: what this process stores between the first call and the last is of
// it. One that is not finished leaves its figures and does not count as one. All throw
// `LogException`, naming the cache.

void BeginRecount();
/// The directories whose figures are of another recount.
std::vector<CacheKey> ListOldUsage();
/// Drops the figures of these, and counts the recount among those that were brought to their end.
void FinishRecount(const std::vector<CacheKey>& gone);

}  // namespace quillon::platform
