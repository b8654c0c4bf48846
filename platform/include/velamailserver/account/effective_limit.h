#pragma once

#include <string>

namespace velamailserver::account {

/// The limit in bytes that applies to the mailbox of the user of this name, in any letter case: the
/// user's own, else the largest among those of the user's groups, the primary group included, else
/// 0. A limit of 0 means unlimited: the user's own overrides what groups give, and a group's is the
/// largest there is. So 0 always means that nothing limits the user.
///
/// A change of the store counts from the next call on, another file in its place within a second.
/// Throws `LogException`: `ERR_SDK_USER_GET` when there is no such user or the account database
/// cannot tell, what the quota store throws, and `ERR_SDK_GROUP_LIST_MEMBER` when the account
/// database cannot tell the groups of a user who has no limit of his own. Safe for use from several
/// threads.
unsigned long long GetResultUserQuotaLimit(const std::string& name);

}  // namespace velamailserver::account
