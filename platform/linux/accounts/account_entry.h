#pragma once

#include <cstdint>
#include <string_view>

namespace velamailserver::velasdk {

/// A user or a group as the account database knows it. The name lives as long as what owns the
/// entry.
struct AccountEntry {
  std::string_view name;
  std::uint32_t id;
};

}  // namespace velamailserver::velasdk
