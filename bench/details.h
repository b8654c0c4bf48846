#pragma once

#include <string>
#include <vector>

#include <velamailserver/account/user.h>

namespace quillon::bench {

/// Writes what is known of users to a file, a line for each.
void WriteDetails(const std::vector<velamailserver::webapi::MoreInfo>& infos,
                  const std::string& path);

}  // namespace quillon::bench
