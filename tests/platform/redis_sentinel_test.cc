// The usage store on a Redis server that sentinels watch over.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/backend/quota_redis_client.h>
#include <quillon/platform/configuration.h>

#include "scripted_redis.h"
#include "store_usage.h"
#include "support/loopback.h"
#include "support/redis_server.h"
#include "support/temporary_folder.h"

namespace quillon::backend {
namespace {

using test::FreePort;
using test::RedisSentinel;
using test::RedisServer;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Lt;
using testing::Not;
using testing::Pair;
using testing::StartsWith;

double Seconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string At(int port) { return "127.0.0.1:" + std::to_string(port); }

// A sentinel's answer.
std::string Naming(const std::string& host, const std::string& port) {
  return fmt::format("*2\r\n${}\r\n{}\r\n${}\r\n{}\r\n", host.size(), host, port.size(), port);
}
std::string Naming(int port) { return Naming("127.0.0.1", std::to_string(port)); }

// No server yet.
class WatchedUsageStore : public testing::Test {
 protected:
  WatchedUsageStore() {
    configuration_.usage.sentinel_master = "mail";
    configuration_.usage.connect_timeout = 1;
    configuration_.usage.command_timeout = 1;
    configuration_.log = {"file", folder_ / "mail.log"};
  }

  void Use(const std::vector<std::string>& sentinels) {
    configuration_.usage.sentinels = sentinels;
    platform::UseConfiguration(configuration_);
  }

  std::string Log() const {
    return std::filesystem::exists(folder_ / "mail.log") ? folder_.Read("mail.log") : "";
  }

  std::string FailureToList() {
    return Failure([this] { client_.ListUsage({"alice"}); });
  }

  test::TemporaryFolder folder_;
  platform::Configuration configuration_;
  QuotaRedisClient client_;
};

TEST_F(WatchedUsageStore, NeedsNoSentinelForNoNames) {
  Use({At(FreePort())});
  EXPECT_THAT(client_.ListUsage({}), IsEmpty());
  EXPECT_TRUE(client_.DeleteUsage({}));
  StoreUsage({});
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(WatchedUsageStore, NamesAllSentinelsWhenNoneAnswers) {
  const std::string first = At(FreePort());
  const std::string second = "[::1]:1";
  Use({first, second});
  const std::string failure = FailureToList();
  EXPECT_THAT(failure,
              AllOf(StartsWith("usage store mail: no sentinel names the master: " + first +
                               ": cannot connect: Connection refused; [::1]:1: cannot connect: ")));
  EXPECT_THAT(Log(), HasSubstr(" err: platform/linux/backend/redis_sentinel:37 (4001) bad db "
                               "session: " +
                               failure + "\n"));
  EXPECT_FALSE(client_.DeleteUsage({"alice"}));
  EXPECT_EQ(Failure([] { StoreUsage({{"alice", 1}}); }), failure);
  const std::string log = Log();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3);
}

// What no sentinel says.
std::vector<std::string> BadAnswers() {
  return {"\r\n",
          "HTTP/1.1 400 Bad Request\r\n\r\n",
          "+OK\r\n",
          ":26379\r\n",
          "$9\r\n127.0.0.1\r\n",
          "*-1\r\n",
          "*0\r\n",
          "*1\r\n$9\r\n127.0.0.1\r\n",
          "*2\r\n$9\r\n127.0.0.1\r\n:6379\r\n",
          "*2\r\n$-1\r\n$-1\r\n",
          "*2\r\n*0\r\n*0\r\n",
          "*3\r\n$1\r\na\r\n$1\r\n1\r\n$1\r\n1\r\n",
          "*2147483647\r\n",
          "-ERR unknown command 'SENTINEL'\r\n",
          "-" + std::string(5000, 'E') + "\r\n",
          Naming("", "6379"),
          Naming("127.0.0.1", ""),
          Naming("127.0.0.1", "0"),
          Naming("127.0.0.1", "65536"),
          Naming("127.0.0.1", "-1"),
          Naming("127.0.0.1", "6379x"),
          Naming("127.0.0.1", "99999999999999999999"),
          Naming(std::string(256, 'a'), "6379"),
          Naming("127.0.0.1\n", "6379"),
          Naming("two hosts", "6379"),
          Naming(std::string("a\0b", 3), "6379")};
}

class BadSentinel : public WatchedUsageStore, public testing::WithParamInterface<std::string> {};

TEST_P(BadSentinel, IsNamed) {
  const int port = FreePort();
  const ScriptedRedis sentinel(port, Answering(GetParam()));
  Use({At(port)});
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(FailureToList(), AllOf(StartsWith("usage store mail: no sentinel names the "
                                                  "master: " +
                                                  At(port) + ": "),
                                       testing::SizeIs(Lt(400U))));
  }
  EXPECT_FALSE(client_.DeleteUsage({"alice"}));
  const std::string log = Log();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3);
}

INSTANTIATE_TEST_SUITE_P(Answers, BadSentinel, testing::ValuesIn(BadAnswers()));

TEST_F(WatchedUsageStore, PassesOverBadSentinels) {
  const RedisServer server({.password = "", .tcp = true});
  const int good_port = FreePort();
  const ScriptedRedis good(good_port, Answering(Naming(server.port())));
  for (const std::string& answer : BadAnswers()) {
    const int port = FreePort();
    const ScriptedRedis bad(port, Answering(answer));
    Use({At(port), At(good_port)});
    EXPECT_THAT(client_.ListUsage({"alice"}), IsEmpty());
  }
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(WatchedUsageStore, SaysWhatToDoAboutASentinel) {
  const int port = FreePort();
  Use({At(port)});
  const auto failure_with = [&](const std::string& answer) {
    const ScriptedRedis sentinel(port, Answering(answer));
    return FailureToList();
  };
  const std::string beginning = "usage store mail: no sentinel names the master: " + At(port);
  EXPECT_EQ(failure_with("*-1\r\n"),
            beginning + ": knows no such master, correct usage.sentinel_master");
  EXPECT_EQ(failure_with(Naming("127.0.0.1", "a")),
            beginning + ": does not answer as a sentinel does, correct usage.sentinels");
  EXPECT_EQ(failure_with("-NOAUTH Authentication required.\r\n"),
            beginning +
                ": [NOAUTH Authentication required.], correct usage.sentinels or "
                "usage.sentinel_password");
}

TEST_F(WatchedUsageStore, SaysThatTheMasterIsDown) {
  const int port = FreePort();
  const int second_port = FreePort();
  const int master_port = FreePort();
  std::atomic<int> questions = 0;
  const ScriptedRedis sentinel(port, [&](int peer) {
    ++questions;
    Answering(Naming(master_port))(peer);
  });
  const ScriptedRedis second(second_port, Answering(Naming(master_port)));
  Use({At(port), At(second_port)});

  const std::string failure = FailureToList();
  EXPECT_EQ(failure,
            fmt::format("usage store mail: no master where the sentinels say: {} names {}: "
                        "cannot connect: Connection refused; {} names {}: see above",
                        At(port), At(master_port), At(second_port), At(master_port)));
  EXPECT_THAT(Log(), HasSubstr("platform/linux/backend/redis_sentinel:44 (4001) bad db session: " +
                               failure + "\n"));
  EXPECT_EQ(questions,
            2);  // it is asked once more, for the case that it was just changing its mind
  EXPECT_FALSE(client_.DeleteUsage({"alice"}));
}

TEST_F(WatchedUsageStore, WaitsNoLongerThanItsConnectTimeOut) {
  const RedisServer server({.password = "", .tcp = true});
  const RedisSentinel slow(server.port());
  const RedisSentinel other(server.port());
  slow.Freeze();
  std::string failure;
  Use({slow.address()});
  EXPECT_THAT(Seconds([&] { failure = FailureToList(); }), AllOf(testing::Ge(0.9), Lt(1.7)));
  EXPECT_EQ(failure, "usage store mail: no sentinel names the master: " + slow.address() +
                         ": no complete answer in time");

  Use({slow.address(), other.address()});
  EXPECT_THAT(Seconds([&] { EXPECT_THAT(client_.ListUsage({"alice"}), IsEmpty()); }), Lt(1.2));
  slow.Thaw();

  server.Freeze();
  QuotaRedisClient another;
  EXPECT_THAT(Seconds([&] { failure = Failure([&] { another.ListUsage({"alice"}); }); }), Lt(1.7));
  EXPECT_THAT(failure, HasSubstr(At(server.port()) + ": no complete answer in time"));
  server.Thaw();
}

// A master and its replica.
class ReplicatedUsageStore : public WatchedUsageStore {
 protected:
  RedisServer master_{{.password = "", .tcp = true}};
  RedisServer replica_{{.password = "", .tcp = true, .replica_of = master_.port()}};
};

TEST_F(ReplicatedUsageStore, IsNotTheReplica) {
  const int port = FreePort();
  std::optional<ScriptedRedis> wrong(std::in_place, port, Answering(Naming(replica_.port())));
  Use({At(port)});
  EXPECT_EQ(FailureToList(),
            fmt::format("usage store mail: no master where the sentinels say: {} names {}: is a "
                        "slave and no master, a fail-over may be going on",
                        At(port), At(replica_.port())));

  const int right_port = FreePort();
  const ScriptedRedis right(right_port, Answering(Naming(master_.port())));
  Use({At(port), At(right_port)});
  StoreUsage({{"alice", 1}});
  EXPECT_EQ(master_.Command({"GET", "alice/quota/storage"}), "1");

  wrong.reset();
  std::atomic<int> questions = 0;
  const ScriptedRedis changing(port, [&](int peer) {
    Answering(Naming(++questions == 1 ? replica_.port() : master_.port()))(peer);
  });
  Use({At(port)});
  EXPECT_THAT(client_.ListUsage({"alice"}), ElementsAre(Pair("alice", "1")));
  for (int i = 0; i < 3; ++i) {
    client_.ListUsage({"alice"});
  }
  EXPECT_EQ(questions, 2);  // and not again as long as the session lives
}

TEST_F(ReplicatedUsageStore, IsLookedForAnewAfterItHasBecomeAReplica) {
  const int port = FreePort();
  std::atomic<int> named = master_.port();
  const ScriptedRedis sentinel(port, [&](int peer) { Answering(Naming(named))(peer); });
  Use({At(port)});
  EXPECT_TRUE(client_.DeleteUsage({"alice"}));

  master_.Command({"REPLICAOF", "127.0.0.1", std::to_string(replica_.port())});
  replica_.Command({"REPLICAOF", "NO", "ONE"});
  named = replica_.port();
  EXPECT_FALSE(client_.DeleteUsage({"alice"}));
  EXPECT_THAT(Log(), HasSubstr(fmt::format("usage store mail at {} (sentinels {}): READONLY ",
                                           At(master_.port()), At(port))));
  replica_.Command({"SET", "alice/quota/storage", "1"});
  EXPECT_TRUE(client_.DeleteUsage({"alice"}));
  EXPECT_EQ(replica_.Command({"EXISTS", "alice/quota/storage"}), "0");
}

TEST_F(ReplicatedUsageStore, FailsACountWhenItBecomesAReplicaMeanwhile) {
  const int port = FreePort();
  const ScriptedRedis sentinel(port, Answering(Naming(master_.port())));
  Use({At(port)});
  UsageEntry entry;
  entry.name = "alice";
  UsageWriter writer;
  writer.Read({&entry});
  master_.Command({"REPLICAOF", "127.0.0.1", std::to_string(replica_.port())});
  EXPECT_THAT(Failure([&] { writer.StoreUnlessChanged({&entry}); }),
              StartsWith(fmt::format("usage store mail at {} (sentinels {}): READONLY ",
                                     At(master_.port()), At(port))));
  EXPECT_FALSE(entry.is_stored);
}

TEST_F(ReplicatedUsageStore, GoesOnAfterAFailOver) {
  const RedisSentinel sentinel(master_.port(),
                               {.password = "", .master_password = "", .replicas = 1});
  const std::string dead = At(FreePort());
  Use({dead, sentinel.address()});
  StoreUsage({{"alice", 5}});
  EXPECT_THAT(client_.ListUsage({"alice"}), ElementsAre(Pair("alice", "5")));
  EXPECT_EQ(master_.Command({"WAIT", "1", "5000"}), "1");

  master_.Kill();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  const std::string failure = fmt::format(
      "usage store mail: no master where the sentinels say: {}: cannot connect: "
      "Connection refused; {} names {}: cannot connect: Connection refused",
      dead, sentinel.address(), At(master_.port()));
  EXPECT_EQ(FailureToList(), failure);
  while (!client_.DeleteUsage({"bob"}) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_THAT(client_.ListUsage({"alice"}), ElementsAre(Pair("alice", "5")));
  StoreUsage({{"alice", 6}});
  EXPECT_EQ(replica_.Command({"GET", "alice/quota/storage"}), "6");
}

TEST_F(WatchedUsageStore, NeedsBothPasswords) {
  const RedisServer server({.password = "sesame1", .tcp = true});
  server.Command({"SET", "alice/quota/storage", "5"});
  const RedisSentinel sentinel(server.port(),
                               {.password = "sesame2", .master_password = "sesame1"});
  const std::string at_sentinel =
      "usage store mail: no sentinel names the master: " + sentinel.address() + ": ";
  const std::string at_master = fmt::format(
      "usage store mail: no master where the sentinels say: {} names {}: ", sentinel.address(),
      At(server.port()));

  configuration_.usage.password = "sesame1";
  Use({sentinel.address()});
  EXPECT_THAT(FailureToList(), StartsWith(at_sentinel + "[NOAUTH "));
  configuration_.usage.sentinel_password = "sesame1";
  Use({sentinel.address()});
  EXPECT_EQ(FailureToList(), at_sentinel + "the server refuses the password (WRONGPASS)");

  configuration_.usage.sentinel_password = "sesame2";
  configuration_.usage.password = "";
  Use({sentinel.address()});
  EXPECT_THAT(FailureToList(), StartsWith(at_master + "NOAUTH "));
  configuration_.usage.password = "sesame2";
  Use({sentinel.address()});
  EXPECT_EQ(FailureToList(), at_master + "the server refuses the password (WRONGPASS)");

  configuration_.usage.password = "sesame1";
  Use({sentinel.address()});
  EXPECT_THAT(client_.ListUsage({"alice"}), ElementsAre(Pair("alice", "5")));
  EXPECT_THAT(Log(), Not(HasSubstr("sesame")));
}

TEST_F(WatchedUsageStore, TakesTheDatabaseOfTheMaster) {
  const RedisServer server({.password = "", .tcp = true});
  const RedisSentinel sentinel(server.port());
  configuration_.usage.database = 3;
  Use({sentinel.address()});
  StoreUsage({{"alice", 5}});
  EXPECT_EQ(server.Command({"GET", "alice/quota/storage"}, 3), "5");

  configuration_.usage.database = 99;
  Use({sentinel.address()});
  EXPECT_EQ(FailureToList(),
            fmt::format("usage store mail at {} (sentinels {}): ERR DB index is out of range",
                        At(server.port()), sentinel.address()));
}

TEST_F(WatchedUsageStore, IsFoundThroughIPv6) {
  const RedisServer server({.password = "", .tcp = true});
  const RedisSentinel sentinel(server.port());
  if (!std::filesystem::exists("/proc/net/if_inet6") ||
      std::filesystem::is_empty("/proc/net/if_inet6")) {
    GTEST_SKIP() << "no IPv6 here";
  }
  Use({"[::1]:" + std::to_string(sentinel.port())});
  EXPECT_THAT(client_.ListUsage({"alice"}), IsEmpty());
}

TEST_F(WatchedUsageStore, SaysWhichMasterIsUnknown) {
  const RedisServer server({.password = "", .tcp = true});
  const RedisSentinel sentinel(server.port());
  configuration_.usage.sentinel_master = "mymaster";
  Use({sentinel.address()});
  EXPECT_EQ(FailureToList(),
            "usage store mymaster: no sentinel names the master: " + sentinel.address() +
                ": knows no such master, correct usage.sentinel_master");
}

}  // namespace
}  // namespace quillon::backend
