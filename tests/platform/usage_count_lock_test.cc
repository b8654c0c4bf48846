#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/no_owner_usage.h>
#include <quillon/platform/usage_count.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "support/as_nobody.h"
#include "support/own_process.h"
#include "utils/file_descriptor.h"

namespace quillon::platform {
namespace {

using testing::StartsWith;
using velamailserver::LogException;
using velamailserver::velasdk::FileLockGuard;
namespace fs = std::filesystem;

const std::string kFolder = fs::path(kUsageCountLockFile).parent_path();

FileDescriptor Lock(const std::string& path) {
  FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT, 0600));
  EXPECT_EQ(::flock(file.Get(), LOCK_EX | LOCK_NB), 0) << path;
  return file;
}

TEST(UsageCountRuns, WhileTheLockIsHeld) {
  EXPECT_FALSE(IsUsageCountRunning());
  {
    const FileLockGuard lock(kUsageCountLockFile);
    EXPECT_TRUE(IsUsageCountRunning());
    test::InOwnProcess([] { EXPECT_TRUE(IsUsageCountRunning()); });
  }
  EXPECT_FALSE(IsUsageCountRunning());
}

TEST(UsageCountRuns, ForWhoeverAsks) {
  const FileLockGuard lock(kUsageCountLockFile);
  const test::AsNobody nobody;
  EXPECT_TRUE(IsUsageCountRunning());
}

TEST(UsageCountRuns, NotForLocksOfAnotherKind) {
  { const FileLockGuard makes_the_file(kUsageCountLockFile); }
  const FileDescriptor file(::open(kUsageCountLockFile, O_RDWR | O_CLOEXEC));
  struct flock whole_file {};
  whole_file.l_type = F_WRLCK;
  whole_file.l_whence = SEEK_SET;
  ASSERT_EQ(::fcntl(file.Get(), F_OFD_SETLK, &whole_file), 0);
  EXPECT_FALSE(IsUsageCountRunning());
}

TEST(UsageCountRuns, UndisturbedByTheQuestion) {
  std::atomic<bool> ends = false;
  std::thread asking([&ends] {
    while (!ends) {
      IsUsageCountRunning();
    }
  });
  for (int i = 0; i < 2000; ++i) {
    EXPECT_NO_THROW(FileLockGuard{kUsageCountLockFile});
  }
  ends = true;
  asking.join();
}

// In worlds of mounts of their own: the path is the same in all of them.
class UsageCountRunsOnAnotherDisk : public testing::Test {
 protected:
  // Runs `body` where the folder above the lock's is empty.
  template <typename Body>
  static void InEmptyWorld(const Body& body) {
    test::InOwnProcess([&body] {
      if (::unshare(CLONE_NEWNS) != 0) {
        test::SkipInOwnProcess("mount namespaces");
      }
      ASSERT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
      MountEmptyDisk(fs::canonical(fs::path(kFolder).parent_path()));
      body();
    });
  }

  static void MountEmptyDisk(const std::string& path) {
    ASSERT_EQ(::mount("tmpfs", path.c_str(), "tmpfs", 0, "mode=755"), 0)
        << path << ": " << std::strerror(errno);
  }
};

TEST_F(UsageCountRunsOnAnotherDisk, NotWithoutAFile) {
  InEmptyWorld([] {
    EXPECT_FALSE(IsUsageCountRunning());
    EXPECT_FALSE(fs::exists(kFolder));
    fs::create_directory(kFolder);
    EXPECT_FALSE(IsUsageCountRunning());
    EXPECT_TRUE(fs::is_empty(kFolder));
  });
}

TEST_F(UsageCountRunsOnAnotherDisk, NotWithoutAFolder) {
  InEmptyWorld([] {
    ASSERT_TRUE(FileDescriptor(::creat(kFolder.c_str(), 0600)).IsOpen());
    EXPECT_FALSE(IsUsageCountRunning());
  });
}

TEST_F(UsageCountRunsOnAnotherDisk, NotForALockThatALinkLeadsTo) {
  InEmptyWorld([] {
    fs::create_directory(kFolder);
    const FileDescriptor other = Lock(kFolder + "/other");
    fs::create_symlink(kFolder + "/other", kUsageCountLockFile);
    EXPECT_FALSE(IsUsageCountRunning());
  });
}

TEST_F(UsageCountRunsOnAnotherDisk, NotForAFileOfTheSameNumber) {
  InEmptyWorld([] {
    fs::create_directory(kFolder);
    fs::create_directory("/var/lock/other");
    MountEmptyDisk(kFolder);
    MountEmptyDisk("/var/lock/other");
    const FileDescriptor other = Lock("/var/lock/other/file");
    auto lock = std::make_unique<FileLockGuard>(kUsageCountLockFile);
    EXPECT_TRUE(IsUsageCountRunning());
    lock.reset();

    struct stat status {};
    struct stat other_status {};
    ASSERT_EQ(::stat(kUsageCountLockFile, &status), 0);
    ASSERT_EQ(::fstat(other.Get(), &other_status), 0);
    ASSERT_EQ(status.st_ino, other_status.st_ino);
    EXPECT_FALSE(IsUsageCountRunning());
  });
}

// Its files answer another device than the one that the kernel lists their locks under.
TEST_F(UsageCountRunsOnAnotherDisk, OfSeveralLayers) {
  InEmptyWorld([] {
    for (const char* name : {"/lower", "/upper", "/quillon_server"}) {
      fs::create_directory(std::string("/var/lock") + name);
    }
    MountEmptyDisk("/var/lock/lower");
    MountEmptyDisk("/var/lock/upper");
    fs::create_directory("/var/lock/upper/files");
    fs::create_directory("/var/lock/upper/work");
    if (::mount("overlay", kFolder.c_str(), "overlay", 0,
                "lowerdir=/var/lock/lower,upperdir=/var/lock/upper/files,"
                "workdir=/var/lock/upper/work") != 0) {
      test::SkipInOwnProcess("overlay file system");
    }
    auto lock = std::make_unique<FileLockGuard>(kUsageCountLockFile);
    EXPECT_TRUE(IsUsageCountRunning());
    lock.reset();
    EXPECT_FALSE(IsUsageCountRunning());
  });
}

TEST_F(UsageCountRunsOnAnotherDisk, WhichNobodyCanTellWithoutTheKernelsLists) {
  const auto failure = [] {
    try {
      IsUsageCountRunning();
    } catch (const LogException& error) {
      EXPECT_EQ(error.code(), velamailserver::ERR_OPEN_FILE);
      return std::string(error.what());
    }
    ADD_FAILURE() << "answered";
    return std::string();
  };
  InEmptyWorld([&failure] {
    { const FileLockGuard makes_the_file(kUsageCountLockFile); }
    // A file that fails when it is read.
    ASSERT_EQ(::mount("/proc/self/mem", "/proc/locks", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(failure(), "/proc/locks: cannot be read");
    MountEmptyDisk("/proc");
    EXPECT_THAT(failure(), StartsWith("/proc/self/mountinfo: has no mount that "));
  });
}

}  // namespace
}  // namespace quillon::platform
