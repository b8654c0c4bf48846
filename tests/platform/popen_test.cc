#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/velasdk/popen.h>

#include "support/as_nobody.h"
#include "support/own_process.h"
#include "support/pipe.h"
#include "support/temporary_folder.h"

namespace velamailserver::velasdk {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;
namespace test = quillon::test;

using Lines = std::vector<std::string>;

Lines ReadAll(Popen& command) {
  Lines lines;
  std::string line;
  while (command.GetLine(line)) {
    lines.push_back(line);
  }
  EXPECT_THAT(line, IsEmpty());
  return lines;
}

Lines OutputOf(const std::string& command, const Lines& arguments) {
  Popen running(command, arguments);
  EXPECT_TRUE(running.IsOpen());
  return ReadAll(running);
}

Popen Shell(const std::string& script) { return {"/bin/sh", {"-c", script}}; }

bool HasChild() { return ::waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD; }

long OpenDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

class Command : public testing::Test {
 protected:
  Command() {
    quillon::platform::Configuration configuration;
    configuration.log = {"file", folder_.Write("mail.log", "")};
    quillon::platform::UseConfiguration(configuration);
  }
  ~Command() override { EXPECT_FALSE(HasChild()); }

  test::TemporaryFolder folder_;
};

TEST_F(Command, IsReadLineByLine) {
  Popen command("/usr/bin/printf", {"a\\nlonger line\\n\\nend"});
  ASSERT_TRUE(command.IsOpen());
  EXPECT_THAT(ReadAll(command), ElementsAre("a\n", "longer line\n", "\n", "end"));
  EXPECT_THAT(ReadAll(command), IsEmpty());
}

TEST_F(Command, MayWriteNothing) { EXPECT_THAT(OutputOf("/bin/true", {}), IsEmpty()); }

TEST_F(Command, MayWriteAnyBytes) {
  EXPECT_THAT(OutputOf("/usr/bin/printf", {"a\\000\\377\\r\\n\\000"}),
              ElementsAre(std::string("a\0\xff\r\n", 5), std::string("\0", 1)));
}

TEST_F(Command, MayWriteLinesOfAnyLength) {
  const std::string script =
      "head -c 5000000 /dev/zero | tr '\\0' x; echo; echo short; head -c 70000 /dev/zero";
  EXPECT_THAT(OutputOf("/bin/sh", {"-c", script}),
              ElementsAre(std::string(5000000, 'x') + "\n", "short\n", std::string(70000, '\0')));
}

TEST_F(Command, MayWriteManyLines) {
  const Lines lines = OutputOf("/usr/bin/seq", {"100000"});
  ASSERT_THAT(lines, SizeIs(100000));
  for (std::size_t i = 0; i < lines.size(); ++i) {
    ASSERT_EQ(lines[i], std::to_string(i + 1) + "\n");
  }
}

// Reading byte by byte would be 588,895 system calls.
TEST_F(Command, IsReadInLargePieces) {
  const auto reads = [] {
    std::ifstream io("/proc/self/io");
    std::string key;
    long value = -1;
    while (io >> key >> value && key != "syscr:") {
    }
    return io ? value : -1;
  };
  const long before = reads();
  if (before < 0) {
    GTEST_SKIP() << "the kernel does not count a process's reads";
  }
  // All of it is there before it is read.
  Popen command = Shell("seq 1 10000");
  ::usleep(100000);
  EXPECT_THAT(ReadAll(command), SizeIs(10000));
  EXPECT_LT(reads() - before, 40);
}

TEST_F(Command, GetsItsArgumentsAsTheyAre) {
  const Lines arguments = {"$HOME", "`id`", "; exit 1", "a b\tc", "*", "'\"\\", "", "-n", "&|<>()"};
  Lines printf_arguments = {"%s\\n"};
  Lines expected;
  for (const std::string& argument : arguments) {
    printf_arguments.push_back(argument);
    expected.push_back(argument + "\n");
  }
  EXPECT_EQ(OutputOf("/usr/bin/printf", printf_arguments), expected);
}

TEST_F(Command, IsItsOwnFirstArgument) {
  EXPECT_THAT(OutputOf("/bin/sh", {"-c", "echo $0 $#"}), ElementsAre("/bin/sh 0\n"));
}

TEST_F(Command, HasAFixedEnvironment) {
  ASSERT_EQ(::setenv("LD_DEBUG_OUTPUT", "/nowhere", 1), 0);
  ASSERT_EQ(::setenv("LC_MESSAGES", "de_DE", 1), 0);
  EXPECT_THAT(OutputOf("/usr/bin/env", {}),
              UnorderedElementsAre("PATH=/usr/bin:/bin\n", "LC_ALL=C\n"));
}

TEST_F(Command, HasAnEmptyStandardInput) {
  test::InOwnProcess([] {
    const test::Pipe input;
    input.Write("for somebody else\n");
    ::dup2(input.read_end(), STDIN_FILENO);
    EXPECT_THAT(OutputOf("/bin/cat", {}), IsEmpty());
    EXPECT_THAT(OutputOf("/bin/readlink", {"/proc/self/fd/0"}), ElementsAre("/dev/null\n"));
  });
}

TEST_F(Command, InheritsNoOtherDescriptor) {
  test::Pipe pipe;
  ASSERT_EQ(::dup2(pipe.read_end(), 500), 500);
  // "3" is the folder that it reads.
  EXPECT_THAT(OutputOf("/bin/ls", {"/proc/self/fd"}), ElementsAre("0\n", "1\n", "2\n", "3\n"));
  ::close(500);
}

TEST_F(Command, SharesStandardError) {
  testing::internal::CaptureStderr();
  EXPECT_THAT(OutputOf("/bin/sh", {"-c", "echo problem >&2"}), IsEmpty());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "problem\n");
}

TEST_F(Command, HasTheCallersIdentity) {
  const test::AsNobody nobody;
  EXPECT_THAT(OutputOf("/usr/bin/id", {"-u"}), ElementsAre("65534\n"));
}

TEST_F(Command, DoesNotWorkInTheCallersFolder) {
  test::InOwnProcess([this] {
    const fs::path gone = folder_.path() / "gone";
    fs::create_directory(gone);
    fs::current_path(gone);
    fs::remove(gone);
    EXPECT_THAT(OutputOf("/bin/pwd", {}), ElementsAre("/\n"));
  });
}

TEST_F(Command, HasFreshSignals) {
  test::InOwnProcess([] {
    for (const int signal : {SIGPIPE, SIGCHLD, SIGTERM, SIGHUP}) {
      ASSERT_NE(std::signal(signal, SIG_IGN), SIG_ERR);
    }
    sigset_t blocked;
    ::sigfillset(&blocked);
    ::sigprocmask(SIG_SETMASK, &blocked, nullptr);
    // The C library has two of its own that it ignores on its own account.
    const unsigned long ours = ~(1UL << 31U | 1UL << 32U);
    for (const char* kind : {"SigBlk", "SigIgn"}) {
      const Lines lines = OutputOf("/bin/grep", {kind, "/proc/self/status"});
      ASSERT_THAT(lines, SizeIs(1));
      EXPECT_EQ(std::stoul(lines[0].substr(8), nullptr, 16) & ours, 0U) << lines[0];
    }
  });
}

TEST_F(Command, IsReaped) {
  {
    const Popen command("/bin/true", {});
    EXPECT_TRUE(HasChild());
  }
  EXPECT_FALSE(HasChild());
}

TEST_F(Command, LeavesOtherChildrenAlone) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(7);
  }
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), nullptr, WEXITED | WNOWAIT), 0);
  OutputOf("/bin/true", {});
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(Command, IsWaitedForAfterItsOutputEnded) {
  {
    Popen command = Shell("exec >&-; sleep 0.2; echo done > " + folder_ / "done");
    EXPECT_THAT(ReadAll(command), IsEmpty());
  }
  EXPECT_EQ(folder_.Read("done"), "done\n");
}

TEST_F(Command, NeedsNoReaping) {
  test::InOwnProcess([] {
    ASSERT_NE(std::signal(SIGCHLD, SIG_IGN), SIG_ERR);
    EXPECT_THAT(OutputOf("/bin/echo", {"text"}), ElementsAre("text\n"));
    EXPECT_FALSE(HasChild());
  });
}

TEST_F(Command, EndsWhenItsOutputIsNotRead) {
  test::InOwnProcess([] {
    ASSERT_NE(std::signal(SIGPIPE, SIG_IGN), SIG_ERR);
    {
      Popen command("/usr/bin/yes", {"on and on"});
      std::string line;
      ASSERT_TRUE(command.GetLine(line));
      ASSERT_TRUE(command.GetLine(line));
      EXPECT_EQ(line, "on and on\n");
    }
    { const Popen unread("/usr/bin/yes", {}); }
    EXPECT_FALSE(HasChild());
  });
}

TEST_F(Command, IsReadAndReapedThroughInterruptions) {
  test::InOwnProcess([] {
    static volatile std::sig_atomic_t interruptions = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { interruptions = interruptions + 1; };
    ASSERT_EQ(::sigaction(SIGALRM, &action, nullptr), 0);
    const itimerval often = {{0, 2000}, {0, 2000}};
    ASSERT_EQ(::setitimer(ITIMER_REAL, &often, nullptr), 0);
    {
      Popen command = Shell("sleep 0.1; echo a; sleep 0.1; echo b; exec >&-; sleep 0.1");
      EXPECT_THAT(ReadAll(command), ElementsAre("a\n", "b\n"));
      interruptions = 0;
    }
    EXPECT_GT(interruptions, 0);
    EXPECT_FALSE(HasChild());
  });
}

TEST_F(Command, IsReturnedFromAFunction) {
  Popen command = Shell("echo here");
  EXPECT_THAT(ReadAll(command), ElementsAre("here\n"));
}

TEST_F(Command, LeavesNoDescriptorOpen) {
  const long before = OpenDescriptors();
  OutputOf("/bin/echo", {"text"});
  { const Popen failed("/no/such/program", {}); }
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(Command, IsNotOpenWhenItCannotBeStarted) {
  const std::string script = folder_.Write("script", "#!/bin/sh\n");
  const std::vector<std::pair<std::string, std::string>> failures = {
      {"/no/such/program", "No such file or directory"},
      {script, "Permission denied"},
      {"/bin", "Permission denied"},
      {"ls", "No such file or directory"},  // PATH is not asked
      {"", "No such file or directory"}};
  for (const auto& [path, reason] : failures) {
    Popen command(path, {"argument"});
    EXPECT_FALSE(command.IsOpen()) << path;
    std::string line = "old";
    EXPECT_FALSE(command.GetLine(line));
    EXPECT_EQ(line, "");
    EXPECT_FALSE(HasChild());
    std::string record = "cannot start ";
    record.append(path).append(": ").append(reason).append("\n");
    EXPECT_THAT(folder_.Read("mail.log"), EndsWith(record));
  }
  EXPECT_THAT(folder_.Read("mail.log"), HasSubstr(" err: platform/linux/sdk/popen:"));
}

TEST_F(Command, IsNotOpenWithoutDescriptors) {
  test::InOwnProcess([] {
    int next = ::dup(STDERR_FILENO);
    ::close(next);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    for (const rlim_t free : {0U, 1U}) {  // a pipe needs two
      limit.rlim_cur = static_cast<rlim_t>(next) + free;
      ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
      const Popen command("/bin/true", {});
      EXPECT_FALSE(command.IsOpen());
      EXPECT_FALSE(HasChild());
    }
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(::dup(STDERR_FILENO), next);
  });
}

// Then the pipe gets their numbers.
TEST_F(Command, WorksWithoutStandardStreams) {
  for (unsigned closed = 1; closed < 8; ++closed) {
    SCOPED_TRACE(testing::Message() << closed);
    test::InOwnProcess([closed] {
      testing::internal::CaptureStderr();  // a file
      for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if ((closed & 1U << static_cast<unsigned>(fd)) != 0) {
          ::close(fd);
        }
      }
      EXPECT_THAT(OutputOf("/bin/ls", {"/proc/self/fd"}), ElementsAre("0\n", "1\n", "2\n", "3\n"));
      EXPECT_THAT(OutputOf("/bin/readlink", {"/proc/self/fd/0"}), ElementsAre("/dev/null\n"));
      const Lines standard_error = OutputOf("/bin/readlink", {"/proc/self/fd/2"});
      ASSERT_THAT(standard_error, SizeIs(1));
      const bool has_standard_error = (closed & 1U << STDERR_FILENO) == 0;
      EXPECT_EQ(standard_error[0] != "/dev/null\n", has_standard_error);
      EXPECT_THAT(standard_error[0], testing::Not(testing::StartsWith("pipe:")));
    });
  }
}

}  // namespace
}  // namespace velamailserver::velasdk
