#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <json/value.h>

#include <velamailserver/visibility.h>

namespace VELA {

/// How a handler refuses a call: the code and the message of the envelope's "error", and possibly
/// its "data", which tells programs more than the message does.
class VELAMAILSERVER_EXPORT APIError : public std::runtime_error {
 public:
  ///@{
  /// The envelope's "code", "message" and, if there is any, "data".
  APIError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  APIError(int code, const std::string& message, Json::Value data)
      : std::runtime_error(message),
        code_(code),
        data_(std::make_shared<const Json::Value>(std::move(data))) {}
  ///@}

  /// The envelope's "code".
  int code() const noexcept { return code_; }
  /// Null when there is none.
  const Json::Value* data() const noexcept { return data_.get(); }

 private:
  int code_;
  std::shared_ptr<const Json::Value> data_;  // shared, because copying an exception must not throw
};

/// The WebAPIs of this process, by name, version and method.
///
/// An answer is an envelope: {"success": true, "data": …} or {"success": false, "error": {"code":
/// …, "message": …}}; an error has "data", too, when the handler's `APIError` has. A platform's own
/// APIs are there from the first use on. Safe for use from several threads, as far as the handlers
/// are.
class APIRunner {
 public:
  /// Codes of an envelope's error that are the runner's own. A handler that throws `LogException`
  /// or `APIError` answers with that exception's code.
  enum Code : int {
    kBadParameters = 400,
    kUnknownAPI = 404,
    kUnknownMethod = 405,
    kHandlerFailed = 500,
    kUnsupportedVersion = 505,
  };

  /// Answers the "data" of a successful call. `params` outlives the call only. Throws to refuse or
  /// fail: `APIError`, `LogException`, or any other exception for `kHandlerFailed`.
  using Handler = std::function<Json::Value(const Json::Value& params)>;

  /// Makes a method callable; a later registration of the same three replaces the earlier one,
  /// calls that are under way finish with the one they began with.
  static void Register(const std::string& api, int version, const std::string& method,
                       Handler handler);

  /// Runs one method and replaces the whole of `response`, which may be the document that holds
  /// `params`. Answers every failure in the envelope: no exception of a handler escapes. A handler
  /// may run further APIs. `api` and `method` are not null. `user` is on whose behalf it runs:
  /// whoever calls this has made sure that the caller may act as that user, nothing is checked
  /// here.
  static void Exec(Json::Value& response, const char* api, int version, const char* method,
                   const Json::Value& params, const char* user);
};

}  // namespace VELA
