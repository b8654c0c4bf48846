// call-locally library|direct CALLS: calls an API of this process, through the library or by the
// runner itself.
#include <cstdlib>
#include <iostream>
#include <string>

#include <json/value.h>

#include <quillon/platform/configuration.h>
#include <vela/api_runner.h>
#include <velamailserver/utils.h>

#include "timing.h"

namespace {

constexpr char kAPI[] = "VELA.Core.Web.TARN";

void Check(bool is_answered) {
  if (!is_answered) {
    std::cerr << "call-locally: a call failed\n";
    std::exit(EXIT_FAILURE);
  }
}

void CallByLibrary(const Json::Value& request) {
  Json::Value response;
  Check(WebAPIRequest("", "", "", request, response, "http", -1, -1, Json::Value()) == 0);
}

void CallDirectly(const Json::Value& params) {
  Json::Value response;
  VELA::APIRunner::Exec(response, kAPI, 1, "get", params, "admin");
  Check(response["success"].asBool());
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const bool is_direct = argv[1] == std::string("direct");
  const int calls = std::stoi(argv[2]);
  quillon::platform::UseConfiguration({});
  Json::Value request;
  request["api"] = kAPI;
  request["version"] = 1;
  request["method"] = "get";
  request["params"] = Json::Value(Json::objectValue);

  quillon::bench::Time([&] {
    for (int i = 0; i < calls; ++i) {
      is_direct ? CallDirectly(request["params"]) : CallByLibrary(request);
    }
  });
}
