#pragma once

#include <string>

namespace velamailserver::velasdk {

/// Whether the user of this account name, in any letter case, is a member of the administrators
/// group, the user's primary group included. False for a name that is no user's, and where there is
/// no administrators group. Throws `LogException` with `ERR_SDK_GROUP_IS_ADMIN_MEMBER` when the
/// account database cannot tell. Safe for use from several threads.
bool IsAdminGroupMember(const std::string& user);

}  // namespace velamailserver::velasdk
