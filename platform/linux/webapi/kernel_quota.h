#pragma once

#include <cstdint>
#include <optional>

namespace quillon::platform {

/// Whose disk space is limited.
enum class QuotaSubject { kUser, kGroup };

/// What a subject may use of a file system, in units of 1024 bytes; 0 where there is no limit.
struct KernelQuota {
  std::uint64_t hard = 0;  ///< cannot be exceeded
  std::uint64_t soft = 0;  ///< can be exceeded for some time
};

/// The kernel's quota of a uid or gid, at this moment, on the file system that `folder` is open on
/// (O_PATH will do). None when that file system keeps no quotas of such subjects, or the kernel
/// none at all; nor where even root may not ask, as in a container, which is logged. A subject
/// without a limit has a quota of zeros, and so have all while the kernel counts without enforcing.
/// Asking about others than oneself needs root. Throws `std::system_error` when it cannot be found
/// out: for want of rights, of a disk that has become read-only, and on a kernel before Linux 5.14
/// that has quotas.
std::optional<KernelQuota> ReadKernelQuota(int folder, QuotaSubject subject, std::uint32_t id);

}  // namespace quillon::platform
