#include "user_report.h"

#include <utility>

#include <velamailserver/account/user.h>

#include "resolve_accounts.h"

namespace quillon::handlers {

namespace {

using velamailserver::velasdk::VelaUser;
using velamailserver::webapi::User;

const Json::StaticString kPercentKey("percent");

struct Row : ReportRow {
  unsigned long long usage;
  std::optional<double> percent;
};

// The wider type keeps the product exact, so that a user at 90 % is not at 89.99… %.
std::optional<double> Percent(unsigned long long usage, std::optional<unsigned long long> limit) {
  if (limit.value_or(0) == 0) {
    return std::nullopt;
  }
  return static_cast<double>(100.0L * static_cast<long double>(usage) /
                             static_cast<long double>(*limit));
}

std::vector<Row> MakeRows(Json::Value& list) {
  std::vector<Row> rows;
  rows.reserve(list.size());
  for (Json::Value& user : list) {
    Row row{RowOf(user), std::as_const(user)["usage"].asUInt64(), std::nullopt};
    row.percent = Percent(row.usage, row.limit);
    rows.push_back(row);
  }
  return rows;
}

void Sort(const UserReportOptions& options, std::vector<Row>& rows) {
  const bool is_descending = options.page.is_descending;
  switch (options.sort) {
    case UserReportOptions::Sort::kName:
      return SortBy(&Row::name, is_descending, rows);
    case UserReportOptions::Sort::kLimit:
      return SortBy(&Row::limit, is_descending, rows);
    case UserReportOptions::Sort::kWarning:
      return SortBy(&Row::warning, is_descending, rows);
    case UserReportOptions::Sort::kUsage:
      return SortBy(&Row::usage, is_descending, rows);
    case UserReportOptions::Sort::kPercent:
      return SortBy(&Row::percent, is_descending, rows);
  }
}

}  // namespace

Json::Value ReportUsers(const std::vector<VelaUser>& users, const UserReportOptions& options) {
  Json::Value list = AnnotatedList(EntriesOf(users), "user",
                                   [](Json::Value& names) { User().UpdateQuotaUsage(names); });
  std::vector<Row> rows = MakeRows(list);
  if (options.above) {
    std::erase_if(rows,
                  [&](const Row& row) { return !row.percent || *row.percent < *options.above; });
  }
  Sort(options, rows);
  return TakePage("users", options.page, rows, [](const Row& row, Json::Value& user) {
    user[kPercentKey] = row.percent ? Json::Value(*row.percent) : Json::Value();
  });
}

}  // namespace quillon::handlers
