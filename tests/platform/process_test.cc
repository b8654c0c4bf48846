#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <vela/process.h>

#include "support/own_process.h"
#include "support/pipe.h"
#include "support/temporary_folder.h"

namespace {

// Where the C library's connection to the system's log would be.
int log_socket = -1;

bool is_killed_at_closelog = false;

}  // namespace

// In place of the C library's: says so through the socket, if that is still open.
extern "C" __attribute__((visibility("default"))) void closelog() {
  if (is_killed_at_closelog) {
    static_cast<void>(::raise(SIGKILL));
  }
  if (log_socket >= 0) {
    static_cast<void>(!::write(log_socket, "log closed", 10));
  }
}

namespace {

using testing::StartsWith;
namespace fs = std::filesystem;
namespace test = quillon::test;

bool HasChild() { return ::waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD; }

std::string StreamName(int fd) {
  std::error_code error;
  const std::string name = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
  return error ? "closed" : name;
}

// "NUMBER NAME" of each, but for the one that lists them.
std::set<std::string> OpenDescriptors() {
  std::set<std::string> open;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    const std::string number = entry.path().filename();
    const std::string name = StreamName(std::stoi(number));
    if (!name.starts_with("/proc/")) {
      open.insert(std::string(number).append(" ").append(name));
    }
  }
  return open;
}

void LogTo(const std::string& target) {
  quillon::platform::Configuration configuration;
  configuration.log.target = target;
  quillon::platform::UseConfiguration(configuration);
}

// A process in the background that does `work` and lives on until told to end.
class Background {
 public:
  template <typename Work>
  explicit Background(const Work& work) {
    const pid_t caller = ::getpid();
    VELA::EndChildAfter([&] {
      pid_ = VLIBCProcForkChildNoWait();
      if (::getpid() != caller) {
        work();
        end_.ReadAll();
      }
    });
    EXPECT_GT(pid_, 0);
  }

  int pid() const { return pid_; }

 private:
  test::Pipe end_;  // with its write end, the object ends the process
  int pid_ = -1;
};

// That there is no process, and why.
void ExpectNone(int error) {
  errno = 0;
  const pid_t caller = ::getpid();
  const int answer = VLIBCProcForkChildNoWait();
  const int reason = errno;
  if (::getpid() != caller) {
    ::_exit(0);
  }
  EXPECT_EQ(answer, -1);
  EXPECT_EQ(reason, error);
  EXPECT_FALSE(HasChild());
}

class BackgroundProcess : public testing::Test {
 protected:
  BackgroundProcess() { LogTo("syslog"); }

  // What `work` says in a process in the background.
  template <typename Work>
  static std::string Heard(const Work& work) {
    test::Pipe heard;
    const Background background([&] {
      heard.Write(work());
      heard.CloseWriteEnd();
    });
    return heard.ReadAll();
  }

  test::TemporaryFolder folder_;
};

TEST_F(BackgroundProcess, IsReported) {
  test::Pipe heard;
  const Background background([&heard] {
    heard.Write(std::to_string(::getpid()));
    heard.CloseWriteEnd();
  });
  EXPECT_EQ(heard.ReadAll(), std::to_string(background.pid()));
}

TEST_F(BackgroundProcess, IsNoChildOfItsCaller) {
  const Background background([] {});
  EXPECT_FALSE(HasChild());
  EXPECT_TRUE(fs::exists("/proc/" + std::to_string(background.pid()))) << "it does not live";
}

TEST_F(BackgroundProcess, IsNoChildWhateverTheCallerDoesAboutChildren) {
  test::InOwnProcess([] {
    ASSERT_NE(std::signal(SIGCHLD, SIG_IGN), SIG_ERR);
    const Background background([] {});
    EXPECT_FALSE(HasChild());
  });
  test::InOwnProcess([] {
    struct sigaction action {};  // without SA_RESTART
    action.sa_handler = [](int) {
      const int saved_errno = errno;
      while (::waitpid(-1, nullptr, WNOHANG) > 0) {
      }
      errno = saved_errno;
    };
    ASSERT_EQ(::sigaction(SIGCHLD, &action, nullptr), 0);
    for (int i = 0; i < 20; ++i) {
      const Background background([] {});
      EXPECT_FALSE(HasChild());
    }
  });
}

TEST_F(BackgroundProcess, LeavesTheCallersOtherChildrenAlone) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(7);
  }
  {
    const Background background([] {});
  }
  int status = 0;
  EXPECT_EQ(::waitpid(-1, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(BackgroundProcess, IsASessionOfItsOwn) {
  EXPECT_EQ(Heard([] {
              std::ostringstream said;
              said << (::getsid(0) == ::getpid()) << (::getpgid(0) == ::getpid());
              return said.str();
            }),
            "11");
}

TEST_F(BackgroundProcess, HasEmptyStreams) {
  test::InOwnProcess([] {
    const test::Pipe input;
    input.Write("for the caller\n");
    ::dup2(input.read_end(), STDIN_FILENO);
    EXPECT_EQ(Heard([] {
                char byte = 0;
                const bool is_empty = ::read(STDIN_FILENO, &byte, 1) == 0;
                const bool is_writable = ::write(STDOUT_FILENO, "x", 1) == 1;
                return StreamName(0) + " " + StreamName(1) + " " + StreamName(2) +
                       (is_empty ? " empty" : "") + (is_writable ? " writable" : "");
              }),
              "/dev/null /dev/null /dev/null empty writable");
    EXPECT_THAT(StreamName(0), StartsWith("pipe:"));
    EXPECT_NE(StreamName(1), "/dev/null");
  });
}

TEST_F(BackgroundProcess, DoesNotHoldItsCallersOutputOpen) {
  test::Pipe output;
  test::Pipe error;
  test::Pipe question;
  test::Pipe answer;
  const pid_t caller = ::fork();
  if (caller == 0) {
    ::dup2(output.write_end(), STDOUT_FILENO);
    ::dup2(error.write_end(), STDERR_FILENO);
    output.CloseWriteEnd();
    error.CloseWriteEnd();
    VELA::EndChildAfter([&] {
      if (VLIBCProcForkChildNoWait() == 0) {
        answer.Write("I live, " + question.ReadAll());
      } else {
        static_cast<void>(!::write(STDOUT_FILENO, "reply", 5));
      }
    });
    ::_exit(0);
  }
  EXPECT_EQ(output.ReadAll(), "reply");
  EXPECT_EQ(error.ReadAll(), "");
  question.Write("caller");
  question.CloseWriteEnd();
  EXPECT_EQ(answer.ReadAll(), "I live, caller");
  ::waitpid(caller, nullptr, 0);
}

TEST_F(BackgroundProcess, KeepsStandardErrorForTheMailLog) {
  const std::string own = StreamName(STDERR_FILENO);
  const auto standard_error = [] { return StreamName(STDERR_FILENO); };
  LogTo("stderr");
  EXPECT_EQ(Heard(standard_error), own);
  LogTo("file");
  EXPECT_EQ(Heard(standard_error), "/dev/null");
}

TEST_F(BackgroundProcess, KeepsStandardErrorForTheMailLogEvenWhenThatIsASocket) {
  test::InOwnProcess([] {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    ::dup2(ends[0], STDERR_FILENO);
    LogTo("stderr");
    EXPECT_THAT(Heard([] { return StreamName(STDERR_FILENO); }), StartsWith("socket:"));
  });
}

TEST_F(BackgroundProcess, ClosesTheSocketsAndNothingElse) {
  folder_.Write("file", "");
  const int file = ::open((folder_ / "file").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const int high = ::fcntl(ends[1], F_DUPFD, 700);
  ASSERT_GE(high, 700);
  const int internet = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(internet, 0);

  test::Pipe heard;
  const Background background([&] {
    for (const int fd : {file, ends[0], ends[1], high, internet}) {
      heard.Write(StreamName(fd) + "\n");
    }
    static_cast<void>(!::write(file, "text", 4));
    heard.CloseWriteEnd();
  });
  ::close(ends[1]);
  ::close(high);
  ::close(internet);
  char byte = 0;
  EXPECT_EQ(::recv(ends[0], &byte, 1, MSG_DONTWAIT), 0) << "somebody else has it open";
  EXPECT_EQ(heard.ReadAll(), folder_ / "file" + "\nclosed\nclosed\nclosed\nclosed\n");
  EXPECT_EQ(folder_.Read("file"), "text");
  ::close(ends[0]);
  ::close(file);
}

TEST_F(BackgroundProcess, ClosesTheSystemsLogBeforeItsSocket) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  log_socket = ends[0];
  {
    const Background background([] {});
  }
  log_socket = -1;
  ::close(ends[0]);
  char said[20] = {};
  EXPECT_EQ(::recv(ends[1], said, sizeof(said), MSG_DONTWAIT), 10);
  EXPECT_STREQ(said, "log closed");
  ::close(ends[1]);
}

TEST_F(BackgroundProcess, HasTheDescriptorsOfItsCaller) {
  std::string expected;
  for (const std::string& open : OpenDescriptors()) {
    const int fd = std::stoi(open);
    expected += fd > STDERR_FILENO ? open + "\n" : std::to_string(fd) + " /dev/null\n";
  }
  test::Pipe heard;
  const auto before = OpenDescriptors();
  VELA::EndChildAfter([&heard] {
    if (VLIBCProcForkChildNoWait() == 0) {
      const int copy = ::fcntl(heard.write_end(), F_DUPFD_CLOEXEC, 900);
      heard.CloseReadEnd();
      heard.CloseWriteEnd();
      for (const std::string& open : OpenDescriptors()) {
        if (std::stoi(open) != copy) {
          static_cast<void>(!::write(copy, (open + "\n").c_str(), open.size() + 1));
        }
      }
    }
  });
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(heard.ReadAll(), expected);
}

TEST_F(BackgroundProcess, HasTheSignalsOfItsCaller) {
  test::InOwnProcess([] {
    ASSERT_NE(std::signal(SIGUSR1, SIG_IGN), SIG_ERR);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR2);
    ::sigprocmask(SIG_SETMASK, &blocked, nullptr);
    EXPECT_EQ(Heard([] {
                sigset_t mask;
                ::sigprocmask(SIG_SETMASK, nullptr, &mask);
                struct sigaction action {};
                ::sigaction(SIGUSR1, nullptr, &action);
                return std::string(::sigismember(&mask, SIGUSR2) == 1 ? "blocked " : "") +
                       (action.sa_handler == SIG_IGN ? "ignored" : "");
              }),
              "blocked ignored");
  });
}

TEST_F(BackgroundProcess, HasStreamsWhenItsCallerHasNone) {
  for (unsigned closed = 1; closed < 8; ++closed) {
    test::Pipe heard;
    SCOPED_TRACE(testing::Message() << closed);
    test::InOwnProcess([&heard, closed] {
      for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if ((closed & 1U << static_cast<unsigned>(fd)) != 0) {
          ::close(fd);
        }
      }
      const auto before = OpenDescriptors();
      const pid_t caller = ::getpid();
      VELA::EndChildAfter([&] {
        EXPECT_GE(VLIBCProcForkChildNoWait(), 0);
        if (::getpid() != caller) {
          for (const int fd : {0, 1, 2}) {
            const bool is_inherited = (::fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0;
            heard.Write(StreamName(fd) + (is_inherited ? " inherited\n" : "\n"));
          }
        }
      });
      EXPECT_EQ(OpenDescriptors(), before);
    });
    EXPECT_EQ(heard.ReadAll(), "/dev/null inherited\n/dev/null inherited\n/dev/null inherited\n")
        << closed;
  }
}

TEST_F(BackgroundProcess, ComesFromNeitherOfTwoForks) {
  for (const rlim_t processes : {1U, 2U}) {  // the caller is one
    SCOPED_TRACE(processes);
    test::InOwnProcess([processes] {
      constexpr uid_t kLonely = 54321;
      ASSERT_EQ(::setresgid(kLonely, kLonely, kLonely), 0);
      ASSERT_EQ(::setresuid(kLonely, kLonely, kLonely), 0);
      const rlimit limit = {processes, processes};
      ASSERT_EQ(::setrlimit(RLIMIT_NPROC, &limit), 0);
      const auto before = OpenDescriptors();
      ExpectNone(EAGAIN);
      EXPECT_EQ(OpenDescriptors(), before);
    });
  }
}

TEST_F(BackgroundProcess, NeedsDescriptors) {
  test::InOwnProcess([] {
    const int next = ::dup(STDERR_FILENO);
    ::close(next);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    for (rlim_t free = 0; free < 4; ++free) {
      SCOPED_TRACE(free);
      limit.rlim_cur = static_cast<rlim_t>(next) + free;
      ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
      ExpectNone(EMFILE);
    }
  });
}

TEST_F(BackgroundProcess, NeedsTheNullDeviceAndTheListOfItsDescriptors) {
  for (const char* hidden : {"/dev", "/proc"}) {
    SCOPED_TRACE(hidden);
    test::InOwnProcess([hidden] {
      if (::unshare(CLONE_NEWNS) != 0) {
        test::SkipInOwnProcess("mount namespaces");
      }
      ASSERT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
      ASSERT_EQ(::mount("tmpfs", hidden, "tmpfs", 0, nullptr), 0);
      ExpectNone(ENOENT);
    });
  }
}

TEST_F(BackgroundProcess, IsNoneWhenItDiesAtItsBeginning) {
  is_killed_at_closelog = true;
  ExpectNone(ECHILD);
  is_killed_at_closelog = false;
}

test::Pipe* exit_words = nullptr;

TEST_F(BackgroundProcess, LeavesExitHandlersAndStreamsToItsCaller) {
  test::Pipe words;
  exit_words = &words;
  const std::string path = folder_ / "stream";
  test::InOwnProcess([&path] {
    ASSERT_EQ(std::atexit([] { exit_words->Write("exit handler"); }), 0);
    std::FILE* stream = std::fopen(path.c_str(), "w");
    ASSERT_GE(std::fputs("once\n", stream), 0);
    test::Pipe end;
    VELA::EndChildAfter([] { VLIBCProcForkChildNoWait(); });
    end.ReadAll();
    EXPECT_FALSE(fs::file_size(path) > 0);
    ASSERT_EQ(std::fclose(stream), 0);
  });
  EXPECT_EQ(words.ReadAll(), "");
  EXPECT_EQ(folder_.Read("stream"), "once\n");
}

// The job's child, which is the test's own: that leaves an exit status.
class EndChildAfter : public testing::Test {
 protected:
  template <typename Work>
  static int ExitStatusOf(const Work& work) {
    pid_t child = -1;
    VELA::EndChildAfter([&] {
      child = ::fork();
      if (child == 0) {
        work();
      }
    });
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    return WEXITSTATUS(status);
  }
};

TEST_F(EndChildAfter, ReturnsInTheCallerOnly) {
  EXPECT_EQ(ExitStatusOf([] {}), EXIT_SUCCESS);
}

TEST_F(EndChildAfter, EndsTheChildForAnyException) {
  EXPECT_EQ(ExitStatusOf([] { throw std::runtime_error("failed"); }), EXIT_FAILURE);
  EXPECT_EQ(ExitStatusOf([] { throw std::bad_alloc(); }), EXIT_FAILURE);
  EXPECT_EQ(ExitStatusOf([] { throw 5; }), EXIT_FAILURE);
}

TEST_F(EndChildAfter, LetsExceptionsThroughInTheCaller) {
  EXPECT_THROW(VELA::EndChildAfter([] { throw std::out_of_range("too far"); }), std::out_of_range);
  EXPECT_THROW(VELA::EndChildAfter([] { throw 5; }), int);
}

TEST_F(EndChildAfter, DoesNotEndAJobWithoutAChild) {
  int runs = 0;
  VELA::EndChildAfter([&runs] { ++runs; });
  EXPECT_EQ(runs, 1);
}

TEST_F(EndChildAfter, RunsNoExitHandlersAndFlushesNoStreams) {
  test::Pipe words;
  exit_words = &words;
  test::InOwnProcess([] {
    ASSERT_EQ(std::atexit([] { exit_words->Write("exit handler"); }), 0);
    std::FILE* stream = ::fdopen(::dup(exit_words->write_end()), "w");
    ASSERT_GE(std::fputs("stream", stream), 0);
    ExitStatusOf([] {});
    ExitStatusOf([] { throw 5; });
  });
  EXPECT_EQ(words.ReadAll(), "");
}

}  // namespace
