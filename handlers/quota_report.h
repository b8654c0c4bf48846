#pragma once

#include <algorithm>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include <json/value.h>

#include "parameters.h"

namespace quillon::handlers {

// What the reports of users and of groups have in common.

/// Which way a report is sorted, and what is cut out of it.
struct ReportPage {
  bool is_descending = false;
  unsigned long long offset = 0;            ///< entries before the page
  std::optional<unsigned long long> limit;  ///< most entries on the page
};

/// From the parameters "direction", "offset" and "limit", all optional; a negative limit is none.
ReportPage ReadReportPage(const Parameters& parameters);

/// One user or group of a report: the figures to filter and sort by, beside the entry that they
/// come from.
struct ReportRow {
  Json::Value* entry;
  std::string_view name;
  std::optional<unsigned long long> limit;
  std::optional<unsigned long long> warning;
};

/// A list of entries with what the library's `annotate` adds to them. Throws what that throws;
/// where it is a stored warning level that is above its limit, `APIError` that names the `subject`,
/// "user" or "group", as well.
Json::Value AnnotatedList(Json::Value list, const char* subject,
                          const std::function<void(Json::Value&)>& annotate);

/// The entry must outlive the row.
ReportRow RowOf(Json::Value& annotated);

// Keys of every entry, which they refer to instead of copying them.
inline const Json::StaticString kLimitKey("limit");
inline const Json::StaticString kWarningKey("warning");

/// Ties are ordered by name; a figure that is not set sorts lowest.
template <typename Figure, typename Owner, typename Row>
void SortBy(Figure Owner::*figure, bool is_descending, std::vector<Row>& rows) {
  std::stable_sort(rows.begin(), rows.end(), [=](const Row& a, const Row& b) {
    if (a.*figure != b.*figure) {
      return is_descending ? b.*figure < a.*figure : a.*figure < b.*figure;
    }
    return a.name < b.name;
  });
}

/// Takes the entries of the page out of the list that the rows point into, and adds "limit" and
/// "warning" to them, in bytes or null, and whatever `add` adds. {`key`: […], "total"}.
template <typename Row, typename Add>
Json::Value TakePage(const char* key, const ReportPage& page, const std::vector<Row>& rows,
                     const Add& add) {
  const unsigned long long total = rows.size();
  const unsigned long long begin = std::min(page.offset, total);
  const unsigned long long length = std::min(page.limit.value_or(total), total - begin);

  Json::Value answer;
  Json::Value& entries = answer[key] = Json::Value(Json::arrayValue);
  for (unsigned long long i = begin; i < begin + length; ++i) {
    const Row& row = rows[i];
    Json::Value& entry = entries.append(std::move(*row.entry));
    entry[kLimitKey] = row.limit ? Json::Value(Json::UInt64{*row.limit}) : Json::Value();
    entry[kWarningKey] = row.warning ? Json::Value(Json::UInt64{*row.warning}) : Json::Value();
    add(row, entry);
  }
  answer["total"] = Json::UInt64{total};
  return answer;
}

}  // namespace quillon::handlers
