#include <memory>
#include <string>

#include <fmt/format.h>

#include <vela/cred.h>

#include "recording_platform/world.h"
#include "support/typed_json.h"

using recording::TheWorld;

struct _tag_vela_cred_ {};
struct _tag_vela_cred_sess_ {};

namespace {

const char* NameOf(const _tag_vela_cred_* cred) { return cred == nullptr ? "null" : "cred"; }
const char* NameOf(const _tag_vela_cred_sess_* session) {
  return session == nullptr ? "null" : "session";
}

}  // namespace

_tag_vela_cred_* VELACredAlloc() {
  TheWorld().Call("VELACredAlloc()");
  return TheWorld().alloc_cred ? new _tag_vela_cred_ : nullptr;
}

_tag_vela_cred_sess_* VELACredSessAlloc() {
  TheWorld().Call("VELACredSessAlloc()");
  return TheWorld().alloc_session ? new _tag_vela_cred_sess_ : nullptr;
}

void VELACredFree(_tag_vela_cred_* cred) {
  TheWorld().Note("VELACredFree(cred)");
  delete cred;
}

void VELACredSessFree(_tag_vela_cred_sess_* session) {
  TheWorld().Note("VELACredSessFree(session)");
  delete session;
}

void VELACredItemSetHost(_tag_vela_cred_* cred, const char* host) {
  TheWorld().Call(fmt::format("VELACredItemSetHost({}, {})", NameOf(cred), host));
}

void VELACredItemSetRemoteAccount(_tag_vela_cred_* cred, const char* account) {
  TheWorld().Call(fmt::format("VELACredItemSetRemoteAccount({}, {})", NameOf(cred), account));
}

void VELACredItemSetRemotePasswd(_tag_vela_cred_* cred, const char* password) {
  TheWorld().Call(fmt::format("VELACredItemSetRemotePasswd({}, {})", NameOf(cred), password));
}

void VELACredItemSetProtocol(_tag_vela_cred_* cred, const char* protocol) {
  TheWorld().Call(fmt::format("VELACredItemSetProtocol({}, {})", NameOf(cred), protocol));
}

void VELACredItemSetPort(_tag_vela_cred_* cred, long port) {
  TheWorld().Call(fmt::format("VELACredItemSetPort({}, {})", NameOf(cred), port));
}

namespace VELA {

using quillon::test::Compact;

bool CredRequestUtil::Login(_tag_vela_cred_* cred, _tag_vela_cred_sess_* session) {
  TheWorld().Call(fmt::format("Login({}, {})", NameOf(cred), NameOf(session)));
  return TheWorld().login;
}

class CredRequest::Transfer {
 public:
  std::string api;
  std::string url;
};

CredRequest::CredRequest() : transfer_(std::make_unique<Transfer>()) {
  TheWorld().Call("CredRequest()");
}

CredRequest::~CredRequest() { TheWorld().Note("~CredRequest()"); }

CredRequest* CredRequest::CreateWebAPIRequest(const _tag_vela_cred_* cred,
                                              const _tag_vela_cred_sess_* session,
                                              const std::string& api, int version,
                                              const std::string& method,
                                              const Json::Value& params) {
  TheWorld().Call(fmt::format("CreateWebAPIRequest({}, {}, \"{}\", {}, \"{}\", {})", NameOf(cred),
                              NameOf(session), api, version, method, Compact(params)));
  if (!TheWorld().create_request) {
    return nullptr;
  }
  const recording::Pause pause;
  auto request = std::make_unique<CredRequest>();
  request->transfer_->api = api;
  return request.release();
}

void CredRequest::SetUploadFile(const char* key, const char* path) {
  TheWorld().Call(fmt::format("SetUploadFile({}, {})", key, path));
}

bool CredRequest::SetURL(const std::string& url) {
  TheWorld().Call(fmt::format("SetURL({})", url));
  transfer_->url = url;
  return TheWorld().unacceptable_urls.count(url) == 0;
}

std::string CredRequest::GetURL() const {
  TheWorld().Call("GetURL()");
  return TheWorld().held_url.value_or(transfer_->url);
}

void CredRequest::SetDefaultTimeout(long seconds) {
  TheWorld().Call(fmt::format("SetDefaultTimeout({})", seconds));
}

bool CredRequest::SetResponseTimeout(long seconds) {
  TheWorld().Call(fmt::format("SetResponseTimeout({})", seconds));
  return TheWorld().set_response_timeout;
}

bool CredRequest::Process(bool verify, int retries) {
  TheWorld().Call(fmt::format("Process({}, {})", verify, retries));
  return TheWorld().unreachable_urls.count(transfer_->url) == 0;
}

int CredRequest::GetError() const {
  TheWorld().Call("GetError()");
  return TheWorld().request_error;
}

class CredRequestMgr::Queue {
 public:
  std::unique_ptr<CredRequest> request;
  std::string api;
};

CredRequestMgr::CredRequestMgr() : queue_(std::make_unique<Queue>()) {
  TheWorld().Call("CredRequestMgr()");
}

CredRequestMgr::~CredRequestMgr() { TheWorld().Note("~CredRequestMgr()"); }

int CredRequestMgr::AddCredRequest(CredRequest* request) {
  TheWorld().Call("AddCredRequest(request)");
  if (TheWorld().queue_index >= 0) {
    queue_->api = request->transfer_->api;
    queue_->request.reset(request);
  }
  return TheWorld().queue_index;
}

void CredRequestMgr::Run() { TheWorld().Call("Run()"); }

std::string CredRequestMgr::GetResponse(int index) {
  TheWorld().Call(fmt::format("GetResponse({})", index));
  const auto found = TheWorld().bodies.find(queue_->api);
  return found == TheWorld().bodies.end() ? TheWorld().body : found->second;
}

}  // namespace VELA
