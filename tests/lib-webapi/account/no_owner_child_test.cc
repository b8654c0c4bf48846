#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <velamailserver/account/no_owner.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "recording_platform/world_test.h"
#include "support/typed_json.h"

namespace velamailserver::webapi {
namespace {

using quillon::test::Typed;
using recording::Failure;
using recording::Pause;
using recording::Throw;
using testing::ElementsAre;
using testing::IsEmpty;

using Lines = std::vector<std::string>;

constexpr int kCameBack = 41;
constexpr int kCameBackByException = 42;

constexpr char kLock[] = "FileLockGuard(/var/lock/quillon_server/run_count_usage.lock)";
constexpr char kRefreshAsRoot[] = "RunAsRoot(refresh no owner usage) {";

// Where the exit handlers of this program report, while a test wants to know.
int exit_report = -1;

void ReportExit() {
  if (exit_report >= 0) {
    static_cast<void>(::write(exit_report, "exit handler\n", 13));
  }
}

// The scripted fork makes a child process, which tells by a pipe what it calls.
class NoOwnerChildTest : public recording::WorldTest {
 protected:
  NoOwnerChildTest() {
    if (::pipe(pipe_) != 0) {
      throw std::runtime_error("no pipe");
    }
    world_.AddOwnerless("/maildir/local/anna", {1001, std::nullopt, "anna"});
    world_.AddOwnerless("/maildir/local/bert", {1002, 7, "bert"});
    world_.fork = [this] {
      child_ = ::fork();
      return child_;
    };
    world_.FailCallsStartingWith("", [this] {
      if (IsChild()) {
        Report(world_.transcript.back());
      }
    });
  }

  ~NoOwnerChildTest() override {
    ::close(pipe_[0]);
    ::close(pipe_[1]);
  }

  bool IsChild() const { return ::getpid() != parent_; }

  void Report(const std::string& line) const {
    const std::string text = line + "\n";
    if (::write(pipe_[1], text.data(), text.size()) < 0) {
      ::_exit(EXIT_FAILURE);
    }
  }

  // Runs what forks. A child that comes back from it ends with a status that says so.
  template <typename Operation>
  void Run(Operation operation) const {
    try {
      operation();
    } catch (...) {
      if (IsChild()) {
        ::_exit(kCameBackByException);
      }
      throw;
    }
    if (IsChild()) {
      ::_exit(kCameBack);
    }
  }

  // The page of an object of this world.
  std::string Page(NoOwner& no_owner) const {
    std::string page;
    Run([&] { page = Typed(no_owner.List(0, -1, "", "name", "ASC")); });
    return page;
  }

  static NoOwner Scanned() {
    const Pause pause;
    return {};
  }

  // Waits for the child's end and answers its exit status; -1 if it ended otherwise.
  int ExitStatus() const {
    int status = 0;
    return ::waitpid(child_, &status, 0) == child_ && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // What the child, which has ended, reported.
  Lines ReportOfChild() {
    ::close(pipe_[1]);
    pipe_[1] = -1;
    std::string text;
    char buffer[4096];
    for (ssize_t count = 0; (count = ::read(pipe_[0], buffer, sizeof(buffer))) > 0;) {
      text.append(buffer, static_cast<std::size_t>(count));
    }
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  int report_descriptor() const { return pipe_[1]; }

 private:
  const pid_t parent_ = ::getpid();
  pid_t child_ = -1;
  int pipe_[2];
};

constexpr char kPage[] = R"({"no_owner_list":[{"name":"anna","uid":1001u,"usage":0u},)"
                         R"({"name":"bert","uid":1002u,"usage":7u}],"total":2u})";

TEST_F(NoOwnerChildTest, CountsAndEndsInThePage) {
  NoOwner no_owner = Scanned();
  EXPECT_EQ(Page(no_owner), kPage);
  EXPECT_EQ(ExitStatus(), EXIT_SUCCESS);
  EXPECT_THAT(ReportOfChild(),
              ElementsAre(kLock, kRefreshAsRoot, "RefreshCache(/maildir/local/anna)",
                          "RefreshCache(/maildir/local/bert)", "}"));
  EXPECT_THAT(world_.transcript, ElementsAre("VLIBCProcForkChildNoWait()"));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(NoOwnerChildTest, IsNotStartedTwice) {
  NoOwner no_owner = Scanned();
  Page(no_owner);
  EXPECT_EQ(ExitStatus(), EXIT_SUCCESS);
  EXPECT_EQ(Page(no_owner), kPage);
  EXPECT_THAT(world_.transcript, ElementsAre("VLIBCProcForkChildNoWait()"));
}

// How a step of the child fails, and the status that it then ends with.
struct EndOfChild {
  const char* name;
  const char* failing;
  Failure failure;
  int status;
};

// Without it GoogleTest would read all of its bytes, those between the members too.
std::ostream& operator<<(std::ostream& stream, const EndOfChild& end) { return stream << end.name; }

class AnyEndOfTheChild : public NoOwnerChildTest, public testing::WithParamInterface<EndOfChild> {};

INSTANTIATE_TEST_SUITE_P(
    NoOwnerChildTest, AnyEndOfTheChild,
    testing::Values(
        EndOfChild{"HeldLock", "FileLockGuard", Throw<velasdk::FileLockHeld>("held"), 0},
        EndOfChild{"LogExceptionOfARecount", "RefreshCache",
                   Throw<LogException>(ERR_LSTAT_FILE, "broken", 3L, "platform", 9), 0},
        EndOfChild{"RuntimeErrorOfTheRoot", "RunAsRoot", Throw<std::runtime_error>("no"), 0},
        EndOfChild{"NoMemoryForTheLock", "FileLockGuard", Throw<std::bad_alloc>(), 1},
        EndOfChild{"NoMemoryForARecount", "RefreshCache", Throw<std::bad_alloc>(), 1},
        EndOfChild{"LogicErrorOfTheRoot", "RunAsRoot", Throw<std::logic_error>("no"), 1},
        EndOfChild{"AnIntFromARecount", "RefreshCache", Throw<int>(5), 1},
        EndOfChild{"AnIntFromTheEndOfTheRoot", "}", Throw<int>(5), 1}),
    [](const testing::TestParamInfo<EndOfChild>& end) { return end.param.name; });

TEST_P(AnyEndOfTheChild, IsInThePage) {
  NoOwner no_owner = Scanned();
  world_.FailCallsStartingWith(GetParam().failing, GetParam().failure);
  EXPECT_EQ(Page(no_owner), kPage);
  EXPECT_EQ(ExitStatus(), GetParam().status);
  EXPECT_THAT(world_.transcript, ElementsAre("VLIBCProcForkChildNoWait()"));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(NoOwnerChildTest, RunsNoExitHandlersInThePage) {
  ASSERT_EQ(std::atexit(ReportExit), 0);
  ASSERT_EQ(std::at_quick_exit(ReportExit), 0);
  exit_report = report_descriptor();
  for (const char* failing : {"nothing", "RefreshCache"}) {
    NoOwner no_owner = Scanned();
    world_.FailCallsStartingWith(failing, Throw<std::bad_alloc>());
    EXPECT_EQ(Page(no_owner), kPage);
    EXPECT_GE(ExitStatus(), 0);
  }
  exit_report = -1;
  EXPECT_THAT(ReportOfChild(), testing::Not(testing::Contains("exit handler")));
}

TEST_F(NoOwnerChildTest, FlushesNoStreamsInThePage) {
  std::FILE* const stream = std::tmpfile();
  ASSERT_NE(stream, nullptr);
  const auto written = [stream] {
    struct stat status {};
    return ::fstat(::fileno(stream), &status) == 0 ? status.st_size : -1;
  };
  for (const char* failing : {"nothing", "RefreshCache"}) {
    ASSERT_GE(std::fputs("once\n", stream), 0);
    NoOwner no_owner = Scanned();
    world_.FailCallsStartingWith(failing, Throw<std::bad_alloc>());
    EXPECT_EQ(Page(no_owner), kPage);
    EXPECT_GE(ExitStatus(), 0);
    EXPECT_EQ(written(), 0) << "by the child";
  }
  ASSERT_EQ(std::fflush(stream), 0);
  EXPECT_EQ(written(), 10) << "by this process";
  EXPECT_EQ(std::fclose(stream), 0);
}

TEST_F(NoOwnerChildTest, ComesBackFromARefresh) {
  NoOwner no_owner = Scanned();
  Run([&] { no_owner.Refresh(); });
  EXPECT_EQ(ExitStatus(), kCameBack);
  EXPECT_THAT(ReportOfChild(),
              ElementsAre(kLock, kRefreshAsRoot, "RefreshCache(/maildir/local/anna)",
                          "RefreshCache(/maildir/local/bert)", "}"));
  EXPECT_THAT(world_.transcript, ElementsAre("VLIBCProcForkChildNoWait()"));
}

TEST_F(NoOwnerChildTest, ComesBackFromARefreshThatWasSkipped) {
  NoOwner no_owner = Scanned();
  world_.FailCallsStartingWith("FileLockGuard", Throw<velasdk::FileLockHeld>("held"));
  Run([&] {
    no_owner.Refresh();
    if (IsChild()) {
      Report(world_.transcript.back());
    }
  });
  EXPECT_EQ(ExitStatus(), kCameBack);
  EXPECT_THAT(
      ReportOfChild(),
      ElementsAre(kLock,
                  R"(maillog(1, "lib-webapi/account/no_owner:66 counting usage, skip refresh"))"));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(NoOwnerChildTest, ComesBackFromARefreshByException) {
  for (const Failure& failure :
       {Throw<std::bad_alloc>(), Throw<std::logic_error>("broken"), Throw<int>(5)}) {
    NoOwner no_owner = Scanned();
    world_.FailCallsStartingWith("RefreshCache", failure);
    Run([&] { no_owner.Refresh(); });
    EXPECT_EQ(ExitStatus(), kCameBackByException);
  }
}

TEST_F(NoOwnerChildTest, LeavesTheRecordsOfItsParentAlone) {
  NoOwner no_owner = Scanned();
  world_.ownerless["/maildir/local/anna"].usage = 99;
  world_.ownerless["/maildir/local/bert"].usage = 99;
  Run([&] { no_owner.Refresh(); });
  EXPECT_EQ(ExitStatus(), kCameBack);
  EXPECT_EQ(no_owner.List(std::vector<unsigned int>{1001}).at(0).usage, std::nullopt);
  EXPECT_EQ(no_owner.List(std::vector<unsigned int>{1002}).at(0).usage, 7U);
}

}  // namespace
}  // namespace velamailserver::webapi
