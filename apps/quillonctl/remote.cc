#include "remote.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <limits>
#include <stdexcept>

#include <fmt/format.h>

#include "number.h"
#include "options.h"
#include "password.h"

namespace {

using quillon::platform::Secret;

constexpr unsigned long long kHighestPort = 65535;

int ParseDescriptor(const std::string& text) {
  return static_cast<int>(ParseWholeNumber(text, std::numeric_limits<int>::max()));
}

// The colon in front of the port; those of an IPv6 address are in brackets.
std::size_t FindPort(const std::string& text) {
  if (!text.starts_with('[')) {
    return text.find(':');
  }
  const auto end = text.find(']');
  return end != std::string::npos && end + 1 < text.size() ? end + 1 : std::string::npos;
}

bool IsIPv6Address(const std::string& text) {
  in6_addr address{};
  return ::inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

// What would end the host in a URL, or hide the port, is no part of a name.
bool IsHost(const std::string& text) {
  const bool has_brackets = text.starts_with('[') && text.ends_with(']') && text.size() > 2;
  return !text.empty() && text.find_first_of("/?#@\\% \t\r\n") == std::string::npos &&
         (has_brackets || text.find_first_of("[]:") == std::string::npos);
}

}  // namespace

int ParsePort(const std::string& text) {
  const auto port = ParseWholeNumber(text, kHighestPort);
  if (port == 0) {
    throw std::invalid_argument("there is no port 0");
  }
  return static_cast<int>(port);
}

HostAddress ParseHost(const std::string& text) {
  if (IsIPv6Address(text)) {
    return {fmt::format("[{}]", text)};
  }
  const auto colon = FindPort(text);
  HostAddress address{text.substr(0, colon)};
  if (!IsHost(address.host) || (colon != std::string::npos && text[colon] != ':')) {
    throw std::invalid_argument(fmt::format("[{}] is not a host, or HOST:PORT", text));
  }
  if (colon != std::string::npos) {
    address.port = ParsePort(text.substr(colon + 1));
  }
  return address;
}

bool RemoteOptions::IsAny() const {
  return host || !account.empty() || !protocol.empty() || password;
}

void RemoteOptions::RequireAccount() const {
  if (account.empty()) {
    throw CLI::RequiredError("--account");
  }
}

const Secret& RemoteOptions::Password() {
  if (!password) {
    password = AskPassword(fmt::format("Password of {}: ", account));
  }
  return *password;
}

void AddRemoteOptions(CLI::App& app, RemoteOptions& options) {
  AddParsed(app, "--host", options.host, ParseHost,
            "carry the command out on this host of the cluster")
      ->type_name("HOST[:PORT]");
  app.add_option("--account", options.account, "log in there with this account")->type_name("NAME");
  app.add_option("--protocol", options.protocol, "http or https")
      ->check(CLI::IsMember({kHTTP, kHTTPS}))
      ->type_name("");
  CLI::Option* file = AddParsed(app, "--password-file", options.password, ReadPasswordFile,
                                "read the password from a file in place of asking for it");
  file->type_name("FILE");
  AddParsed(
      app, "--password-fd", options.password,
      [](const std::string& text) { return ReadPassword(ParseDescriptor(text)); },
      "read the password from an open descriptor")
      ->type_name("N")
      ->excludes(file);
}

Destination WebServerAt(const HostAddress& address, const std::string& protocol) {
  Destination server;
  server.host = address.host;
  server.protocol = protocol.empty() ? kHTTPS : protocol;
  server.port = address.port;
  if (server.port == kAnyPort && !protocol.empty()) {
    server.port = protocol == kHTTP ? kDefaultHTTPPort : kDefaultHTTPSPort;
  }
  return server;
}

Destination DestinationAt(const HostAddress& address, RemoteOptions& options) {
  Destination destination = WebServerAt(address, options.protocol);
  destination.account = options.account;
  destination.password = options.Password();
  return destination;
}
