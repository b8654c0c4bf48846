#pragma once

#include <optional>
#include <vector>

#include <json/value.h>

#include <velamailserver/velasdk/vela_user.h>

#include "quota_report.h"

namespace quillon::handlers {

struct UserReportOptions {
  enum class Sort { kName, kLimit, kWarning, kUsage, kPercent };

  Sort sort = Sort::kName;  ///< ties are ordered by name; a figure that is not set sorts lowest
  ReportPage page;
  std::optional<double> above;  ///< only users who use at least this percentage of their limit
};

/// {"users": […], "total": how many there are before the page is cut out}. A user has
///   "name"
///   "quota", "remaining_usage_notification", "usage"  as `User::UpdateQuotaUsage` writes them
///   "limit"    the limit in bytes, 0 if it is unlimited, null without one
///   "warning"  the warning level in bytes, null without one
///   "percent"  the usage in percent of the limit, null without a limit and with the limit 0
///
/// Throws what the stores throw, and `APIError` with `ERR_INTERNAL` that names the user whose
/// stored warning level is above the limit.
Json::Value ReportUsers(const std::vector<velamailserver::velasdk::VelaUser>& users,
                        const UserReportOptions& options);

}  // namespace quillon::handlers
