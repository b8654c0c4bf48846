#include "support/postgres_server.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <soci/postgresql/soci-postgresql.h>
#include <soci/soci.h>

namespace quillon::test {

namespace {

constexpr char kServerUser[] = "postgres";

// The newest one that is installed, each in a folder of its version.
std::string ServerProgram(const std::string& name) {
  std::vector<std::filesystem::path> versions;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/postgresql", ignored)) {
    if (std::filesystem::exists(entry.path() / "bin" / name)) {
      versions.push_back(entry.path());
    }
  }
  if (versions.empty()) {
    throw std::runtime_error(name + " is not installed");
  }
  return *std::max_element(versions.begin(), versions.end()) / "bin" / name;
}

// It refuses to run as root.
std::vector<std::string> AsServerUser(std::vector<std::string> arguments) {
  if (::geteuid() == 0) {
    // The change of the user makes the kernel forget that it is to end with us.
    arguments.insert(arguments.begin(), {"setpriv", "--reuid", kServerUser, "--regid", kServerUser,
                                         "--clear-groups", "--pdeathsig", "QUIT", "--"});
  }
  return arguments;
}

void GiveToServerUser(const std::string& path) {
  if (::geteuid() != 0) {
    return;
  }
  const passwd* const user = ::getpwnam(kServerUser);
  if (user == nullptr || ::chown(path.c_str(), user->pw_uid, user->pw_gid) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot give " + path + " away");
  }
}

}  // namespace

PostgresServer::PostgresServer() {
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0711));
  const std::string data = folder_ / "data";
  for (const std::string& folder : {data, SocketFolder()}) {
    std::filesystem::create_directory(folder);
    GiveToServerUser(folder);
  }
  const Outcome made = Run(AsServerUser({ServerProgram("initdb"), "--pgdata", data, "--auth=trust",
                                         "--username=postgres", "--encoding=UTF8", "--locale=C",
                                         "--no-sync", "--no-instructions"}));
  if (made.exit_code != 0) {
    throw std::runtime_error("initdb: " + made.error);
  }
  Start();
}

void PostgresServer::Start() {
  const std::string data = folder_ / "data";
  program_ = std::make_unique<BackgroundProgram>(
      AsServerUser({ServerProgram("postgres"), "-D", data, "-k", SocketFolder(), "-c",
                    "listen_addresses=", "-c", "fsync=off"}),
      folder_ / "postgres.log");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (program_->IsRunning() && std::chrono::steady_clock::now() < deadline) {
    try {
      soci::session(soci::postgresql, Url("postgres"));
      return;
    } catch (const soci::soci_error&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  throw std::runtime_error("postgres does not start: " + folder_.Read("postgres.log"));
}

PostgresServer::~PostgresServer() { Stop(); }

void PostgresServer::Stop() {
  if (program_->IsRunning()) {
    ::kill(program_->pid(), SIGINT);  // SIGTERM alone would wait for the clients
    program_->Stop();
  }
}

std::string PostgresServer::CreateDatabase() {
  const std::string name = fmt::format("quota_{}", ++databases_);
  soci::session session(soci::postgresql, Url("postgres"));
  session << "CREATE DATABASE " << name;
  return name;
}

std::string PostgresServer::Url(const std::string& database, const std::string& password) const {
  return fmt::format("postgresql://postgres:{}@/{}?host={}", password, database, SocketFolder());
}

}  // namespace quillon::test
