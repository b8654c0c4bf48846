// The usage store behind a sharding proxy: two Redis servers, each with a part of the keys.
#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/backend/quota_redis_client.h>
#include <quillon/platform/configuration.h>
#include <quillon/platform/store_check.h>

#include "scripted_redis.h"
#include "store_usage.h"
#include "support/redis_server.h"
#include "support/temporary_folder.h"

namespace quillon::backend {
namespace {

using test::RedisServer;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class ShardedUsageStore : public testing::Test {
 protected:
  ShardedUsageStore() {
    configuration_.usage.socket = proxy_.socket();
    configuration_.usage.connect_timeout = 1;
    configuration_.usage.command_timeout = 2;
    configuration_.log = {"file", folder_ / "mail.log"};
    platform::UseConfiguration(configuration_);
    for (unsigned i = 0; i < 5000; ++i) {
      names_.push_back("user" + std::to_string(i));
      figures_.push_back({names_.back(), i});
    }
  }

  std::string Log() const {
    return std::filesystem::exists(folder_ / "mail.log") ? folder_.Read("mail.log") : "";
  }

  test::TemporaryFolder folder_;
  RedisServer first_{{.password = "", .tcp = true}};
  RedisServer second_{{.password = "", .tcp = true}};
  test::RedisProxy proxy_{{first_.port(), second_.port()}};
  platform::Configuration configuration_;
  std::vector<std::string> names_;
  std::vector<platform::CountedUsage> figures_;
  QuotaRedisClient client_;
};

TEST_F(ShardedUsageStore, SpreadsTheAccounts) {
  StoreUsage(figures_);
  const int first = std::stoi(first_.Command({"DBSIZE"}));
  const int second = std::stoi(second_.Command({"DBSIZE"}));
  EXPECT_GT(first, 1000);
  EXPECT_GT(second, 1000);
  EXPECT_EQ(first + second, 5000);

  const auto usage = client_.ListUsage(names_);
  ASSERT_EQ(usage.size(), figures_.size());
  for (const platform::CountedUsage& figure : figures_) {
    ASSERT_EQ(usage.at(figure.name), std::to_string(figure.bytes));
  }

  EXPECT_TRUE(client_.DeleteUsage(names_));
  EXPECT_EQ(first_.Command({"DBSIZE"}), "0");
  EXPECT_EQ(second_.Command({"DBSIZE"}), "0");
  EXPECT_THAT(client_.ListUsage(names_), IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ShardedUsageStore, StoresNoFigureInPlaceOfANewerOne) {
  std::vector<UsageEntry> entries(names_.size());
  for (std::size_t i = 0; i < names_.size(); ++i) {
    entries[i].name = names_[i];
    entries[i].bytes = i;
  }
  StoreUsage(figures_);
  UsageWriter writer;
  writer.Read(Pointers(entries));
  const std::string changed = first_.Command({"RANDOMKEY"});
  first_.Command({"SET", changed, "newer"});
  const std::string gone = second_.Command({"RANDOMKEY"});
  second_.Command({"DEL", gone});
  writer.StoreUnlessChanged(Pointers(entries));

  std::vector<std::string> left;
  for (const UsageEntry& entry : entries) {
    if (!entry.is_stored) {
      left.push_back(entry.name + "/quota/storage");
    }
  }
  EXPECT_THAT(left, UnorderedElementsAre(changed, gone));
  EXPECT_EQ(first_.Command({"GET", changed}), "newer");
  EXPECT_EQ(second_.Command({"EXISTS", gone}), "0");
}

// Some proxies ask only one of the servers whether several keys exist.
TEST_F(ShardedUsageStore, LogsAndReplacesAnEntryOfAnotherTypeWhereverItIs) {
  StoreUsage(figures_);
  for (const RedisServer* shard : {&first_, &second_}) {
    const std::string key = shard->Command({"RANDOMKEY"});
    const std::string name = key.substr(0, key.find('/'));
    shard->Command({"DEL", key});
    shard->Command({"RPUSH", key, "1"});

    EXPECT_EQ(client_.ListUsage(names_).count(name), 0U);
    EXPECT_THAT(Log(), HasSubstr("the entry of [" + name + "] is a list, not text"));
  }
  StoreUsage(figures_);
  EXPECT_EQ(client_.ListUsage(names_).size(), figures_.size());
}

TEST_F(ShardedUsageStore, FailsAsAWholeWithoutOneOfItsServers) {
  StoreUsage(figures_);
  second_.Stop();
  // The first one may be in the middle of the proxy's finding out.
  const auto names_the_proxy =
      AllOf(StartsWith("usage store " + proxy_.socket() + ": "), HasSubstr("Connection re"));
  EXPECT_THAT(Failure([this] { client_.ListUsage(names_); }), names_the_proxy);
  EXPECT_FALSE(client_.DeleteUsage(names_));
  EXPECT_THAT(Failure([this] { StoreUsage(figures_); }), names_the_proxy);
  const std::string log = Log();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3);

  second_.Start();
  StoreUsage(figures_);
  EXPECT_EQ(client_.ListUsage(names_).size(), figures_.size());
}

TEST_F(ShardedUsageStore, WaitsForAServerAsLongAsTheProxyDoes) {
  StoreUsage(figures_);
  second_.Freeze();
  EXPECT_EQ(Failure([this] { client_.ListUsage(names_); }),
            "usage store " + proxy_.socket() + ": ERR Connection timed out");
  second_.Thaw();
}

TEST_F(ShardedUsageStore, SaysThatItHasNoFurtherDatabase) {
  configuration_.usage.database = 3;
  platform::UseConfiguration(configuration_);
  EXPECT_EQ(Failure([this] { client_.ListUsage({"alice"}); }),
            "usage store " + proxy_.socket() +
                ": Server closed the connection when asked for usage.database: a sharding proxy "
                "has only database 0");
  EXPECT_FALSE(client_.DeleteUsage({"alice"}));
}

TEST_F(ShardedUsageStore, SaysThatTheProxyHasNoPassword) {
  configuration_.usage.password = "open sesame";
  platform::UseConfiguration(configuration_);
  EXPECT_EQ(Failure([this] { client_.ListUsage({"alice"}); }),
            "usage store " + proxy_.socket() + ": the server refuses the password (ERR)");
}

TEST_F(ShardedUsageStore, MayBeCheckedAndTellsNoTime) {
  platform::CheckUsageStore();
  EXPECT_EQ(platform::ClockOffsetOfUsageStore(), std::nullopt);
  second_.Stop();
  first_.Stop();
  EXPECT_THROW(platform::CheckUsageStore(), velamailserver::LogException);
}

}  // namespace
}  // namespace quillon::backend
