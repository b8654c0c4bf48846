#include <gsasl.h>
#include <string.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <json/reader.h>

#include <quillon/platform/session_token.h>
#include <vela/cred.h>
#include <velamailserver/maillog.h>

#include "cred/exchange.h"
#include "cred/records.h"
#include "cred/webapi_call.h"
#include "utils/base64.h"
#include "utils/decimal.h"
#include "utils/excerpt.h"
#include "utils/gsasl_secret.h"
#include "utils/salted_password.h"

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/cred/login";
constexpr int kFailedLine = 58;

constexpr char kMechanism[] = "SCRAM-SHA-256";
constexpr char kLoginAPI[] = "VELA.Core.Login";
constexpr int kLoginVersion = 1;

// Fewer would let whoever poses as the host find the password by trying; so many more would only
// keep us busy.
constexpr unsigned kFewestIterations = 4096;
constexpr unsigned kMostIterations = 1000000;
constexpr std::size_t kLongestToken = 1024;
constexpr int kShortSession = 300;  // seconds

class LoginError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The client's side of a SCRAM login.
class ScramClient {
 public:
  explicit ScramClient(const _tag_vela_cred_& cred) : cred_(cred) {
    Gsasl* context = nullptr;
    Check(::gsasl_init(&context));
    context_.reset(context);
    ::gsasl_callback_set(context, Answer);
    Gsasl_session* session = nullptr;
    Check(::gsasl_client_start(context, kMechanism, &session));
    session_.reset(session);
    ::gsasl_session_hook_set(session, this);
  }
  ScramClient(const ScramClient&) = delete;
  ScramClient& operator=(const ScramClient&) = delete;

  std::string FirstMessage() { return Step(nullptr, GSASL_NEEDS_MORE); }
  std::string FinalMessage(const std::string& server_first) {
    return Step(server_first.c_str(), GSASL_NEEDS_MORE);
  }
  // Only what comes out of this is a login: the server has shown that it knows the account.
  void Verify(const std::string& server_final) { Step(server_final.c_str(), GSASL_OK); }

 private:
  struct Finish {
    void operator()(Gsasl* context) const { ::gsasl_done(context); }
    void operator()(Gsasl_session* session) const {
      // The library frees its copy, which is as good as the password, as it is.
      if (const char* salted = ::gsasl_property_fast(session, GSASL_SCRAM_SALTED_PASSWORD)) {
        ::explicit_bzero(const_cast<char*>(salted), std::strlen(salted));
      }
      ::gsasl_finish(session);
    }
  };

  static void Check(int result) {
    if (result != GSASL_OK) {
      throw LoginError(::gsasl_strerror(result));
    }
  }

  std::string Step(const char* input, int expected) {
    char* output = nullptr;
    const int result = ::gsasl_step64(session_.get(), input, &output);
    const std::unique_ptr<char, decltype(&::gsasl_free)> owner(output, ::gsasl_free);
    if (!problem_.empty()) {
      throw LoginError(problem_);
    }
    if (result != expected) {
      throw LoginError(result == GSASL_OK || result == GSASL_NEEDS_MORE
                           ? "the host's message is not the one that is due"
                           : ::gsasl_strerror(result));
    }
    return output == nullptr ? "" : output;
  }

  static int Answer(Gsasl* /*context*/, Gsasl_session* session, Gsasl_property property) {
    auto& client = *static_cast<ScramClient*>(::gsasl_session_hook_get(session));
    switch (property) {
      case GSASL_AUTHID:
        return ::gsasl_property_set(session, property, client.cred_.account.c_str());
      case GSASL_SCRAM_SALTED_PASSWORD:
        return client.GiveSaltedPassword();
      default:
        return GSASL_NO_CALLBACK;
    }
  }

  // What goes wrong must not pass through the library.
  int GiveSaltedPassword() {
    try {
      const GsaslSecret hex = HexOf(SaltPassword());
      return ::gsasl_property_set(session_.get(), GSASL_SCRAM_SALTED_PASSWORD, hex.get());
    } catch (const std::exception& error) {
      problem_ = error.what();
      return GSASL_NO_CALLBACK;
    }
  }

  Secret SaltPassword() const {
    const auto iterations = ParseDecimal<unsigned>(Property(GSASL_SCRAM_ITER));
    if (!iterations || *iterations < kFewestIterations || *iterations > kMostIterations) {
      throw LoginError(fmt::format("the host asks for {} iterations, which is not from {} to {}",
                                   Excerpt(Property(GSASL_SCRAM_ITER)), kFewestIterations,
                                   kMostIterations));
    }
    const auto salt = DecodeBase64(Property(GSASL_SCRAM_SALT));
    if (!salt) {
      throw LoginError("the host's salt is not base64");
    }
    auto salted = SaltedPassword(cred_.password, *salt, *iterations);
    if (!salted) {
      throw LoginError(std::string("the password ") + kPasswordText);
    }
    return *std::move(salted);
  }

  static GsaslSecret HexOf(const Secret& bytes) {
    char* hex = nullptr;
    std::size_t length = 0;
    Check(::gsasl_hex_to(bytes.Get().data(), bytes.Get().size(), &hex, &length));
    return GsaslSecret(hex);
  }

  std::string_view Property(Gsasl_property property) const {
    const char* const text = ::gsasl_property_fast(session_.get(), property);
    return text == nullptr ? std::string_view() : text;
  }

  const _tag_vela_cred_& cred_;
  std::unique_ptr<Gsasl, Finish> context_;
  std::unique_ptr<Gsasl_session, Finish> session_;
  std::string problem_;  // that the library's own error says nothing about
};

Json::Value ParseEnvelope(const std::string& body) {
  Json::CharReaderBuilder strict;
  Json::CharReaderBuilder::strictMode(&strict.settings_);
  const std::unique_ptr<Json::CharReader> reader(strict.newCharReader());
  Json::Value envelope;
  if (!reader->parse(body.data(), body.data() + body.size(), &envelope, nullptr) ||
      !envelope.isObject() || !envelope["success"].isBool()) {
    throw LoginError("the host's answer is not one of this system's: " + Excerpt(body));
  }
  return envelope;
}

std::string Text(const Json::Value& data, const char* key) {
  if (!data.isObject() || !data[key].isString()) {
    throw LoginError(std::string("the host's answer lacks \"") + key + "\"");
  }
  return data[key].asString();
}

[[noreturn]] void Refuse(const Json::Value& error) {
  const Json::Value& message = error.isObject() ? error["message"] : Json::Value::nullSingleton();
  throw LoginError("refused by the host" +
                   (message.isString() ? ": " + Excerpt(message.asString(), 200) : ""));
}

// The data that a host answers one step of a login with.
Json::Value Ask(const std::string& url, const char* method, const Json::Value& params) {
  Question question;
  question.url = url;
  question.body = WebAPIBody(kLoginAPI, kLoginVersion, method, params);
  Answer answer = Exchange(question);
  if (answer.error != CURLE_OK) {
    throw LoginError("the host was not reached");
  }
  const Json::Value envelope = ParseEnvelope(answer.body);
  Wipe(answer.body);  // the token may be in it
  if (!envelope["success"].asBool()) {
    Refuse(envelope["error"]);
  }
  return envelope["data"];
}

// A token becomes part of a header.
bool IsToken(std::string_view text) {
  const auto is_token_character = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
  };
  return !text.empty() && text.size() <= kLongestToken &&
         std::all_of(text.begin(), text.end(), is_token_character);
}

// `lifetime` in seconds, nothing for as long as the host lets it.
Secret LogIn(const _tag_vela_cred_& cred, std::optional<int> lifetime) {
  const std::string url = WebAPIURL(cred);
  if (url.empty()) {
    throw LoginError("not a host, a protocol and a port");
  }
  ScramClient client(cred);
  Json::Value first;
  first["message"] = client.FirstMessage();
  const Json::Value challenge = Ask(url, "start", first);

  Json::Value last;
  last["login"] = Text(challenge, "login");
  last["message"] = client.FinalMessage(Text(challenge, "message"));
  if (lifetime) {
    last["lifetime"] = *lifetime;
  }
  const Json::Value success = Ask(url, "finish", last);

  client.Verify(Text(success, "message"));
  Secret token = Secret::Take(Text(success, "token"));
  if (!IsToken(token.Get())) {
    throw LoginError("the host's token is not one");
  }
  return token;
}

bool LogIn(const _tag_vela_cred_& cred, _tag_vela_cred_sess_& session,
           std::optional<int> lifetime) {
  try {
    session.token = Secret();
    session.token = LogIn(cred, lifetime);
    return true;
  } catch (const std::exception& error) {
    maillog(3, "%s:%d login as %s at %s failed: %s", kSourceFile, kFailedLine, cred.account.c_str(),
            cred.host.c_str(), error.what());
    return false;
  }
}

}  // namespace

bool LogInForLong(_tag_vela_cred_* cred, _tag_vela_cred_sess_* session) {
  return LogIn(*cred, *session, std::nullopt);
}

}  // namespace quillon::platform

namespace VELA {

// Whoever calls a host again and again logs in each time, and forgets the session: hosts bound
// their number, and the long ones are for those who asked for one.
bool CredRequestUtil::Login(_tag_vela_cred_* cred, _tag_vela_cred_sess_* session) {
  return quillon::platform::LogIn(*cred, *session, quillon::platform::kShortSession);
}

}  // namespace VELA
