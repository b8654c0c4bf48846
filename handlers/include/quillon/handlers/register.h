#pragma once

namespace quillon::handlers {

/// Makes the package's WebAPIs callable through `VELA::APIRunner`. Calling it again changes
/// nothing.
///
/// "Quillon.MailServer.User" version 1, sizes in bytes. Names are found in any letter case and
/// answered as the accounts spell them; an account that is named twice counts once. Unknown names
/// refuse the call with `ERR_SDK_USER_GET`, the first ten in the message, before anything is
/// written.
///   "list"         {"names", "sort", "direction", "offset", "limit", "above"}, all optional
///                  → {"users": […], "total"}; see `ReportUsers` for the members. Without "names":
///                  all mail users. "sort" is "name", "limit", "warning", "usage" or "percent",
///                  "direction" "ASC" or "DESC"; "offset" and "limit" cut out a page, a negative
///                  "limit" has no end; "above" keeps those who use at least that percentage of
///                  their limit; "total" counts the users before the page is cut out.
///   "set_quota"    {"names", "limit", "warning"} → {"users": [NAME…]}
///   "clear_quota"  {"names"} → {"users": [NAME…]}
///   "names"        {"names"}, optional → {"names": [NAME…]}; without it: all mail users
///
/// "Quillon.MailServer.Usage" version 1:
///   "count"        {"names"} → {"counted": [{"name", "usage"}…], "skipped": false}, or nothing
///                  counted, "skipped" true and a "reason" while another count is running.
void RegisterAll();

}  // namespace quillon::handlers
