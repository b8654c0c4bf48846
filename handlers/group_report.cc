#include "group_report.h"

#include <velamailserver/account/group.h>

#include "resolve_accounts.h"

namespace quillon::handlers {

namespace {

using velamailserver::velasdk::VelaGroup;
using velamailserver::webapi::Group;

void Sort(const GroupReportOptions& options, std::vector<ReportRow>& rows) {
  const bool is_descending = options.page.is_descending;
  switch (options.sort) {
    case GroupReportOptions::Sort::kName:
      return SortBy(&ReportRow::name, is_descending, rows);
    case GroupReportOptions::Sort::kLimit:
      return SortBy(&ReportRow::limit, is_descending, rows);
    case GroupReportOptions::Sort::kWarning:
      return SortBy(&ReportRow::warning, is_descending, rows);
  }
}

}  // namespace

Json::Value ReportGroups(const std::vector<VelaGroup>& groups, const GroupReportOptions& options) {
  Json::Value list = AnnotatedList(EntriesOf(groups), "group",
                                   [](Json::Value& names) { Group().UpdateQuotaInfo(names); });
  std::vector<ReportRow> rows;
  rows.reserve(list.size());
  for (Json::Value& group : list) {
    rows.push_back(RowOf(group));
  }
  Sort(options, rows);
  return TakePage("groups", options.page, rows, [](const ReportRow&, Json::Value&) {});
}

}  // namespace quillon::handlers
