#include "system/large_host.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/account/mailbox_quota.h>

#include "support/program.h"

namespace quillon::test {

namespace {

namespace fs = std::filesystem;

constexpr unsigned int kFirstUid = 100000;
constexpr unsigned int kFirstOwnerlessUid = 3'000'000;

constexpr unsigned int kFirstGid = 100000;

std::vector<std::string> ReadNames(const std::string& folder, const char* list = "names") {
  std::vector<std::string> names;
  std::ifstream file(folder + "/" + list);
  for (std::string name; std::getline(file, name);) {
    names.push_back(name);
  }
  return names;
}

// Names as people have them: in no order that follows the uids, of differing length.
std::vector<std::string> MakeNames(std::size_t users) {
  constexpr const char* kGiven[] = {"anna",      "bert", "carla",    "dmitri",
                                    "elisabeth", "fan",  "giuseppe", "hana"};
  std::vector<std::size_t> numbers(users);
  std::iota(numbers.begin(), numbers.end(), std::size_t{0});
  // NOLINTNEXTLINE(bugprone-random-generator-seed,cert-msc32-c,cert-msc51-cpp): always the same
  std::shuffle(numbers.begin(), numbers.end(), std::mt19937(7));
  std::vector<std::string> names;
  names.reserve(users);
  for (const std::size_t number : numbers) {
    names.push_back(fmt::format("{}.{}", kGiven[number % std::size(kGiven)], number));
  }
  return names;
}

// Messages number `first` to `end` - 1, no two neighbours of which have the same size.
void MakeMaildir(const std::string& path, std::size_t first, std::size_t end,
                 bool names_carry_sizes) {
  const std::string text = "From: <a@example>\r\nTo: <b@example>\r\nSubject: x\r\n\r\nHello.\r\n";
  for (const char* part : {"cur", "new", "tmp"}) {
    fs::create_directories(fmt::format("{}/{}", path, part));
  }
  for (std::size_t i = first; i < end; ++i) {
    const std::string body = text + std::string(i % 997, 'x');
    std::ofstream(fmt::format("{}/cur/17000{:05}.M{}P1.host{}:2,S", path, i, i * 31,
                              names_carry_sizes ? fmt::format(",S={}", body.size()) : ""))
        << body;
  }
}

void Give(const fs::path& path, uid_t owner) {
  if (::chown(path.c_str(), owner, static_cast<gid_t>(-1)) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
}

}  // namespace

void MakeAccounts(const std::string& folder, std::size_t users, unsigned int first_uid) {
  std::ofstream passwd(folder + "/passwd");
  std::ofstream list(folder + "/names");
  unsigned int uid = first_uid;
  for (const std::string& name : MakeNames(users)) {
    passwd << fmt::format("{}:x:{}:100::/home/{}:/usr/sbin/nologin\n", name, uid++, name);
    list << name << '\n';
  }
  std::ofstream(folder + "/group") << "mail-users:x:100:\n";
}

void MakeHost(const std::string& folder, std::size_t users, const std::string& redis_socket) {
  fs::create_symlink(redis_socket, folder + "/redis.sock");
  MakeAccounts(folder, users, kFirstUid);
  std::ofstream(folder + "/mailserver.toml")
      << fmt::format(R"([accounts]
passwd_file = "{0}/passwd"
group_file = "{0}/group"
min_uid = {1}
max_uid = {2}

[maildir]
root = "{0}/spool"

usage_cache = "{0}/no-owner-usage.db"

[quota]
store = "sqlite://{0}/quota.db"

[usage]
socket = "{0}/redis.sock"

[log]
target = "file"
file = "{0}/mail.log"
)",
                     folder, kFirstUid, kFirstUid + users - 1);
}

void FillStores(const std::string& folder) {
  platform::UseConfiguration(platform::LoadConfiguration(folder + "/mailserver.toml"));
  const std::vector<std::string> names = ReadNames(folder);

  // A few hundred different limits, so that neither store holds one value throughout.
  constexpr std::size_t kBatches = 200;
  velamailserver::account::MailboxQuota store;
  for (std::size_t batch = 0; batch < kBatches; ++batch) {
    std::vector<velamailserver::velasdk::VelaUser> users;
    for (std::size_t i = batch; i < names.size(); i += kBatches) {
      users.emplace_back(names[i]);
    }
    store.SetUserQuotaLimit(users, (batch + 1) << 26);
    store.SetUserQuotaWarning(users, (batch + 1) << 25);
  }

  std::string commands;
  for (std::size_t i = 0; i < names.size(); ++i) {
    commands += fmt::format("SET {}/quota/storage {}\n", names[i], i * 7919 + 13);
  }
  const std::string socket = platform::CurrentConfiguration()->usage.socket;
  const auto outcome = test::Run({"redis-cli", "-s", socket, "--pipe"}, commands);
  if (outcome.exit_code != 0) {
    throw std::runtime_error("redis-cli: " + outcome.output + outcome.error);
  }
}

void MakeGroups(const std::string& folder, std::size_t groups, std::size_t members) {
  const std::vector<std::string> users = ReadNames(folder);
  {
    std::ofstream group(folder + "/group", std::ios::app);
    std::ofstream list(folder + "/group-names");
    unsigned int gid = kFirstGid;
    for (const std::string& name : MakeNames(groups)) {
      const std::size_t first = gid - kFirstGid;
      std::vector<std::string> of_group;
      for (std::size_t i = 0; i < members; ++i) {
        of_group.push_back(users[(first + i * (6 * first + 1)) % users.size()]);
      }
      group << fmt::format("{}:x:{}:{}\n", name, gid++, fmt::join(of_group, ","));
      list << name << '\n';
    }
  }

  platform::UseConfiguration(platform::LoadConfiguration(folder + "/mailserver.toml"));
  const std::vector<std::string> names = ReadNames(folder, "group-names");
  constexpr std::size_t kBatches = 200;
  velamailserver::account::MailboxQuota store;
  for (std::size_t batch = 0; batch < kBatches; ++batch) {
    std::vector<velamailserver::velasdk::VelaGroup> teams;
    for (std::size_t i = batch; i < names.size(); i += kBatches) {
      teams.emplace_back(names[i]);
    }
    store.SetGroupQuotaLimit(teams, (batch + 1) << 26);
    store.SetGroupQuotaWarning(teams, (batch + 1) << 25);
  }
}

void MakeMaildirs(const std::string& folder) {
  for (const std::string& name : ReadNames(folder)) {
    MakeMaildir(fmt::format("{}/spool/local/{}", folder, name), 0, 0, false);
  }
}

void MakeMail(const std::string& folder, std::size_t messages, bool names_carry_sizes) {
  const std::vector<std::string> names = ReadNames(folder);
  std::size_t first = 0;
  for (const std::string& name : names) {
    const std::size_t end = first + messages / names.size();
    MakeMaildir(fmt::format("{}/spool/local/{}", folder, name), first, end, names_carry_sizes);
    first = end;
  }
}

void GiveMail(const std::string& folder) {
  uid_t uid = kFirstUid;
  for (const std::string& name : ReadNames(folder)) {
    const std::string maildir = fmt::format("{}/spool/local/{}", folder, name);
    Give(maildir, uid);
    for (const auto& entry : fs::recursive_directory_iterator(maildir)) {
      Give(entry.path(), uid);
    }
    ++uid;
  }
}

void MakeOwnerlessMail(const std::string& folder, std::size_t maildirs, std::size_t messages) {
  for (std::size_t i = 0; i < maildirs; ++i) {
    const std::string maildir = fmt::format("{}/spool/local/gone{}", folder, i);
    MakeMaildir(maildir, 0, messages, false);
    Give(maildir, static_cast<uid_t>(kFirstOwnerlessUid + i));
  }
}

}  // namespace quillon::test
