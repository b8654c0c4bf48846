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

}  // namespace quillon::platform
