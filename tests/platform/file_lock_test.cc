#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "support/as_nobody.h"
#include "support/program.h"
#include "support/temporary_folder.h"

namespace velamailserver::velasdk {
namespace {

using testing::HasSubstr;
namespace test = quillon::test;

// The text of the failure, which must not be the one of a lock that is held.
std::string Failure(const std::string& path) {
  try {
    const FileLockGuard lock(path);
  } catch (const LogException& error) {
    EXPECT_EQ(error.code(), ERR_OPEN_FILE);
    return error.what();
  }
  ADD_FAILURE() << "locked";
  return "";
}

mode_t Mode(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

class FileLock : public testing::Test {
 protected:
  FileLock() {
    quillon::platform::Configuration configuration;
    configuration.log = {"file", folder_ / "mail.log"};
    quillon::platform::UseConfiguration(configuration);
    std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755));
  }

  test::TemporaryFolder folder_;
  std::string locks_ = folder_ / "locks";
  std::string path_ = locks_ + "/count.lock";
};

TEST_F(FileLock, MakesTheFolderAndTheFile) {
  {
    const FileLockGuard lock(path_);
    EXPECT_EQ(Mode(locks_) & 022U, 0U);
    EXPECT_EQ(Mode(path_), 0600U);
  }
  const FileLockGuard again(path_);
}

TEST_F(FileLock, HasOneHolderInAProcess) {
  {
    const FileLockGuard lock(path_);
    try {
      const FileLockGuard another(path_);
      FAIL() << "locked twice";
    } catch (const FileLockHeld& held) {
      EXPECT_THAT(held.what(), HasSubstr(path_));
    }
    const FileLockGuard other_file(locks_ + "/other.lock");
  }
  const FileLockGuard again(path_);
}

TEST_F(FileLock, HasOneHolderAmongProcesses) {
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t holder = ::fork();
  ASSERT_GE(holder, 0);
  if (holder == 0) {
    const FileLockGuard lock(path_);
    static_cast<void>(::write(ready[1], "x", 1));
    ::pause();
    ::_exit(0);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_THROW(FileLockGuard{path_}, FileLockHeld);

  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  const FileLockGuard lock(path_);
}

TEST_F(FileLock, IsNotKeptByAProgramThatWasStarted) {
  auto lock = std::make_unique<FileLockGuard>(path_);
  test::BackgroundProgram program({"sleep", "60"}, folder_ / "sleep.log");
  const std::string own = "/proc/self/exe";
  const std::string theirs = "/proc/" + std::to_string(program.pid()) + "/exe";
  while (std::filesystem::read_symlink(theirs) == std::filesystem::read_symlink(own)) {
    ::usleep(1000);
  }
  lock.reset();
  EXPECT_TRUE(program.IsRunning());
  const FileLockGuard again(path_);
}

TEST_F(FileLock, FailsForALinkInPlaceOfTheFile) {
  std::filesystem::create_directory(locks_);
  std::filesystem::create_symlink(folder_ / "target", path_);
  EXPECT_EQ(Failure(path_), path_ + ": is a link");
  EXPECT_FALSE(std::filesystem::exists(folder_ / "target"));
  EXPECT_THAT(folder_.Read("mail.log"),
              HasSubstr("(1005) failed to open file: " + path_ + ": is a link\n"));
}

TEST_F(FileLock, FailsForWhatIsNoFile) {
  std::filesystem::create_directory(locks_);
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(Failure(path_), path_ + ": is not a regular file");

  std::filesystem::create_directory(locks_ + "/directory");
  EXPECT_EQ(Failure(locks_ + "/directory"), locks_ + "/directory: Is a directory");
}

TEST_F(FileLock, FailsForAFolderThatIsALink) {
  std::filesystem::create_directory(folder_ / "elsewhere");
  std::filesystem::create_symlink(folder_ / "elsewhere", locks_);
  EXPECT_EQ(Failure(path_), locks_ + ": is a link");
  EXPECT_TRUE(std::filesystem::is_empty(folder_ / "elsewhere"));

  std::filesystem::remove(locks_);
  std::filesystem::create_symlink(folder_ / "nowhere", locks_);
  EXPECT_EQ(Failure(path_), locks_ + ": is a link");
}

TEST_F(FileLock, FailsForAFolderOfSomebodyElse) {
  std::filesystem::create_directory(locks_);
  ASSERT_EQ(::chown(locks_.c_str(), test::AsNobody::kUid, 0), 0);
  EXPECT_EQ(Failure(path_), locks_ + ": is not owned by root");
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(FileLock, FailsForAFolderThatOthersWriteTo) {
  std::filesystem::create_directory(locks_);
  for (const mode_t mode : {0775U, 0757U, 01777U}) {
    ASSERT_EQ(::chmod(locks_.c_str(), mode), 0);
    EXPECT_EQ(Failure(path_), locks_ + ": may be written to by others than root");
  }
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(FileLock, FailsForAFolderThatIsNoFolder) {
  folder_.Write("locks", "");
  EXPECT_EQ(Failure(path_), locks_ + ": Not a directory");
}

TEST_F(FileLock, MakesNoMoreThanOneFolder) {
  EXPECT_EQ(Failure(locks_ + "/deeper/count.lock"), locks_ + "/deeper: No such file or directory");
  EXPECT_FALSE(std::filesystem::exists(locks_));
}

TEST_F(FileLock, FailsForAPathWithoutFolderOrFile) {
  for (const std::string path : {"", "count.lock", "/count.lock", "/tmp/"}) {
    EXPECT_EQ(Failure(path), path + ": is not the path of a file in a folder");
  }
}

TEST_F(FileLock, IsRootsOwn) {
  {
    const test::AsNobody nobody;
    EXPECT_EQ(Failure(path_), locks_ + ": No such file or directory (root creates it)");
  }
  EXPECT_FALSE(std::filesystem::exists(locks_));

  const FileLockGuard lock(path_);
  const test::AsNobody nobody;
  EXPECT_EQ(Failure(path_), path_ + ": Permission denied");
}

}  // namespace
}  // namespace velamailserver::velasdk
