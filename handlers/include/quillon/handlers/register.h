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
///   "details"      {"names"}, optional, at least one; without it: all mail users
///                  → {"users": [{"name", "has_app_privilege", "maildir", "share_quota",
///                  "quota_limit", "usage"}…]}; see `MoreInfo`. "has_app_privilege" is whether the
///                  user may use the mail client. "maildir" is the path of the mail directory,
///                  "share_quota" what the user may store in the shared folder that holds the mail,
///                  "usage" what the usage store has; each of them is null when there is none.
///                  "quota_limit" is the limit that applies to the mailbox, from wherever it comes,
///                  0 when nothing limits it.
///   "clear_storage" {"names", "dry_run"}, at least one name; "dry_run" is false by default
///                  → {"removed": […], "left": […], "without": [NAME…]}, with "dry_run"
///                  {"maildirs": […], "without": [NAME…]}, and then nothing is changed. Removes the
///                  users' mail for good, and their entries in the usage store. An entry is
///                  {"name", "path", "usage", "messages"}, in the order of the names, measured at
///                  that moment (what was "removed": before its removal); sizes are the bytes of
///                  all regular files; "usage" and "messages" are null for a directory that cannot
///                  be read. "removed" is what is gone from its path. "left" is what is still
///                  there, because it belongs to somebody else, say; its user has no usage entry
///                  any more either, until the next count. "without" are those who have no mail
///                  directory (a link is none) of their own: only their usage entries are deleted.
///                  Users who share a uid share a directory; it is the first one's. A missing
///                  maildir root, or anything else that keeps a directory from being looked up,
///                  refuses the call with `ERR_LSTAT_FILE` or `ERR_SDK_FILE_ENUM_DIR` before
///                  anything is removed. When the usage store fails after that, the error is
///                  `ERR_REDIS_DELETE_KEY`, its "data" is {"removed", "left", "without"}, and to
///                  call again finishes the job.
///
/// "Quillon.MailServer.Group" version 1, sizes in bytes; names as for the users. Unknown names
/// refuse the call with `ERR_SDK_GROUP_GET`.
///   "list"         {"names", "sort", "direction", "offset", "limit"}, all optional
///                  → {"groups": […], "total"}; see `ReportGroups` for the members. Without
///                  "names": all groups of mail users. "sort" is "name", "limit" or "warning"; the
///                  others are as for the users.
///   "set_quota"    {"names", "limit", "warning"} → {"groups": [NAME…]}
///   "clear_quota"  {"names"} → {"groups": [NAME…]}
///   "share_quota"  {"name"} → {"name", "share_quota"}: what the group may store in the shared
///                  folder that holds the mail, null when that is without a limit. More than 64
///                  bits hold is answered as 18446744073709551615.
///
/// "Quillon.MailServer.Privilege" version 1: who may use which application. Names of users are as
/// above; "app" is an application's exact name, 1 to 255 letters, digits, '.', '_' and '-'
/// (`ERR_INTERNAL` refuses others), the mail client's "VELA.WUI.MailClient.Application" by default.
/// A file of privileges that cannot be used refuses the call with `ERR_OPEN_FILE`.
///   "grant", "revoke" {"names", "app"}, at least one name, "app" optional
///                  → {"users": [NAME…], "app"}. What already is so stays so.
///   "list"         {} → {"revoked": [{"name", "app"}…]}, in the order of applications and then of
///                  names. Everybody else may use every application.
///
/// "Quillon.MailServer.Usage" version 1:
///   "count"        {"names"} → {"counted": [{"name", "usage"}…], "kept": [NAME…], "skipped":
///                  false}, or nothing counted, "skipped" true and a "reason" while another count
///                  is running. "kept" are those whose entry in the usage store changed each time
///                  they were counted: the mail server writes it, and it stays as it is.
///
/// "Quillon.MailServer.NoOwner" version 1, the mail directories whose uid is nobody's. Sizes are
/// the bytes of all regular files in them, which is what removal frees. A missing maildir root
/// refuses a call with `ERR_LSTAT_FILE`: nothing would seem to be without an owner.
///   "list"         {"offset", "limit", "keyword", "sort_by", "sort_direction"}, all optional
///                  → {"no_owner_list": [{"uid", "name", "usage", "counted"}…], "total"}; see
///                  `NoOwner::List`. "counted" is false, and "usage" 0, for a directory that was
///                  never counted: a recount in the background has been started then. "sort_by" is
///                  "name" or "usage", "sort_direction" "ASC" or "DESC".
///   "refresh"      {} → {"generation", "maildirs", "skipped"}: starts to recount this many
///                  "maildirs" in the background. "generation" is the number of recounts that were
///                  finished before; it grows when this one is. While another count is running
///                  nothing is counted, "skipped" is true and there is a "reason".
///   "status"       {} → {"generation", "running"}: whether any usage count is running. Looks at no
///                  mail directory.
///   "remove"       {"uids", "dry_run"}, at least one uid; "dry_run" is false by default
///                  → {"removed": […], "left": […], "unknown": [UID…]}, with "dry_run"
///                  {"maildirs": […], "unknown": [UID…]}, and then nothing is changed. An entry is
///                  {"uid", "name", "path", "usage", "messages"}, in the order of the paths,
///                  measured at that moment (what was "removed": before its removal); "usage" and
///                  "messages" are null for a directory that cannot be read. "removed" is what is
///                  gone from its path. An unknown uid, one that owns no such directory, does not
///                  keep the others' from going.
///
/// "Quillon.MailServer.Quota" version 1:
///   "import"       {"file", "dry_run"}, "dry_run" is false by default → {"rows", "groups"}: sets
///                  the quota of the users in "file", the text of a table of three columns: name,
///                  limit, warning. Fields are separated by commas and may be quoted (RFC 4180),
///                  but end on their line; lines end with LF or CRLF; a size is in bytes or ends
///                  with B, K, M or G. Blank lines, those that begin with '#' and a first row
///                  "name,limit,warning" are left out. At most 200000 rows, at least one. "rows" is
///                  the number of users, "groups" that of different pairs of limit and warning, for
///                  each of which the stores are written to once. With "dry_run" nothing is
///                  written. One bad row refuses the whole file, before anything is written, with
///                  `kBadParameters` and the error's "data": {"bad": [{"row", "name", "reason"}…]},
///                  all of them; "row" is the number of the line, "name" null in a row whose
///                  columns cannot be told apart. A user may be there only once, under whatever
///                  name. When a store fails on the way, the error has the store's code, and "data"
///                  tells of each row where it stands: {"written", "failed", "left"}, each
///                  [{"row", "name"}…]. The limits of "failed" may be set without their warnings,
///                  those of "left" are untouched. To import the same file again is safe.
void RegisterAll();

}  // namespace quillon::handlers
