#pragma once

#include <stdexcept>
#include <string>

#include <json/value.h>

/// An API answered that it failed: its code, and its message as `what()`.
class CallError : public std::runtime_error {
 public:
  CallError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const noexcept { return code_; }

 private:
  int code_;
};

/// Runs a method of one of the package's APIs, as "admin", and answers its "data". Everything that
/// this program does to the mail server goes through here. Throws `CallError`.
Json::Value Call(const char* api, const char* method, const Json::Value& params);
