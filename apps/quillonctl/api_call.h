#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <json/value.h>

#include <quillon/platform/secret.h>

/// The port of a host whose web server is looked for on its default ports.
inline constexpr int kAnyPort = -1;
/// Lets a host take the library's own time to answer.
inline constexpr long kDefaultTimeout = -1;

/// An API answered that it failed: its code, its message as `what()`, and what it told besides,
/// null for nothing.
class CallError : public std::runtime_error {
 public:
  CallError(int code, const std::string& message, Json::Value data = Json::Value())
      : std::runtime_error(message), code_(code), data_(std::move(data)) {}
  int code() const noexcept { return code_; }
  const Json::Value& data() const noexcept { return data_; }

 private:
  int code_;
  Json::Value data_;
};

/// The web server that calls go to, and as whom. Without account and password it is this process
/// that carries them out.
struct Destination {
  std::string host;
  std::string protocol;
  int port = kAnyPort;
  std::string account;
  quillon::platform::Secret password;
};

/// Text of a call's parameters, of any bytes, which a JSON document could not carry to another
/// host.
struct Upload {
  std::string key;
  std::string content;
};

/// The destination of all later `Call`s; at first, this process.
void SendCallsTo(Destination destination);

/// Runs a method of one of the package's APIs and answers its "data". Everything that this program
/// does to the mail server goes through here. Throws `CallError`, and `std::runtime_error` when the
/// host could not be called, or refused the login.
Json::Value Call(const char* api, const char* method, Json::Value params,
                 const std::optional<Upload>& upload = std::nullopt);

/// Sends a whole request to a host and answers the envelope, whatever it says. `timeout` is in
/// seconds, 0 for none. Throws `std::runtime_error` when that fails.
Json::Value Send(const Destination& destination, const Json::Value& request,
                 const std::optional<Upload>& upload, long timeout);

/// Whether an envelope says that the call succeeded.
bool IsSuccess(const Json::Value& envelope);

/// The failure that an envelope tells of.
CallError ErrorOf(const Json::Value& envelope);

/// That a host could not be called, for whatever reason.
std::runtime_error NotCalled(const std::string& host);
