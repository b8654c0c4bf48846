// The configuration file: any text is a configuration within its bounds, or refused in one line.
#include <cstdint>

#include "fuzz/platform.h"
#include "utils/host_port.h"

namespace quillon::fuzz {
namespace {

using platform::Configuration;

template <typename Number>
bool IsWithin(Number number, std::int64_t lowest, std::int64_t highest) {
  const auto wide = static_cast<std::int64_t>(number);
  return wide >= lowest && wide <= highest;
}

bool IsPath(const std::string& text) {
  return text.starts_with('/') && text.find('\0') == std::string::npos;
}

bool IsPathOrEmpty(const std::string& text) { return text.empty() || IsPath(text); }

void RequireBounds(const Configuration& c) {
  Require(c.accounts.min_uid <= c.accounts.max_uid && c.accounts.max_uid != UINT32_MAX &&
              c.accounts.min_gid <= c.accounts.max_gid && c.accounts.max_gid != UINT32_MAX,
          "the ids are a range");
  Require(IsPath(c.accounts.passwd_file) && IsPath(c.accounts.group_file) &&
              IsPath(c.accounts.privileges_file) && IsPath(c.maildir.root) &&
              IsPath(c.maildir.usage_cache) && IsPath(c.cluster.trusted_hosts) &&
              IsPath(c.web.state_folder) && IsPath(c.web.accounts_file),
          "what is a path is absolute");
  Require(IsPathOrEmpty(c.usage.socket) && IsPathOrEmpty(c.cluster.ca_file) &&
              IsPathOrEmpty(c.web.certificate) && IsPathOrEmpty(c.web.private_key) &&
              IsPathOrEmpty(c.web.handlers_folder) && IsPathOrEmpty(c.log.file),
          "what may be left out is absolute where it is not");
  const std::string& domain = c.maildir.domain;
  Require(!domain.empty() && domain != "." && domain != ".." &&
              domain.find_first_of(std::string_view("/\0", 2)) == std::string::npos,
          "the domain is one folder");
  Require(IsWithin(c.quota.busy_timeout, 1, 3600) && IsWithin(c.usage.port, 1, 65535) &&
              IsWithin(c.usage.database, 0, INT32_MAX) &&
              IsWithin(c.usage.connect_timeout, 1, 3600) &&
              IsWithin(c.usage.command_timeout, 1, 3600) &&
              IsWithin(c.cluster.max_answer, 1024, 1 << 30),
          "numbers are within their bounds");
  Require(IsWithin(c.web.http_port, 0, 65535) && IsWithin(c.web.https_port, 0, 65535) &&
              IsWithin(c.web.workers, 1, 64) && IsWithin(c.web.max_body, 1024, 64 << 20) &&
              IsWithin(c.web.max_header, 1024, 1 << 20) &&
              IsWithin(c.web.request_timeout, 1, 3600) && IsWithin(c.web.idle_timeout, 1, 3600) &&
              IsWithin(c.web.receive_timeout, 1, 3600) &&
              IsWithin(c.web.max_connections, 1, 100000),
          "the web server's numbers are within their bounds");
  Require(!c.web.user.empty() && c.web.user != "root", "the front is not root");
  Require(c.web.certificate.empty() == c.web.private_key.empty(), "a certificate has its key");
  Require(c.log.target != "file" || !c.log.file.empty(), "a log in a file has a path");
  Require(c.usage.sentinels.empty() || (c.usage.host == Configuration().usage.host &&
                                        c.usage.port == Configuration().usage.port &&
                                        c.usage.socket.empty() && !c.usage.sentinel_master.empty()),
          "either sentinels say where the server is, or the file does");
  for (const std::string& sentinel : c.usage.sentinels) {
    const auto place = platform::ParseHostPort(sentinel);
    Require(place && !place->host.empty() && IsWithin(place->port, 1, 65535),
            "each sentinel is a host and a port");
  }
  Require(c.usage.key_template.find("{name}") != std::string::npos, "keys differ by name");
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon;
  static fuzz::NamelessFile file;
  file.Write(fuzz::TextOf(data, size));
  try {
    fuzz::RequireBounds(platform::LoadConfiguration(file.path()));
  } catch (const platform::ConfigurationError& error) {
    const std::string what = error.what();
    fuzz::Require(what.starts_with(file.path()), "the message names the file");
    fuzz::Require(what.find('\n') == std::string::npos, "the message is one line");
  }
  return 0;
}
