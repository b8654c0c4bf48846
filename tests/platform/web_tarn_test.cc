#include <string>

#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <vela/api_runner.h>

#include "support/typed_json.h"

namespace quillon::platform {
namespace {

using test::Compact;

std::string Get(const Json::Value& params = Json::Value()) {
  Json::Value response;
  VELA::APIRunner::Exec(response, "VELA.Core.Web.TARN", 1, "get", params, "monitor");
  return Compact(response);
}

// The first use of the registry, long before main().
const std::string first_answer = [] {
  Json::Value params;
  params["unknown"] = 1;
  return Get(params);
}();

TEST(WebTarnTest, IsThereFromTheFirstUseOn) {
  EXPECT_EQ(first_answer,
            R"({"error":{"code":400,"message":"unknown parameter [unknown]"},"success":false})");
}

TEST(WebTarnTest, TellsThePortsAsConfigured) {
  Configuration configuration;
  UseConfiguration(configuration);
  EXPECT_EQ(Get(), R"({"data":{"http_port":0,"https_port":5001},"success":true})");

  configuration.web.http_port = 5000;
  configuration.web.https_port = 0;
  UseConfiguration(configuration);
  EXPECT_EQ(Get(Json::Value(Json::objectValue)),
            R"({"data":{"http_port":5000,"https_port":0},"success":true})");
}

}  // namespace
}  // namespace quillon::platform
