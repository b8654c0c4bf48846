#include <utility>

#include <fmt/format.h>

#include <vela/api_runner.h>

#include "recording_platform/world.h"
#include "support/typed_json.h"

namespace VELA {

using quillon::test::Compact;
using recording::TheWorld;

void APIRunner::Register(const std::string& api, int version, const std::string& method,
                         Handler handler) {
  TheWorld().Call(fmt::format("Register(\"{}\", {}, \"{}\")", api, version, method));
  TheWorld().handlers[api + " " + method] = std::move(handler);
}

void APIRunner::Exec(Json::Value& response, const char* api, int version, const char* method,
                     const Json::Value& params, const char* user) {
  TheWorld().Call(fmt::format("Exec({}, \"{}\", {}, \"{}\", {}, \"{}\")", Compact(response), api,
                              version, method, Compact(params), user));
  const auto found = TheWorld().api_responses.find(api);
  response = found == TheWorld().api_responses.end() ? TheWorld().api_response : found->second;
}

}  // namespace VELA
