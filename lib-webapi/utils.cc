#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <json/reader.h>
#include <json/writer.h>

#include <vela/api_runner.h>
#include <vela/cred.h>
#include <velamailserver/utils.h>

#include "origin_log.h"

namespace {

constexpr char kSourceFile[] = "lib-webapi/utils";
constexpr int kBadURLLine = 47;
constexpr int kProbeFailedLine = 53;
constexpr int kNoDefaultPortLine = 87;
constexpr int kNoGivenPortLine = 94;
constexpr int kParamsLine = 126;
constexpr int kNoCredLine = 141;
constexpr int kNoSessionLine = 146;
constexpr int kPrepareFailedLine = 151;
constexpr int kLoginFailedLine = 156;
constexpr int kNoRequestLine = 161;
constexpr int kWrongFileLine = 167;
constexpr int kNotAddedLine = 177;
constexpr int kRunAsLine = 186;
constexpr int kNoPrivilegeLine = 189;
constexpr int kNotParsedLine = 198;
constexpr int kCallFailedLine = 216;
constexpr int kNoUtilizationLine = 247;
constexpr int kNoWebServerLine = 272;

constexpr int kClientFailed = 117;
constexpr int kAnyPort = -1;
constexpr int kHTTPPort = 5000;
constexpr int kHTTPSPort = 5001;
constexpr long kProbeTimeout = 10;     // seconds
constexpr long kDefaultTimeout = -1;   // lets WebAPIRequest() choose
constexpr long kResponseTimeout = 60;  // seconds

template <typename... Args>
void Log(int line, const char* message, Args... args) {
  velamailserver::LogWithOrigin(3, kSourceFile, line, message, args...);
}

// Logs why a call cannot be made, and answers its code.
template <typename... Args>
int Fail(int line, const char* message, Args... args) {
  Log(line, message, args...);
  return kClientFailed;
}

template <auto* free>
struct FreeBy {
  template <typename Record>
  void operator()(Record* record) const {
    free(record);
  }
};
using Cred = std::unique_ptr<_tag_vela_cred_, FreeBy<VELACredFree>>;
using Session = std::unique_ptr<_tag_vela_cred_sess_, FreeBy<VELACredSessFree>>;

// Gives the process another effective identity while it lives. The real and saved ids stay, so that
// the way back is open.
class RunAsScope {
 public:
  RunAsScope(uid_t uid, gid_t gid, const char* file, int line)
      : saved_euid_(::geteuid()), saved_egid_(::getegid()), file_(file), line_(line) {
    ok_ = Enter(uid, gid);
    if (!ok_) {
      ::syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: %s(%d, %d)", file_, line_, kName,
               static_cast<int>(uid), static_cast<int>(gid));
    }
  }
  RunAsScope(const RunAsScope&) = delete;
  RunAsScope& operator=(const RunAsScope&) = delete;
  ~RunAsScope() {
    if (!Leave()) {
      ::syslog(LOG_AUTH | LOG_CRIT, "%s:%d ERROR: ~%s(%d, %d)", file_, line_, kName,
               static_cast<int>(saved_euid_), static_cast<int>(saved_egid_));
    }
  }

  bool ok() const { return ok_; }

 private:
  static constexpr char kName[] = "IF_RUN_AS";
  static constexpr uid_t kSameUid = static_cast<uid_t>(-1);
  static constexpr gid_t kSameGid = static_cast<gid_t>(-1);

  static int SetEuid(uid_t uid) { return ::setresuid(kSameUid, uid, kSameUid); }
  static int SetEgid(gid_t gid) { return ::setresgid(kSameGid, gid, kSameGid); }
  static bool BecomeRoot() { return SetEuid(0) >= 0; }

  // Only root may change the group, so root comes first.
  static bool Enter(uid_t uid, gid_t gid) {
    const uid_t euid = ::geteuid();
    const gid_t egid = ::getegid();
    if (euid == uid && egid == gid) {
      return true;
    }
    return (euid == 0 || BecomeRoot()) && (egid == gid || SetEgid(gid) == 0) &&
           (euid == uid || SetEuid(uid) == 0);
  }

  bool Leave() const {
    const uid_t euid = ::geteuid();
    const gid_t egid = ::getegid();
    if (euid == saved_euid_ && egid == saved_egid_) {
      return true;
    }
    return (euid == 0 || euid == saved_euid_ || BecomeRoot()) &&
           (egid == saved_egid_ || saved_egid_ == kSameGid || SetEgid(saved_egid_) == 0) &&
           (euid == saved_euid_ || saved_euid_ == kSameUid || SetEuid(saved_euid_) == 0);
  }

  const uid_t saved_euid_;
  const gid_t saved_egid_;
  const char* const file_;
  const int line_;
  bool ok_ = false;
};

bool ProbeURL(const std::string& url) {
  VELA::CredRequest request;
  if (!request.SetURL(url)) {
    Log(kBadURLLine, "SetURL failed. %s", url.c_str());
    return false;
  }
  request.SetDefaultTimeout(kProbeTimeout);
  if (!request.Process(true, 0)) {
    const std::string tried = request.GetURL();
    Log(kProbeFailedLine, "Cred Error:[%s][%d]", tried.c_str(), request.GetError());
    return false;
  }
  return true;
}

// An answer's outcome. Members that it lacks are there as null afterwards.
int CodeOf(Json::Value& response) {
  return response["success"].asBool() ? 0 : response["error"]["code"].asInt();
}

// A host may answer any two figures: the sum wraps around.
int Sum(int a, int b) {
  return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
}

// A member of a document that is only read, null when it is not there; one look-up, where a test
// and an access are two. Throws like both of them for what is no object.
const Json::Value* Find(const Json::Value& object, std::string_view key) {
  return object.find(key.data(), key.data() + key.size());
}

bool IsText(const Json::Value& object, const char* key) {
  return object.isMember(key) && object[key].isString();
}

// Any JSON value may be given.
bool IsUpload(const Json::Value& upload) {
  return upload.isObject() && IsText(upload, "file_key") && IsText(upload, "file_path");
}

// False when the privileges that a run with an upload needs cannot be had: the file may belong to
// anybody.
bool Run(VELA::CredRequestMgr& queue, bool has_upload) {
  if (!has_upload) {
    queue.Run();
    return true;
  }
  const RunAsScope as_root(0, 0, kSourceFile, kRunAsLine);
  if (!as_root.ok()) {
    Log(kNoPrivilegeLine, "fail to gain privilege");
    return false;
  }
  queue.Run();
  return true;
}

}  // namespace

bool IsPortActive(const std::string& host, const std::string& protocol, int port) {
  return ProbeURL(protocol + "://" + host + ":" + std::to_string(port));
}

int prepare_login(_tag_vela_cred_* cred, const std::string& host, const std::string& account,
                  const std::string& password, const std::string& protocol, int port) {
  std::string chosen_protocol = protocol;
  int chosen_port = port;

  VELACredItemSetHost(cred, host.c_str());
  VELACredItemSetRemoteAccount(cred, account.c_str());
  VELACredItemSetRemotePasswd(cred, password.c_str());

  if (port != kAnyPort) {
    if (!IsPortActive(host, protocol, port)) {
      Log(kNoGivenPortLine, "host: %s doesn't open %s port %d", host.c_str(), protocol.c_str(),
          port);
      return -1;
    }
  } else {
    const bool has_http = IsPortActive(host, "http", kHTTPPort);
    const bool has_https = IsPortActive(host, "https", kHTTPSPort);
    if (has_http) {
      chosen_protocol = "http";
      chosen_port = kHTTPPort;
    } else if (has_https) {
      chosen_protocol = "https";
      chosen_port = kHTTPSPort;
    } else {
      Log(kNoDefaultPortLine, "host: %s doesn't open %s port %d", host.c_str(), protocol.c_str(),
          kAnyPort);
      return -1;
    }
  }

  VELACredItemSetProtocol(cred, chosen_protocol.c_str());
  VELACredItemSetPort(cred, chosen_port);
  return 0;
}

int WebAPIRequest(const std::string& host, const std::string& account, const std::string& password,
                  const Json::Value& request, Json::Value& response, const std::string& protocol,
                  int port, long timeout, const Json::Value& upload) {
  VELA::CredRequestMgr queue;
  std::optional<Json::Reader> reader;  // made when there is something to parse

  const Json::Value* const api = Find(request, "api");
  const Json::Value* const version = api == nullptr ? nullptr : Find(request, "version");
  const Json::Value* const method = version == nullptr ? nullptr : Find(request, "method");
  if (method == nullptr) {
    return Fail(kParamsLine, "params error");
  }

  if (account.empty() && password.empty()) {
    VELA::APIRunner::Exec(response, api->asCString(), version->asInt(), method->asCString(),
                          request["params"], "admin");
    return CodeOf(response);
  }

  // What is declared later is released earlier: the request unless it is queued, the credential,
  // the session, the reader, the queue.
  Session session;
  const Cred cred(VELACredAlloc());
  if (cred == nullptr) {
    return Fail(kNoCredLine, "get default cred fail");
  }
  session.reset(VELACredSessAlloc());
  if (session == nullptr) {
    return Fail(kNoSessionLine, "alloc sess fail");
  }
  if (prepare_login(cred.get(), host, account, password, protocol, port) < 0) {
    return Fail(kPrepareFailedLine, "prepare login fail");
  }
  if (!VELA::CredRequestUtil::Login(cred.get(), session.get())) {
    return Fail(kLoginFailedLine, "login fail");
  }
  std::unique_ptr<VELA::CredRequest> call(VELA::CredRequest::CreateWebAPIRequest(
      cred.get(), session.get(), api->asString(), version->asInt(), method->asString(),
      request["params"]));
  if (call == nullptr) {
    return Fail(kNoRequestLine, "create request fail");
  }
  if (!upload.isNull()) {
    if (!IsUpload(upload)) {
      return Fail(kWrongFileLine, "wrong file info");
    }
    call->SetUploadFile(upload["file_key"].asCString(), upload["file_path"].asCString());
  }
  const int index = queue.AddCredRequest(call.get());
  if (index < 0) {
    return Fail(kNotAddedLine, "add request fail");
  }
  VELA::CredRequest* const queued = call.release();
  if (!queued->SetResponseTimeout(timeout < 0 ? kResponseTimeout : timeout)) {
    return kClientFailed;
  }
  if (!Run(queue, !upload.isNull())) {
    return kClientFailed;
  }
  const std::string body = queue.GetResponse(index);
  if (!reader.emplace().parse(body, response, true)) {
    return Fail(kNotParsedLine, "parse response fail, error: %s, webapi: %s", body.c_str(),
                Json::FastWriter().write(request).c_str());
  }
  return CodeOf(response);
}

void multiWebAPIRequest(std::vector<WebAPIParams>& calls) {
  // NOLINTNEXTLINE(modernize-loop-convert): a call may change how many there are
  for (std::size_t i = 0; i < calls.size(); ++i) {
    WebAPIParams& call = calls[i];
    const int code =
        WebAPIRequest(call.host, call.account, call.password, call.request, call.response,
                      call.protocol, call.port, kDefaultTimeout, Json::Value());
    if (code != 0) {
      const Json::Value& request = call.request;
      Log(kCallFailedLine,
          "Failed to call webapi api [%s] method [%s] to host[%s], error code [%d]",
          request["api"].asString().c_str(), request["method"].asString().c_str(),
          call.host.c_str(), code);
      // What is left of an answer that broke off may be an array.
      if (!call.response.isObject()) {
        call.response = Json::Value(Json::objectValue);
      }
      call.response["success"] = false;
    }
  }
}

int resourceInfoGetByWebAPI(const std::string& host, const std::string& account,
                            const std::string& password, Json::Value& out) {
  const auto call = [&](const Json::Value& request, Json::Value& response) {
    return WebAPIRequest(host, account, password, request, response, "http", kAnyPort,
                         kDefaultTimeout, Json::Value()) == 0 &&
           response["success"].asBool();
  };

  Json::Value utilization;
  utilization["api"] = "VELA.Core.System.Utilization";
  utilization["method"] = "get";
  utilization["version"] = 1;
  utilization["params"]["type"] = "current";
  for (const char* resource : {"cpu", "memory", "network"}) {
    utilization["params"]["resource"].append(resource);
  }
  Json::Value load;
  if (!call(utilization, load)) {
    Log(kNoUtilizationLine, "Send WebAPI for get resource info error");
    return -1;
  }

  Json::Value& data = load["data"];
  out["cpu"] = Sum(data["cpu"]["system_load"].asInt(), data["cpu"]["user_load"].asInt());
  out["ram"] = data["memory"]["real_usage"].asInt();
  Json::Value& network = data["network"];
  for (Json::ArrayIndex i = 0; i < network.size(); ++i) {
    Json::Value& entry = network[i];
    if (entry["device"].asString() == "total") {
      out["network_upload"] = entry["tx"].asInt();
      out["network_download"] = entry["rx"].asInt();
      break;
    }
  }

  Json::Value web_server;
  web_server["api"] = "VELA.Core.Web.TARN";
  web_server["method"] = "get";
  web_server["version"] = 1;
  Json::Value settings;
  if (!call(web_server, settings)) {
    Log(kNoWebServerLine, "Send WebAPI for get http_port fail, port set to default 5000.");
    out["http_port"] = kHTTPPort;
    return 0;
  }
  out["http_port"] = settings["data"]["http_port"];
  return 0;
}
