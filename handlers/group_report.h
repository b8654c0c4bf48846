#pragma once

#include <vector>

#include <json/value.h>

#include <velamailserver/velasdk/vela_group.h>

#include "quota_report.h"

namespace quillon::handlers {

struct GroupReportOptions {
  enum class Sort { kName, kLimit, kWarning };

  Sort sort = Sort::kName;  ///< ties are ordered by name; a figure that is not set sorts lowest
  ReportPage page;
};

/// {"groups": […], "total": how many there are before the page is cut out}. A group has
///   "name"
///   "quota", "remaining_usage_notification"  as `Group::UpdateQuotaInfo` writes them
///   "limit"    the limit in bytes, 0 if it is unlimited, null without one
///   "warning"  the warning level in bytes, null without one
///
/// Throws what the quota store throws, and `APIError` with `ERR_INTERNAL` that names the group
/// whose stored warning level is above the limit.
Json::Value ReportGroups(const std::vector<velamailserver::velasdk::VelaGroup>& groups,
                         const GroupReportOptions& options);

}  // namespace quillon::handlers
