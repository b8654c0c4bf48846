#include <quillon/platform/configuration.h>

#include "webapi/host_apis.h"
#include "webapi/known_members.h"

namespace quillon::platform {

Json::Value GetWebPorts(const Json::Value& params) {
  RefuseUnknownMembers(params, {});
  const auto configuration = CurrentConfiguration();
  Json::Value ports;
  ports["http_port"] = configuration->web.http_port;
  ports["https_port"] = configuration->web.https_port;
  return ports;
}

}  // namespace quillon::platform
