#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/namespace_host.h"
#include "support/program.h"
#include "support/redis_server.h"

namespace quillon::test {

/// A host of a cluster, with everything at its usual place: configuration, accounts ("boss", an
/// "admin", and "watcher", a "monitor"), stores, log, and the mail users alice and NAME-user.
class ClusterHost {
 public:
  /// `settings` are lines of [web].
  ClusterHost(const std::string& name, const std::string& settings);
  ClusterHost(const ClusterHost&) = delete;
  ClusterHost& operator=(const ClusterHost&) = delete;
  ~ClusterHost() { StopWebServer(); }

  const NamespaceHost& machine() const { return machine_; }
  std::string Log() const { return machine_.Read(kLog); }
  /// Gives the file /etc/quillon/mailserver.toml further tables.
  void Configure(const std::string& tables) const;
  /// What the password file /etc/quillon/boss-password holds: that of all accounts at first.
  void SetPassword(const std::string& password) const;

  /// The command that runs these lines of a shell on the host, with this system's programs in PATH.
  std::vector<std::string> ShellCommand(const std::string& lines) const;
  Outcome Shell(const std::string& lines, const std::string& input = "") const;
  Outcome Quillonctl(const std::vector<std::string>& arguments,
                     const std::string& input = "") const;
  /// The same as an account, with the password of the password file.
  Outcome As(const std::string& account, std::vector<std::string> arguments,
             const std::string& input = "") const;

  /// Returns when it answers over https on port 5001. A command line may stand for the usual one.
  void StartWebServer(const std::string& command = "quillon-webapid");
  void StopWebServer();
  /// At once: it does not say goodbye to its clients.
  void KillWebServer();
  /// Its processes that run this program, as they are known outside.
  std::vector<pid_t> WebProcesses(const std::string& program) const;

 private:
  static constexpr char kLog[] = "/var/lib/quillon/mail.log";
  /// The one process that the web server was started as, unless it has ended.
  std::vector<pid_t> Supervisors() const;

  NamespaceHost machine_;
  RedisServer redis_;
  std::string settings_;
  std::unique_ptr<BackgroundProgram> web_server_;
};

/// Where hosta has the certificate that hostb was started with.
inline constexpr char kCertificateOfB[] = "/etc/quillon/hostb.pem";

/// hosta, whose web server listens on the ports 5000 and 5001, and hostb, which has https only.
/// They do not trust each other yet.
struct TwoHosts {
  /// `settings_of_b` are lines of hostb's [web].
  explicit TwoHosts(const std::string& settings_of_b = "");

  ClusterHost a;
  ClusterHost b;
};

/// Skips the test where there can be no such hosts.
class TwoHostsTest : public testing::Test {
 protected:
  void SetUp() override;
};

}  // namespace quillon::test
