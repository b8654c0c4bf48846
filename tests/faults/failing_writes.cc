// Loaded into a program before the C library: fails the call that the plan names, of those that
// change what is on a disk. Pipes, sockets and files in memory do not count.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "faults/fault_plan.h"

namespace {

using quillon::test::Fault;
using quillon::test::FaultPlan;

FaultPlan* plan = nullptr;

[[gnu::constructor]] void FindPlan() { plan = quillon::test::FaultPlanOfEnvironment(); }

enum class Verdict { kPass, kHalf, kFail };

// A call as the plan sees it.
struct Call {
  const char* name;
  const char* path;
  bool needs_space;
  bool is_write = false;
};

void NoteFailure(const Call& call) {
  if (plan->failed++ == 0) {
    std::snprintf(plan->what.data(), plan->what.size(), "%s %s", call.name, call.path);
  }
}

// A call that is to fail has its error number in errno.
Verdict Judge(const Call& call) {
  if (plan == nullptr) {
    return Verdict::kPass;
  }
  const std::uint32_t number = ++plan->calls;
  const Fault fault = plan->fault;
  if (fault == Fault::kFullDisk && number >= plan->ordinal && call.needs_space) {
    NoteFailure(call);
    errno = ENOSPC;
    return Verdict::kFail;
  }
  if (number != plan->ordinal || fault == Fault::kNone || fault == Fault::kFullDisk ||
      (fault == Fault::kShortWrite && !call.is_write)) {
    return Verdict::kPass;
  }
  NoteFailure(call);
  if (fault == Fault::kKill) {
    ::kill(::getpid(), SIGKILL);
  }
  errno = EIO;
  return fault == Fault::kShortWrite ? Verdict::kHalf : Verdict::kFail;
}

// The same for a call on a descriptor.
Verdict JudgeDescriptor(const char* name, int fd, bool needs_space, bool is_write = false) {
  struct stat status {};
  if (plan == nullptr || ::fstat(fd, &status) != 0 ||
      (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))) {
    return Verdict::kPass;
  }
  char link[40];
  char path[150] = "";
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  if (::readlink(link, path, sizeof(path) - 1) < 0 || std::strncmp(path, "/memfd:", 7) == 0) {
    return Verdict::kPass;
  }
  return Judge({name, path, needs_space, is_write});
}

int Result(long answer) { return static_cast<int>(answer); }

// At least one byte, as a write of a file does.
std::size_t Allowed(Verdict verdict, std::size_t size) {
  return verdict == Verdict::kHalf ? std::max<std::size_t>(size / 2, 1) : size;
}

bool Exists(int folder, const char* path) {
  struct stat status {};
  return ::fstatat(folder, path, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

int Open(int folder, const char* path, int flags, va_list arguments) {
  const bool has_mode = (flags & (O_CREAT | O_TMPFILE)) != 0;
  const mode_t mode = has_mode ? va_arg(arguments, mode_t) : 0;
  if ((flags & O_CREAT) != 0 && Judge({"create", path, !Exists(folder, path)}) != Verdict::kPass) {
    return -1;
  }
  return Result(::syscall(SYS_openat, folder, path, flags, mode));
}

}  // namespace

extern "C" {

#define QUILLON_EXPORT [[gnu::visibility("default")]]

QUILLON_EXPORT ssize_t write(int fd, const void* bytes, size_t size) {
  const Verdict verdict = JudgeDescriptor("write", fd, true, true);
  return verdict == Verdict::kFail ? -1 : ::syscall(SYS_write, fd, bytes, Allowed(verdict, size));
}

QUILLON_EXPORT ssize_t pwrite64(int fd, const void* bytes, size_t size, off_t offset) {
  const Verdict verdict = JudgeDescriptor("pwrite", fd, true, true);
  return verdict == Verdict::kFail
             ? -1
             : ::syscall(SYS_pwrite64, fd, bytes, Allowed(verdict, size), offset);
}

QUILLON_EXPORT ssize_t pwrite(int fd, const void* bytes, size_t size, off_t offset) {
  return pwrite64(fd, bytes, size, offset);
}

// One half of several pieces is the first of them.
QUILLON_EXPORT ssize_t writev(int fd, const iovec* pieces, int count) {
  const Verdict verdict = JudgeDescriptor("writev", fd, true, true);
  return verdict == Verdict::kFail
             ? -1
             : ::syscall(SYS_writev, fd, pieces, verdict == Verdict::kHalf ? 1 : count);
}

QUILLON_EXPORT int fsync(int fd) {
  return JudgeDescriptor("fsync", fd, false) == Verdict::kPass ? Result(::syscall(SYS_fsync, fd))
                                                               : -1;
}

QUILLON_EXPORT int fdatasync(int fd) {
  return JudgeDescriptor("fdatasync", fd, false) == Verdict::kPass
             ? Result(::syscall(SYS_fdatasync, fd))
             : -1;
}

QUILLON_EXPORT int ftruncate64(int fd, off_t size) {
  return JudgeDescriptor("ftruncate", fd, true) == Verdict::kPass
             ? Result(::syscall(SYS_ftruncate, fd, size))
             : -1;
}

QUILLON_EXPORT int ftruncate(int fd, off_t size) { return ftruncate64(fd, size); }

// Answers the error number, unlike all others.
QUILLON_EXPORT int posix_fallocate64(int fd, off_t offset, off_t size) {
  return JudgeDescriptor("posix_fallocate", fd, true) != Verdict::kPass ||
                 ::syscall(SYS_fallocate, fd, 0, offset, size) != 0
             ? errno
             : 0;
}

QUILLON_EXPORT int posix_fallocate(int fd, off_t offset, off_t size) {
  return posix_fallocate64(fd, offset, size);
}

QUILLON_EXPORT int fchmod(int fd, mode_t mode) {
  return JudgeDescriptor("fchmod", fd, false) == Verdict::kPass
             ? Result(::syscall(SYS_fchmod, fd, mode))
             : -1;
}

QUILLON_EXPORT int fchown(int fd, uid_t owner, gid_t group) {
  return JudgeDescriptor("fchown", fd, false) == Verdict::kPass
             ? Result(::syscall(SYS_fchown, fd, owner, group))
             : -1;
}

QUILLON_EXPORT int openat64(int folder, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int fd = Open(folder, path, flags, arguments);
  va_end(arguments);
  return fd;
}

QUILLON_EXPORT int openat(int folder, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int fd = Open(folder, path, flags, arguments);
  va_end(arguments);
  return fd;
}

QUILLON_EXPORT int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int fd = Open(AT_FDCWD, path, flags, arguments);
  va_end(arguments);
  return fd;
}

QUILLON_EXPORT int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int fd = Open(AT_FDCWD, path, flags, arguments);
  va_end(arguments);
  return fd;
}

QUILLON_EXPORT int mknodat(int folder, const char* path, mode_t mode, dev_t device) {
  return Judge({"mknod", path, true}) == Verdict::kPass
             ? Result(::syscall(SYS_mknodat, folder, path, mode, device))
             : -1;
}

QUILLON_EXPORT int mknod(const char* path, mode_t mode, dev_t device) {
  return mknodat(AT_FDCWD, path, mode, device);
}

QUILLON_EXPORT int mkdirat(int folder, const char* path, mode_t mode) {
  return Judge({"mkdir", path, !Exists(folder, path)}) == Verdict::kPass
             ? Result(::syscall(SYS_mkdirat, folder, path, mode))
             : -1;
}

QUILLON_EXPORT int mkdir(const char* path, mode_t mode) { return mkdirat(AT_FDCWD, path, mode); }

QUILLON_EXPORT int linkat(int from_folder, const char* from, int folder, const char* path,
                          int flags) {
  return Judge({"link", path, true}) == Verdict::kPass
             ? Result(::syscall(SYS_linkat, from_folder, from, folder, path, flags))
             : -1;
}

QUILLON_EXPORT int link(const char* from, const char* path) {
  return linkat(AT_FDCWD, from, AT_FDCWD, path, 0);
}

QUILLON_EXPORT int renameat2(int from_folder, const char* from, int folder, const char* path,
                             unsigned flags) {
  return Judge({"rename", path, true}) == Verdict::kPass
             ? Result(::syscall(SYS_renameat2, from_folder, from, folder, path, flags))
             : -1;
}

QUILLON_EXPORT int renameat(int from_folder, const char* from, int folder, const char* path) {
  return renameat2(from_folder, from, folder, path, 0);
}

QUILLON_EXPORT int rename(const char* from, const char* path) {
  return renameat2(AT_FDCWD, from, AT_FDCWD, path, 0);
}

QUILLON_EXPORT int unlinkat(int folder, const char* path, int flags) {
  return Judge({"unlink", path, false}) == Verdict::kPass
             ? Result(::syscall(SYS_unlinkat, folder, path, flags))
             : -1;
}

QUILLON_EXPORT int unlink(const char* path) { return unlinkat(AT_FDCWD, path, 0); }

QUILLON_EXPORT int rmdir(const char* path) { return unlinkat(AT_FDCWD, path, AT_REMOVEDIR); }

#undef QUILLON_EXPORT

}  // extern "C"
