#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/backend/quota_redis_client.h>
#include <quillon/platform/configuration.h>
#include <quillon/platform/store_check.h>

#include "backend/redis_connection.h"
#include "scripted_redis.h"
#include "store_usage.h"
#include "support/redis_relay.h"
#include "support/redis_server.h"
#include "support/temporary_folder.h"

namespace quillon::backend {
namespace {

using test::RedisServer;
using testing::AllOf;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Lt;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;

using Names = std::vector<std::string>;

double Seconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// No server yet: a configuration that points to a socket in the test's folder, and the mail log.
class UsageStore : public testing::Test {
 protected:
  UsageStore() {
    configuration_.usage.socket = folder_ / "redis.sock";
    configuration_.usage.connect_timeout = 1;
    configuration_.usage.command_timeout = 1;
    configuration_.log = {"file", folder_ / "mail.log"};
    platform::UseConfiguration(configuration_);
  }

  std::string Log() const {
    return std::filesystem::exists(folder_ / "mail.log") ? folder_.Read("mail.log") : "";
  }

  test::TemporaryFolder folder_;
  platform::Configuration configuration_;
  QuotaRedisClient client_;
};

TEST_F(UsageStore, NeedsNoServerForNoNames) {
  EXPECT_THAT(client_.ListUsage({}), IsEmpty());
  EXPECT_TRUE(client_.DeleteUsage({}));
  StoreUsage({});
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(UsageStore, NamesTheSocketOfAServerThatIsDown) {
  const std::string socket = configuration_.usage.socket;
  const std::string reason =
      "usage store " + socket + ": cannot connect: No such file or directory";
  EXPECT_EQ(Failure([this] { client_.ListUsage({"alice"}); }), reason);
  EXPECT_THAT(Log(), HasSubstr(" err: platform/linux/backend/redis_connection:47 (4001) bad db "
                               "session: " +
                               reason + "\n"));
  EXPECT_EQ(Failure([] { StoreUsage({{"alice", 1}}); }), reason);
}

TEST_F(UsageStore, NamesTheHostAndPortOfAServerThatIsDown) {
  configuration_.usage.socket = "";
  configuration_.usage.port = 1;
  platform::UseConfiguration(configuration_);
  EXPECT_EQ(Failure([this] { client_.ListUsage({"alice"}); }),
            "usage store 127.0.0.1:1: cannot connect: Connection refused");

  configuration_.usage.host = "::1";
  platform::UseConfiguration(configuration_);
  EXPECT_THAT(Failure([this] { client_.ListUsage({"alice"}); }),
              HasSubstr("usage store [::1]:1: cannot connect: "));
}

TEST_F(UsageStore, AnswersFalseAndLogsWhyItCannotDelete) {
  EXPECT_FALSE(client_.DeleteUsage({"alice"}));
  EXPECT_THAT(Log(), AllOf(HasSubstr(" err: "),
                           HasSubstr("usage store " + configuration_.usage.socket +
                                     ": cannot connect: No such file or directory\n")));
  const std::string log = Log();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

TEST_F(UsageStore, DoesNotUseAnotherSocketWhenThePathIsTooLong) {
  const std::string directory = folder_ / std::string(150 - folder_.path().native().size(), 'd');
  configuration_.usage.socket = directory + "/redis.sock";
  platform::UseConfiguration(configuration_);
  const ScriptedRedis server(directory.substr(0, sizeof(sockaddr_un::sun_path) - 1),
                             Answering("*1\r\n$1\r\n1\r\n"));

  EXPECT_THAT(Failure([this] { client_.ListUsage({"alice"}); }), HasSubstr("too long"));
}

class BrokenServer : public UsageStore, public testing::WithParamInterface<std::string> {};

TEST_P(BrokenServer, IsOneExceptionThatNamesIt) {
  const ScriptedRedis server(configuration_.usage.socket, Answering(GetParam()));

  for (int i = 0; i < 2; ++i) {  // with a new connection each time
    EXPECT_THAT(Failure([this] { client_.ListUsage({"alice"}); }),
                HasSubstr("usage store " + configuration_.usage.socket + ": "));
  }
  const std::string log = Log();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2);
}

TEST_P(BrokenServer, IsFalseForADeletion) {
  const ScriptedRedis server(configuration_.usage.socket, Answering(GetParam()));

  EXPECT_FALSE(client_.DeleteUsage({"alice"}));
  EXPECT_THAT(Log(), HasSubstr("usage store " + configuration_.usage.socket + ": "));
}

TEST_P(BrokenServer, IsOneExceptionForACountThatReads) {
  const ScriptedRedis server(configuration_.usage.socket, Answering(GetParam()));
  EXPECT_THAT(Failure([] {
                StoreUsage({{"alice", 1}});
              }),
              HasSubstr("usage store " + configuration_.usage.socket + ": "));
}

TEST_P(BrokenServer, IsOneExceptionForACountThatStores) {
  const ScriptedRedis server(configuration_.usage.socket, [](int peer) {
    ReadSomething(peer);
    Write(peer, "*1\r\n$-1\r\n");
    Answering(GetParam())(peer);
  });
  EXPECT_THAT(Failure([] {
                StoreUsage({{"alice", 1}});
              }),
              HasSubstr("usage store " + configuration_.usage.socket + ": "));
  const std::string log = Log();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

INSTANTIATE_TEST_SUITE_P(Answers, BrokenServer,
                         testing::Values("\r\n", "HTTP/1.1 400 Bad Request\r\n\r\n", "+OK\r\n",
                                         "$-5\r\n", "*2147483647\r\n", "*4294967296\r\n",
                                         "*2\r\n*2147483647\r\n", "*-1\r\n", "*1\r\n:5\r\n",
                                         "*1\r\n+5\r\n", "*1\r\n*1\r\n$1\r\n5\r\n",
                                         "*2\r\n$1\r\n5\r\n$1\r\n5\r\n", "*0\r\n", "$1\r\n5\r\n",
                                         "*1\r\n$99999999999999999999\r\n5\r\n",
                                         "*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n",
                                         "-LOADING Redis is loading the dataset in memory\r\n"));

TEST_F(UsageStore, SaysWhatTheServerSaid) {
  const ScriptedRedis server(configuration_.usage.socket,
                             Answering("-LOADING Redis is loading the dataset in memory\r\n"));
  EXPECT_THAT(Failure([this] { client_.ListUsage({"alice"}); }),
              HasSubstr(": LOADING Redis is loading the dataset in memory"));
}

TEST_F(UsageStore, TakesNoIntegerForAList) {
  const ScriptedRedis server(configuration_.usage.socket, Answering(":1\r\n"));
  EXPECT_THAT(Failure([this] { client_.ListUsage({"alice"}); }), HasSubstr("not what was asked"));
  EXPECT_TRUE(client_.DeleteUsage({"alice"}));
}

TEST_F(UsageStore, GivesUpOnAServerThatTricklesItsAnswer) {
  std::atomic<bool> is_over = false;
  const ScriptedRedis server(configuration_.usage.socket, [&is_over](int peer) {
    Write(peer, "*1\r\n$1000000\r\n");
    while (!is_over && Write(peer, "1")) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });

  std::string failure;
  EXPECT_THAT(Seconds([&] { failure = Failure([this] { client_.ListUsage({"alice"}); }); }),
              AllOf(Ge(0.9), Lt(2.0)));
  EXPECT_THAT(failure, HasSubstr("no complete answer within 1 s"));
  is_over = true;
}

TEST_F(UsageStore, GivesUpOnAnAnswerWithoutEnd) {
  std::atomic<bool> is_over = false;
  configuration_.usage.command_timeout = 20;
  platform::UseConfiguration(configuration_);
  const ScriptedRedis server(configuration_.usage.socket, [&is_over](int peer) {
    Write(peer, "*1\r\n$500000000\r\n");
    const std::string much(1 << 20, '1');
    while (!is_over && Write(peer, much)) {
    }
  });

  EXPECT_THAT(Failure([this] { client_.ListUsage({"alice"}); }), HasSubstr("too long"));
  is_over = true;
}

TEST_F(UsageStore, SetsNoMemoryAsideForAnAnswerThatIsOnlyAnnounced) {
  const ScriptedRedis server(configuration_.usage.socket, Answering("*2147483647\r\n"));
  EXPECT_THAT(Failure([this] { client_.ListUsage({"alice"}); }), HasSubstr("too long"));
}

TEST_F(UsageStore, KeepsThePasswordToItself) {
  configuration_.usage.password = "open sesame";
  platform::UseConfiguration(configuration_);
  const ScriptedRedis server(
      configuration_.usage.socket,
      Answering("-ERR unknown command 'AUTH', with args beginning with: 'open sesame'\r\n"));

  EXPECT_EQ(
      Failure([this] { client_.ListUsage({"alice"}); }),
      "usage store " + configuration_.usage.socket + ": the server refuses the password (ERR)");
  EXPECT_THAT(Log(), Not(HasSubstr("sesame")));
}

// The test's process dies with SIGPIPE otherwise.
TEST_F(UsageStore, OutlivesAServerThatLeavesInTheMiddleOfARequest) {
  std::signal(SIGPIPE, SIG_DFL);
  const ScriptedRedis server(configuration_.usage.socket, ReadSomething);
  const Names names(100000, "alice");
  std::vector<platform::CountedUsage> figures(100000, {"alice", 1});

  for (int i = 0; i < 20; ++i) {
    EXPECT_THAT(Failure([&] { client_.ListUsage(names); }),
                HasSubstr("usage store " + configuration_.usage.socket + ": "));
    EXPECT_FALSE(client_.DeleteUsage(names));
    Failure([&] { StoreUsage(figures); });
  }
}

// A real server on the socket.
class RunningUsageStore : public UsageStore {
 protected:
  RunningUsageStore() { Use(server_); }

  void Use(const RedisServer& server) {
    configuration_.usage.socket = server.socket();
    platform::UseConfiguration(configuration_);
  }

  RedisServer server_{{.password = "", .tcp = true}};
};

TEST_F(RunningUsageStore, IsCheckedByAnEntryThatGoesByItself) {
  configuration_.usage.key_template = "mail/{name}/bytes";
  platform::UseConfiguration(configuration_);
  platform::CheckUsageStore();
  EXPECT_EQ(server_.Command({"KEYS", "*"}), "mail//check/bytes\n");
  EXPECT_NE(server_.Command({"TTL", "mail//check/bytes"}), "-1");
}

TEST_F(RunningUsageStore, TellsNoTimeThatIsNone) {
  test::RedisRelay relay(server_.socket(), [](std::string& piece) {
    if (test::HasCommand(piece, "TIME")) {
      piece = "PING\r\n";
    }
  });
  configuration_.usage.socket = relay.socket();
  platform::UseConfiguration(configuration_);
  EXPECT_EQ(platform::ClockOffsetOfUsageStore(), std::nullopt);
}

TEST_F(RunningUsageStore, TellsItsTime) {
  const auto offset = platform::ClockOffsetOfUsageStore();
  ASSERT_TRUE(offset.has_value());
  EXPECT_LT(std::abs(*offset), 2);
}

TEST_F(RunningUsageStore, ListsTheNamesThatHaveAnEntry) {
  server_.Command({"MSET", "alice/quota/storage", "1073741824", "Bob/quota/storage", "0",
                   "eve/quota/storage", "7"});

  EXPECT_THAT(client_.ListUsage({"alice", "bob", "Bob", "carol", "alice"}),
              UnorderedElementsAre(Pair("alice", "1073741824"), Pair("Bob", "0")));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RunningUsageStore, IsReachedOverTcp) {
  server_.Command({"SET", "alice/quota/storage", "12"});
  configuration_.usage.socket = "";
  for (const char* host : {"127.0.0.1", "localhost"}) {
    configuration_.usage.host = host;
    configuration_.usage.port = server_.port();
    platform::UseConfiguration(configuration_);
    EXPECT_THAT(client_.ListUsage({"alice"}), ElementsAre(Pair("alice", "12")));
  }
}

TEST_F(RunningUsageStore, TakesWhatIsNoNumberOfBytesAsAbsentAndLogsIt) {
  const std::string binary("\0\r\n\xff", 4);
  server_.Command({"MSET", "good/quota/storage", "18446744073709551615", "empty/quota/storage", "",
                   "word/quota/storage", "-1", "large/quota/storage", "18446744073709551616",
                   "binary/quota/storage", binary});

  EXPECT_THAT(client_.ListUsage({"good", "empty", "word", "large", "binary"}),
              UnorderedElementsAre(Pair("good", "18446744073709551615")));
  for (const char* name : {"empty", "word", "large", "binary"}) {
    EXPECT_THAT(Log(), HasSubstr("the entry of [" + std::string(name) + "] is no number of bytes"));
  }
}

TEST_F(RunningUsageStore, LogsNoMoreThanTheBeginningOfWhatIsNoNumber) {
  server_.Command({"SET", "alice/quota/storage", std::string(1 << 20, 'x')});

  EXPECT_THAT(client_.ListUsage({"alice"}), IsEmpty());
  EXPECT_THAT(Log(), HasSubstr("[" + std::string(40, 'x') + "...], taken as absent\n"));
}

TEST_F(RunningUsageStore, TakesNamesAsTheyAre) {
  const Names names = {"two words",
                       "it's \"quoted\"",
                       "100%s%n",
                       "line\nbreak",
                       "{name}",
                       "J\xc3\xb6rg",
                       "\xff\xfe",
                       "*",
                       "back\\slash",
                       "a/b",
                       std::string("nul\0byte", 8)};
  std::vector<platform::CountedUsage> figures;
  for (const std::string& name : names) {
    figures.push_back({name, figures.size()});
  }
  StoreUsage(figures);

  std::unordered_map<std::string, std::string> expected;
  for (const platform::CountedUsage& figure : figures) {
    const std::string bytes = std::to_string(figure.bytes);
    expected[figure.name] = bytes;
    EXPECT_EQ(server_.Command({"GET", figure.name + "/quota/storage"}), bytes);
  }
  EXPECT_EQ(client_.ListUsage(names), expected);
  EXPECT_TRUE(client_.DeleteUsage(names));
  EXPECT_EQ(server_.Command({"DBSIZE"}), "0");
}

TEST_F(RunningUsageStore, FollowsTheKeyTemplate) {
  const std::unordered_map<std::string, std::string> keys = {
      {"{name}", "alice"}, {"mail:{name}", "mail:alice"}, {"{x}{name}/%s\n", "{x}alice/%s\n"}};
  for (const auto& [key_template, key] : keys) {
    configuration_.usage.key_template = key_template;
    platform::UseConfiguration(configuration_);
    StoreUsage({{"alice", key.size()}});
    EXPECT_EQ(server_.Command({"GET", key}), std::to_string(key.size()));
    EXPECT_THAT(client_.ListUsage({"alice"}),
                ElementsAre(Pair("alice", std::to_string(key.size()))));
    EXPECT_TRUE(client_.DeleteUsage({"alice"}));
    EXPECT_EQ(server_.Command({"EXISTS", key}), "0");
  }
}

TEST_F(RunningUsageStore, UsesTheConfiguredDatabase) {
  configuration_.usage.database = 3;
  platform::UseConfiguration(configuration_);
  StoreUsage({{"alice", 5}});

  EXPECT_EQ(server_.Command({"GET", "alice/quota/storage"}, 3), "5");
  EXPECT_EQ(server_.Command({"DBSIZE"}, 0), "0");
  EXPECT_THAT(client_.ListUsage({"alice"}), ElementsAre(Pair("alice", "5")));
}

TEST_F(RunningUsageStore, FailsForADatabaseThatTheServerLacks) {
  configuration_.usage.database = 99;
  platform::UseConfiguration(configuration_);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(Failure([this] { client_.ListUsage({"alice"}); }),
              "usage store " + server_.socket() + ": ERR DB index is out of range");
    EXPECT_FALSE(client_.DeleteUsage({"alice"}));
  }
}

TEST_F(RunningUsageStore, TakesAnEntryOfAnotherTypeAsAbsentAndLogsIt) {
  server_.Command({"HSET", "alice/quota/storage", "field", "1"});
  server_.Command({"RPUSH", "bob/quota/storage", "1"});
  server_.Command({"SET", "carol/quota/storage", "1"});

  EXPECT_THAT(client_.ListUsage({"nobody", "alice", "carol", "bob"}),
              ElementsAre(Pair("carol", "1")));
  const std::string log = Log();
  EXPECT_THAT(log, AllOf(HasSubstr("usage store " + server_.socket() +
                                   ": the entry of [alice] is a hash, not text: taken as absent\n"),
                         HasSubstr("[bob] is a list")));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2);
}

TEST_F(RunningUsageStore, ReplacesAndDeletesAnEntryOfAnotherType) {
  server_.Command({"HSET", "alice/quota/storage", "field", "1"});
  StoreUsage({{"alice", 2}});
  EXPECT_EQ(server_.Command({"GET", "alice/quota/storage"}), "2");

  server_.Command({"HSET", "bob/quota/storage", "field", "1"});
  EXPECT_TRUE(client_.DeleteUsage({"bob", "nobody", "bob"}));
  EXPECT_EQ(server_.Command({"KEYS", "*"}), "alice/quota/storage\n");
}

// Whether the count stores its figure, 7, when the entry changes from `before` to `behind`.
class ChangingEntry : public RunningUsageStore {
 protected:
  using Command = std::vector<std::string>;

  bool IsReplaced(const Command& before, const Command& behind) {
    UsageEntry entry;
    entry.name = "alice";
    entry.bytes = 7;
    server_.Command({"FLUSHALL"});
    server_.Command(before);
    UsageWriter writer;
    writer.Read({&entry});
    server_.Command(behind);
    writer.StoreUnlessChanged({&entry});
    const bool is_there =
        server_.Command({"TYPE", kKey}) == "string" && server_.Command({"GET", kKey}) == "7";
    EXPECT_EQ(entry.is_stored, is_there);
    return entry.is_stored;
  }

  static inline const std::string kKey = "alice/quota/storage";
  const Command nothing_ = {"PING"};
  const Command deleted_ = {"DEL", kKey};
  const Command list_ = {"RPUSH", kKey, "5"};
  const Command hash_ = {"HSET", kKey, "field", "5"};
  static Command Text(const std::string& value) { return {"SET", kKey, value}; }
};

TEST_F(ChangingEntry, IsReplacedUnlessItChanges) {
  EXPECT_TRUE(IsReplaced(nothing_, nothing_));
  EXPECT_TRUE(IsReplaced(Text("5"), nothing_));
  EXPECT_FALSE(IsReplaced(nothing_, Text("5")));
  EXPECT_FALSE(IsReplaced(Text("5"), Text("6")));
  EXPECT_FALSE(IsReplaced(Text("5"), deleted_));
}

TEST_F(ChangingEntry, IsComparedByItsText) {
  const std::string binary("\0\r\n\xff", 4);
  EXPECT_TRUE(IsReplaced(Text("5"), Text("5")));
  EXPECT_FALSE(IsReplaced(Text("5"), Text("05")));
  EXPECT_TRUE(IsReplaced(Text(binary), nothing_));
  EXPECT_FALSE(IsReplaced(Text(binary), Text(binary + binary)));
  EXPECT_TRUE(IsReplaced(Text(""), nothing_));
  EXPECT_FALSE(IsReplaced(Text(""), deleted_));
  EXPECT_FALSE(IsReplaced(nothing_, Text("")));
  EXPECT_TRUE(IsReplaced(Text(std::string(1 << 20, 'x')), nothing_));
}

TEST_F(ChangingEntry, OfAnotherTypeIsLikeNone) {
  EXPECT_TRUE(IsReplaced(list_, nothing_));
  EXPECT_TRUE(IsReplaced(nothing_, list_));
  EXPECT_TRUE(IsReplaced(list_, deleted_));
  EXPECT_FALSE(IsReplaced(hash_, Text("5")));

  server_.Command({"FLUSHALL"});
  UsageEntry entry;
  entry.name = "alice";
  UsageWriter writer;
  server_.Command(Text("5"));
  writer.Read({&entry});
  server_.Command(deleted_);
  server_.Command(list_);
  writer.StoreUnlessChanged({&entry});
  EXPECT_FALSE(entry.is_stored);
  EXPECT_EQ(server_.Command({"TYPE", kKey}), "list");
}

TEST_F(ChangingEntry, IsReadAnew) {
  UsageEntry entry;
  entry.name = "alice";
  UsageWriter writer;
  server_.Command(Text("5"));
  writer.Read({&entry});
  EXPECT_EQ(entry.before, "5");
  server_.Command(deleted_);
  writer.Read({&entry});
  EXPECT_EQ(entry.before, std::nullopt);
}

TEST_F(ChangingEntry, DoesNotKeepOthersFromBeingReplaced) {
  std::vector<UsageEntry> entries(2500);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    entries[i].name = "user" + std::to_string(i);
    entries[i].bytes = i;
  }
  UsageWriter writer;
  writer.Read(Pointers(entries));
  for (const char* name : {"user0", "user1000", "user2499"}) {
    server_.Command({"SET", std::string(name) + "/quota/storage", "newer"});
  }
  writer.StoreUnlessChanged(Pointers(entries));
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const bool is_newer = i == 0 || i == 1000 || i == 2499;
    ASSERT_EQ(entries[i].is_stored, !is_newer) << i;
    ASSERT_EQ(server_.Command({"GET", entries[i].name + "/quota/storage"}),
              is_newer ? "newer" : std::to_string(i));
  }
}

// Redis closes a session that says nothing for long, when "timeout" says so.
TEST_F(RunningUsageStore, GoesOnAfterASessionThatEndedDuringACount) {
  UsageEntry entry;
  entry.name = "alice";
  UsageWriter writer;
  writer.Read({&entry});
  server_.Command({"CLIENT", "KILL", "TYPE", "normal", "SKIPME", "yes"});
  writer.StoreUnlessChanged({&entry});
  EXPECT_TRUE(entry.is_stored);
}

TEST_F(RunningUsageStore, StoresTheLargestFigure) {
  StoreUsage({{"alice", std::numeric_limits<unsigned long long>::max()}, {"bob", 0}});
  EXPECT_EQ(server_.Command({"MGET", "alice/quota/storage", "bob/quota/storage"}),
            "18446744073709551615\n0\n");
}

TEST_F(RunningUsageStore, ServesAHundredThousandNames) {
  Names names;
  std::vector<platform::CountedUsage> figures;
  for (unsigned i = 0; i < 100001; ++i) {
    names.push_back("user" + std::to_string(i));
    if (i % 3 != 0) {
      figures.push_back({names.back(), i});
    }
  }
  StoreUsage(figures);
  EXPECT_EQ(server_.Command({"DBSIZE"}), std::to_string(figures.size()));

  const auto usage = client_.ListUsage(names);
  ASSERT_EQ(usage.size(), figures.size());
  for (const platform::CountedUsage& figure : figures) {
    ASSERT_EQ(usage.at(figure.name), std::to_string(figure.bytes));
  }

  EXPECT_TRUE(client_.DeleteUsage(names));
  EXPECT_EQ(server_.Command({"DBSIZE"}), "0");
}

TEST_F(RunningUsageStore, NeedsItsPassword) {
  const RedisServer guarded({.password = "open sesame", .tcp = false});
  guarded.Command({"SET", "alice/quota/storage", "5"});
  Use(guarded);
  EXPECT_THAT(Failure([this] { client_.ListUsage({"alice"}); }),
              HasSubstr("usage store " + guarded.socket() + ": NOAUTH"));

  configuration_.usage.password = "wrong";
  Use(guarded);
  EXPECT_EQ(Failure([this] { client_.ListUsage({"alice"}); }),
            "usage store " + guarded.socket() + ": the server refuses the password (WRONGPASS)");
  EXPECT_FALSE(client_.DeleteUsage({"alice"}));

  configuration_.usage.password = "open sesame";
  Use(guarded);
  EXPECT_THAT(client_.ListUsage({"alice"}), ElementsAre(Pair("alice", "5")));
  EXPECT_THAT(Log(), Not(HasSubstr("sesame")));
}

TEST_F(RunningUsageStore, SaysThatTheServerIsFull) {
  client_.ListUsage({"alice"});  // keeps its connection
  server_.Command({"CONFIG", "SET", "maxclients", "1"});

  QuotaRedisClient another;
  EXPECT_THAT(Failure([&] { another.ListUsage({"alice"}); }),
              HasSubstr("max number of clients reached"));
}

TEST_F(RunningUsageStore, SaysThatTheServerTakesNoMore) {
  server_.Command({"CONFIG", "SET", "maxmemory", "1"});
  EXPECT_THAT(Failure([] {
                StoreUsage({{"alice", 1}});
              }),
              HasSubstr("usage store " + server_.socket() + ": OOM"));
}

TEST_F(RunningUsageStore, KeepsOneConnectionForSeveralCalls) {
  for (int i = 0; i < 5; ++i) {
    client_.ListUsage({"alice"});
    client_.DeleteUsage({"alice"});
  }
  EXPECT_THAT(server_.Command({"INFO", "clients"}), HasSubstr("connected_clients:2\r\n"));
}

TEST_F(RunningUsageStore, IsNotReachedByProgramsThatAreStarted) {
  auto client = std::make_unique<QuotaRedisClient>();
  client->ListUsage({"alice"});
  test::BackgroundProgram program({"sleep", "60"}, folder_ / "sleep.log");
  const std::string exe = "/proc/" + std::to_string(program.pid()) + "/exe";
  while (std::filesystem::read_symlink(exe) == std::filesystem::read_symlink("/proc/self/exe")) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  client.reset();
  EXPECT_THAT(server_.Command({"INFO", "clients"}), HasSubstr("connected_clients:1\r\n"));
  EXPECT_TRUE(program.IsRunning());
}

TEST_F(RunningUsageStore, ForgetsTheAnswersOfARequestThatWasGivenUp) {
  RedisConnection connection;
  const auto echo = [](std::size_t i) {
    RedisCommand command("ECHO");
    command.Add({"number ", std::to_string(i)});
    return command;
  };
  connection.Open();
  EXPECT_THROW(
      connection.Exchange(3, echo, [](std::size_t, const redisReply&) { throw std::bad_alloc(); }),
      std::bad_alloc);

  connection.Open();
  std::vector<std::string> answers;
  connection.Exchange(2, echo, [&answers](std::size_t, const redisReply& reply) {
    answers.emplace_back(reply.str, reply.len);
  });
  EXPECT_THAT(answers, ElementsAre("number 0", "number 1"));
}

TEST_F(RunningUsageStore, GoesOnWithAServerThatWasRestarted) {
  std::signal(SIGPIPE, SIG_DFL);
  server_.Command({"SET", "alice/quota/storage", "5"});
  EXPECT_THAT(client_.ListUsage({"alice"}), ElementsAre(Pair("alice", "5")));

  server_.Stop();
  EXPECT_THAT(Failure([this] { client_.ListUsage({"alice"}); }),
              HasSubstr("usage store " + server_.socket() + ": cannot connect: "));
  EXPECT_FALSE(client_.DeleteUsage({"alice"}));

  server_.Start();
  EXPECT_THAT(client_.ListUsage({"alice"}), IsEmpty());
  server_.Kill();
  server_.Start();
  EXPECT_TRUE(client_.DeleteUsage({"alice"}));
}

TEST_F(RunningUsageStore, OutlivesAServerThatIsKilledWhileItAnswers) {
  std::signal(SIGPIPE, SIG_DFL);
  Names names;
  for (int i = 0; i < 100000; ++i) {
    names.push_back("user" + std::to_string(i));
  }
  bool has_failed = false;
  std::thread killer([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    server_.Kill();
  });
  while (!has_failed) {
    has_failed = !client_.DeleteUsage(names);
  }
  killer.join();
  EXPECT_THAT(Log(), HasSubstr("usage store " + server_.socket() + ": "));
}

TEST_F(RunningUsageStore, WaitsNoLongerThanItsTimeOuts) {
  server_.Freeze();
  std::string failure;
  EXPECT_THAT(Seconds([&] { failure = Failure([this] { client_.ListUsage({"alice"}); }); }),
              AllOf(Ge(0.9), Lt(2.5)));
  EXPECT_EQ(failure, "usage store " + server_.socket() + ": no complete answer within 1 s");
  EXPECT_THAT(Seconds([this] { EXPECT_FALSE(client_.DeleteUsage(Names(100000, "alice"))); }),
              AllOf(Ge(0.9), Lt(2.5)));
  EXPECT_THAT(Seconds([] { Failure([] {
                             StoreUsage({{"alice", 1}});
                           }); }),
              AllOf(Ge(0.9), Lt(2.5)));

  server_.Thaw();
  EXPECT_THAT(client_.ListUsage({"alice"}), testing::SizeIs(testing::Le(1U)));
}

}  // namespace
}  // namespace quillon::backend
