#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/run_api.h>

namespace velamailserver::webapi {

namespace {

constexpr char kSourceFile[] = "lib-webapi/run_api";
constexpr int kFailedLine = 23;

bool ReportsSuccess(const Json::Value& response) {
  if (!response.isObject()) {
    return false;
  }
  const Json::Value& success = response["success"];
  return success.isConvertibleTo(Json::booleanValue) && success.asBool();
}

}  // namespace

Json::Value RunWebapi(const std::string& api, const std::string& method, const Json::Value& params,
                      int version) {
  Json::Value response;
  VELA::APIRunner::Exec(response, api.c_str(), version, method.c_str(), params, "admin");
  if (!ReportsSuccess(response)) {
    throw LogException(ERR_RUN_WEBAPI, "api: [" + api + "], method: [" + method + "]", 3,
                       kSourceFile, kFailedLine);
  }
  return response;
}

}  // namespace velamailserver::webapi
