#include "quota_report.h"

#include <cstddef>
#include <string>

#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>

namespace quillon::handlers {

namespace {

using velamailserver::LogException;

constexpr char kName[] = "name";
constexpr char kQuota[] = "quota";
constexpr char kRemaining[] = "remaining_usage_notification";

// Entries are annotated in order: the last one with a quota is where the report ended, if it had
// begun, and it has the other figure, too, if it was its warning that ended it.
[[noreturn]] void RefuseWarning(const Json::Value& list, const char* subject,
                                const LogException& error) {
  const Json::Value* last = nullptr;
  for (const Json::Value& entry : list) {
    if (!entry.isMember(kQuota)) {
      break;
    }
    last = &entry;
  }
  if (last != nullptr && last->isMember(kRemaining)) {
    throw VELA::APIError(error.code(), std::string(subject) + " [" + (*last)[kName].asString() +
                                           "]: " + error.what() + "; set both again or clear them");
  }
  throw;
}

std::string_view TextOf(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  value.getString(&begin, &end);
  return {begin, static_cast<std::size_t>(end - begin)};
}

// The library writes a signed 0 for what is not set, and what is set unsigned. To ask the store
// again would not do: the library finds limits and warnings by name, the store by id, and an
// account may share either with another.
std::optional<unsigned long long> FigureOf(const Json::Value& value) {
  if (value.type() != Json::uintValue) {
    return std::nullopt;
  }
  return value.asUInt64();
}

}  // namespace

ReportPage ReadReportPage(const Parameters& parameters) {
  ReportPage page;
  if (parameters.Has("direction")) {
    page.is_descending = parameters.Choice("direction", {"ASC", "DESC"}) == "DESC";
  }
  if (parameters.Has("offset")) {
    page.offset = parameters.Unsigned("offset");
  }
  if (parameters.Has("limit")) {
    if (const long long limit = parameters.Signed("limit"); limit >= 0) {
      page.limit = static_cast<unsigned long long>(limit);
    }
  }
  return page;
}

Json::Value AnnotatedList(Json::Value list, const char* subject,
                          const std::function<void(Json::Value&)>& annotate) {
  try {
    annotate(list);
  } catch (const LogException& error) {
    RefuseWarning(list, subject, error);
  }
  return list;
}

ReportRow RowOf(Json::Value& annotated) {
  const Json::Value& figures = annotated;
  ReportRow row{&annotated, TextOf(figures[kName]), FigureOf(figures[kQuota]), std::nullopt};
  if (const auto remaining = FigureOf(figures[kRemaining])) {
    row.warning = row.limit.value_or(0) - *remaining;
  }
  return row;
}

}  // namespace quillon::handlers
