#include "user_report.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include <vela/api_runner.h>
#include <velamailserver/account/user.h>
#include <velamailserver/log_exception.h>

namespace quillon::handlers {

namespace {

using velamailserver::LogException;
using velamailserver::velasdk::VelaUser;
using velamailserver::webapi::User;

constexpr char kName[] = "name";
constexpr char kQuota[] = "quota";
constexpr char kRemaining[] = "remaining_usage_notification";
constexpr char kUsage[] = "usage";

// One user of the report: the figures to filter and sort by, beside the document they come from.
struct Row {
  Json::Value* user;
  std::string_view name;
  std::optional<unsigned long long> limit;
  std::optional<unsigned long long> warning;
  unsigned long long usage;
  std::optional<double> percent;
};

// Members are annotated in order and "usage" comes last: the first one without it is where the
// report ended, and it has the other two if it was its warning that ended it.
[[noreturn]] void RefuseWarning(const Json::Value& list, const LogException& error) {
  const auto last = std::find_if(list.begin(), list.end(),
                                 [](const Json::Value& user) { return !user.isMember(kUsage); });
  if (last != list.end() && last->isMember(kRemaining)) {
    throw VELA::APIError(error.code(), "user [" + (*last)[kName].asString() + "]: " + error.what() +
                                           "; set both again or clear them");
  }
  throw;
}

Json::Value AnnotatedList(const std::vector<VelaUser>& users) {
  Json::Value list(Json::arrayValue);
  for (const VelaUser& user : users) {
    list.append(Json::Value(Json::objectValue))[kName] = user.RealName();
  }
  try {
    User().UpdateQuotaUsage(list);
  } catch (const LogException& error) {
    RefuseWarning(list, error);
  }
  return list;
}

std::string_view TextOf(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  value.getString(&begin, &end);
  return {begin, static_cast<std::size_t>(end - begin)};
}

// The wider type keeps the product exact, so that a user at 90 % is not at 89.99… %.
std::optional<double> Percent(unsigned long long usage, std::optional<unsigned long long> limit) {
  if (limit.value_or(0) == 0) {
    return std::nullopt;
  }
  return static_cast<double>(100.0L * static_cast<long double>(usage) /
                             static_cast<long double>(*limit));
}

// The library writes a signed 0 for what is not set, and what is set unsigned. To ask the store
// again would not do: the library finds limits and warnings by name, the store by uid, and an
// account may share either with another.
std::optional<unsigned long long> FigureOf(const Json::Value& value) {
  if (value.type() != Json::uintValue) {
    return std::nullopt;
  }
  return value.asUInt64();
}

std::vector<Row> MakeRows(Json::Value& list) {
  std::vector<Row> rows;
  rows.reserve(list.size());
  for (Json::Value& user : list) {
    Row row{&user,        TextOf(user[kName]),     FigureOf(user[kQuota]),
            std::nullopt, user[kUsage].asUInt64(), std::nullopt};
    if (const auto remaining = FigureOf(user[kRemaining])) {
      row.warning = row.limit.value_or(0) - *remaining;
    }
    row.percent = Percent(row.usage, row.limit);
    rows.push_back(row);
  }
  return rows;
}

template <typename Figure>
void SortBy(Figure Row::*figure, bool is_descending, std::vector<Row>& rows) {
  std::stable_sort(rows.begin(), rows.end(), [=](const Row& a, const Row& b) {
    if (a.*figure != b.*figure) {
      return is_descending ? b.*figure < a.*figure : a.*figure < b.*figure;
    }
    return a.name < b.name;
  });
}

void Sort(const UserReportOptions& options, std::vector<Row>& rows) {
  switch (options.sort) {
    case UserReportOptions::Sort::kName:
      return SortBy(&Row::name, options.is_descending, rows);
    case UserReportOptions::Sort::kLimit:
      return SortBy(&Row::limit, options.is_descending, rows);
    case UserReportOptions::Sort::kWarning:
      return SortBy(&Row::warning, options.is_descending, rows);
    case UserReportOptions::Sort::kUsage:
      return SortBy(&Row::usage, options.is_descending, rows);
    case UserReportOptions::Sort::kPercent:
      return SortBy(&Row::percent, options.is_descending, rows);
  }
}

// Takes the users of the page out of the list that the rows point into.
Json::Value TakePage(const UserReportOptions& options, std::vector<Row>& rows) {
  const unsigned long long total = rows.size();
  const unsigned long long begin = std::min(options.offset, total);
  const unsigned long long length = std::min(options.limit.value_or(total), total - begin);

  Json::Value page(Json::arrayValue);
  for (unsigned long long i = begin; i < begin + length; ++i) {
    const Row& row = rows[i];
    Json::Value& user = page.append(std::move(*row.user));
    user["limit"] = row.limit ? Json::Value(Json::UInt64{*row.limit}) : Json::Value();
    user["warning"] = row.warning ? Json::Value(Json::UInt64{*row.warning}) : Json::Value();
    user["percent"] = row.percent ? Json::Value(*row.percent) : Json::Value();
  }

  Json::Value answer;
  answer["users"].swap(page);
  answer["total"] = Json::UInt64{total};
  return answer;
}

}  // namespace

Json::Value ReportUsers(const std::vector<VelaUser>& users, const UserReportOptions& options) {
  Json::Value list = AnnotatedList(users);
  std::vector<Row> rows = MakeRows(list);
  if (options.above) {
    std::erase_if(rows,
                  [&](const Row& row) { return !row.percent || *row.percent < *options.above; });
  }
  Sort(options, rows);
  return TakePage(options, rows);
}

}  // namespace quillon::handlers
