#pragma once

#include <string>
#include <vector>

#include <json/value.h>

#include <velamailserver/velasdk/vela_user.h>

namespace quillon::handlers {

/// The users of these names, each once, in the order of their first mention. Throws `APIError` with
/// `ERR_SDK_USER_GET` that names the unknown ones, the first ten of them if there are more, or what
/// the account database throws when it cannot be read.
std::vector<velamailserver::velasdk::VelaUser> ResolveUsers(const std::vector<std::string>& names);

/// The users' real names as a JSON array.
Json::Value RealNames(const std::vector<velamailserver::velasdk::VelaUser>& users);

}  // namespace quillon::handlers
