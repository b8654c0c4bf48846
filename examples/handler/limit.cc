// "Example.MailServer.Limit", version 1
//   "largest"  {"names"} → {"name", "limit"}: who of these users may store the most, and how many
//              bytes that is; "limit" is null when nothing limits that user.
#include <limits>
#include <string>

#include <quillon/platform/handler_module.h>
#include <vela/api_runner.h>
#include <velamailserver/account/effective_limit.h>
#include <velamailserver/velasdk/vela_user.h>

namespace {

using VELA::APIError;
using VELA::APIRunner;

constexpr Json::UInt64 kUnlimited = std::numeric_limits<Json::UInt64>::max();

// An unknown name throws `LogException`, whose code the answer has. So have exceptions from the
// stores: a handler passes on what it cannot mend.
Json::UInt64 LimitOf(const std::string& name) {
  const Json::UInt64 limit = velamailserver::account::GetResultUserQuotaLimit(name);
  return limit == 0 ? kUnlimited : limit;
}

Json::Value FindLargest(const Json::Value& params) {
  // A parameter that is unknown here may be a misspelt one that matters.
  if (!params.isObject() || params.size() != 1 || !params["names"].isArray() ||
      params["names"].empty()) {
    throw APIError(APIRunner::kBadParameters, "\"names\", a list of names, is what is needed");
  }
  Json::Value largest;
  Json::UInt64 largest_limit = 0;
  for (const Json::Value& name : params["names"]) {
    const Json::UInt64 limit = LimitOf(name.asString());
    if (largest.isNull() || limit > largest_limit) {
      largest_limit = limit;
      // As the accounts spell it: names are found in any letter case.
      largest["name"] = velamailserver::velasdk::VelaUser(name.asString()).Name();
      largest["limit"] = limit == kUnlimited ? Json::Value() : Json::Value(limit);
    }
  }
  return largest;
}

}  // namespace

void QuillonRegisterHandlers() {
  APIRunner::Register("Example.MailServer.Limit", 1, "largest", FindLargest);
}
