#pragma once

#include <json/value.h>

// The APIs of the host itself, which every program on this platform has. All of them refuse unknown
// parameters by an `APIError` with `kBadParameters`.

namespace quillon::platform {

/// "VELA.Core.System.Utilization" version 1 "get": {"type", "resource"}, both optional. "type" is
/// "current", "resource" an array of what to tell, all of it by default:
///   "cpu"      {"user_load", "system_load", "other_load"}: percent of all processors together.
///              User includes processes of low priority, system the handling of interrupts; other
///              is waiting for disks and what the hypervisor took. Together at most 100.
///   "memory"   {"real_usage", "total_bytes", "available_bytes", "free_bytes", "cached_bytes",
///              "swap_total_bytes", "swap_free_bytes"}: "real_usage" is the percentage that is not
///              available to programs.
///   "network"  [{"device", "rx", "tx"}…] in bytes per second, at most 2147483647. The first is
///              "total", all but the loopback together; then each interface by itself. What passes
///              through an interface on top of another counts in both.
/// Throws `LogException` with `ERR_INTERNAL` when the host does not tell.
Json::Value GetUtilization(const Json::Value& params);

/// "VELA.Core.Web.TARN" version 1 "get": {} → {"http_port", "https_port"} as configured, 0 for one
/// that is off.
Json::Value GetWebPorts(const Json::Value& params);

/// "VELA.Core.Quota" version 1 "get": {"name", "support_share_quota", "subject_type"} → what the
/// kernel lets a user or a group use of the file system that the maildir root lies on, which is the
/// share "Quillon". "subject_type" is "user", the default, or "group"; it decides whether "name" is
/// that of a user or of a group, and whether the answer is {"user_quota": […]} or
/// {"group_quota": […]}. There is one entry,
///   {"support_share_quota": true, "shares": [{"name": "Quillon", "quota", "group_limit"}]}
/// and none when the file system keeps no quotas, or "support_share_quota" is not true in the
/// parameters. "quota" is the subject's own limit, "group_limit", for users only, the largest that
/// any group of the user's has: in megabytes of 1048576 bytes, rounded up, and 0 for no limit. A
/// limit is the hard one, or the soft one where there is no hard one. It is read at every call.
///
/// Throws `LogException`: with `ERR_SDK_USER_GET` or `ERR_SDK_GROUP_GET` for a name that nobody
/// has, with `ERR_SDK_GROUP_LIST_MEMBER` when the account database cannot tell a user's groups,
/// with `ERR_LSTAT_FILE` when the maildir root is missing, with `ERR_INTERNAL` when the kernel does
/// not tell, and what `RunAsRoot` throws.
Json::Value GetShareQuota(const Json::Value& params);

}  // namespace quillon::platform
