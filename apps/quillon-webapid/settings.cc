#include "settings.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <system_error>
#include <type_traits>

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

// The file has four parts: all that is no secret, as JSON, then the certificate, its key and the
// accounts. A part is its length and its text: nothing between here and there parses a secret.
using Length = std::uint64_t;

void Write(int file, const void* data, std::size_t size) {
  const char* rest = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t step = ::write(file, rest, size);
    if (step < 0) {
      Fail("settings");
    }
    rest += step;
    size -= static_cast<std::size_t>(step);
  }
}

void WritePart(int file, const std::string& text) {
  const Length length = text.size();
  Write(file, &length, sizeof(length));
  Write(file, text.data(), text.size());
}

class PartReader {
 public:
  explicit PartReader(int file) : file_(file) {
    const off_t size = ::lseek(file, 0, SEEK_END);
    if (size < 0) {
      Fail("settings");
    }
    left_ = static_cast<Length>(size);
  }

  std::string Next() {
    Length length = 0;
    Read(&length, sizeof(length));
    if (length > left_) {
      throw std::runtime_error("settings: a part is cut short");
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    Read(text.data(), text.size());
    return text;
  }

  platform::Secret NextSecret() {
    std::string text = Next();
    platform::Secret secret(text);
    platform::Wipe(text);
    return secret;
  }

 private:
  void Read(void* data, std::size_t size) {
    if (size > left_ || ::pread(file_, data, size, at_) != static_cast<ssize_t>(size)) {
      throw std::runtime_error("settings: the file is cut short");
    }
    at_ += static_cast<off_t>(size);
    left_ -= size;
  }

  int file_;
  off_t at_ = 0;
  Length left_ = 0;
};

}  // namespace

platform::FileDescriptor WriteSettings(const FrontSettings& settings) {
  Json::Value document;
  VisitNumbers(settings.web, [&](const char* name, auto number) {
    document["web"][name] = static_cast<Json::Int64>(number);
  });
  document["uid"] = settings.uid;
  document["gid"] = settings.gid;
  document["has_log"] = settings.has_log;
  document["has_http"] = settings.has_http;
  document["has_https"] = settings.has_https;
  platform::FileDescriptor file(::memfd_create("front settings", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!file.IsOpen()) {
    Fail("settings");
  }
  WritePart(file.Get(), ToText(document));
  WritePart(file.Get(), settings.certificate);
  WritePart(file.Get(), settings.private_key.Get());
  WritePart(file.Get(), settings.accounts.Get());
  if (::fcntl(file.Get(), F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL) !=
      0) {
    Fail("settings");
  }
  return file;
}

FrontSettings ReadSettings(int file) {
  PartReader parts(file);
  Json::Value document;
  if (!ParseObject(parts.Next(), document)) {
    throw std::runtime_error("settings: no settings");
  }
  FrontSettings settings;
  VisitNumbers(settings.web, [&](const char* name, auto& number) {
    number =
        static_cast<std::remove_reference_t<decltype(number)>>(document["web"][name].asInt64());
  });
  settings.uid = document["uid"].asUInt();
  settings.gid = document["gid"].asUInt();
  settings.has_log = document["has_log"].asBool();
  settings.has_http = document["has_http"].asBool();
  settings.has_https = document["has_https"].asBool();
  settings.certificate = parts.Next();
  settings.private_key = parts.NextSecret();
  settings.accounts = parts.NextSecret();
  return settings;
}

}  // namespace quillon::webapid
