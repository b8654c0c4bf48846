#include <algorithm>
#include <cstddef>
#include <exception>
#include <utility>
#include <vector>

#include <vela/cred.h>
#include <velamailserver/maillog.h>

#include "cred/answer_shape.h"
#include "cred/endpoint.h"
#include "cred/exchange.h"
#include "cred/records.h"
#include "cred/webapi_call.h"

namespace VELA {

namespace {

constexpr char kSourceFile[] = "platform/linux/cred/cred_request";
constexpr int kNotLoggedInLine = 36;
constexpr int kNotMadeLine = 42;
constexpr int kBadShapeLine = 71;

}  // namespace

class CredRequest::Transfer {
 public:
  quillon::platform::Question question;
  quillon::platform::Answer answer;
};

CredRequest::CredRequest() : transfer_(std::make_unique<Transfer>()) {}
CredRequest::~CredRequest() = default;

CredRequest* CredRequest::CreateWebAPIRequest(const _tag_vela_cred_* cred,
                                              const _tag_vela_cred_sess_* session,
                                              const std::string& api, int version,
                                              const std::string& method,
                                              const Json::Value& params) {
  try {
    auto request = std::make_unique<CredRequest>();
    if (session->token.IsEmpty() || !request->SetURL(quillon::platform::WebAPIURL(*cred))) {
      maillog(3, "%s:%d no call of %s: not logged in to a host", kSourceFile, kNotLoggedInLine,
              api.c_str());
      return nullptr;
    }
    quillon::platform::Question& question = request->transfer_->question;
    question.body = quillon::platform::WebAPIBody(api, version, method, params);
    question.token = session->token;
    return request.release();
  } catch (const std::exception& error) {
    maillog(3, "%s:%d no call of %s: %s", kSourceFile, kNotMadeLine, api.c_str(), error.what());
    return nullptr;
  }
}

void CredRequest::SetUploadFile(const char* key, const char* path) {
  transfer_->question.upload = {key, path};
}

bool CredRequest::SetURL(const std::string& url) {
  if (!quillon::platform::EndpointOf(url)) {
    return false;
  }
  transfer_->question.url = url;
  return true;
}

std::string CredRequest::GetURL() const { return transfer_->question.url; }

void CredRequest::SetDefaultTimeout(long seconds) {
  static_cast<void>(SetResponseTimeout(seconds));
}

bool CredRequest::SetResponseTimeout(long seconds) {
  if (seconds < 0) {
    return false;
  }
  transfer_->question.timeout = seconds;
  return true;
}

bool CredRequest::Process(bool /*verify*/, int retries) {
  int left = std::max(retries, 0);
  do {
    transfer_->answer = quillon::platform::Exchange(transfer_->question);
  } while (GetError() != 0 && left-- > 0);
  return GetError() == 0;
}

int CredRequest::GetError() const { return transfer_->answer.error; }

class CredRequestMgr::Queue {
 public:
  int Add(CredRequest* request) {
    if (request == nullptr) {
      return -1;
    }
    requests_.reserve(requests_.size() + 1);
    requests_.emplace_back(request);
    return static_cast<int>(requests_.size()) - 1;
  }

  void Run() {
    for (const auto& request : requests_) {
      request->Process(true, 0);
      DropBadShape(*request);
    }
  }

  const std::string* Body(int index) const {
    const auto at = static_cast<std::size_t>(index);
    return at < requests_.size() ? &requests_[at]->transfer_->answer.body : nullptr;
  }

 private:
  static void DropBadShape(const CredRequest& request) {
    std::string& body = request.transfer_->answer.body;
    if (const char* problem = quillon::platform::ObjectToShape(body)) {
      maillog(4, "%s:%d the answer of %s %s", kSourceFile, kBadShapeLine, request.GetURL().c_str(),
              problem);
      body.clear();
    }
  }

  std::vector<std::unique_ptr<CredRequest>> requests_;
};

CredRequestMgr::CredRequestMgr() = default;
CredRequestMgr::~CredRequestMgr() = default;

int CredRequestMgr::AddCredRequest(CredRequest* request) {
  try {
    if (queue_ == nullptr) {  // not before: a call of this process needs none
      queue_ = std::make_unique<Queue>();
    }
    return queue_->Add(request);
  } catch (const std::exception&) {
    return -1;
  }
}

void CredRequestMgr::Run() {
  if (queue_ != nullptr) {
    queue_->Run();
  }
}

std::string CredRequestMgr::GetResponse(int index) {
  const std::string* const body = queue_ == nullptr ? nullptr : queue_->Body(index);
  return body == nullptr ? "" : *body;
}

}  // namespace VELA
