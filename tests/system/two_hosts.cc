#include "system/two_hosts.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>

#include <quillon/platform/web_accounts.h>

#include "support/child_processes.h"
#include "system/web_server.h"
#include "system/world.h"

namespace quillon::test {

namespace {

constexpr char kPasswordFile[] = "/etc/quillon/boss-password";
constexpr char kConfigurationFile[] = "/etc/quillon/mailserver.toml";
constexpr char kAccountsFile[] = "/etc/quillon/web-accounts";

std::string SearchPath() {
  const auto folder = [](const std::string& program) {
    return std::filesystem::path(program).parent_path().string();
  };
  return fmt::format("PATH={}:{}:{}", folder(QuillonctlPath()), folder(QUILLON_WEBAPID),
                     std::getenv("PATH"));
}

}  // namespace

ClusterHost::ClusterHost(const std::string& name, const std::string& settings)
    : machine_(name), settings_(settings) {
  machine_.Write("/etc/passwd", fmt::format("root:x:0:0::/root:/bin/sh\n"
                                            "nobody:x:65534:65534::/nonexistent:/bin/false\n"
                                            "quillon-web:x:998:998::/nonexistent:/bin/false\n"
                                            "alice:x:1001:100::/nonexistent:/bin/false\n"
                                            "{}-user:x:1002:100::/nonexistent:/bin/false\n",
                                            name));
  machine_.Write("/etc/group", "root:x:0:\nusers:x:100:\nnogroup:x:65534:\n");
  std::filesystem::create_directories(machine_.Outside("/var/lib/quillon"));
  Configure("");
  SetPassword(kWebPassword);
  const platform::Secret password{std::string_view(kWebPassword)};
  const std::string accounts = machine_.Outside(kAccountsFile);
  platform::AddWebAccount(accounts, "boss", platform::WebRole::kAdmin, password);
  platform::AddWebAccount(accounts, "watcher", platform::WebRole::kMonitor, password);
}

void ClusterHost::Configure(const std::string& tables) const {
  machine_.Write(kConfigurationFile,
                 fmt::format("[usage]\nsocket = \"{}\"\n[log]\ntarget = \"file\"\nfile = \"{}\"\n"
                             "[web]\n{}\n{}\n",
                             redis_.socket(), kLog, settings_, tables));
}

void ClusterHost::SetPassword(const std::string& password) const {
  machine_.Write(kPasswordFile, password + "\n");
  std::filesystem::permissions(machine_.Outside(kPasswordFile), std::filesystem::perms(0600));
}

std::vector<std::string> ClusterHost::ShellCommand(const std::string& lines) const {
  return machine_.CommandLine({"env", SearchPath(), "bash", "-euc", lines});
}

Outcome ClusterHost::Shell(const std::string& lines, const std::string& input) const {
  return test::Run(ShellCommand(lines), input);
}

Outcome ClusterHost::Quillonctl(const std::vector<std::string>& arguments,
                                const std::string& input) const {
  std::vector<std::string> command = {QuillonctlPath()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return machine_.Run(command, input);
}

Outcome ClusterHost::As(const std::string& account, std::vector<std::string> arguments,
                        const std::string& input) const {
  arguments.insert(arguments.end(), {"--account", account, "--password-file", kPasswordFile});
  return Quillonctl(arguments, input);
}

void ClusterHost::StartWebServer(const std::string& command) {
  const std::string output = machine_.Outside("/var/lib/output");
  web_server_ = std::make_unique<BackgroundProgram>(ShellCommand("exec " + command), output);
  const bool is_answering = Eventually([this] {
    return !web_server_->IsRunning() ||
           Shell("curl --silent --insecure https://localhost:5001/").exit_code == 0;
  });
  if (!is_answering || !web_server_->IsRunning()) {
    throw std::runtime_error("the web server does not start: " + machine_.Read("/var/lib/output"));
  }
}

void ClusterHost::StopWebServer() {
  if (web_server_ == nullptr) {
    return;
  }
  for (const pid_t supervisor : Supervisors()) {
    ::kill(supervisor, SIGTERM);
  }
  static_cast<void>(Eventually([this] { return !web_server_->IsRunning(); }));
  web_server_.reset();
}

void ClusterHost::KillWebServer() {
  const pid_t front = WebProcesses(kWebFront).at(0);
  ::kill(front, SIGSTOP);  // it would notice that it is the only one left
  ::kill(Supervisors().at(0), SIGKILL);
  ::kill(front, SIGKILL);
  web_server_.reset();
}

std::vector<pid_t> ClusterHost::Supervisors() const {
  return web_server_->IsRunning() ? ChildrenOf(web_server_->pid(), "quillon-webapid")
                                  : std::vector<pid_t>();
}

std::vector<pid_t> ClusterHost::WebProcesses(const std::string& program) const {
  return ChildrenOf(Supervisors().at(0), program);
}

TwoHosts::TwoHosts(const std::string& settings_of_b)
    : a("hosta", "http_port = 5000"), b("hostb", settings_of_b) {
  NamespaceHost::Join(a.machine(), b.machine());
  a.StartWebServer();
  b.StartWebServer();
  a.machine().Write(kCertificateOfB, b.machine().Read("/var/lib/quillon/webapid/certificate.pem"));
}

void TwoHostsTest::SetUp() {
  const std::string lacking = NamespaceHost::Lacking();
  if (!lacking.empty()) {
    GTEST_SKIP() << "this machine lacks " << lacking;
  }
}

}  // namespace quillon::test
