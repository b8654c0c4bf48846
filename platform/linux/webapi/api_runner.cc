#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>

#include "webapi/host_apis.h"

namespace VELA {

namespace {

using SharedHandler = std::shared_ptr<const APIRunner::Handler>;
using Methods = std::map<std::string, SharedHandler, std::less<>>;
using Versions = std::map<int, Methods>;

using APIs = std::map<std::string, Versions, std::less<>>;

APIs HostAPIs() {
  const auto handler = [](Json::Value (*function)(const Json::Value&)) {
    return std::make_shared<const APIRunner::Handler>(function);
  };
  APIs apis;
  apis["VELA.Core.Quota"][1]["get"] = handler(quillon::platform::GetShareQuota);
  apis["VELA.Core.System.Utilization"][1]["get"] = handler(quillon::platform::GetUtilization);
  apis["VELA.Core.Web.TARN"][1]["get"] = handler(quillon::platform::GetWebPorts);
  return apis;
}

// The host's own APIs are in it from the beginning, whichever initialiser of whichever file is the
// first to use it.
struct Registry {
  std::shared_mutex mutex;
  APIs apis = HostAPIs();
};

// Made at the first use: programs may register theirs from initialisers.
Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

SharedHandler Find(const std::string& api, int version, const std::string& method) {
  Registry& registry = TheRegistry();
  const std::shared_lock lock(registry.mutex);
  const auto versions = registry.apis.find(api);
  if (versions == registry.apis.end()) {
    throw APIError(APIRunner::kUnknownAPI, "no API [" + api + "]");
  }
  const auto methods = versions->second.find(version);
  if (methods == versions->second.end()) {
    throw APIError(APIRunner::kUnsupportedVersion,
                   "API [" + api + "] has no version " + std::to_string(version));
  }
  const auto handler = methods->second.find(method);
  if (handler == methods->second.end()) {
    throw APIError(
        APIRunner::kUnknownMethod,
        "API [" + api + "] version " + std::to_string(version) + " has no method [" + method + "]");
  }
  return handler->second;
}

Json::Value Failure(int code, const std::string& message) {
  Json::Value envelope;
  envelope["success"] = false;
  envelope["error"]["code"] = code;
  envelope["error"]["message"] = message;
  return envelope;
}

Json::Value Run(const char* api, int version, const char* method, const Json::Value& params) {
  try {
    const SharedHandler handler = Find(api, version, method);
    Json::Value envelope;
    envelope["data"] = (*handler)(params);
    envelope["success"] = true;
    return envelope;
  } catch (const APIError& error) {
    Json::Value envelope = Failure(error.code(), error.what());
    if (error.data() != nullptr) {
      envelope["error"]["data"] = *error.data();
    }
    return envelope;
  } catch (const velamailserver::LogException& error) {
    return Failure(error.code(), error.what());
  } catch (const std::exception& error) {
    return Failure(APIRunner::kHandlerFailed, std::string("API [") + api + "] method [" + method +
                                                  "] failed: " + error.what());
  } catch (...) {
    return Failure(APIRunner::kHandlerFailed, std::string("API [") + api + "] method [" + method +
                                                  "] failed with an exception of an unknown type");
  }
}

}  // namespace

void APIRunner::Register(const std::string& api, int version, const std::string& method,
                         Handler handler) {
  auto shared = std::make_shared<const Handler>(std::move(handler));
  Registry& registry = TheRegistry();
  const std::unique_lock lock(registry.mutex);
  registry.apis[api][version][method].swap(shared);
}

// No API here depends on the user: whoever may run one at all acts as "admin".
void APIRunner::Exec(Json::Value& response, const char* api, int version, const char* method,
                     const Json::Value& params, const char* /*user*/) {
  response = Run(api, version, method, params);
}

}  // namespace VELA
