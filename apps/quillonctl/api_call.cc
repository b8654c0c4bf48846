#include "api_call.h"

#include <vela/api_runner.h>

namespace {

constexpr int kVersion = 1;

}  // namespace

Json::Value Call(const char* api, const char* method, const Json::Value& params) {
  Json::Value response;
  VELA::APIRunner::Exec(response, api, kVersion, method, params, "admin");
  if (!response["success"].asBool()) {
    const Json::Value& error = response["error"];
    throw CallError(error["code"].asInt(), error["message"].asString(), error["data"]);
  }
  Json::Value data;
  data.swap(response["data"]);
  return data;
}
