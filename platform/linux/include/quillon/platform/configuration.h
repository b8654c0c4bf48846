#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <velamailserver/visibility.h>

namespace quillon::platform {

/// Where programs look when they are not told otherwise.
inline constexpr char kDefaultConfigurationFile[] = "/etc/quillon/mailserver.toml";

/// Settings of this host. Every member has its default, so an empty file is a valid one; the member
/// `accounts.passwd_file` is the key "passwd_file" of the table "accounts", and so on.
struct Configuration {
  /// Who has mail on this host.
  struct Accounts {
    std::string passwd_file =
        "/etc/passwd";  ///< users, in passwd format; NSS is asked for all others
    std::string group_file =
        "/etc/group";                  ///< groups, in group format; NSS is asked for all others
    std::uint32_t min_uid = 1000;      ///< lowest uid of a mail user
    std::uint32_t max_uid = 59999;     ///< highest uid of a mail user
    std::uint32_t min_gid = 1000;      ///< lowest gid of a group that is listed
    std::uint32_t max_gid = 59999;     ///< highest gid of a group that is listed
    std::string admin_group = "sudo";  ///< the administrators; empty: there are none
    /// Who may not use which application.
    std::string privileges_file = "/etc/quillon/app-privileges";
  } accounts;

  /// Where the mail lies.
  struct Maildir {
    std::string root = "/var/spool/quillon";  ///< mail directories are ROOT/DOMAIN/ACCOUNT
    std::string domain = "local";             ///< domain of the host's own accounts
    /// What ownerless mail directories were counted to hold: a file, whose folder must exist.
    std::string usage_cache = "/var/lib/quillon/no-owner-usage.db";
  } maildir;

  /// The quota store.
  struct Quota {
    /// "sqlite:///ABSOLUTE/PATH" or a "postgresql://" URL.
    std::string store = "sqlite:///var/lib/quillon/quota.db";
    /// Seconds to wait for a locked database or for a connection, 1 to 3600. PostgreSQL has 10
    /// times as long for each statement.
    int busy_timeout = 5;
    /// A file with the message for a user beyond the warning level; empty: our own.
    std::string warning_message;

    /// The path of a store in SQLite; empty for another one.
    std::string SqliteFile() const;
  } quota;

  /// The usage store.
  struct Usage {
    std::string host = "127.0.0.1";  ///< name or address of the Redis server
    int port = 6379;                 ///< 1 to 65535
    std::string socket;              ///< path of a unix socket, in place of host and port
    /// Redis Sentinels, HOST:PORT or [IPV6-ADDRESS]:PORT each, that are asked for the server in
    /// place of host, port and socket.
    std::vector<std::string> sentinels;
    std::string sentinel_master = "mymaster";  ///< what the sentinels call the server
    std::string sentinel_password;             ///< of the sentinels; empty: none is sent
    std::string password;                      ///< of the server; empty: none is sent
    int database = 0;                          ///< number of the Redis database
    int connect_timeout = 5;                   ///< seconds, 1 to 3600; all sentinels together
    int command_timeout = 10;                  ///< seconds, 1 to 3600
    std::string key_template = "{name}/quota/storage";  ///< holds "{name}" exactly once
  } usage;

  /// Calls to other hosts.
  struct Cluster {
    bool allow_http = true;  ///< whether hosts may be spoken to without TLS
    /// PEM file of the authorities that sign the hosts' certificates, in place of the system's.
    std::string ca_file;
    std::string trusted_hosts = "/etc/quillon/trusted-hosts";  ///< the keys of hosts
    std::int64_t max_answer = 16777216;                        ///< bytes of one host's answer
  } cluster;

  /// The web server.
  struct Web {
    std::string address;    ///< address to listen on; empty: all
    int http_port = 0;      ///< plain HTTP; 0: off
    int https_port = 5001;  ///< 0: off
    /// PEM file, with `private_key` or not at all. Then it is made at the first start, in
    /// `state_folder`.
    std::string certificate;
    std::string private_key;                                  ///< PEM file
    std::string state_folder = "/var/lib/quillon/webapid";    ///< what the server makes itself
    std::string accounts_file = "/etc/quillon/web-accounts";  ///< who may log in
    std::string user = "quillon-web";                         ///< whom the front runs as
    /// Modules of handlers that the workers load besides the package's own APIs; empty: none.
    std::string handlers_folder;
    int workers = 2;                        ///< calls at a time, 1 to 64
    std::int64_t max_body = 8388608;        ///< bytes of one request's body
    int max_header = 16384;                 ///< bytes of one request's headers
    int max_connections = 1000;             ///< of HTTP and HTTPS together
    int max_connections_per_address = 100;  ///< of those
    int request_timeout = 300;              ///< seconds for a call to be answered
    int receive_timeout = 30;               ///< seconds for headers and body to arrive
    int idle_timeout = 60;                  ///< seconds that a connection is kept without a request
    int session_lifetime = 1800;            ///< seconds that a token is good for
    int max_sessions_per_account = 20;      ///< the one that ends first makes room for a new one
    int max_login_failures = 5;             ///< further ones are answered with a growing delay
  } web;

  /// The mail log.
  struct Log {
    std::string target = "syslog";  ///< "syslog", "file" or "stderr"
    std::string file;               ///< path of the log, with the target "file"
  } log;
};

/// The configuration file cannot be used. `what()` is one line that names the file, the line and
/// the key.
class VELAMAILSERVER_EXPORT ConfigurationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads a configuration file, which must exist. Throws `ConfigurationError` for a file that cannot
/// be read, that anybody may write to, that is larger than 16 KiB, or that holds an unknown key, a
/// wrong type or an impossible value.
Configuration LoadConfiguration(const std::string& path);

/// Makes `configuration` that of this process, for every operation that starts afterwards.
void UseConfiguration(Configuration configuration);

/// The configuration of this process: the one last given to `UseConfiguration`, else that of the
/// default file, which may be missing. Throws `LogException` with `ERR_LOAD_SMTP_SETTINGS` when the
/// default file cannot be used. Safe for use from several threads.
std::shared_ptr<const Configuration> CurrentConfiguration();

}  // namespace quillon::platform
