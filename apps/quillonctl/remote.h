#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include <quillon/platform/secret.h>

#include "api_call.h"

inline constexpr char kHTTP[] = "http";
inline constexpr char kHTTPS[] = "https";

/// Where a host's web server listens unless it is configured otherwise.
inline constexpr int kDefaultHTTPPort = 5000;
inline constexpr int kDefaultHTTPSPort = 5001;

struct HostAddress {
  std::string host;  ///< a name or an address, an IPv6 address in brackets
  int port = kAnyPort;
};

/// What HOST or HOST:PORT stands for. An IPv6 address needs brackets in front of a port only.
/// Throws `std::invalid_argument` that says what is wrong.
HostAddress ParseHost(const std::string& text);

/// A port from 1 to 65535. Throws `std::invalid_argument` that says what is wrong.
int ParsePort(const std::string& text);

/// The options that say where a command is carried out, and as whom.
struct RemoteOptions {
  std::optional<HostAddress> host;
  std::string account;
  std::string protocol;  ///< "http", "https" or, where it was not given, empty
  std::optional<quillon::platform::Secret> password;

  /// Whether one of them was given.
  bool IsAny() const;
  /// Throws `CLI::RequiredError` when there is no account.
  void RequireAccount() const;
  /// Asks for the password the first time, unless it was given. Throws `std::runtime_error`.
  const quillon::platform::Secret& Password();
};

/// Adds --host, --account, --protocol, --password-file and --password-fd. A password is read while
/// the command line is parsed: what follows it on the same descriptor is left for the command.
void AddRemoteOptions(CLI::App& app, RemoteOptions& options);

/// The web server at an address: a protocol without a port means its default port, a port without a
/// protocol means https, and neither means whatever answers.
Destination WebServerAt(const HostAddress& address, const std::string& protocol);

/// The same, with the account and the password, which may be asked for.
Destination DestinationAt(const HostAddress& address, RemoteOptions& options);
