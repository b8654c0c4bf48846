#include "webapi/kernel_quota.h"

#include <linux/dqblk_xfs.h>
#include <sys/quota.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include <velamailserver/maillog.h>

#include "utils/once_a_minute.h"

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/webapi/kernel_quota";
constexpr int kForbiddenLine = 58;

// The C library has no function for it. In contrast to quotactl(2) it needs no block device, for
// which there may be no name in a container. Answers 0 or an error.
int Ask(int folder, int command, std::uint32_t id, void* answer) {
  return ::syscall(SYS_quotactl_fd, folder, command, id, answer) == 0 ? 0 : errno;
}

[[noreturn]] void Fail(int error) {
  throw std::system_error(error, std::generic_category(), "quotactl_fd");
}

// A kernel answers ENOSYS for a file system that cannot have quotas, too: whether it has the call
// itself shows with a descriptor that is none. One that has quotas, but not this call, may limit
// the subject all the same.
bool IsOnlyTheCallMissing() {
  const int command = QCMD(Q_GETFMT, USRQUOTA);
  const bool has_quotas = ::quotactl(command, nullptr, 0, nullptr) == 0 || errno != ENOSYS;
  return has_quotas && Ask(-1, command, 0, nullptr) == ENOSYS;
}

// Root is kept from asking in a container only: by a filter of system calls, or because the file
// system is its host's. Everything else about a user would be hidden with what cannot be asked.
bool IsForbiddenHere(int error) {
  if (error != EPERM || ::geteuid() != 0) {
    return false;
  }
  static OnceAMinute once;
  if (once.IsDue("forbidden")) {
    maillog(4,
            "%s:%d quotas of the file system are not shown: root may not ask for them here (a "
            "container needs CAP_SYS_ADMIN for that)",
            kSourceFile, kForbiddenLine);
  }
  return true;
}

// FS_QUOTA_… flags: 0 without any quotas. Everybody may ask this, and on any file system, whatever
// the name of the command says.
unsigned StateOfQuotas(int folder) {
  fs_quota_statv state{};
  state.qs_version = FS_QSTATV_VERSION1;
  const int error = Ask(folder, QCMD(Q_XGETQSTATV, USRQUOTA), 0, &state);
  if (error == ENOSYS && !IsOnlyTheCallMissing()) {
    return 0;
  }
  if (IsForbiddenHere(error)) {
    return 0;
  }
  if (error != 0) {
    Fail(error);
  }
  return state.qs_flags;
}

std::optional<KernelQuota> LimitsOf(int folder, QuotaSubject subject, std::uint32_t id) {
  const int type = subject == QuotaSubject::kUser ? USRQUOTA : GRPQUOTA;
  dqblk limits{};
  const int error = Ask(folder, QCMD(Q_GETQUOTA, type), id, &limits);
  if (error == ENOENT) {  // XFS has no record of the subject
    return KernelQuota();
  }
  if (IsForbiddenHere(error)) {
    return std::nullopt;
  }
  if (error != 0) {
    Fail(error);
  }
  return KernelQuota{.hard = limits.dqb_bhardlimit, .soft = limits.dqb_bsoftlimit};
}

}  // namespace

std::optional<KernelQuota> ReadKernelQuota(int folder, QuotaSubject subject, std::uint32_t id) {
  const bool is_user = subject == QuotaSubject::kUser;
  const unsigned state = StateOfQuotas(folder);
  if ((state & (is_user ? FS_QUOTA_UDQ_ACCT : FS_QUOTA_GDQ_ACCT)) == 0) {
    return std::nullopt;
  }
  const bool is_enforced = (state & (is_user ? FS_QUOTA_UDQ_ENFD : FS_QUOTA_GDQ_ENFD)) != 0;
  return is_enforced ? LimitsOf(folder, subject, id) : KernelQuota();
}

}  // namespace quillon::platform
