#include <algorithm>
#include <cstddef>
#include <span>
#include <utility>

#include <quillon/platform/usage_count.h>
#include <velamailserver/maillog.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "backend/usage_writer.h"
#include "maildir/maildir.h"
#include "maildir/message_usage.h"

namespace quillon::platform {

namespace {

using backend::UsageEntries;
using backend::UsageEntry;
using velamailserver::velasdk::VelaUser;

constexpr char kSourceFile[] = "platform/linux/maildir/usage_count";
constexpr int kKeptLine = 41;

// Few enough for the time between reading an entry and writing it to be short.
constexpr std::size_t kUsersAtOnce = 100;
// Whose entry changes as often as this has a mail server that keeps it.
constexpr int kMostCounts = 5;

unsigned long long CountBytes(const VelaUser& user) {
  const std::string account = user.Name();
  const FileDescriptor maildir = OpenMaildir(account);
  return maildir.IsOpen() ? CountMessageBytes(maildir, MaildirPath(account)) : 0;
}

// Mail that arrives behind the back of a count is in the entry that the mail server writes, and not
// in what was counted: whose entry has changed meanwhile is counted again.
std::vector<UsageEntry> CountInto(backend::UsageWriter& writer, std::span<const VelaUser> users) {
  std::vector<UsageEntry> entries(users.size());
  UsageEntries open;
  for (std::size_t i = 0; i < users.size(); ++i) {
    entries[i].name = users[i].RealName();
    open.push_back(&entries[i]);
  }
  for (int i = 0; i < kMostCounts && !open.empty(); ++i) {
    writer.Read(open);
    for (UsageEntry* entry : open) {
      entry->bytes = CountBytes(users[static_cast<std::size_t>(entry - entries.data())]);
    }
    writer.StoreUnlessChanged(open);
    std::erase_if(open, [](const UsageEntry* entry) { return entry->is_stored; });
  }
  return entries;
}

void Report(std::vector<UsageEntry> entries, UsageCount& count) {
  for (UsageEntry& entry : entries) {
    if (entry.is_stored) {
      count.counted.push_back({std::move(entry.name), entry.bytes});
    } else {
      maillog(6, "%s:%d usage of [%s] kept: its entry changed during each of %d counts",
              kSourceFile, kKeptLine, entry.name.c_str(), kMostCounts);
      count.kept.push_back(std::move(entry.name));
    }
  }
}

}  // namespace

UsageCount CountUsage(const std::vector<VelaUser>& users) {
  const velamailserver::velasdk::FileLockGuard lock(kUsageCountLockFile);
  UsageCount count;
  backend::UsageWriter writer;
  for (std::span rest(users); !rest.empty();) {
    const auto chunk = rest.first(std::min(kUsersAtOnce, rest.size()));
    rest = rest.subspan(chunk.size());
    Report(CountInto(writer, chunk), count);
  }
  return count;
}

}  // namespace quillon::platform
