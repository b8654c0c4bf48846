#pragma once

#include <gsasl.h>

#include <string>

#include <gtest/gtest.h>

namespace quillon::test {

/// The client's side of a login by SCRAM-SHA-256.
class ScramClient {
 public:
  ScramClient(const std::string& account, const std::string& password,
              const std::string& acting_as = "") {
    EXPECT_EQ(::gsasl_init(&library_), GSASL_OK);
    EXPECT_EQ(::gsasl_client_start(library_, "SCRAM-SHA-256", &session_), GSASL_OK);
    Set(GSASL_AUTHID, account);
    Set(GSASL_PASSWORD, password);
    if (!acting_as.empty()) {
      Set(GSASL_AUTHZID, acting_as);
    }
  }
  ScramClient(const ScramClient&) = delete;
  ScramClient& operator=(const ScramClient&) = delete;
  ~ScramClient() {
    ::gsasl_finish(session_);
    ::gsasl_done(library_);
  }

  /// The answer to a message of the server's, in base64.
  std::string Step(const std::string& message) {
    char* answer = nullptr;
    result_ = ::gsasl_step64(session_, message.c_str(), &answer);
    std::string text = answer == nullptr ? "" : answer;
    ::gsasl_free(answer);
    return text;
  }

  /// That of the last step: only GSASL_OK means that the server has proved itself.
  int result() const { return result_; }

 private:
  void Set(Gsasl_property property, const std::string& value) {
    EXPECT_EQ(::gsasl_property_set(session_, property, value.c_str()), GSASL_OK);
  }

  Gsasl* library_ = nullptr;
  Gsasl_session* session_ = nullptr;
  int result_ = GSASL_NEEDS_MORE;
};

}  // namespace quillon::test
