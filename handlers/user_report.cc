#include "user_report.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include <vela/api_runner.h>
#include <velamailserver/account/user.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

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
  unsigned int uid;
  std::string_view name;
  unsigned long long limit;
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

Json::Value AnnotatedList(User& quota, const std::vector<VelaUser>& users) {
  Json::Value list(Json::arrayValue);
  for (const VelaUser& user : users) {
    list.append(Json::Value(Json::objectValue))[kName] = user.RealName();
  }
  try {
    quota.UpdateQuotaUsage(list);
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
std::optional<double> Percent(unsigned long long usage, unsigned long long limit) {
  if (limit == 0) {
    return std::nullopt;
  }
  return static_cast<double>(100.0L * static_cast<long double>(usage) /
                             static_cast<long double>(limit));
}

// A warning level that equals the limit leaves no difference, and neither does one that is not set:
// only the store can tell these apart.
void AskForWarnings(User& quota, const std::vector<VelaUser>& users, std::vector<Row>& rows) {
  std::unordered_map<unsigned int, unsigned long long> warnings;
  for (const auto& record : quota.ListUserQuotaWarning(users)) {
    warnings.emplace(record.id, velamailserver::utils::ToULL(record.value));
  }
  for (Row& row : rows) {
    if (const auto found = warnings.find(row.uid); !row.warning && found != warnings.end()) {
      row.warning = found->second;
    }
  }
}

std::vector<Row> MakeRows(User& quota, const std::vector<VelaUser>& users, Json::Value& list) {
  std::vector<Row> rows;
  rows.reserve(users.size());
  std::vector<VelaUser> without_difference;
  auto account = users.begin();
  for (Json::Value& user : list) {
    Row row{&user,        account->Uid(),          TextOf(user[kName]), user[kQuota].asUInt64(),
            std::nullopt, user[kUsage].asUInt64(), std::nullopt};
    row.percent = Percent(row.usage, row.limit);
    if (const unsigned long long remaining = user[kRemaining].asUInt64(); remaining != 0) {
      row.warning = row.limit - remaining;
    } else {
      without_difference.push_back(*account);
    }
    rows.push_back(row);
    ++account;
  }
  AskForWarnings(quota, without_difference, rows);
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
  User quota;
  Json::Value list = AnnotatedList(quota, users);
  std::vector<Row> rows = MakeRows(quota, users, list);
  if (options.above) {
    std::erase_if(rows,
                  [&](const Row& row) { return !row.percent || *row.percent < *options.above; });
  }
  Sort(options, rows);
  return TakePage(options, rows);
}

}  // namespace quillon::handlers
