#pragma once

#include <cstdint>
#include <string_view>

namespace velamailserver::velasdk {

/// A user or a group as the account database knows it. The texts live as long as what owns the
/// entry.
struct AccountEntry {
  std::string_view name = {};
  std::uint32_t id = 0;
  std::uint32_t primary_gid = 0;  ///< of a user
  /// Of a group in a file: the names in its list, with commas between them.
  std::string_view members = {};
};

}  // namespace velamailserver::velasdk
