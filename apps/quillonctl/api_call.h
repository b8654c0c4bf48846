#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include <json/value.h>

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

/// Runs a method of one of the package's APIs, as "admin", and answers its "data". Everything that
/// this program does to the mail server goes through here. Throws `CallError`.
Json::Value Call(const char* api, const char* method, const Json::Value& params);
