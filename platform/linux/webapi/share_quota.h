#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include <json/value.h>

#include <velamailserver/velasdk/vela_user.h>

#include "webapi/kernel_quota.h"

namespace quillon::platform {

/// What a share quota is made of.
struct ShareQuotaSources {
  /// As `ReadKernelQuota`; called as root.
  std::function<std::optional<KernelQuota>(int folder, QuotaSubject subject, std::uint32_t id)>
      read_quota;
  /// The gids of all groups that a user is in, the primary one included.
  std::function<std::vector<std::uint32_t>(const velamailserver::velasdk::VelaUser&)> gids_of;
};

/// "VELA.Core.Quota" version 1 "get", from these sources.
Json::Value GetShareQuota(const Json::Value& params, const ShareQuotaSources& sources);

}  // namespace quillon::platform
