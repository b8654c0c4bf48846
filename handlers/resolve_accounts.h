#pragma once

#include <string>
#include <vector>

#include <json/value.h>

#include <velamailserver/velasdk/vela_group.h>
#include <velamailserver/velasdk/vela_user.h>

#include "parameters.h"

namespace quillon::handlers {

/// The users or groups of these names, each once, in the order of their first mention. Throw
/// `APIError` with `ERR_SDK_USER_GET` or `ERR_SDK_GROUP_GET` that names the unknown ones, the first
/// ten of them if there are more, or what the account database throws when it cannot be read.
std::vector<velamailserver::velasdk::VelaUser> ResolveUsers(const std::vector<std::string>& names);
std::vector<velamailserver::velasdk::VelaGroup> ResolveGroups(
    const std::vector<std::string>& names);

/// Those of the parameter "names", which has to hold at least one name: for what changes them.
std::vector<velamailserver::velasdk::VelaUser> ReadUsers(const Parameters& parameters);
std::vector<velamailserver::velasdk::VelaGroup> ReadGroups(const Parameters& parameters);

/// The name by which answers call a user (the real name) and a group.
std::string NameOf(const velamailserver::velasdk::VelaUser& user);
std::string NameOf(const velamailserver::velasdk::VelaGroup& group);

/// The same for all of them, as a JSON array.
template <typename Account>
Json::Value NamesOf(const std::vector<Account>& accounts) {
  Json::Value names(Json::arrayValue);
  for (const Account& account : accounts) {
    names.append(NameOf(account));
  }
  return names;
}

/// An array with an entry, {"name"}, of each of them.
template <typename Account>
Json::Value EntriesOf(const std::vector<Account>& accounts) {
  static const Json::StaticString name("name");  // which entries refer to instead of copying it
  Json::Value entries(Json::arrayValue);
  for (const Account& account : accounts) {
    entries.append(Json::Value(Json::objectValue))[name] = NameOf(account);
  }
  return entries;
}

/// Names for a message, of which it gives the first ten: "[alice], [bob]", "[n1], … and 5 more".
std::string NameSome(const std::vector<std::string>& names);

}  // namespace quillon::handlers
