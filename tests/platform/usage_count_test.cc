#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/usage_count.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>
#include <velamailserver/velasdk/vela_user.h>

#include "support/redis_relay.h"
#include "support/redis_server.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using velamailserver::LogException;
using velamailserver::velasdk::FileLockGuard;
using velamailserver::velasdk::FileLockHeld;
using velamailserver::velasdk::VelaUser;
namespace fs = std::filesystem;

auto Counted(const std::string& name, unsigned long long bytes) {
  return AllOf(Field("name", &CountedUsage::name, name),
               Field("bytes", &CountedUsage::bytes, bytes));
}

class CountOfUsage : public testing::Test {
 protected:
  CountOfUsage() {
    configuration_.accounts.passwd_file = folder_.Write("passwd",
                                                        "alice:x:2001:2000::/:\n"
                                                        "Bob:x:2002:2000::/:\n"
                                                        "..:x:2003:2000::/:\n");
    configuration_.maildir = {folder_ / "spool", "local"};
    configuration_.usage.socket = server_.socket();
    configuration_.usage.command_timeout = 20;  // what a test does in between counts, too
    configuration_.log = {"file", folder_ / "mail.log"};
    UseConfiguration(configuration_);
    for (const char* name : {"alice", "Bob"}) {
      for (const char* directory : {"cur", "new", "tmp"}) {
        fs::create_directories(folder_.path() / "spool/local" / name / directory);
      }
    }
  }

  static std::vector<VelaUser> Users(const std::vector<std::string>& names) {
    return {names.begin(), names.end()};
  }

  // Nobody comes in between.
  static std::vector<CountedUsage> Count(const std::vector<std::string>& names) {
    UsageCount count = CountUsage(Users(names));
    EXPECT_THAT(count.kept, IsEmpty());
    return std::move(count.counted);
  }

  // Has something done, from now on, when a count has counted and is about to store the figures;
  // it gets told how many times this has been so.
  void BeforeStoring(const std::function<void(int)>& act) {
    Act([](int) {}, act);
  }

  // The same for when it is about to read the entries.
  void Act(const std::function<void(int)>& before_reading,
           const std::function<void(int)>& before_storing) {
    relay_.emplace(configuration_.usage.socket, [=, this](const std::string& piece) {
      if (test::HasCommand(piece, "MGET")) {
        before_reading(++reads_);
      }
      if (test::HasCommand(piece, "EVAL")) {
        before_storing(++stores_);
      }
    });
    configuration_.usage.socket = relay_->socket();
    UseConfiguration(configuration_);
  }

  std::string Stored(const std::string& name) const {
    return server_.Command({"GET", name + "/quota/storage"});
  }

  void Set(const std::string& name, const std::string& value) const {
    server_.Command({"SET", name + "/quota/storage", value});
  }

  std::string Log() const {
    return fs::exists(folder_ / "mail.log") ? folder_.Read("mail.log") : "";
  }

  test::TemporaryFolder folder_;
  test::RedisServer server_{{.password = "", .tcp = true}};
  Configuration configuration_;
  std::atomic<int> reads_ = 0;
  std::atomic<int> stores_ = 0;
  std::optional<test::RedisRelay> relay_;
};

TEST_F(CountOfUsage, GoesIntoTheUsageStoreUnderTheRealName) {
  folder_.Write("spool/local/alice/cur/1.host:2,S", "12345");
  folder_.Write("spool/local/alice/new/2.host,S=1000", "1");
  folder_.Write("spool/local/Bob/.Sent/cur/1.host", "123");

  EXPECT_THAT(Count({"bob", "ALICE"}), ElementsAre(Counted("Bob", 3), Counted("alice", 1005)));
  EXPECT_EQ(server_.Command({"MGET", "alice/quota/storage", "Bob/quota/storage"}), "1005\n3\n");
  EXPECT_EQ(server_.Command({"DBSIZE"}), "2");
}

TEST_F(CountOfUsage, IsZeroWithoutAMaildir) {
  server_.Command({"SET", "alice/quota/storage", "77"});
  fs::remove_all(folder_ / "spool/local/alice/tmp");
  folder_.Write("spool/cur/1.host", "mail");  // ".." leads here

  EXPECT_THAT(Count({"alice", ".."}), ElementsAre(Counted("alice", 0), Counted("..", 0)));
  EXPECT_EQ(server_.Command({"MGET", "alice/quota/storage", "../quota/storage"}), "0\n0\n");
}

TEST_F(CountOfUsage, OfNobodyNeedsNoServer) {
  server_.Stop();
  EXPECT_THAT(Count({}), IsEmpty());
}

TEST_F(CountOfUsage, DoesNothingWhileAnotherOneRuns) {
  {
    const FileLockGuard other(kUsageCountLockFile);
    EXPECT_THROW(CountUsage(Users({"alice"})), FileLockHeld);
    EXPECT_THROW(CountUsage({}), FileLockHeld);
  }
  EXPECT_EQ(server_.Command({"DBSIZE"}), "0");

  CountUsage(Users({"alice"}));
  EXPECT_EQ(server_.Command({"DBSIZE"}), "1");
}

TEST_F(CountOfUsage, StoresNothingWhenADirectoryCannotBeCounted) {
  for (const auto& [root, problem] : {std::pair("passwd", "Not a directory"),
                                      std::pair("unmounted", "No such file or directory")}) {
    configuration_.maildir.root = folder_ / root;
    UseConfiguration(configuration_);
    try {
      CountUsage(Users({"alice"}));
      FAIL() << root;
    } catch (const LogException& error) {
      EXPECT_EQ(error.code(), velamailserver::ERR_LSTAT_FILE);
      EXPECT_EQ(error.what(), folder_ / root + std::string(" (maildir.root): ") + problem);
    }
  }
  EXPECT_EQ(server_.Command({"DBSIZE"}), "0");
  const FileLockGuard free_again(kUsageCountLockFile);
}

TEST_F(CountOfUsage, FailsWithTheUsageStore) {
  server_.Stop();
  EXPECT_THROW(CountUsage(Users({"alice"})), LogException);
  EXPECT_THAT(folder_.Read("mail.log"), HasSubstr("usage store " + server_.socket() + ": "));
  const FileLockGuard free_again(kUsageCountLockFile);
}

TEST_F(CountOfUsage, CountsOnceAndStoresInOneGoWhenNothingChanges) {
  Set("alice", "77");
  folder_.Write("spool/local/alice/cur/1.host", "12345");
  BeforeStoring([](int) {});

  EXPECT_THAT(Count({"alice", "bob"}), ElementsAre(Counted("alice", 5), Counted("Bob", 0)));
  EXPECT_EQ(Stored("alice"), "5");
  EXPECT_EQ(reads_, 1);
  EXPECT_EQ(stores_, 1);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(CountOfUsage, CountsAUserAgainWhoseEntryChangesMeanwhile) {
  Set("alice", "5");
  folder_.Write("spool/local/alice/cur/1.host", "12345");
  folder_.Write("spool/local/Bob/cur/1.host", "1");
  BeforeStoring([this](int attempt) {
    if (attempt == 1) {  // mail for both, of which the mail server stores one figure
      folder_.Write("spool/local/alice/new/2.host", "678");
      folder_.Write("spool/local/Bob/new/2.host", "2");
      Set("alice", "99");
    } else {
      EXPECT_EQ(Stored("alice"), "99");
    }
  });

  EXPECT_THAT(Count({"alice", "bob"}), ElementsAre(Counted("alice", 8), Counted("Bob", 1)));
  EXPECT_EQ(Stored("alice"), "8");
  EXPECT_EQ(Stored("Bob"), "1");
  EXPECT_EQ(stores_, 2);
  EXPECT_THAT(Log(), IsEmpty());
}

// What the mail server wrote before the entry is read must be in what is counted.
TEST_F(CountOfUsage, BeginsToCountAfterItHasReadTheEntries) {
  Act(
      [this](int) {
        folder_.Write("spool/local/alice/new/1.host", "12345");
        Set("alice", "5");
      },
      [](int) {});
  EXPECT_THAT(Count({"alice"}), ElementsAre(Counted("alice", 5)));
  EXPECT_EQ(stores_, 1);
}

TEST_F(CountOfUsage, CountsAUserAgainWhoseEntryComesOrGoesMeanwhile) {
  Set("alice", "5");
  BeforeStoring([this](int attempt) {
    if (attempt == 1) {
      server_.Command({"DEL", "alice/quota/storage"});
      Set("Bob", "3");
      folder_.Write("spool/local/alice/new/1.host", "1");
      folder_.Write("spool/local/Bob/new/1.host", "123");
    }
  });

  EXPECT_THAT(Count({"alice", "bob"}), ElementsAre(Counted("alice", 1), Counted("Bob", 3)));
  EXPECT_EQ(Stored("alice"), "1");
  EXPECT_EQ(Stored("Bob"), "3");
  EXPECT_EQ(stores_, 2);
}

TEST_F(CountOfUsage, StoresTheFigureOfAnEntryThatChangesOnlyFourTimes) {
  BeforeStoring([this](int attempt) {
    if (attempt <= 4) {
      Set("alice", std::to_string(attempt));
    }
  });
  EXPECT_THAT(Count({"alice"}), ElementsAre(Counted("alice", 0)));
  EXPECT_EQ(stores_, 5);
}

TEST_F(CountOfUsage, KeepsAndReportsAnEntryThatChangesAllTheTime) {
  folder_.Write("spool/local/Bob/new/1.host", "123");
  BeforeStoring([this](int attempt) { Set("alice", std::to_string(1000 + attempt)); });

  const UsageCount count = CountUsage(Users({"alice", "bob", ".."}));
  EXPECT_THAT(count.counted, ElementsAre(Counted("Bob", 3), Counted("..", 0)));
  EXPECT_THAT(count.kept, ElementsAre("alice"));
  EXPECT_EQ(Stored("alice"), "1005");
  EXPECT_EQ(Stored("Bob"), "3");
  EXPECT_EQ(stores_, 5);
  const std::string log = Log();
  EXPECT_THAT(log, HasSubstr(" info: platform/linux/maildir/usage_count:41 usage of [alice] kept: "
                             "its entry changed during each of 5 counts\n"));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

TEST_F(CountOfUsage, ReplacesAnEntryOfAnotherType) {
  server_.Command({"HSET", "alice/quota/storage", "field", "1"});
  BeforeStoring([this](int attempt) {
    if (attempt == 1) {
      server_.Command({"RPUSH", "Bob/quota/storage", "1"});
    }
  });
  EXPECT_THAT(Count({"alice", "bob"}), SizeIs(2));
  EXPECT_EQ(Stored("alice"), "0");
  EXPECT_EQ(Stored("Bob"), "0");
  EXPECT_EQ(stores_, 1);
}

TEST_F(CountOfUsage, CountsAgainWhatBecomesAnEntryOfAnotherType) {
  Set("alice", "5");
  server_.Command({"HSET", "Bob/quota/storage", "field", "1"});
  BeforeStoring([this](int attempt) {
    if (attempt == 1) {
      server_.Command({"DEL", "alice/quota/storage", "Bob/quota/storage"});
      server_.Command({"HSET", "alice/quota/storage", "field", "1"});
      Set("Bob", "3");
    }
  });
  EXPECT_THAT(Count({"alice", "bob"}), SizeIs(2));
  EXPECT_EQ(Stored("alice"), "0");
  EXPECT_EQ(Stored("Bob"), "0");
  EXPECT_EQ(stores_, 2);
}

TEST_F(CountOfUsage, DoesAllThatThroughAShardingProxy) {
  const test::RedisProxy proxy({server_.port()});
  configuration_.usage.socket = proxy.socket();
  server_.Command({"HSET", "Bob/quota/storage", "field", "1"});
  folder_.Write("spool/local/alice/new/1.host", "1234");
  BeforeStoring([this](int attempt) {
    Set("..", std::to_string(attempt));
    if (attempt == 1) {
      Set("alice", "4");
    }
  });
  const UsageCount count = CountUsage(Users({"alice", "bob", ".."}));
  EXPECT_THAT(count.counted, ElementsAre(Counted("alice", 4), Counted("Bob", 0)));
  EXPECT_THAT(count.kept, ElementsAre(".."));
  EXPECT_EQ(Stored("alice"), "4");
  EXPECT_EQ(Stored("Bob"), "0");
  EXPECT_EQ(Stored(".."), "5");
}

TEST_F(CountOfUsage, CountsAUserWhoIsThereTwice) {
  folder_.Write("spool/local/alice/cur/1.host", "12345");
  EXPECT_THAT(Count({"alice", "alice"}), ElementsAre(Counted("alice", 5), Counted("alice", 5)));
}

// More than are counted at once.
class CountOfMany : public CountOfUsage {
 protected:
  CountOfMany() {
    std::string accounts;
    for (unsigned i = 0; i < 250; ++i) {
      names_.push_back("user" + std::to_string(i));
      accounts += names_.back() + ":x:" + std::to_string(3000 + i) + ":2000::/:\n";
    }
    folder_.Write("passwd", accounts);
  }

  std::vector<std::string> names_;
};

TEST_F(CountOfMany, GoesAHundredAtATime) {
  fs::create_directories(folder_ / "spool/local/user150/cur");
  fs::create_directories(folder_ / "spool/local/user150/new");
  fs::create_directories(folder_ / "spool/local/user150/tmp");
  std::atomic<int> changes = 0;
  BeforeStoring([&](int) {
    if (reads_ == 2 && changes++ == 0) {
      folder_.Write("spool/local/user150/new/1.host", "1234");
      Set("user150", "4");
      EXPECT_EQ(server_.Command({"DBSIZE"}), "101");
    }
  });

  const std::vector<CountedUsage> counted = Count(names_);
  ASSERT_THAT(counted, SizeIs(names_.size()));
  for (std::size_t i = 0; i < counted.size(); ++i) {
    ASSERT_THAT(counted[i], Counted(names_[i], i == 150 ? 4 : 0));
  }
  EXPECT_EQ(reads_, 4);
  EXPECT_EQ(changes, 1);
  EXPECT_EQ(server_.Command({"DBSIZE"}), "250");
}

TEST_F(CountOfMany, HasStoredTheFirstWhenALaterOneCannotBeCounted) {
  BeforeStoring([this](int) {
    std::error_code is_done;
    fs::rename(folder_ / "spool", folder_ / "unmounted", is_done);
  });
  EXPECT_THROW(CountUsage(Users(names_)), LogException);
  EXPECT_EQ(server_.Command({"DBSIZE"}), "100");
}

TEST_F(CountOfMany, FailsWithAServerThatStopsAnsweringInTheMiddle) {
  configuration_.usage.command_timeout = 1;
  BeforeStoring([this](int) {
    if (reads_ == 2) {
      server_.Freeze();
    }
  });
  try {
    CountUsage(Users(names_));
    FAIL();
  } catch (const LogException& error) {
    EXPECT_EQ(error.code(), velamailserver::ERR_BAD_DB_SESSION);
    EXPECT_EQ(error.what(), "usage store " + relay_->socket() + ": no complete answer within 1 s");
  }
  server_.Thaw();
  const std::string log = Log();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
  const FileLockGuard free_again(kUsageCountLockFile);
}

TEST_F(CountOfMany, FailsWithAServerThatDiesInTheMiddle) {
  BeforeStoring([this](int attempt) {
    if (attempt == 1) {
      server_.Kill();
    }
  });
  try {
    CountUsage(Users(names_));
    FAIL();
  } catch (const LogException& error) {
    EXPECT_EQ(error.code(), velamailserver::ERR_BAD_DB_SESSION);
    EXPECT_THAT(error.what(), HasSubstr("usage store " + relay_->socket() + ": "));
  }
  const std::string log = Log();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

}  // namespace
}  // namespace quillon::platform
