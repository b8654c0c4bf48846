#include "api_call.h"

#include <fmt/format.h>

#include <velamailserver/utils.h>

#include "temporary_file.h"

namespace {

constexpr int kVersion = 1;
constexpr int kNotCalled = 117;

Destination& CurrentDestination() {
  static Destination destination;
  return destination;
}

bool IsRemote(const Destination& destination) { return !destination.account.empty(); }

// Another host's answer may be anything.
const Json::Value& Member(const Json::Value& value, const char* key) {
  return value.isObject() ? value[key] : Json::Value::nullSingleton();
}

int RequestWith(const Destination& destination, const Json::Value& request, Json::Value& response,
                const Json::Value& upload, long timeout) {
  return WebAPIRequest(destination.host, destination.account, destination.password.Get(), request,
                       response, destination.protocol, destination.port, timeout, upload);
}

int RequestWithUpload(const Destination& destination, const Json::Value& request,
                      Json::Value& response, const Upload& upload, long timeout) {
  const TemporaryFile file(upload.content);
  Json::Value description;
  description["file_key"] = upload.key;
  description["file_path"] = file.path();
  return RequestWith(destination, request, response, description, timeout);
}

}  // namespace

std::runtime_error NotCalled(const std::string& host) {
  return std::runtime_error(fmt::format(
      "{} could not be called or refused the login; the mail log has the reason", host));
}

bool IsSuccess(const Json::Value& envelope) {
  const Json::Value& success = Member(envelope, "success");
  return success.isBool() && success.asBool();
}

CallError ErrorOf(const Json::Value& envelope) {
  const Json::Value& error = Member(envelope, "error");
  const Json::Value& code = Member(error, "code");
  const Json::Value& message = Member(error, "message");
  return {code.isInt() ? code.asInt() : 0,
          message.isString() ? message.asString() : "the call failed, and the answer has no reason",
          Member(error, "data")};
}

void SendCallsTo(Destination destination) { CurrentDestination() = std::move(destination); }

Json::Value Send(const Destination& destination, const Json::Value& request,
                 const std::optional<Upload>& upload, long timeout) {
  Json::Value envelope;
  const int code = upload ? RequestWithUpload(destination, request, envelope, *upload, timeout)
                          : RequestWith(destination, request, envelope, Json::Value(), timeout);
  // An API may have an error of that number, too.
  if (code == kNotCalled && !Member(envelope, "error").isObject()) {
    throw NotCalled(destination.host);
  }
  return envelope;
}

Json::Value Call(const char* api, const char* method, Json::Value params,
                 const std::optional<Upload>& upload) {
  const Destination& destination = CurrentDestination();
  const bool is_sent = upload && IsRemote(destination);
  if (upload && !is_sent) {
    params[upload->key] = upload->content;
  }
  Json::Value request;
  request["api"] = api;
  request["version"] = kVersion;
  request["method"] = method;
  request["params"] = std::move(params);
  Json::Value envelope =
      Send(destination, request, is_sent ? upload : std::nullopt, kDefaultTimeout);
  if (!IsSuccess(envelope)) {
    throw ErrorOf(envelope);
  }
  return std::move(envelope["data"]);
}
