#pragma once

#include <vector>

#include <velamailserver/velasdk/vela_group.h>

namespace quillon::platform {

/// The groups that the configuration's range of gids makes those of mail users, as the account
/// database has them now, in ascending order of gid; of several names of one gid, the first. Throws
/// `LogException` with `ERR_SDK_GROUP_INFO_ENUM_BY_SUBSTR` when the account database cannot be
/// read, and what `VelaGroup` throws for a group that goes meanwhile. Safe for use from several
/// threads.
std::vector<velamailserver::velasdk::VelaGroup> ListGroups();

}  // namespace quillon::platform
