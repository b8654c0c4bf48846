#include <fmt/format.h>
#include <json/writer.h>

#include <vela/api_runner.h>

#include "recording_platform/world.h"

namespace VELA {

using recording::TheWorld;

namespace {

std::string Text(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

}  // namespace

void APIRunner::Register(const std::string& api, int version, const std::string& method,
                         Handler /*handler*/) {  // NOLINT(performance-unnecessary-value-param)
  TheWorld().Call(fmt::format("Register(\"{}\", {}, \"{}\")", api, version, method));
}

void APIRunner::Exec(Json::Value& response, const char* api, int version, const char* method,
                     const Json::Value& params, const char* user) {
  TheWorld().Call(fmt::format("Exec({}, \"{}\", {}, \"{}\", {}, \"{}\")", Text(response), api,
                              version, method, Text(params), user));
  response = TheWorld().api_response;
}

}  // namespace VELA
