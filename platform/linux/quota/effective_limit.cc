#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/account/effective_limit.h>
#include <velamailserver/account/quota_record.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

#include "accounts/account_database.h"
#include "accounts/resolve_account.h"
#include "quota/quota_database.h"
#include "utils/closed_before_fork.h"

namespace quillon::platform {

namespace {

using velamailserver::account::GroupRecord;
using velamailserver::account::UserRecord;
using velamailserver::velasdk::AccountEntry;
using Clock = std::chrono::steady_clock;
using Ids = std::vector<std::uint32_t>;

constexpr char kSourceFile[] = "platform/linux/quota/effective_limit";
constexpr int kNoGroupsLine = 52;
constexpr AccountLookup kByName = {
    .code = velamailserver::ERR_SDK_USER_GET,
    .subject = "user",
    .absence = "no such user:",
    .source_file = kSourceFile,
    .absent_line = 38,
    .failed_line = 42,
};

// The store, open. To open it costs many times what a limit does, and a report asks for thousands
// in a row; but a store that was put in the place of another one has to be noticed soon. Whoever
// may not open the store must not read what root, which the process was a moment ago, has opened.
struct OpenStore {
  static constexpr std::chrono::seconds kKept{1};

  bool IsUsableFor(const std::shared_ptr<const Configuration>& current) const {
    return configuration == current && opened_by == ::geteuid() && Clock::now() - opened_at < kKept;
  }

  std::shared_ptr<const Configuration> configuration;
  uid_t opened_by = 0;
  Clock::time_point opened_at;
  QuotaDatabase database;
};

using Process = ClosedBeforeFork<OpenStore>;

void CloseStore() {
  const std::lock_guard lock(Process::Get().mutex);
  Process::Get().connection.reset();
}

template <typename Record>
std::vector<Record> ReadLimits(const char* table, const Ids& ids) {
  Process& process = Process::Get();
  const auto configuration = CurrentConfiguration();
  const std::lock_guard lock(process.mutex);
  auto store = std::move(process.connection);
  if (store == nullptr || !store->IsUsableFor(configuration)) {
    store.reset();
    store = std::make_unique<OpenStore>();
    store->configuration = configuration;
    store->opened_by = ::geteuid();
    store->opened_at = Clock::now();
  }
  auto limits = store->database.List<Record>(table, ids);
  process.connection = std::move(store);
  // What the database's client library needs to close a connection is gone after its own end.
  static const int closing = std::atexit(CloseStore);
  static_cast<void>(closing);
  return limits;
}

Ids GroupsOrFail(const AccountEntry& user) {
  return AskAccounts(velamailserver::ERR_SDK_GROUP_LIST_MEMBER,
                     fmt::format("list the groups of user [{}]", user.name), kSourceFile,
                     kNoGroupsLine, [&] { return GroupsOf(user); });
}

// The largest limit, nothing when there is none. 0 is no limit, so the largest.
template <typename Record>
std::optional<unsigned long long> LargestOf(const std::vector<Record>& limits) {
  std::optional<unsigned long long> largest;
  for (const Record& limit : limits) {
    const unsigned long long bytes = velamailserver::utils::ToULL(limit.value);
    if (bytes == 0) {
      return 0;
    }
    largest = std::max(largest.value_or(0), bytes);
  }
  return largest;
}

}  // namespace

}  // namespace quillon::platform

namespace velamailserver::account {

unsigned long long GetResultUserQuotaLimit(const std::string& name) {
  namespace platform = quillon::platform;
  const auto find = [](const std::string& key) { return platform::FindUser(key); };
  const auto user = platform::ResolveAccount(platform::kByName, find, name);
  const auto own = platform::ReadLimits<UserRecord>(platform::kUserLimitTable, {user->id});
  if (const auto limit = platform::LargestOf(own)) {
    return *limit;
  }
  const auto of_groups =
      platform::ReadLimits<GroupRecord>(platform::kGroupLimitTable, platform::GroupsOrFail(*user));
  return platform::LargestOf(of_groups).value_or(0);
}

}  // namespace velamailserver::account
