#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/usage_count.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>
#include <velamailserver/velasdk/vela_user.h>

#include "support/redis_server.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using velamailserver::LogException;
using velamailserver::velasdk::FileLockGuard;
using velamailserver::velasdk::FileLockHeld;
using velamailserver::velasdk::VelaUser;
namespace fs = std::filesystem;

auto Counted(const std::string& name, unsigned long long bytes) {
  return AllOf(Field("name", &CountedUsage::name, name),
               Field("bytes", &CountedUsage::bytes, bytes));
}

class UsageCount : public testing::Test {
 protected:
  UsageCount() {
    configuration_.accounts.passwd_file = folder_.Write("passwd",
                                                        "alice:x:2001:2000::/:\n"
                                                        "Bob:x:2002:2000::/:\n"
                                                        "..:x:2003:2000::/:\n");
    configuration_.maildir = {folder_ / "spool", "local"};
    configuration_.usage.socket = server_.socket();
    configuration_.usage.connect_timeout = 1;
    configuration_.usage.command_timeout = 1;
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

  test::TemporaryFolder folder_;
  test::RedisServer server_;
  Configuration configuration_;
};

TEST_F(UsageCount, GoesIntoTheUsageStoreUnderTheRealName) {
  folder_.Write("spool/local/alice/cur/1.host:2,S", "12345");
  folder_.Write("spool/local/alice/new/2.host,S=1000", "1");
  folder_.Write("spool/local/Bob/.Sent/cur/1.host", "123");

  EXPECT_THAT(CountUsage(Users({"bob", "ALICE"})),
              ElementsAre(Counted("Bob", 3), Counted("alice", 1005)));
  EXPECT_EQ(server_.Command({"MGET", "alice/quota/storage", "Bob/quota/storage"}), "1005\n3\n");
  EXPECT_EQ(server_.Command({"DBSIZE"}), "2");
}

TEST_F(UsageCount, IsZeroWithoutAMaildir) {
  server_.Command({"SET", "alice/quota/storage", "77"});
  fs::remove_all(folder_ / "spool/local/alice/tmp");
  folder_.Write("spool/cur/1.host", "mail");  // ".." leads here

  EXPECT_THAT(CountUsage(Users({"alice", ".."})),
              ElementsAre(Counted("alice", 0), Counted("..", 0)));
  EXPECT_EQ(server_.Command({"MGET", "alice/quota/storage", "../quota/storage"}), "0\n0\n");
}

TEST_F(UsageCount, OfNobodyNeedsNoServer) {
  server_.Stop();
  EXPECT_THAT(CountUsage({}), IsEmpty());
}

TEST_F(UsageCount, DoesNothingWhileAnotherOneRuns) {
  {
    const FileLockGuard other(kUsageCountLockFile);
    EXPECT_THROW(CountUsage(Users({"alice"})), FileLockHeld);
    EXPECT_THROW(CountUsage({}), FileLockHeld);
  }
  EXPECT_EQ(server_.Command({"DBSIZE"}), "0");

  CountUsage(Users({"alice"}));
  EXPECT_EQ(server_.Command({"DBSIZE"}), "1");
}

TEST_F(UsageCount, StoresNothingWhenADirectoryCannotBeCounted) {
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

TEST_F(UsageCount, FailsWithTheUsageStore) {
  server_.Stop();
  EXPECT_THROW(CountUsage(Users({"alice"})), LogException);
  EXPECT_THAT(folder_.Read("mail.log"), HasSubstr("usage store " + server_.socket() + ": "));
  const FileLockGuard free_again(kUsageCountLockFile);
}

}  // namespace
}  // namespace quillon::platform
