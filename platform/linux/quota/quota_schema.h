#pragma once

#include <soci/soci.h>

#include "quota/quota_dialect.h"

namespace quillon::platform {

/// The tables of the quota store: one per kind of value, each with "id" (the uid or gid), "name"
/// (the account's name when the value was written, for people who look into the database) and
/// "bytes" (decimal text, because neither database has an unsigned 64-bit number).
inline constexpr char kUserLimitTable[] = "user_limit";
inline constexpr char kUserWarningTable[] = "user_warning";
inline constexpr char kGroupLimitTable[] = "group_limit";
inline constexpr char kGroupWarningTable[] = "group_warning";

/// The mail users as of the last `SyncMailUsers`: "id" (the uid), "name", "gid", "home" (where the
/// mail is); and the groups of each, as "id" and "gid". The view mail_user_quota joins them to the
/// limits: "name", "uid", "gid", "home", "quota_limit" and "quota_warning", decimal text or NULL
/// for none. Mail servers read that, so it is never changed, only followed by another one.
inline constexpr char kMailUserTable[] = "mail_user";
inline constexpr char kMailUserGroupTable[] = "mail_user_group";
inline constexpr char kMailUserQuotaView[] = "mail_user_quota";

/// Its only row has the number of migrations that the store has been through.
inline constexpr char kSchemaTable[] = "quota_schema";

/// Brings the store to the newest schema; several programs may do so at the same time. Throws
/// `LogException`: `ERR_BAD_DB_SESSION` for a store that cannot be read, `ERR_DB_CREATE` and
/// `ERR_DB_UPGRADE` for what cannot be created or upgraded, a store of a newer program included.
void UpgradeQuotaSchema(soci::session& session, const QuotaDialect& dialect);

}  // namespace quillon::platform
