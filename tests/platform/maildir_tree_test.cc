#include "maildir/maildir_tree.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/log_exception.h>

#include "support/as_nobody.h"
#include "support/directory_entries.h"
#include "support/immutable.h"
#include "support/own_mounts.h"
#include "support/own_process.h"
#include "support/program.h"
#include "support/temporary_folder.h"

namespace {

// Called with the name of everything that is about to be removed, and whether as a folder. Not for
// what it removes itself.
std::function<void(const std::string&, bool)> on_removal;

}  // namespace

extern "C" __attribute__((visibility("default"))) int unlinkat(int folder, const char* name,
                                                               int flags) noexcept {
  using Unlinkat = int (*)(int, const char*, int);
  static const auto real = reinterpret_cast<Unlinkat>(::dlsym(RTLD_NEXT, "unlinkat"));
  static bool is_called = false;
  if (on_removal && !is_called) {
    is_called = true;
    on_removal(name, (flags & AT_REMOVEDIR) != 0);
    is_called = false;
  }
  return real(folder, name, flags);
}

namespace quillon::platform {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsSubsetOf;
using testing::UnorderedElementsAre;
using velamailserver::LogException;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// A process that does the same over and over again, as long as the object lives, and counts how
// often it succeeded.
class Busy {
 public:
  explicit Busy(const std::function<bool()>& work)
      : successes_(static_cast<std::atomic<int>*>(::mmap(nullptr, sizeof(std::atomic<int>),
                                                         PROT_READ | PROT_WRITE,
                                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0))),
        pid_(::fork()) {
    if (pid_ < 0) {
      throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      while (true) {
        *successes_ += work() ? 1 : 0;
      }
    }
  }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;
  ~Busy() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    ::munmap(successes_, sizeof(std::atomic<int>));
  }

  int successes() const { return *successes_; }

 private:
  std::atomic<int>* const successes_;
  const pid_t pid_;
};

std::set<std::string> Names(const std::string& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.insert(entry.path().filename());
  }
  return names;
}

// A folder in a folder in a folder, `levels` times.
void MakeChain(const std::string& path, int levels) {
  fs::create_directories(path);
  FileDescriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (int level = 1; level <= levels; ++level) {
    ASSERT_EQ(::mkdirat(folder.Get(), "d", 0700), 0);
    folder = FileDescriptor(::openat(folder.Get(), "d", O_PATH | O_DIRECTORY | O_CLOEXEC));
  }
}

// What this process has taken outside of system calls.
std::chrono::microseconds ProcessorTime() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return std::chrono::seconds(usage.ru_utime.tv_sec) +
         std::chrono::microseconds(usage.ru_utime.tv_usec);
}

// As on a kernel that does not know the system call.
void Deny(unsigned system_call) {
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, system_call, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {sizeof(code) / sizeof(code[0]), code};
  ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    test::SkipInOwnProcess("seccomp");
  }
}

void Limit(__rlimit_resource resource, rlim_t most) {
  const rlimit limit = {most, most};
  ASSERT_EQ(::setrlimit(resource, &limit), 0);
}

void ForASecond(const std::function<void()>& work) {
  for (const auto end = Clock::now() + std::chrono::seconds(1); Clock::now() < end;) {
    work();
  }
}

class MaildirTree : public testing::Test {
 protected:
  MaildirTree() {
    Configuration configuration;
    configuration.log = {"file", folder_ / "mail.log"};
    UseConfiguration(configuration);
    MakeMaildir();
    folder_.Write("outside/cur/canary", "canary");
  }
  void TearDown() override {
    test::on_directory_entry = nullptr;
    on_removal = nullptr;
    EXPECT_EQ(folder_.Read("outside/cur/canary"), "canary");
  }

  void MakeMaildir() const { MakeFolder(""); }

  // A mail folder with its three directories.
  void MakeFolder(const std::string& relative) const {
    for (const char* name : {"/cur", "/new", "/tmp"}) {
      fs::create_directories(folder_ / ("spool/alice/" + relative + name));
    }
  }

  std::string Path(const std::string& relative) const { return maildir_ + "/" + relative; }

  std::string File(const std::string& relative, std::size_t bytes) const {
    return folder_.Write("spool/alice/" + relative, std::string(bytes, 'm'));
  }

  MaildirContents Measure() const {
    const FileDescriptor maildir(::open(maildir_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return MeasureTree(maildir, maildir_);
  }
  unsigned long long Bytes() const { return Measure().bytes; }
  unsigned long long Messages() const { return Measure().messages; }

  // What measuring fails with.
  LogException Failure() const {
    try {
      Measure();
    } catch (const LogException& error) {
      return error;
    }
    ADD_FAILURE() << "measured";
    return {velamailserver::ERR_INTERNAL, "", 3, "", 0};
  }
  LogException FailureOfNobody() const {
    const test::AsNobody nobody;
    return Failure();
  }

  bool Remove() const {
    const FileDescriptor spool(
        ::open((folder_ / "spool").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const FileDescriptor maildir(::open(maildir_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return RemoveTree(spool, "alice", maildir, maildir_);
  }

  bool IsGone() const { return !fs::exists(fs::symlink_status(maildir_)); }
  bool IsMaildir() const {
    return fs::is_directory(Path("cur")) && fs::is_directory(Path("new")) &&
           fs::is_directory(Path("tmp"));
  }

  std::string Log() const {
    return fs::exists(folder_ / "mail.log") ? folder_.Read("mail.log") : "";
  }
  // The one line that tells that a removal was not finished, without its beginning.
  std::string Complaint() const {
    const std::string log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_THAT(log, HasSubstr(" warning: platform/linux/maildir/maildir_tree:"));
    const auto begin = log.find("not removed, ");
    return begin == std::string::npos ? log : log.substr(begin);
  }

  test::TemporaryFolder folder_;
  std::string maildir_ = folder_ / "spool/alice";
};

using Measuring = MaildirTree;

TEST_F(Measuring, FindsNothingInAnEmptyDirectory) {
  EXPECT_EQ(Bytes(), 0U);
  EXPECT_EQ(Messages(), 0U);
}

TEST_F(Measuring, AddsUpAllRegularFiles) {
  File("index", 1);
  File(".hidden", 20);
  File("cur/1.host,S=9999:2,S", 300);
  File("new/2.host", 4000);
  File("tmp/3.host", 50000);
  File(".Sent/cur/4.host", 600000);
  File("work/old/.deep/new/5.host", 7000000);
  EXPECT_EQ(Bytes(), 7654321U);
}

TEST_F(Measuring, CountsTheMessagesOfCurAndNewInEveryFolder) {
  for (const char* message : {"cur/1", "cur/2", "new/3", ".Sent/cur/4", ".Sent/new/5", "a/b/cur/6",
                              "cur/folder/cur/7", "cur/new/8"}) {
    File(message, 1);
  }
  for (const char* other : {"index", "tmp/1", "cur/.hidden", "new/.hidden", ".Sent/index",
                            "cur/folder/1", "a/cur.old/1", "curious/1", "Cur/1"}) {
    File(other, 1);
  }
  EXPECT_EQ(Messages(), 8U);
}

TEST_F(Measuring, DoesNotTakeADirectoryWithSuchANameForAFolderOfMessages) {
  fs::rename(maildir_, folder_ / "spool/cur");
  maildir_ = folder_ / "spool/cur";
  File("../cur/index", 1);
  EXPECT_EQ(Messages(), 0U);
}

TEST_F(Measuring, CountsAFileWithSeveralNamesOnce) {
  const std::string file = File("cur/1", 100);
  fs::create_hard_link(file, Path("cur/2"));
  fs::create_directory(Path(".Sent"));
  fs::create_hard_link(file, Path(".Sent/1"));
  fs::create_hard_link(folder_ / "outside/cur/canary", Path("new/1"));
  EXPECT_EQ(Bytes(), 106U);
  EXPECT_EQ(Messages(), 3U);
}

TEST_F(Measuring, LeavesOutWhatIsNoRegularFile) {
  const auto measure = [this] {
    EXPECT_EQ(Bytes(), 0U);
    EXPECT_EQ(Messages(), 0U);
  };
  fs::create_symlink(folder_ / "outside/cur/canary", Path("cur/link"));
  fs::create_directory_symlink(folder_ / "outside", Path(".Linked"));
  fs::remove(Path("new"));
  fs::create_directory_symlink(folder_ / "outside/cur", Path("new"));
  ASSERT_EQ(::mkfifo(Path("cur/fifo").c_str(), 0600), 0);
  measure();
  test::on_directory_entry = [](dirent64& entry) {
    entry.d_type = DT_UNKNOWN;
    return true;
  };
  measure();
}

TEST_F(Measuring, IsTheSameWhereTheFileSystemTellsNoTypes) {
  File("cur/1", 1);
  File(".Sent/new/2", 20);
  File("index", 300);
  test::on_directory_entry = [](dirent64& entry) {
    entry.d_type = DT_UNKNOWN;
    return true;
  };
  EXPECT_EQ(Bytes(), 321U);
  EXPECT_EQ(Messages(), 2U);
}

TEST_F(Measuring, LeavesOutWhatIsMounted) {
  File("cur/1", 1);
  File("cur/2", 20);
  fs::create_directory(Path(".Sent"));
  test::InOwnMounts([this] {
    test::BindOver(Path("cur/2"), folder_ / "outside/cur/canary");
    test::BindOver(Path(".Sent"), folder_ / "outside");
    test::BindOver(Path("new"), folder_ / "outside/cur");
    EXPECT_EQ(Bytes(), 1U);
    EXPECT_EQ(Messages(), 1U);
  });
}

TEST_F(Measuring, EndsAtTheLargestNumber) {
  test::InOwnMounts([this] {
    ASSERT_EQ(::mount("tmpfs", maildir_.c_str(), "tmpfs", 0, nullptr), 0);
    for (const char* name : {"1", "2", "3"}) {
      fs::resize_file(File(name, 0),
                      static_cast<std::uintmax_t>(std::numeric_limits<std::int64_t>::max()));
    }
    EXPECT_EQ(Bytes(), std::numeric_limits<unsigned long long>::max());
  });
}

TEST_F(Measuring, LeavesOutWhatVanishesMeanwhile) {
  File("cur/1", 1);
  File("cur/2", 20);
  File(".Sent/cur/3", 300);
  test::on_directory_entry = [this](dirent64& entry) {
    if (std::string(entry.d_name) == "2" || std::string(entry.d_name) == ".Sent") {
      fs::remove_all(Path(std::string(entry.d_name) == "2" ? "cur/2" : ".Sent"));
    }
    return true;
  };
  EXPECT_EQ(Bytes(), 1U);
}

TEST_F(Measuring, LeavesOutAFolderThatIsRemovedWhileItIsRead) {
  File("index", 1);
  File(".Sent/1", 20);
  bool is_removed = false;
  test::on_directory_entry = [&](dirent64& entry) {
    if (std::string(entry.d_name) == "1") {
      is_removed = fs::remove_all(Path(".Sent")) == 2;
      errno = ENOENT;
      return false;
    }
    return true;
  };
  EXPECT_EQ(Bytes(), 1U);
  EXPECT_TRUE(is_removed);
}

TEST_F(Measuring, FollowsNoLinkThatTakesAFoldersPlace) {
  fs::create_directory(Path(".Sent"));
  test::on_directory_entry = [this](dirent64& entry) {
    if (std::string(entry.d_name) == ".Sent") {
      fs::remove(Path(".Sent"));
      fs::create_directory_symlink(folder_ / "outside", Path(".Sent"));
      entry.d_type = DT_DIR;
    }
    return true;
  };
  EXPECT_EQ(Bytes(), 0U);
}

TEST_F(Measuring, LeavesOutAPipeThatTakesAFoldersPlace) {
  fs::create_directory(Path(".Sent"));
  test::on_directory_entry = [this](dirent64& entry) {
    if (std::string(entry.d_name) == ".Sent") {
      fs::remove(Path(".Sent"));
      EXPECT_EQ(::mkfifo(Path(".Sent").c_str(), 0600), 0);
    }
    return true;
  };
  EXPECT_EQ(Bytes(), 0U);
}

TEST_F(Measuring, FailsWhenAFolderCannotBeEntered) {
  fs::permissions(folder_.path(), fs::perms(0755));
  fs::create_directory(Path(".Sent"));
  for (const std::string directory : {"/.Sent", "/cur", ""}) {
    fs::permissions(maildir_ + directory, fs::perms(0));
    const LogException failure = FailureOfNobody();
    EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_FILE_ENUM_DIR);
    EXPECT_EQ(failure.what(), maildir_ + directory + ": Permission denied");
    fs::permissions(maildir_ + directory, fs::perms(0755));
  }
}

TEST_F(Measuring, FailsWhenAFolderCannotBeReadToItsEnd) {
  File("cur/1", 1);
  test::on_directory_entry = [](dirent64& entry) {
    errno = EIO;
    return std::string(entry.d_name) != "1";
  };
  const LogException failure = Failure();
  EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_FILE_ENUM_DIR);
  EXPECT_EQ(failure.what(), maildir_ + "/cur: Input/output error");
}

TEST_F(Measuring, FailsWhenAFileCannotBeLookedAt) {
  File("cur/1", 1);
  fs::permissions(folder_.path(), fs::perms(0755));
  fs::permissions(Path("cur"), fs::perms(0744));  // to be listed, not to be searched
  const LogException failure = FailureOfNobody();
  EXPECT_EQ(failure.code(), velamailserver::ERR_LSTAT_FILE);
  EXPECT_EQ(failure.what(), maildir_ + "/cur/1: Permission denied");
}

TEST_F(Measuring, FailsWhereFoldersCannotBeOpenedSafely) {
  test::InOwnProcess([this] {
    Deny(SYS_openat2);
    const LogException failure = Failure();
    EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_FILE_ENUM_DIR);
    EXPECT_EQ(failure.what(), maildir_ + ": Function not implemented");
  });
}

TEST_F(Measuring, KeepsNoDescriptor) {
  MakeChain(Path("deep"), 40);
  const auto before = Names("/proc/self/fd").size();
  Measure();
  EXPECT_EQ(Names("/proc/self/fd").size(), before);
}

using Removing = MaildirTree;

TEST_F(Removing, TakesEverythingAway) {
  File("index", 1);
  File("cur/1", 1);
  File("tmp/2", 1);
  File(".Sent/cur/3", 1);
  File("cur/cur/new/4", 1);
  EXPECT_TRUE(Remove());
  EXPECT_TRUE(IsGone());
  EXPECT_EQ(Log(), "");
  EXPECT_TRUE(fs::exists(folder_ / "spool"));
}

TEST_F(Removing, TakesTheNamesAsTheyAre) {
  for (const std::string& name :
       {std::string("a\nb"), std::string("\xff\xfe"), std::string("-rf"), std::string(" "),
        std::string("..."), std::string(255, 'x'), std::string("*")}) {
    File(name + "/" + name, 1);
  }
  EXPECT_TRUE(Remove());
  EXPECT_TRUE(IsGone());
}

TEST_F(Removing, TakesLinksForWhatTheyAre) {
  fs::create_directory_symlink(folder_ / "outside", Path("folder"));
  fs::create_symlink(folder_ / "outside/cur/canary", Path("cur/file"));
  fs::create_directory_symlink("../..", Path("cur/up"));
  fs::create_symlink("nothing", Path("cur/nothing"));
  fs::create_hard_link(folder_ / "outside/cur/canary", Path("cur/canary"));
  EXPECT_TRUE(Remove());
  EXPECT_TRUE(IsGone());
}

TEST_F(Removing, OpensNoSpecialFile) {
  ASSERT_EQ(::mkfifo(Path("cur/fifo").c_str(), 0600), 0);
  ASSERT_EQ(::mknod(Path("cur/device").c_str(), S_IFCHR | 0600, ::makedev(1, 3)), 0);
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  Path("s").copy(address.sun_path, sizeof(address.sun_path) - 1);
  ASSERT_EQ(::bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_TRUE(Remove());
  EXPECT_TRUE(IsGone());
}

TEST_F(Removing, WorksWhereTheFileSystemTellsNoTypes) {
  File(".Sent/cur/1", 1);
  fs::create_directory_symlink(folder_ / "outside", Path("link"));
  test::on_directory_entry = [](dirent64& entry) {
    entry.d_type = DT_UNKNOWN;
    return true;
  };
  EXPECT_TRUE(Remove());
  EXPECT_TRUE(IsGone());
}

TEST_F(Removing, TakesAMaildirFolderThatIsNoneForAnythingElse) {
  fs::remove(Path("cur"));
  fs::remove(Path("new"));
  fs::create_directory_symlink(folder_ / "outside", Path("cur"));
  File("new", 1);
  EXPECT_TRUE(Remove());
  EXPECT_TRUE(IsGone());
}

TEST_F(Removing, FinishesWhatWasCutShort) {
  for (const std::set<std::string>& folders :
       std::vector<std::set<std::string>>{{"cur", "new"}, {"cur"}, {}}) {
    fs::remove_all(maildir_);
    fs::create_directory(maildir_);
    for (const std::string& name : folders) {
      fs::create_directory(Path(name));
    }
    EXPECT_TRUE(Remove());
    EXPECT_TRUE(IsGone());
  }
}

TEST_F(Removing, KeepsTheMaildirFoldersUntilNothingElseIsLeft) {
  File("cur/1", 1);
  File("index", 1);
  File("zzz/cur/2", 1);
  File("aaa/3", 1);
  std::vector<std::string> last;
  on_removal = [&](const std::string& name, bool is_folder) {
    EXPECT_EQ(last.empty() ? IsMaildir() : is_folder, true) << name;
    if (!last.empty() || (name == "tmp" && Names(maildir_).size() == 3)) {
      last.push_back(name);
    }
  };
  EXPECT_TRUE(Remove());
  EXPECT_THAT(last, ElementsAre("tmp", "new", "cur", "alice"));
}

TEST_F(Removing, KilledAtAnyPointLeavesWhatLooksLikeAMaildir) {
  const auto make = [this] {
    for (const char* file :
         {"cur/1", "new/2", "tmp/3", "index", ".Sent/cur/4", ".Sent/tmp/5", "a/b/cur/6"}) {
      File(file, 1);
    }
    MakeFolder(".Sent");
    MakeMaildir();
  };
  int kills = 0;
  for (int removals = 0; kills == removals; ++removals) {
    make();
    const pid_t pid = ::fork();
    if (pid == 0) {
      int count = 0;
      on_removal = [&](const std::string& /*name*/, bool /*is_folder*/) {
        if (count++ == removals) {
          ::raise(SIGKILL);
        }
      };
      ::_exit(Remove() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    if (WIFSIGNALED(status)) {
      ++kills;
      if (!IsMaildir()) {
        EXPECT_THAT(Names(maildir_), IsSubsetOf({"cur", "new", "tmp"})) << removals;
      }
    } else {
      EXPECT_EQ(status, 0);
      EXPECT_TRUE(IsGone());
    }
  }
  EXPECT_GT(kills, 15);
}

TEST_F(Removing, GoesOnPastWhatCannotBeRemoved) {
  const std::string file = File(".Sent/cur/1", 1);
  File(".Sent/cur/2", 1);
  File("cur/3", 1);
  File("index", 1);
  {
    const test::Immutable immutable(file);
    if (!immutable.IsSet()) {
      GTEST_SKIP() << "no immutable files here";
    }
    EXPECT_FALSE(Remove());
  }
  EXPECT_THAT(Names(maildir_), UnorderedElementsAre(".Sent", "cur", "new", "tmp"));
  EXPECT_THAT(Names(Path(".Sent/cur")), ElementsAre("1"));
  EXPECT_TRUE(fs::is_empty(Path("cur")));
  EXPECT_EQ(Complaint(), "not removed, 3 left: " + file + ": Operation not permitted\n");
}

TEST_F(Removing, CountsAllThatIsLeftAndNamesTheFirst) {
  for (const char* name : {"1", "2", "3"}) {
    File("cur/" + std::string(name), 1);
  }
  File("index", 1);
  {
    const test::Immutable immutable(Path("cur"));
    if (!immutable.IsSet()) {
      GTEST_SKIP() << "no immutable files here";
    }
    EXPECT_FALSE(Remove());
  }
  EXPECT_TRUE(IsMaildir());
  EXPECT_FALSE(fs::exists(Path("index")));
  EXPECT_THAT(Complaint(), testing::MatchesRegex(
                               "not removed, 3 left: .*/cur/[123]: Operation not permitted\n"));
}

TEST_F(Removing, EntersNothingThatIsMounted) {
  File("cur/1", 1);
  fs::create_directory(Path(".Sent"));
  File("cur/2", 1);
  test::InOwnMounts([this] {
    test::BindOver(Path(".Sent"), folder_ / "outside");
    EXPECT_FALSE(Remove());
    EXPECT_EQ(Complaint(), "not removed, 1 left: " + Path(".Sent") + ": Device or resource busy\n");
    EXPECT_EQ(folder_.Read("spool/alice/.Sent/cur/canary"), "canary");
    EXPECT_TRUE(IsMaildir());
    EXPECT_TRUE(fs::is_empty(Path("cur")));
  });
}

TEST_F(Removing, LeavesAFileThatIsMounted) {
  File("cur/1", 1);
  test::InOwnMounts([this] {
    test::BindOver(Path("cur/1"), folder_ / "outside/cur/canary");
    EXPECT_FALSE(Remove());
    EXPECT_EQ(Complaint(), "not removed, 1 left: " + Path("cur/1") + ": Device or resource busy\n");
    EXPECT_TRUE(IsMaildir());
  });
}

TEST_F(Removing, LeavesAMaildirFolderThatIsMounted) {
  File("index", 1);
  test::InOwnMounts([this] {
    test::BindOver(Path("cur"), folder_ / "outside/cur");
    EXPECT_FALSE(Remove());
    EXPECT_EQ(Complaint(), "not removed, 1 left: " + Path("cur") + ": Device or resource busy\n");
    EXPECT_THAT(Names(maildir_), UnorderedElementsAre("cur", "new", "tmp"));
  });
}

TEST_F(Removing, LeavesEverythingOnAReadOnlyFileSystem) {
  File("cur/1", 1);
  test::InOwnMounts([this] {
    const std::string spool = folder_ / "spool";
    test::BindOver(spool, spool);
    ASSERT_EQ(::mount(nullptr, spool.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
              0);
    EXPECT_FALSE(Remove());
    EXPECT_EQ(Complaint(), "not removed, 1 left: " + Path("cur/1") + ": Read-only file system\n");
    EXPECT_TRUE(fs::exists(Path("cur/1")));
    EXPECT_TRUE(IsMaildir());
  });
}

TEST_F(Removing, RemovesNothingWhereFoldersCannotBeOpenedSafely) {
  File("cur/1", 1);
  test::InOwnProcess([this] {
    Deny(SYS_openat2);
    EXPECT_FALSE(Remove());
    EXPECT_EQ(Complaint(), "not removed, 1 left: " + maildir_ + ": Function not implemented\n");
    EXPECT_TRUE(fs::exists(Path("cur/1")));
    EXPECT_TRUE(IsMaildir());
  });
}

TEST_F(Removing, GoesOnPastAFolderThatCannotBeRead) {
  File(".Sent/1", 1);
  File("cur/2", 1);
  test::on_directory_entry = [](dirent64& entry) {
    errno = EIO;
    return std::string(entry.d_name) != "1";
  };
  EXPECT_FALSE(Remove());
  EXPECT_EQ(Complaint(), "not removed, 2 left: " + Path(".Sent") + ": Input/output error\n");
  EXPECT_TRUE(fs::is_empty(Path("cur")));
  EXPECT_TRUE(IsMaildir());
}

TEST_F(Removing, DoesNotMindWhatVanishesMeanwhile) {
  File("cur/1", 1);
  File("cur/2", 1);
  File(".Sent/cur/3", 1);
  test::on_directory_entry = [this](dirent64& entry) {
    if (std::string(entry.d_name) == "2" || std::string(entry.d_name) == ".Sent") {
      fs::remove_all(Path(std::string(entry.d_name) == "2" ? "cur/2" : ".Sent"));
    }
    return true;
  };
  EXPECT_TRUE(Remove());
  EXPECT_TRUE(IsGone());
  EXPECT_EQ(Log(), "");
}

TEST_F(Removing, IsDoneWhenSomebodyElseIsFaster) {
  on_removal = [this](const std::string& name, bool /*is_folder*/) {
    if (name == "cur") {
      fs::remove_all(maildir_);
    }
  };
  EXPECT_TRUE(Remove());
  EXPECT_TRUE(IsGone());
  EXPECT_EQ(Log(), "");
}

TEST_F(Removing, FollowsNoLinkThatTakesAFoldersPlace) {
  fs::create_directory(Path(".Sent"));
  test::on_directory_entry = [this](dirent64& entry) {
    if (std::string(entry.d_name) == ".Sent") {
      fs::remove(Path(".Sent"));
      fs::create_directory_symlink(folder_ / "outside", Path(".Sent"));
    }
    return true;
  };
  EXPECT_TRUE(Remove());
  EXPECT_TRUE(IsGone());
}

// Where nothing keeps the way back open, it is found by its name "..", which is another's then.
class FarBelow : public MaildirTree {
 protected:
  FarBelow() {
    MakeChain(Path("moved"), 40);
    MakeChain(Path("moving"), 0);
    fs::rename(Path("moved"), Path("moving/moved"));
    File("moving/moved/" + Chain(40) + "bottom", 1);
    File("moving/sibling/1", 1);
    File("moving/a sibling/1", 1);
    for (const char* name : {"sibling", "a sibling"}) {
      folder_.Write("elsewhere/" + std::string(name) + "/1", "not alice's");
    }
    test::on_directory_entry = [this](dirent64& entry) {
      if (std::string(entry.d_name) == "bottom") {
        fs::rename(Path("moving/moved"), folder_ / "elsewhere/moved");
      }
      return true;
    };
  }

  static std::string Chain(int levels) {
    std::string chain;
    for (int level = 0; level < levels; ++level) {
      chain += "d/";
    }
    return chain;
  }

  void ExpectElsewhereUntouched() const {
    EXPECT_EQ(folder_.Read("elsewhere/sibling/1"), "not alice's");
    EXPECT_EQ(folder_.Read("elsewhere/a sibling/1"), "not alice's");
    EXPECT_TRUE(fs::is_directory(folder_ / "elsewhere/moved"));
  }
};

TEST_F(FarBelow, MeasuringEndsWhenTheWayBackIsLost) {
  const LogException failure = Failure();
  EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_FILE_ENUM_DIR);
  EXPECT_EQ(failure.what(), Path("moving") + ": moved or replaced meanwhile");
  ExpectElsewhereUntouched();
}

TEST_F(FarBelow, RemovingEndsWhenTheWayBackIsLost) {
  EXPECT_FALSE(Remove());
  EXPECT_THAT(Complaint(), EndsWith(Path("moving") + ": moved or replaced meanwhile\n"));
  EXPECT_TRUE(IsMaildir());
  ExpectElsewhereUntouched();
}

TEST_F(Removing, LeavesWhatTookTheMaildirsPlace) {
  on_removal = [this](const std::string& name, bool /*is_folder*/) {
    if (name == "cur") {
      fs::rename(maildir_, folder_ / "moved");
      fs::create_directory(maildir_);
    }
  };
  EXPECT_FALSE(Remove());
  EXPECT_TRUE(fs::is_directory(maildir_));
  EXPECT_EQ(Complaint(), "not removed, 1 left: " + maildir_ + ": moved or replaced meanwhile\n");
}

TEST_F(Removing, StopsAtAMessageThatIsDeliveredLate) {
  on_removal = [this](const std::string& name, bool /*is_folder*/) {
    if (name == "new") {
      File("new/1", 1);
    }
  };
  EXPECT_FALSE(Remove());
  EXPECT_TRUE(IsMaildir());
  EXPECT_TRUE(fs::exists(Path("new/1")));
  EXPECT_EQ(Complaint(), "not removed, 1 left: " + Path("new") + ": Directory not empty\n");
}

TEST_F(Removing, StopsAtTheFirstMaildirFolderThatStays) {
  std::vector<std::string> removals;
  on_removal = [&](const std::string& name, bool /*is_folder*/) {
    removals.push_back(name);
    if (name == "tmp") {
      File("tmp/1", 1);
    }
  };
  EXPECT_FALSE(Remove());
  EXPECT_THAT(removals, ElementsAre("tmp"));
}

TEST_F(Removing, LeavesAMaildirWhenSomethingNewTurnsUpInIt) {
  on_removal = [this](const std::string& name, bool /*is_folder*/) {
    if (name == "alice") {
      File("index", 1);
    }
  };
  EXPECT_FALSE(Remove());
  EXPECT_TRUE(IsMaildir());
  EXPECT_TRUE(fs::exists(Path("index")));
  EXPECT_EQ(Complaint(), "not removed, 1 left: " + maildir_ + ": Directory not empty\n");
}

TEST_F(Removing, KeepsNoDescriptor) {
  MakeChain(Path("deep"), 40);
  const auto before = Names("/proc/self/fd").size();
  EXPECT_TRUE(Remove());
  EXPECT_EQ(Names("/proc/self/fd").size(), before);
}

TEST_F(Removing, TellsTheReasonWhateverThePathIs) {
  constexpr int kLevels = 40;
  std::string relative;
  for (int level = 0; level < kLevels; ++level) {
    relative += std::string(250, 'x') + "/";
  }
  FileDescriptor folder(::open(maildir_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (int level = 0; level < kLevels; ++level) {
    const std::string name(250, 'x');
    ASSERT_EQ(::mkdirat(folder.Get(), name.c_str(), 0700), 0);
    folder = FileDescriptor(::openat(folder.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  }
  ASSERT_EQ(::mkdirat(folder.Get(), "last", 0700), 0);
  on_removal = [&](const std::string& name, bool /*is_folder*/) {
    if (name == "last") {
      ASSERT_EQ(::mkdirat(folder.Get(), "last/new", 0700), 0);
    }
  };
  EXPECT_FALSE(Remove());
  EXPECT_THAT(Complaint(), EndsWith("xxx...: Directory not empty\n"));
}

// On a disk a tree like these would take minutes to make.
class Deep : public MaildirTree {
 protected:
  template <typename Body>
  void InMemoryIfPossible(const Body& body) {
    test::InOwnProcess([this, &body] {
      if (::unshare(CLONE_NEWNS) == 0) {
        ASSERT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(::mount("tmpfs", (folder_ / "spool").c_str(), "tmpfs", 0, nullptr), 0);
        MakeMaildir();
      }
      body();
    });
    test::Run({"rm", "-rf", maildir_});  // where it was on the disk, and is left
  }

  // A folder in a folder in a folder; answers the last but one.
  FileDescriptor MakeLongChain() const {
    const std::string name(250, 'd');
    FileDescriptor folder(::open(Path("cur").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    FileDescriptor last_but_one;
    for (int level = 1; level <= kLevels; ++level) {
      EXPECT_EQ(::mkdirat(folder.Get(), name.c_str(), 0700), 0);
      last_but_one = std::move(folder);
      folder = FileDescriptor(
          ::openat(last_but_one.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return last_but_one;
  }

  static constexpr int kLevels = 21'000;
};

// More levels than descriptors, than stack and than a path has room for.
TEST_F(Deep, MayBeOfAnyDepth) {
  constexpr int kSteps = 300;
  InMemoryIfPossible([this] {
    FileDescriptor folder(::open(maildir_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (int level = 1; level <= kLevels; ++level) {
      ASSERT_EQ(::mkdirat(folder.Get(), "d", 0700), 0);
      if (level % kSteps == 0) {
        // Not all of them are read before "d", and not all after it.
        for (const std::string name : {"cur", "new", "other"}) {
          ASSERT_EQ(::mkdirat(folder.Get(), name.c_str(), 0700), 0);
          const FileDescriptor file(
              ::openat(folder.Get(), (name + "/1").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
          ASSERT_EQ(::write(file.Get(), "mail", 4), 4);
        }
      }
      folder = FileDescriptor(::openat(folder.Get(), "d", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    folder = FileDescriptor();
    Limit(RLIMIT_NOFILE, 64);
    Limit(RLIMIT_STACK, 1024UL * 1024UL);
    EXPECT_EQ(Bytes(), 12U * kLevels / kSteps);
    EXPECT_EQ(Messages(), 2U * kLevels / kSteps);
    EXPECT_TRUE(Remove());
    EXPECT_TRUE(IsGone());
  });
}

// Its owner may have made it to hold the removal up.
TEST_F(Deep, IsRemovedInReasonableTime) {
  InMemoryIfPossible([this] {
    MakeLongChain();
    const auto start = ProcessorTime();
    Measure();
    const auto measured = ProcessorTime();
    EXPECT_TRUE(Remove());
    EXPECT_LT(ProcessorTime() - measured, 4 * (measured - start));
    EXPECT_TRUE(IsGone());
  });
}

TEST_F(Deep, IsGivenUpInReasonableTime) {
  InMemoryIfPossible([this] {
    const FileDescriptor bottom = MakeLongChain();
    on_removal = [&](const std::string& /*name*/, bool /*is_folder*/) {
      ::mkdirat(bottom.Get(), "delivered late", 0700);
    };
    const auto start = ProcessorTime();
    Measure();
    const auto measured = ProcessorTime();
    EXPECT_FALSE(Remove());
    EXPECT_LT(ProcessorTime() - measured, 4 * (measured - start));
    EXPECT_THAT(Complaint(), testing::StartsWith("not removed, 20999 left: "));
  });
}

// Reading goes on after what is deep below was walked through.
TEST_F(MaildirTree, MayBeOfAnyWidth) {
  constexpr unsigned kFiles = 101'000;
  constexpr unsigned kChains = 20;
  const FileDescriptor cur(::open(Path("cur").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (unsigned file = 0; file < kFiles; ++file) {
    const std::string name = std::to_string(file) + ".M" + std::to_string(file % 997) + ".host:2,S";
    ASSERT_TRUE(
        FileDescriptor(::openat(cur.Get(), name.c_str(), O_CREAT | O_CLOEXEC, 0600)).IsOpen());
  }
  for (unsigned chain = 0; chain < kChains; ++chain) {
    MakeChain(Path("cur/" + std::to_string(chain)), 20);
    std::string bottom = "cur/" + std::to_string(chain);
    for (int level = 0; level < 20; ++level) {
      bottom += "/d";
    }
    File(bottom + "/1", 1);
  }
  EXPECT_EQ(Messages(), kFiles);
  EXPECT_EQ(Bytes(), kChains);
  EXPECT_TRUE(Remove());
  EXPECT_TRUE(IsGone());
}

// A hostile owner, who keeps putting a link in a folder's place.
class Swapped : public MaildirTree {
 protected:
  Swapped() {
    folder_.Write("outside/cur/sub/canary", "canary");
    Prepare();
  }
  void TearDown() override {
    MaildirTree::TearDown();
    EXPECT_EQ(folder_.Read("outside/cur/sub/canary"), "canary");
  }

  void Prepare() const {
    MakeMaildir();
    for (const std::string folder : {"", "a/", "a/b/"}) {
      File(folder + "victim/cur/sub/1", 1);
      fs::create_directory_symlink(fs::relative(folder_ / "outside", Path(folder)),
                                   Path(folder + "link"));
    }
  }

  // Answers whether it has exchanged any.
  std::function<bool()> Swap() const {
    return [this] {
      bool is_swapped = false;
      for (const std::string folder : {"", "a/", "a/b/"}) {
        is_swapped |= ::renameat2(AT_FDCWD, Path(folder + "victim").c_str(), AT_FDCWD,
                                  Path(folder + "link").c_str(), RENAME_EXCHANGE) == 0;
      }
      return is_swapped;
    };
  }

  // Fewer would hardly hit a walk.
  static constexpr int kEnoughSwaps = 100;
};

TEST_F(Swapped, MeasuringNeverFollowsIt) {
  const Busy attacker(Swap());
  ForASecond([this] { EXPECT_LE(Bytes(), 6U); });
  EXPECT_GE(attacker.successes(), kEnoughSwaps);
}

TEST_F(Swapped, RemovingNeverFollowsIt) {
  const Busy attacker(Swap());
  ForASecond([this] {
    for (int attempt = 1; !Remove(); ++attempt) {
      ASSERT_LT(attempt, 1000);
    }
    ASSERT_TRUE(fs::exists(folder_ / "outside/cur/sub/canary"));
    Prepare();
  });
  EXPECT_GE(attacker.successes(), kEnoughSwaps);
}

TEST_F(Removing, StaysRecognisableWhileMessagesAreDelivered) {
  const Busy delivery([this] {
    const auto put = [this](const std::string& name) {
      return FileDescriptor(::open(Path(name).c_str(), O_CREAT | O_CLOEXEC, 0600)).IsOpen();
    };
    if (put("tmp/1")) {
      ::rename(Path("tmp/1").c_str(), Path("new/1").c_str());
    }
    const bool is_put = put("index");
    ::mkdir(Path(".Sent").c_str(), 0700);
    return is_put;
  });
  int left = 0;
  ForASecond([&] {
    MakeMaildir();
    if (Remove()) {
      EXPECT_TRUE(IsGone());
    } else {
      ++left;
      EXPECT_TRUE(IsMaildir());
    }
  });
  EXPECT_GT(left, 0);
}

}  // namespace
}  // namespace quillon::platform
