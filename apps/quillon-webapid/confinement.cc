#include "confinement.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <system_error>

#ifndef QUILLON_WITHOUT_SYSTEM_CALL_FILTER
#include <seccomp.h>

#include <memory>
#endif

#include <velamailserver/maillog.h>

namespace quillon::webapid {

namespace {

void Require(int result, const char* what) {
  if (result != 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

void SetLimit(__rlimit_resource resource, rlim_t most, const char* what) {
  const rlimit limit{most, most};
  Require(::setrlimit(resource, &limit), what);
}

// None of them could come back by running a program. A process of root's that may not drop them
// does without: there are no new privileges anyway.
void DropCapabilityBounds() {
  for (unsigned long capability = 0; ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0;
       ++capability) {
  }
}

}  // namespace

void DropRights(uid_t uid, gid_t gid) {
  if (uid == 0 || gid == 0) {
    throw std::runtime_error("the front does not run as root");
  }
  SetLimit(RLIMIT_CORE, 0, "no core dump");
  DropCapabilityBounds();
  Require(::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0), "no ambient capabilities");
  Require(::setgroups(0, nullptr), "setgroups");
  Require(::setresgid(gid, gid, gid), "setresgid");
  Require(::setresuid(uid, uid, uid), "setresuid");
  SetLimit(RLIMIT_NPROC, 0, "no further process");
  Require(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "no new privileges");
  Require(::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0), "not dumpable");
  // Lost with the user's id.
  Require(::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0), "to end with the supervisor");
  if (::setresuid(0, 0, 0) == 0) {
    throw std::runtime_error("the front could become root again");
  }
}

#ifdef QUILLON_WITHOUT_SYSTEM_CALL_FILTER

const bool kCanFilterSystemCalls = false;

bool FilterSystemCalls() { return false; }

#else

const bool kCanFilterSystemCalls = true;

namespace {

constexpr char kSourceFile[] = "apps/quillon-webapid/confinement";
constexpr int kNoFilterLine = 31;

constexpr int kAllowed[] = {
    // what arrives and what leaves
    SCMP_SYS(accept4), SCMP_SYS(close), SCMP_SYS(epoll_ctl), SCMP_SYS(epoll_pwait),
    SCMP_SYS(epoll_wait), SCMP_SYS(getpeername), SCMP_SYS(getsockname), SCMP_SYS(getsockopt),
    SCMP_SYS(poll), SCMP_SYS(ppoll), SCMP_SYS(read), SCMP_SYS(readv), SCMP_SYS(recvfrom),
    SCMP_SYS(recvmsg), SCMP_SYS(sendmsg), SCMP_SYS(sendto), SCMP_SYS(setsockopt),
    SCMP_SYS(shutdown), SCMP_SYS(write), SCMP_SYS(writev),
    // settings and a log that the supervisor hands over
    SCMP_SYS(dup2), SCMP_SYS(dup3), SCMP_SYS(lseek), SCMP_SYS(pread64),
    // the log daemon, again after it was restarted; a filter cannot see whose address it is
    SCMP_SYS(connect),
    // memory
    SCMP_SYS(brk), SCMP_SYS(madvise), SCMP_SYS(mremap), SCMP_SYS(munmap),
    // what the C library and the TLS library ask for
    SCMP_SYS(clock_gettime), SCMP_SYS(futex), SCMP_SYS(getegid), SCMP_SYS(geteuid),
    SCMP_SYS(getgid), SCMP_SYS(getpid), SCMP_SYS(getppid), SCMP_SYS(getrandom), SCMP_SYS(getrusage),
    SCMP_SYS(gettid), SCMP_SYS(gettimeofday), SCMP_SYS(getuid), SCMP_SYS(restart_syscall),
    SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigreturn), SCMP_SYS(sched_yield),
    SCMP_SYS(sysinfo), SCMP_SYS(time),
    // the end
    SCMP_SYS(exit), SCMP_SYS(exit_group)};

struct ReleaseFilter {
  void operator()(void* filter) const { ::seccomp_release(filter); }
};

void Check(int result) {
  if (result < 0) {
    throw std::system_error(-result, std::generic_category(), "system call filter");
  }
}

void Allow(scmp_filter_ctx filter, int call) {
  Check(::seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, call, 0, nullptr));
}

void AllowIf(scmp_filter_ctx filter, int call, scmp_arg_cmp condition) {
  Check(::seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, call, 1, &condition));
}

scmp_arg_cmp Argument(unsigned int index, unsigned long long value) {
  return {index, SCMP_CMP_EQ, value, 0};
}

// Whether those bits of an argument have that value.
scmp_arg_cmp Bits(unsigned int index, unsigned long long mask, unsigned long long value) {
  return {index, SCMP_CMP_MASKED_EQ, mask, value};
}

void AddRules(scmp_filter_ctx filter) {
  for (const int call : kAllowed) {
    Allow(filter, call);
  }
  for (const int command : {F_GETFD, F_SETFD, F_GETFL, F_SETFL}) {
    AllowIf(filter, SCMP_SYS(fcntl), Argument(1, static_cast<unsigned long long>(command)));
  }
  for (const int call : {SCMP_SYS(mmap), SCMP_SYS(mprotect)}) {
    AllowIf(filter, call, Bits(2, PROT_EXEC, 0));
  }
  // abort
  AllowIf(filter, SCMP_SYS(tgkill), Argument(0, static_cast<unsigned long long>(::getpid())));
  scmp_arg_cmp log_socket[] = {Argument(0, AF_UNIX), Bits(1, 0xf, SOCK_DGRAM)};
  Check(::seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, SCMP_SYS(socket), 2, log_socket));
}

}  // namespace

bool FilterSystemCalls() {
  ::tzset();  // the C library's log reads the time zone's file at its first use
  const std::unique_ptr<void, ReleaseFilter> filter(::seccomp_init(SCMP_ACT_ERRNO(EPERM)));
  if (!filter) {
    throw std::system_error(ENOMEM, std::generic_category(), "system call filter");
  }
  Check(::seccomp_attr_set(filter.get(), SCMP_FLTATR_API_SYSRAWRC, 1));
  // Older kernels cannot record anything.
  static_cast<void>(::seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_LOG, 1));
  AddRules(filter.get());
  const int result = ::seccomp_load(filter.get());
  if (result < 0) {
    maillog(LOG_WARNING, "%s:%d no system call filter: %s", kSourceFile, kNoFilterLine,
            std::strerror(-result));
  }
  return result >= 0;
}

#endif

}  // namespace quillon::webapid
