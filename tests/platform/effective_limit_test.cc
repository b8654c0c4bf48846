#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <soci/postgresql/soci-postgresql.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/account/effective_limit.h>
#include <velamailserver/account/mailbox_quota.h>
#include <velamailserver/log_exception.h>

#include "support/as_nobody.h"
#include "support/own_process.h"
#include "support/quota_world.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using velamailserver::LogException;
using velamailserver::account::GetResultUserQuotaLimit;
using velamailserver::account::MailboxQuota;
using velamailserver::velasdk::VelaGroup;
using velamailserver::velasdk::VelaUser;
namespace fs = std::filesystem;

constexpr unsigned long long kLargest = 18446744073709551615ULL;

// A host with users and groups in files of its own: alice has the primary group "users" and is in
// "staff" and "sales", bob has a primary group alone, and carol one that is no group's.
class EffectiveLimitTest : public testing::Test {
 protected:
  EffectiveLimitTest() {
    configuration_.accounts.passwd_file = folder_.Write(
        "passwd", "alice:x:70001:100:::\nBob:x:70002:100:::\ncarol:x:70003:4000000000:::\n");
    configuration_.accounts.group_file =
        folder_.Write("group",
                      "users:x:100:\nstaff:x:50:alice\nsales:x:3000000000:dave,ALICE\n"
                      "others:x:60:dave\n");
    configuration_.log = {"file", folder_ / "log"};
  }

  void UseStore(const std::string& url) {
    configuration_.quota.store = url;
    configuration_.quota.busy_timeout = 1;
    UseConfiguration(configuration_);
  }

  static void SetUser(const std::string& name, unsigned long long bytes) {
    MailboxQuota().SetUserQuotaLimit({VelaUser(name)}, bytes);
  }
  static void SetGroup(const std::string& name, unsigned long long bytes) {
    MailboxQuota().SetGroupQuotaLimit({VelaGroup(name)}, bytes);
  }

  static LogException FailureOf(const std::string& name) {
    try {
      GetResultUserQuotaLimit(name);
    } catch (const LogException& error) {
      return error;
    }
    ADD_FAILURE() << "there was a limit";
    return {velamailserver::ERR_INTERNAL, "", 3, "", 0};
  }

  test::TemporaryFolder folder_;
  Configuration configuration_;
};

// The same on every kind of store.
class EffectiveLimit : public EffectiveLimitTest, public testing::WithParamInterface<const char*> {
 protected:
  EffectiveLimit() { UseStore(world_->Url()); }

  // The store as another program has it.
  std::unique_ptr<soci::session> Connect() const { return world_->Connect(); }

  std::unique_ptr<test::QuotaWorld> world_ = test::MakeQuotaWorld(GetParam(), folder_ / "quota.db");
};

INSTANTIATE_TEST_SUITE_P(, EffectiveLimit, testing::Values("Sqlite", "Postgresql"),
                         [](const auto& param) { return std::string(param.param); });

TEST_P(EffectiveLimit, IsZeroWhenNeitherTheUserNorAGroupHasOne) {
  SetUser("Bob", 10);
  SetGroup("others", 20);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 0U);
  EXPECT_EQ(GetResultUserQuotaLimit("carol"), 0U);
}

TEST_P(EffectiveLimit, IsTheUsersOwn) {
  SetUser("alice", 10);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
  EXPECT_EQ(GetResultUserQuotaLimit("ALICE"), 10U);
  EXPECT_EQ(GetResultUserQuotaLimit("bob"), 0U);
}

TEST_P(EffectiveLimit, IsThatOfAGroupThatListsTheUser) {
  SetGroup("staff", 20);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 20U);
  EXPECT_EQ(GetResultUserQuotaLimit("bob"), 0U);
}

TEST_P(EffectiveLimit, IsThatOfThePrimaryGroup) {
  SetGroup("users", 30);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 30U);
  EXPECT_EQ(GetResultUserQuotaLimit("bob"), 30U);
  EXPECT_EQ(GetResultUserQuotaLimit("carol"), 0U);
}

TEST_P(EffectiveLimit, IsThatOfAPrimaryGroupWithoutAnEntry) {
  folder_.Write("group", "ghost:x:4000000000:\n");
  SetGroup("ghost", 40);
  folder_.Write("group", "users:x:100:\n");
  EXPECT_EQ(GetResultUserQuotaLimit("carol"), 40U);
}

TEST_P(EffectiveLimit, IsTheUsersOwnEvenUnderALargerOneOfAGroup) {
  SetUser("alice", 10);
  SetGroup("staff", 20);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
}

TEST_P(EffectiveLimit, IsTheLargestOfSeveralGroups) {
  SetGroup("users", 9);
  SetGroup("staff", 1000);
  SetGroup("sales", 20);
  SetGroup("others", kLargest);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 1000U);
  SetGroup("sales", kLargest);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), kLargest);
  SetGroup("sales", 9223372036854775808ULL);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 9223372036854775808ULL);
}

TEST_P(EffectiveLimit, IsNoneForAUserWhoseOwnIsZero) {
  SetUser("alice", 0);
  SetGroup("staff", 20);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 0U);
}

TEST_P(EffectiveLimit, IsNoneForAMemberOfAGroupWhoseLimitIsZero) {
  SetGroup("users", 30);
  SetGroup("staff", 0);
  SetGroup("sales", kLargest);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 0U);
  SetUser("alice", 10);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
}

TEST_P(EffectiveLimit, FollowsEveryChangeAtOnce) {
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 0U);
  for (const unsigned long long bytes : {10ULL, 20ULL, 5ULL}) {
    SetGroup("staff", bytes);
    EXPECT_EQ(GetResultUserQuotaLimit("alice"), bytes);
    SetUser("alice", bytes + 1);
    EXPECT_EQ(GetResultUserQuotaLimit("alice"), bytes + 1);
    *Connect() << "UPDATE user_limit SET bytes = '77'";
    EXPECT_EQ(GetResultUserQuotaLimit("alice"), 77U);
    MailboxQuota().ClearUserQuotaLimit({VelaUser(std::string("alice"))});
    EXPECT_EQ(GetResultUserQuotaLimit("alice"), bytes);
  }
}

TEST_P(EffectiveLimit, FollowsTheConfiguration) {
  SetUser("alice", 10);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
  UseStore("sqlite://" + (folder_ / "other.db"));
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 0U);
}

TEST_P(EffectiveLimit, KnowsParentAndChildAfterAFork) {
  SetUser("alice", 10);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
  test::InOwnProcess([] {
    EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
    SetUser("alice", 20);
    EXPECT_EQ(GetResultUserQuotaLimit("alice"), 20U);
  });
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 20U);
}

TEST_P(EffectiveLimit, IsKnownToSeveralThreads) {
  SetUser("alice", 10);
  SetGroup("users", 30);
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([] {
      for (int n = 0; n < 200; ++n) {
        EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
        EXPECT_EQ(GetResultUserQuotaLimit("bob"), 30U);
      }
    });
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
}

TEST_P(EffectiveLimit, FailsForANameThatIsNoUsers) {
  const auto failure = FailureOf("no-such-user");
  EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_USER_GET);
  EXPECT_STREQ(failure.what(), "no such user: [no-such-user]");
}

TEST_P(EffectiveLimit, FailsForAValueThatIsNoNumber) {
  SetUser("bob", 1);
  SetUser("alice", 1);
  *Connect() << "DROP VIEW mail_user_quota";
  *Connect() << "DROP TABLE user_limit";
  *Connect() << "CREATE TABLE user_limit (id BIGINT PRIMARY KEY, name TEXT, bytes TEXT)";
  *Connect() << "INSERT INTO user_limit VALUES (70001, 'alice', '1x'), (70002, 'bob', '2')";
  const auto failure = FailureOf("alice");
  EXPECT_EQ(failure.code(), velamailserver::ERR_DB_SELECT);
  EXPECT_THAT(failure.what(), HasSubstr("of id 70001 in user_limit is no 64-bit number: [1x]"));
  EXPECT_EQ(GetResultUserQuotaLimit("bob"), 2U);
}

TEST_P(EffectiveLimit, FailsWhenATableIsGoneAndWorksWhenItIsBack) {
  SetGroup("staff", 10);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
  *Connect() << "ALTER TABLE group_limit RENAME TO away";
  const auto failure = FailureOf("alice");
  EXPECT_EQ(failure.code(), velamailserver::ERR_DB_SELECT);
  EXPECT_THAT(failure.what(), HasSubstr("cannot list group_limit: "));
  *Connect() << "ALTER TABLE away RENAME TO group_limit";
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
}

TEST_P(EffectiveLimit, FailsWhenTheGroupsCannotBeTold) {
  SetUser("alice", 10);
  SetGroup("users", 20);
  configuration_.accounts.group_file = folder_ / "gone";
  UseConfiguration(configuration_);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U) << "they do not matter";
  const auto failure = FailureOf("bob");
  EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_GROUP_LIST_MEMBER);
  EXPECT_EQ(failure.what(), "cannot list the groups of user [Bob]: " + (folder_ / "gone") +
                                ": No such file or directory");
}

// What only a file can do.
class SqliteEffectiveLimit : public EffectiveLimitTest {
 protected:
  SqliteEffectiveLimit() {
    UseStore("sqlite://" + path_);
    SetUser("alice", 10);
    EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
  }

  std::string path_ = folder_ / "quota.db";
};

TEST_F(SqliteEffectiveLimit, IsNotHeldUpByAWriter) {
  soci::session foreign(soci::sqlite3, "dbname=" + path_ + " timeout=5");
  foreign << "BEGIN IMMEDIATE";
  foreign << "UPDATE user_limit SET bytes = '15'";
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
  foreign << "COMMIT";
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 15U);
}

// It lets go of what it has read: a writer can end the log and begin it anew.
TEST_F(SqliteEffectiveLimit, HoldsNoWriterUp) {
  EXPECT_EQ(GetResultUserQuotaLimit("bob"), 0U);
  soci::session foreign(soci::sqlite3, "dbname=" + path_ + " timeout=1");
  int busy = -1;
  foreign << "PRAGMA wal_checkpoint(TRUNCATE)", soci::into(busy);
  EXPECT_EQ(busy, 0);
}

TEST_F(SqliteEffectiveLimit, FailsWhenTheStoreIsLocked) {
  test::InOwnProcess([&] {  // in the parent's fork the kept connection is closed
    soci::session foreign(soci::sqlite3, "dbname=" + path_ + " timeout=5");
    std::string mode;
    foreign << "PRAGMA locking_mode = EXCLUSIVE", soci::into(mode);
    foreign << "BEGIN EXCLUSIVE";
    foreign << "UPDATE user_limit SET bytes = '15'";
    const auto failure = FailureOf("alice");
    EXPECT_EQ(failure.code(), velamailserver::ERR_BAD_DB_SESSION);
    EXPECT_THAT(failure.what(), AllOf(HasSubstr(path_), HasSubstr("has locked it for more than")));
  });
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
}

TEST_F(SqliteEffectiveLimit, NoticesAStoreInThePlaceOfAnotherOneSoon) {
  fs::rename(path_, folder_ / "old.db");
  fs::remove(path_ + "-wal");
  fs::remove(path_ + "-shm");
  SetUser("alice", 99);
  std::this_thread::sleep_for(std::chrono::milliseconds(1050));
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 99U);
}

// What was open to root a moment ago is not to everybody.
TEST_F(SqliteEffectiveLimit, IsReadWithTheRightsOfTheCall) {
  fs::permissions(folder_.path(), fs::perms::all);
  fs::permissions(path_, fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
  {
    const test::AsNobody nobody;
    EXPECT_EQ(FailureOf("alice").code(), velamailserver::ERR_BAD_DB_SESSION);
  }
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
}

TEST_F(SqliteEffectiveLimit, FailsWhenTheStoreIsNoFile) {
  std::this_thread::sleep_for(std::chrono::milliseconds(1050));
  fs::remove(path_);
  fs::create_directory(path_);
  const auto failure = FailureOf("alice");
  EXPECT_EQ(failure.code(), velamailserver::ERR_BAD_DB_SESSION);
  EXPECT_THAT(failure.what(), HasSubstr(path_));
}

// The descriptors of this process that are of files in the folder.
int OpenFilesIn(const fs::path& folder) {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const fs::path target = fs::read_symlink(entry.path(), gone);
    count += target.string().find(folder.string()) == 0 ? 1 : 0;
  }
  return count;
}

TEST_F(SqliteEffectiveLimit, GivesNoConnectionToAChild) {
  EXPECT_GT(OpenFilesIn(folder_.path()), 0);
  test::InOwnProcess([&] { EXPECT_EQ(OpenFilesIn(folder_.path()), 0); });
}

// A child that inherited the connection would believe that it has its parent's locks.
TEST_F(SqliteEffectiveLimit, LosesNoWriteOfParentsAndChildren) {
  constexpr int kWrites = 30;
  std::vector<pid_t> children;
  for (int child = 0; child < 4; ++child) {
    EXPECT_EQ(GetResultUserQuotaLimit("bob"), 0U);
    const pid_t pid = ::fork();
    if (pid == 0) {
      try {
        soci::session session(soci::sqlite3, "dbname=" + path_ + " timeout=60");
        for (int write = 0; write < kWrites; ++write) {
          static_cast<void>(GetResultUserQuotaLimit("alice"));
          session << "UPDATE user_limit SET bytes = CAST(bytes AS INTEGER) + 1";
        }
      } catch (...) {
        ::_exit(1);
      }
      ::_exit(0);
    }
    children.push_back(pid);
  }
  for (const pid_t child : children) {
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U + 4 * kWrites);
}

// What only a server can do.
class PostgresqlEffectiveLimit : public EffectiveLimitTest {
 protected:
  PostgresqlEffectiveLimit() {
    UseStore(test::QuotaServer().Url(database_));
    SetUser("alice", 10);
    EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
  }

  std::string database_ = test::QuotaServer().CreateDatabase();
};

TEST_F(PostgresqlEffectiveLimit, IsKnownAgainAfterTheServerWasDown) {
  test::QuotaServer().Stop();
  const auto failure = FailureOf("alice");
  test::QuotaServer().Start();
  EXPECT_THAT(failure.code(),
              testing::AnyOf(velamailserver::ERR_BAD_DB_SESSION, velamailserver::ERR_DB_SELECT));
  EXPECT_THAT(failure.what(), HasSubstr("quota store [postgresql://"));
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
}

TEST_F(PostgresqlEffectiveLimit, IsKnownAfterTheServerClosedTheConnection) {
  soci::session(soci::postgresql, test::QuotaServer().Url(database_))
      << "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
         " WHERE datname = current_database() AND pid <> pg_backend_pid()";
  EXPECT_EQ(GetResultUserQuotaLimit("alice"), 10U);
}

}  // namespace
}  // namespace quillon::platform
