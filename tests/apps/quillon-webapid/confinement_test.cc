#include "confinement.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/own_process.h"

namespace quillon::webapid {
namespace {

using test::InOwnProcess;

constexpr uid_t kNobody = 65534;

TEST(ConfinementTest, GivesUpAllRights) {
  InOwnProcess([] {
    DropRights(kNobody, kNobody);
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    ASSERT_EQ(::getresuid(&real, &effective, &saved), 0);
    EXPECT_EQ(real, kNobody);
    EXPECT_EQ(effective, kNobody);
    EXPECT_EQ(saved, kNobody);
    EXPECT_EQ(::getgroups(0, nullptr), 0);
    EXPECT_EQ(::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0), 1);
    EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 0);
    EXPECT_EQ(::prctl(PR_CAPBSET_READ, 0, 0, 0, 0), 0);
    EXPECT_EQ(::prctl(PR_CAPBSET_READ, 21, 0, 0, 0), 0);
    int death_signal = 0;
    EXPECT_EQ(::prctl(PR_GET_PDEATHSIG, &death_signal), 0);
    EXPECT_EQ(death_signal, SIGKILL);
    rlimit limit{1, 1};
    EXPECT_EQ(::getrlimit(RLIMIT_CORE, &limit), 0);
    EXPECT_EQ(limit.rlim_max, 0U);
    EXPECT_EQ(::fork(), -1);
  });
}

TEST(ConfinementTest, LeavesNobodyWithRootsIds) {
  InOwnProcess([] {
    EXPECT_THROW(DropRights(0, kNobody), std::runtime_error);
    EXPECT_THROW(DropRights(kNobody, 0), std::runtime_error);
  });
}

// Runs `body` behind the filter, as root: nothing but the filter refuses it anything.
template <typename Body>
void BehindTheFilter(const Body& body) {
  if (!kCanFilterSystemCalls) {
    GTEST_SKIP() << "skipped: a build with sanitizers has no filter";
  }
  InOwnProcess([&body] {
    if (!FilterSystemCalls()) {
      test::SkipInOwnProcess("filter of system calls");
    }
    body();
  });
}

#define EXPECT_REFUSED(call) \
  do {                       \
    errno = 0;               \
    EXPECT_EQ(call, -1);     \
    EXPECT_EQ(errno, EPERM); \
  } while (false)

TEST(ConfinementTest, RefusesProgramsAndProcesses) {
  BehindTheFilter([] {
    std::array<char*, 2> arguments = {const_cast<char*>("/bin/true"), nullptr};
    EXPECT_REFUSED(::execv("/bin/true", arguments.data()));
    EXPECT_REFUSED(::fork());
    EXPECT_REFUSED(::syscall(SYS_vfork));
    EXPECT_REFUSED(::syscall(SYS_clone3, nullptr, 0));
    EXPECT_REFUSED(::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr));
    EXPECT_REFUSED(::kill(::getpid(), 0));
    EXPECT_REFUSED(::syscall(SYS_tgkill, ::getppid(), ::getppid(), 0));
    EXPECT_REFUSED(::setresuid(kNobody, kNobody, kNobody));
    EXPECT_REFUSED(::prctl(PR_SET_DUMPABLE, 1));
  });
}

TEST(ConfinementTest, RefusesFiles) {
  BehindTheFilter([] {
    EXPECT_REFUSED(::open("/etc/passwd", O_RDONLY));
    EXPECT_REFUSED(::open("/tmp/none", O_WRONLY | O_CREAT, 0600));
    EXPECT_REFUSED(::unlink("/tmp/none"));
    EXPECT_REFUSED(::access("/etc/passwd", F_OK));
    EXPECT_REFUSED(::syscall(SYS_io_uring_setup, 1, nullptr));
  });
}

TEST(ConfinementTest, RefusesOtherSocketsThanThatOfTheLog) {
  BehindTheFilter([] {
    EXPECT_REFUSED(::socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_REFUSED(::socket(AF_INET6, SOCK_DGRAM, 0));
    EXPECT_REFUSED(::socket(AF_NETLINK, SOCK_RAW, 0));
    EXPECT_REFUSED(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_GE(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), 0);
  });
}

TEST(ConfinementTest, RefusesMemoryThatIsExecutable) {
  BehindTheFilter([] {
    constexpr std::size_t kPage = 4096;
    const auto map = [](int protection) {
      return ::mmap(nullptr, kPage, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    };
    EXPECT_EQ(map(PROT_READ | PROT_EXEC), MAP_FAILED);
    void* const page = map(PROT_READ | PROT_WRITE);
    ASSERT_NE(page, MAP_FAILED);
    EXPECT_REFUSED(::mprotect(page, kPage, PROT_READ | PROT_EXEC));
    EXPECT_EQ(::mprotect(page, kPage, PROT_READ), 0);
  });
}

TEST(ConfinementTest, LeavesExceptionsAndMemoryAlone) {
  BehindTheFilter([] {
    EXPECT_THROW(throw std::runtime_error("caught"), std::runtime_error);
    const std::string large(64 << 20, 'x');
    EXPECT_EQ(large.back(), 'x');
  });
}

}  // namespace
}  // namespace quillon::webapid
