#include "faults/host.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fmt/format.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <quillon/platform/app_privileges.h>
#include <quillon/platform/configuration.h>
#include <quillon/platform/host_trust.h>
#include <quillon/platform/web_accounts.h>

namespace quillon::test {

namespace {

namespace fs = std::filesystem;

constexpr unsigned kFirstUid = 1100;
constexpr std::array kOwners = {"alice", "bob", "carol"};

void Do(const std::vector<std::string>& command) {
  const Outcome outcome = Run(command);
  if (outcome.exit_code != 0) {
    throw std::runtime_error(command.front() + ": " + outcome.error);
  }
}

std::string Content(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// All but the time of the last access.
std::string Describe(const fs::path& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    return "gone";
  }
  return fmt::format("{:o} {}:{} {} {}.{:09} {} {}", status.st_mode, status.st_uid, status.st_gid,
                     status.st_ino, status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_nlink,
                     S_ISREG(status.st_mode) ? Content(path) : "");
}

// Children of this process, whichever of its threads started them.
std::set<pid_t> Children() {
  std::set<pid_t> children;
  for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
    std::ifstream list(thread.path() / "children");
    children.insert(std::istream_iterator<pid_t>(list), {});
  }
  return children;
}

std::string WebAccounts() {
  std::string text;
  const std::string path = platform::CurrentConfiguration()->web.accounts_file;
  if (fs::exists(path)) {
    for (const auto& account :
         platform::ParseWebAccounts(platform::ReadWebAccountsFile(path).Get(), path)) {
      text += fmt::format("{} {}\n", account.name, platform::WebRoleName(account.role));
    }
  }
  return text;
}

}  // namespace

Host::Host() : plan_(MapFaultPlan((scratch_ / "plan").c_str(), O_CREAT)) {
  if (plan_ == nullptr) {
    throw std::system_error(errno, std::generic_category(), "plan");
  }
  const TemporaryFolder& folder = world_.folder();
  folder.Write("mailserver.toml",
               folder.Read("mailserver.toml") +
                   fmt::format("[web]\naccounts_file = \"{0}/web-accounts\"\n"
                               "[cluster]\ntrusted_hosts = \"{0}/trusted-hosts\"\n",
                               folder.path().string()));
  platform::UseConfiguration(platform::LoadConfiguration(world_.configuration_file()));
  unsigned uid = kFirstUid;
  for (const std::string& name : Users()) {
    world_.AddAccount(name, uid++);
  }
  for (const char* name : {"alice", "bob", "carol", kDora, kEmil}) {
    for (const char* part : {"cur", "cur", "new", ".Sent/cur"}) {
      world_.Deliver(name, part, 700);
    }
  }
  for (unsigned i = 0; i < kOwners.size(); ++i) {
    world_.Give(kOwners[i], 1001 + i);
  }
  world_.Give(kDora, kUidOfDora);
  world_.Give(kEmil, kUidOfEmil);
  servers_ = Children();
}

std::vector<std::string> Host::Users() const {
  std::vector<std::string> names;
  for (unsigned i = 0; i < kUsers; ++i) {
    names.push_back(fmt::format("user{:02}", i));
  }
  return names;
}

std::string Host::QuotaFile() const {
  std::string rows = "name,limit,warning\n";
  unsigned uid = kFirstUid;
  for (const std::string& name : Users()) {
    const unsigned group = uid++ % kGroups;
    rows += fmt::format("{},{}M,{}M\n", name, 200 + group, 100 + group);
  }
  return world_.folder().Write("quotas.csv", rows);
}

void Host::Keep(const std::set<std::string>& doomed) {
  doomed_ = doomed;
  Do({"cp", "-a", world_.folder().path(), scratch_ / "beginning"});
  figures_ = {"MSET", "of/nobody", "0"};
  for (const char* name : kOwners) {
    figures_.insert(figures_.end(), {std::string(name) + "/quota/storage", "1"});
  }
  Reset();
  for (const auto& maildir : fs::directory_iterator(world_.folder() / "spool/local")) {
    const std::string account = maildir.path().filename();
    mail_[account] = MailOf(account);
  }
}

void Host::Reset() {
  const fs::path beginning = scratch_ / "beginning";
  for (const auto& entry : fs::directory_iterator(world_.folder().path())) {
    if (!entry.is_directory()) {
      fs::remove(entry.path());
    }
  }
  for (const auto& entry : fs::directory_iterator(beginning)) {
    if (!entry.is_directory()) {
      fs::copy_file(entry.path(), world_.folder() / entry.path().filename().string());
    }
  }
  for (const std::string& account : doomed_) {
    fs::remove_all(world_.Maildir(account));
    Do({"cp", "-a", beginning / "spool/local" / account, world_.Maildir(account)});
    mail_[account] = MailOf(account);
  }
  world_.redis().Command({"FLUSHALL"});
  world_.redis().Command(figures_);
}

State Host::Look() {
  State state;
  ReadQuotas(state);
  ReadCache(state);
  std::vector<std::string> command = {"MGET"};
  for (const char* name : kOwners) {
    command.push_back(std::string(name) + "/quota/storage");
  }
  state["usage"] = world_.redis().Command(command);
  for (const auto& [user, app] : platform::ListRevokedPrivileges()) {
    state["privileges"] += fmt::format("{} {}\n", user, app);
  }
  for (const auto& known : platform::ListTrustedHosts()) {
    state["trusted hosts"] += fmt::format("{}:{}\n", known.host, known.port);
  }
  state["web accounts"] = WebAccounts();
  return state;
}

// A database with its journals, beside which SQLite has put nothing yet.
std::string Host::Copy(const std::string& database) const {
  for (const char* suffix : {"", "-wal", "-journal"}) {
    const fs::path from = world_.folder() / (database + suffix);
    const fs::path to = scratch_ / ("looked-at" + std::string(suffix));
    fs::remove(to);
    if (fs::exists(from)) {
      fs::copy_file(from, to);
    }
  }
  fs::remove(scratch_ / "looked-at-shm");
  const std::string copy = scratch_ / "looked-at";
  return fs::exists(copy) ? copy : "";
}

namespace {

// The answer's rows, the columns of each put together by the statement.
std::vector<std::pair<std::string, std::string>> Rows(soci::session& session,
                                                      const std::string& statement) {
  std::vector<std::pair<std::string, std::string>> rows;
  std::string key;
  std::string value;
  soci::statement select = (session.prepare << statement, soci::into(key), soci::into(value));
  select.execute();
  while (select.fetch()) {
    rows.emplace_back(key, value);
  }
  return rows;
}

bool HasTable(soci::session& session, const std::string& table) {
  int count = 0;
  session << "SELECT count(*) FROM sqlite_master WHERE name = '" + table + "'", soci::into(count);
  return count != 0;
}

void RequireIntegrity(soci::session& session) {
  std::string found;
  session << "PRAGMA integrity_check", soci::into(found);
  if (found != "ok") {
    throw std::runtime_error("a database is not sound: " + found);
  }
}

}  // namespace

void Host::ReadQuotas(State& state) const {
  const std::string copy = Copy("quota.db");
  if (copy.empty()) {
    return;
  }
  soci::session session(soci::sqlite3, "dbname=" + copy);
  RequireIntegrity(session);
  for (const char* table : {"user_limit", "user_warning", "group_limit", "group_warning"}) {
    if (HasTable(session, table)) {
      for (const auto& [id, row] : Rows(
               session, fmt::format("SELECT CAST(id AS TEXT), name || ' ' || bytes FROM {} ORDER BY"
                                    " id",
                                    table))) {
        state[fmt::format("{} of {}", table, std::stoul(id) % kGroups)] += id + " " + row + "\n";
      }
    }
  }
  for (const char* statement :
       {"SELECT name, id || ' ' || gid || ' ' || home FROM mail_user ORDER BY id",
        "SELECT CAST(id AS TEXT), gid FROM mail_user_group ORDER BY id, gid"}) {
    if (HasTable(session, "mail_user_group")) {
      for (const auto& [key, row] : Rows(session, statement)) {
        state["mail users"] += key + " " + row + "\n";
      }
    }
  }
}

void Host::ReadCache(State& state) const {
  const std::string copy = Copy("usage-cache.db");
  if (copy.empty()) {
    return;
  }
  soci::session session(soci::sqlite3, "dbname=" + copy);
  RequireIntegrity(session);
  if (HasTable(session, "directory")) {
    for (const auto& [path, row] :
         Rows(session, "SELECT path, inode || ' ' || uid || ' ' || bytes FROM directory")) {
      state["cached " + path] = row;
    }
  }
}

std::set<std::string> Host::Files() const {
  std::set<std::string> files;
  for (const auto& entry : fs::directory_iterator(world_.folder().path())) {
    const std::string name = entry.path().filename();
    if (name != "mail.log" && !name.ends_with("-wal") && !name.ends_with("-shm")) {
      files.insert(name);
    }
  }
  for (const auto& entry : fs::directory_iterator(world_.folder() / "spool")) {
    files.insert("spool/" + entry.path().filename().string());
  }
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    const std::string name = entry.path().filename();
    if (name.starts_with("quillonctl")) {
      files.insert("/tmp/" + name);
    }
  }
  return files;
}

Mail Host::MailOf(const std::string& account) const {
  Mail mail;
  const fs::path maildir = world_.Maildir(account);
  if (!fs::exists(maildir)) {
    return mail;
  }
  mail["."] = Describe(maildir);
  for (const auto& entry : fs::recursive_directory_iterator(maildir)) {
    mail[entry.path().lexically_relative(maildir)] = Describe(entry.path());
  }
  return mail;
}

std::string Host::Log() const { return Content(world_.folder() / "mail.log"); }

void Host::ClearLog() const { fs::remove(world_.folder() / "mail.log"); }

Outcome Host::Run(const std::vector<std::string>& arguments, const std::string& input,
                  bool with_faults) {
  Outcome outcome = world_.Quillonctl(
      arguments, input,
      with_faults ? FaultEnvironment(FAILING_WRITES) : std::vector<std::string>());
  WaitForAll();
  return outcome;
}

std::vector<std::string> Host::FaultEnvironment(const std::string& library) const {
  return {"LD_PRELOAD=" + library, std::string(kFaultPlanVariable) + "=" + (scratch_ / "plan")};
}

void Host::WaitForAll(pid_t but) const {
  for (auto left = Strangers(but); !left.empty(); left = Strangers(but)) {
    ::waitpid(*left.begin(), nullptr, 0);
  }
}

// What an operation has left running.
std::set<pid_t> Host::Strangers(pid_t but) const {
  std::set<pid_t> children = Children();
  children.erase(but);
  for (const pid_t server : servers_) {
    children.erase(server);
  }
  return children;
}

bool Host::RunAndKill(const std::vector<std::string>& arguments, std::chrono::microseconds after) {
  BackgroundProgram program(world_.CommandLine(arguments), scratch_ / "output");
  std::this_thread::sleep_for(after);
  const pid_t pid = program.pid();
  ::kill(pid, SIGKILL);
  siginfo_t ended{};
  ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT);
  bool was_running = ended.si_code == CLD_KILLED;
  program.IsRunning();  // it is reaped
  for (auto left = Strangers(); !left.empty(); left = Strangers()) {
    int status = 0;
    ::kill(*left.begin(), SIGKILL);
    ::waitpid(*left.begin(), &status, 0);
    was_running = was_running || WIFSIGNALED(status);
  }
  return was_running;
}

}  // namespace quillon::test
