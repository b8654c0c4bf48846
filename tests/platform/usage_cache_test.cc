#include "maildir/usage_cache.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/no_owner_usage.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/run_as_root.h>

#include "support/own_process.h"
#include "support/pipe.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using velamailserver::LogException;
using velamailserver::velasdk::RunAsRoot;
namespace fs = std::filesystem;

constexpr std::uint32_t kUid = 3000000003;
constexpr char kRecount[] = "refresh no owner usage";

class UsageCacheTest : public testing::Test {
 protected:
  UsageCacheTest() {
    configuration_.accounts.passwd_file = folder_.Write("passwd", "alice:x:3000000001:100::/:\n");
    configuration_.maildir.root = folder_ / "spool";
    configuration_.log = {"file", folder_ / "mail.log"};
    fs::create_directories(folder_ / "spool/local");
    UseFile(path_);
  }

  void UseFile(const std::string& path) {
    configuration_.maildir.usage_cache = path;
    UseConfiguration(configuration_);
  }

  static CacheKey Key(const std::string& name) { return {"/spool/local/" + name, 17, kUid}; }

  template <typename Work>
  static LogException FailureOf(const Work& work) {
    try {
      work();
    } catch (const LogException& error) {
      return error;
    }
    ADD_FAILURE() << "it succeeded";
    return {velamailserver::ERR_INTERNAL, "", 3, "", 0};
  }

  std::string Log() const {
    return fs::exists(folder_ / "mail.log") ? folder_.Read("mail.log") : "";
  }
  std::ptrdiff_t LogLines() const {
    const std::string log = Log();
    return std::count(log.begin(), log.end(), '\n');
  }

  // As every fork does.
  static void Close() {
    test::InOwnProcess([] {});
  }

  void RemoveAsTold() const {
    for (const char* end : {"", "-wal", "-shm"}) {
      fs::remove(path_ + end);
    }
  }

  // Runs `body`, which does not come to its end, in a process that is killed where it stands.
  template <typename Body>
  static void Kill(const Body& body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      body([] { ::kill(::getpid(), SIGKILL); });
      ::_exit(0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
  }

  // What another program sees in the cache.
  std::string Ask(const std::string& sql) const {
    soci::session session(soci::sqlite3, "dbname=" + path_ + " timeout=10");
    std::string answer;
    session << sql, soci::into(answer);
    return answer;
  }
  std::string Rows() const { return Ask("SELECT CAST(count(*) AS TEXT) FROM directory"); }

  test::TemporaryFolder folder_;
  std::string path_ = folder_ / "cache.db";
  Configuration configuration_;
};

TEST_F(UsageCacheTest, FindsWhatWasStored) {
  StoreCachedUsage(Key("gone"), 1234);
  StoreCachedUsage(Key("other"), std::numeric_limits<unsigned long long>::max());
  StoreCachedUsage(Key("empty"), 0);
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(1234U));
  EXPECT_THAT(FindCachedUsage(Key("other")),
              Optional(std::numeric_limits<unsigned long long>::max()));
  EXPECT_THAT(FindCachedUsage(Key("empty")), Optional(0U));
  EXPECT_EQ(FindCachedUsage(Key("none")), std::nullopt);

  StoreCachedUsage(Key("gone"), 5);
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(5U));
  DropCachedUsage(Key("gone").path);
  EXPECT_EQ(FindCachedUsage(Key("gone")), std::nullopt);
  EXPECT_THAT(FindCachedUsage(Key("empty")), Optional(0U));
}

TEST_F(UsageCacheTest, FindsNothingForAnotherDirectoryAtThePath) {
  const std::uint64_t inode = std::numeric_limits<std::uint64_t>::max();
  const std::uint32_t uid = std::numeric_limits<std::uint32_t>::max();
  StoreCachedUsage({"/a", inode, uid}, 7);
  EXPECT_THAT(FindCachedUsage({"/a", inode, uid}), Optional(7U));
  EXPECT_EQ(FindCachedUsage({"/a", inode - 1, uid}), std::nullopt);
  EXPECT_EQ(FindCachedUsage({"/a", inode, uid - 1}), std::nullopt);
  EXPECT_EQ(FindCachedUsage({"/b", inode, uid}), std::nullopt);

  StoreCachedUsage({"/a", 1, 2}, 8);
  EXPECT_EQ(Rows(), "1");
}

TEST_F(UsageCacheTest, TakesAnyPath) {
  for (const char* name : {"quo'te\"; x", "\xff\xfe", "a b\tc", "A", "a"}) {
    StoreCachedUsage(Key(name), 1);
    EXPECT_THAT(FindCachedUsage(Key(name)), Optional(1U)) << name;
  }
  EXPECT_EQ(Rows(), "5");
}

TEST_F(UsageCacheTest, IsNotMadeToLookIntoIt) {
  EXPECT_EQ(FindCachedUsage(Key("gone")), std::nullopt);
  DropCachedUsage(Key("gone").path);
  EXPECT_EQ(NoOwnerUsageGeneration(), 0U);
  EXPECT_THAT(ListOldUsage(), IsEmpty());
  EXPECT_FALSE(fs::exists(path_));

  folder_.Write("cache.db", "");  // another program is about to fill it
  EXPECT_EQ(FindCachedUsage(Key("gone")), std::nullopt);
  EXPECT_EQ(NoOwnerUsageGeneration(), 0U);
  EXPECT_EQ(fs::file_size(path_), 0U);
  EXPECT_EQ(Log(), "");
}

TEST_F(UsageCacheTest, IsAFileOfRootsInWalMode) {
  const mode_t mask = ::umask(0);
  StoreCachedUsage(Key("gone"), 1);
  ::umask(mask);
  struct stat status {};
  for (const char* end : {"", "-wal", "-shm"}) {
    ASSERT_EQ(::stat((path_ + end).c_str(), &status), 0) << end;
    EXPECT_EQ(status.st_mode & 07777U, 0600U) << end;
  }
  EXPECT_EQ(Ask("PRAGMA journal_mode"), "wal");
  EXPECT_EQ(Ask("SELECT CAST(user_version AS TEXT) FROM pragma_user_version"), "1");
}

TEST_F(UsageCacheTest, NeedsItsFolderToWrite) {
  UseFile(folder_ / "missing/cache.db");
  EXPECT_EQ(FindCachedUsage(Key("gone")), std::nullopt);
  EXPECT_EQ(NoOwnerUsageGeneration(), 0U);
  EXPECT_EQ(Log(), "");
  const auto failure = FailureOf([] { StoreCachedUsage(Key("gone"), 1); });
  EXPECT_EQ(failure.code(), velamailserver::ERR_DB_CREATE);
  EXPECT_THAT(failure.what(),
              AllOf(HasSubstr("usage cache [" + (folder_ / "missing/cache.db") + "]"),
                    HasSubstr("mkdir -p " + (folder_ / "missing") + ")"),
                    HasSubstr("maildir.usage_cache")));

  fs::create_directory(folder_ / "missing");
  StoreCachedUsage(Key("gone"), 1);
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(1U));
}

TEST_F(UsageCacheTest, NeverFollowsALink) {
  StoreCachedUsage(Key("gone"), 1);
  for (const char* target : {"cache.db", "missing.db"}) {
    fs::remove(folder_ / "link.db");
    fs::create_symlink(folder_ / target, folder_ / "link.db");
    UseFile(folder_ / "link.db");
    EXPECT_EQ(FindCachedUsage(Key("gone")), std::nullopt);
    for (const LogException& failure : {FailureOf([] { StoreCachedUsage(Key("gone"), 2); }),
                                        FailureOf([] { DropCachedUsage(Key("gone").path); }),
                                        FailureOf([] { NoOwnerUsageGeneration(); })}) {
      EXPECT_THAT(failure.what(), AllOf(HasSubstr("link.db"), HasSubstr("a link")));
    }
  }
  EXPECT_FALSE(fs::exists(folder_ / "missing.db"));
  UseFile(path_);
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(1U));
}

// A file that is no database, and one whose pages were written over.
TEST_F(UsageCacheTest, IsLeftAloneWhenItIsBroken) {
  StoreCachedUsage(Key("gone"), 1);
  Close();
  std::string torn = folder_.Read("cache.db");
  ASSERT_GT(torn.size(), 4096U);
  std::fill(torn.begin() + 200, torn.end(), '\x55');
  std::string newer = folder_.Read("cache.db");
  newer[63] = 2;  // the last byte of its version

  for (const auto& [content, problem, remedy] :
       {std::tuple(std::string(10000, 'x'), "not a database", "remove it (rm "),
        std::tuple(torn, "malformed", "remove it (rm "),
        std::tuple(newer, "has version 2", "or remove the file")}) {
    RemoveAsTold();
    folder_.Write("cache.db", content);
    fs::remove(folder_ / "mail.log");
    for (int i = 0; i < 1000; ++i) {
      ASSERT_EQ(FindCachedUsage(Key("gone")), std::nullopt) << problem;
    }
    EXPECT_EQ(LogLines(), 1) << Log();
    EXPECT_THAT(Log(), AllOf(HasSubstr(path_), HasSubstr(problem), HasSubstr(remedy)));

    for (const LogException& failure :
         {FailureOf([] { StoreCachedUsage(Key("gone"), 2); }), FailureOf(BeginRecount),
          FailureOf([] { DropCachedUsage(Key("gone").path); }),
          FailureOf([] { NoOwnerUsageGeneration(); })}) {
      EXPECT_THAT(failure.what(),
                  AllOf(HasSubstr("usage cache [" + path_), HasSubstr(problem), HasSubstr(remedy)));
    }
    EXPECT_EQ(folder_.Read("cache.db"), content) << problem;

    RemoveAsTold();
    StoreCachedUsage(Key("gone"), 3);
    EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(3U)) << problem;
  }
}

// A writer that is killed leaves its changes in the log, and the file as it was.
TEST_F(UsageCacheTest, IsReadAgainWhenOnlyItsLogHasChanged) {
  StoreCachedUsage(Key("gone"), 1);
  Close();
  const std::string shared_memory = path_ + "-shm";
  fs::create_symlink("elsewhere", shared_memory);  // which is not followed
  EXPECT_EQ(FindCachedUsage(Key("gone")), std::nullopt);
  fs::remove(shared_memory);
  const std::string before = folder_.Read("cache.db");
  test::InOwnProcess([] { StoreCachedUsage(Key("gone"), 2); });
  ASSERT_EQ(folder_.Read("cache.db"), before);
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(2U));
}

TEST_F(UsageCacheTest, FollowsTheFileAndTheConfiguration) {
  StoreCachedUsage(Key("gone"), 1);
  Close();
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(1U));
  fs::rename(path_, folder_ / "moved.db");
  EXPECT_EQ(FindCachedUsage(Key("gone")), std::nullopt);
  EXPECT_FALSE(fs::exists(path_));

  StoreCachedUsage(Key("gone"), 2);
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(2U));
  UseFile(folder_ / "moved.db");
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(1U));

  UseFile(path_);
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(2U));
  fs::rename(folder_ / "moved.db", path_);
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(1U));

  fs::remove(path_);
  EXPECT_EQ(FindCachedUsage(Key("gone")), std::nullopt);
  StoreCachedUsage(Key("gone"), 3);
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(3U));

  // By its new name at once: the log that it writes to has that name, too.
  fs::rename(path_, folder_ / "renamed.db");
  UseFile(folder_ / "renamed.db");
  StoreCachedUsage(Key("gone"), 4);
  EXPECT_TRUE(fs::exists(folder_ / "renamed.db-wal"));
}

TEST_F(UsageCacheTest, SurvivesAWriterThatIsKilled) {
  for (int round = 0; round < 10; ++round) {
    test::Pipe begun;
    const pid_t writer = ::fork();
    if (writer == 0) {
      begun.Write("x");
      for (unsigned long long i = 0;; ++i) {
        StoreCachedUsage(Key("gone" + std::to_string(i % 500)), i);
      }
    }
    char x = 0;
    ASSERT_EQ(::read(begun.read_end(), &x, 1), 1);
    ::usleep(static_cast<useconds_t>(3000 * round));
    ::kill(writer, SIGKILL);
    ::waitpid(writer, nullptr, 0);

    StoreCachedUsage(Key("mine"), 7);
    EXPECT_THAT(FindCachedUsage(Key("mine")), Optional(7U));
    EXPECT_EQ(Ask("PRAGMA integrity_check"), "ok");
  }
}

// What the writer had in its log is the removed file's, not the next one's.
TEST_F(UsageCacheTest, StartsAnewWhenOnlyTheFileItselfIsRemoved) {
  StoreCachedUsage(Key("mine"), 1);
  Kill([](const auto& kill) {
    StoreCachedUsage(Key("gone"), 1);
    kill();
  });
  ASSERT_GT(fs::file_size(path_ + "-wal"), 0U);
  fs::remove(path_);

  EXPECT_EQ(FindCachedUsage(Key("gone")), std::nullopt);
  StoreCachedUsage(Key("new"), 2);
  EXPECT_EQ(FindCachedUsage(Key("gone")), std::nullopt);
  EXPECT_THAT(FindCachedUsage(Key("new")), Optional(2U));
  EXPECT_EQ(Ask("PRAGMA integrity_check"), "ok");
}

TEST_F(UsageCacheTest, IsNotInheritedByAChild) {
  StoreCachedUsage(Key("gone"), 1);
  test::InOwnProcess([&] {
    for (const auto& fd : fs::directory_iterator("/proc/self/fd")) {
      std::error_code error;
      const std::string file = fs::read_symlink(fd.path(), error);
      EXPECT_FALSE(file.starts_with(path_)) << file;
    }
    EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(1U));
    StoreCachedUsage(Key("gone"), 2);
  });
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(2U));
}

// The child goes on to write while its parent, and whoever comes after, open and close the cache.
TEST_F(UsageCacheTest, ServesSeveralProcesses) {
  StoreCachedUsage(Key("mine"), 1);
  constexpr int kWriters = 3;
  constexpr int kRows = 300;
  for (int writer = 0; writer < kWriters; ++writer) {
    if (::fork() == 0) {
      for (int row = 0; row < kRows; ++row) {
        StoreCachedUsage(Key(std::to_string(writer) + "-" + std::to_string(row)), 9);
      }
      ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    EXPECT_THAT(FindCachedUsage(Key("mine")), Optional(1U));
  }
  for (int ended = 0; ended < kWriters;) {
    EXPECT_THAT(FindCachedUsage(Key("mine")), Optional(1U));
    test::InOwnProcess([] { StoreCachedUsage(Key("other"), 1); });
    int status = 0;
    if (::waitpid(-1, &status, WNOHANG) > 0) {
      EXPECT_EQ(status, 0);
      ++ended;
    }
  }
  EXPECT_EQ(Rows(), std::to_string(kWriters * kRows + 2));
  EXPECT_EQ(Ask("PRAGMA integrity_check"), "ok");
}

TEST_F(UsageCacheTest, LetsItsLogBeEmptied) {
  StoreCachedUsage(Key("gone"), 1);
  EXPECT_THAT(FindCachedUsage(Key("gone")), Optional(1U));
  EXPECT_EQ(Ask("PRAGMA wal_checkpoint(TRUNCATE)"), "0");
}

// What happens in the recount that a section of root's is.
class Recount : public UsageCacheTest {
 protected:
  CacheKey MakeOwnerless(const std::string& name) {
    const std::string path = folder_ / "spool/local/" + name;
    for (const char* folder : {"/cur", "/new", "/tmp"}) {
      fs::create_directories(path + folder);
    }
    EXPECT_EQ(::chown(path.c_str(), kUid, kUid), 0);
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return {path, status.st_ino, kUid};
  }

  CacheKey one_ = MakeOwnerless("one");
  CacheKey two_ = MakeOwnerless("two");
};

TEST_F(Recount, CountsOnceItIsBroughtToItsEnd) {
  EXPECT_EQ(NoOwnerUsageGeneration(), 0U);
  RunAsRoot(kRecount, [&] {
    StoreCachedUsage(one_, 1);
    EXPECT_EQ(NoOwnerUsageGeneration(), 0U);
    StoreCachedUsage(two_, 2);
    EXPECT_EQ(NoOwnerUsageGeneration(), 0U);
  });
  EXPECT_EQ(NoOwnerUsageGeneration(), 1U);
  RunAsRoot(kRecount, [&] { StoreCachedUsage(one_, 1); });
  EXPECT_EQ(NoOwnerUsageGeneration(), 2U);
}

TEST_F(Recount, OfNothingCounts) {
  RunAsRoot(kRecount, [] {});
  EXPECT_EQ(NoOwnerUsageGeneration(), 1U);
}

TEST_F(Recount, IsNoOtherSectionOfRoots) {
  RunAsRoot("set no owner", [&] { StoreCachedUsage(one_, 1); });
  StoreCachedUsage(two_, 2);
  EXPECT_EQ(NoOwnerUsageGeneration(), 0U);
}

TEST_F(Recount, DoesNotCountWhenItFails) {
  EXPECT_THROW(RunAsRoot(kRecount,
                         [&] {
                           StoreCachedUsage(one_, 1);
                           throw std::runtime_error("cannot be read");
                         }),
               std::runtime_error);
  EXPECT_EQ(NoOwnerUsageGeneration(), 0U);
  EXPECT_THAT(FindCachedUsage(one_), Optional(1U));
}

TEST_F(Recount, DoesNotCountWhenItIsKilledHalfway) {
  RunAsRoot(kRecount, [&] { StoreCachedUsage(two_, 2); });
  Kill([&](const auto& kill) {
    RunAsRoot(kRecount, [&] {
      StoreCachedUsage(one_, 3);
      kill();
    });
  });
  EXPECT_EQ(NoOwnerUsageGeneration(), 1U);
  EXPECT_THAT(FindCachedUsage(one_), Optional(3U));
  EXPECT_THAT(FindCachedUsage(two_), Optional(2U));

  test::InOwnProcess([&] { RunAsRoot(kRecount, [&] { StoreCachedUsage(two_, 4); }); });
  EXPECT_EQ(NoOwnerUsageGeneration(), 2U);
  EXPECT_THAT(FindCachedUsage(two_), Optional(4U));
}

TEST_F(Recount, DropsWhatIsNoLongerAnOwnerlessMaildir) {
  const CacheKey removed = MakeOwnerless("removed");
  const CacheKey taken = MakeOwnerless("taken");
  const CacheKey emptied = MakeOwnerless("no-maildir");
  RunAsRoot(kRecount, [&] {
    for (const CacheKey& key : {one_, two_, removed, taken, emptied}) {
      StoreCachedUsage(key, 1);
    }
  });
  fs::remove_all(removed.path);
  ASSERT_EQ(::chown(taken.path.c_str(), 3000000001, 0), 0);
  folder_.Write("spool/local/no-maildir/x", "");
  fs::remove(emptied.path + "/cur");
  EXPECT_EQ(Rows(), "5");

  // One that was killed has seen the removed one, too.
  Kill([&](const auto& kill) {
    RunAsRoot(kRecount, [&] {
      StoreCachedUsage(removed, 2);
      kill();
    });
  });
  RunAsRoot(kRecount, [&] { StoreCachedUsage(one_, 2); });
  EXPECT_EQ(Ask("SELECT group_concat(path) FROM directory"), one_.path + "," + two_.path);
  EXPECT_THAT(FindCachedUsage(one_), Optional(2U));
  EXPECT_THAT(FindCachedUsage(two_), Optional(1U));
}

TEST_F(Recount, OfTwoProcessesAtOnceCountsTwice) {
  test::Pipe begun;
  test::Pipe go_on;
  const pid_t other = ::fork();
  if (other == 0) {
    RunAsRoot(kRecount, [&] {
      StoreCachedUsage(two_, 2);
      begun.Write("x");
      go_on.ReadAll();
    });
    ::_exit(0);
  }
  char x = 0;
  ASSERT_EQ(::read(begun.read_end(), &x, 1), 1);
  RunAsRoot(kRecount, [&] { StoreCachedUsage(one_, 1); });
  EXPECT_EQ(NoOwnerUsageGeneration(), 1U);
  go_on.CloseWriteEnd();
  int status = -1;
  ::waitpid(other, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(NoOwnerUsageGeneration(), 2U);
  EXPECT_THAT(FindCachedUsage(one_), Optional(1U));
  EXPECT_THAT(FindCachedUsage(two_), Optional(2U));
}

TEST_F(Recount, IsNotBegunWhenTheCacheCannotBeWritten) {
  UseFile(folder_ / "missing/cache.db");
  bool is_begun = false;
  const auto failure = FailureOf([&] { RunAsRoot(kRecount, [&] { is_begun = true; }); });
  EXPECT_THAT(failure.what(), HasSubstr("mkdir -p"));
  EXPECT_FALSE(is_begun);
}

}  // namespace
}  // namespace quillon::platform
