#include "settings.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <json/value.h>

#include "envelope.h"

namespace quillon::webapid {

namespace {

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// The numbers of [web] that concern the front, by name.
template <typename Web, typename Visit>
void VisitNumbers(Web& web, const Visit& visit) {
  visit("max_body", web.max_body);
  visit("max_header", web.max_header);
  visit("max_connections", web.max_connections);
  visit("max_connections_per_address", web.max_connections_per_address);
  visit("request_timeout", web.request_timeout);
  visit("receive_timeout", web.receive_timeout);
  visit("idle_timeout", web.idle_timeout);
  visit("session_lifetime", web.session_lifetime);
  visit("max_sessions_per_account", web.max_sessions_per_account);
  visit("max_login_failures", web.max_login_failures);
}

void WriteAll(int file, const std::string& text) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t step = ::write(file, text.data() + written, text.size() - written);
    if (step < 0) {
      Fail("settings");
    }
    written += static_cast<std::size_t>(step);
  }
}

platform::Secret ReadAll(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0) {
    Fail("settings");
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  if (::pread(file, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    Fail("settings");
  }
  platform::Secret secret(text);
  platform::Wipe(text);
  return secret;
}

}  // namespace

platform::FileDescriptor WriteSettings(const FrontSettings& settings) {
  Json::Value document;
  VisitNumbers(settings.web, [&](const char* name, auto number) {
    document["web"][name] = static_cast<Json::Int64>(number);
  });
  document["log_target"] = settings.log_target;
  document["uid"] = settings.uid;
  document["gid"] = settings.gid;
  document["has_http"] = settings.has_http;
  document["has_https"] = settings.has_https;
  document["certificate"] = settings.certificate;
  document["private_key"] = settings.private_key.Get();
  document["accounts"] = settings.accounts.Get();
  platform::FileDescriptor file(::memfd_create("front settings", MFD_CLOEXEC));
  if (!file.IsOpen()) {
    Fail("settings");
  }
  const platform::Secret text(ToText(document));
  WriteAll(file.Get(), text.Get());
  return file;
}

FrontSettings ReadSettings(int file) {
  Json::Value document;
  if (!ParseObject(ReadAll(file).Get(), document)) {
    throw std::runtime_error("the settings do not parse");
  }
  FrontSettings settings;
  VisitNumbers(settings.web, [&](const char* name, auto& number) {
    number =
        static_cast<std::remove_reference_t<decltype(number)>>(document["web"][name].asInt64());
  });
  settings.log_target = document["log_target"].asString();
  settings.uid = document["uid"].asUInt();
  settings.gid = document["gid"].asUInt();
  settings.has_http = document["has_http"].asBool();
  settings.has_https = document["has_https"].asBool();
  settings.certificate = document["certificate"].asString();
  settings.private_key.Set(document["private_key"].asString());
  settings.accounts.Set(document["accounts"].asString());
  return settings;
}

}  // namespace quillon::webapid
