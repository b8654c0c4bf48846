#include "cred/webapi_call.h"

#include <json/writer.h>

#include "cred/endpoint.h"
#include "cred/records.h"

namespace quillon::platform {

std::string WebAPIURL(const _tag_vela_cred_& cred) {
  const auto endpoint = MakeEndpoint(cred.protocol, cred.host, cred.port);
  // As given: the parsed host lacks the zone of an IPv6 address.
  return endpoint ? cred.protocol + "://" + cred.host + ":" + std::to_string(cred.port) + "/webapi"
                  : "";
}

std::string WebAPIBody(const std::string& api, int version, const std::string& method,
                       const Json::Value& params) {
  Json::Value request(Json::objectValue);
  request["api"] = api;
  request["version"] = version;
  request["method"] = method;
  request["params"] = params;
  Json::StreamWriterBuilder one_line;
  one_line["indentation"] = "";
  one_line["commentStyle"] = "None";
  return Json::writeString(one_line, request);
}

}  // namespace quillon::platform
