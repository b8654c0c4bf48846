#include "doctor/dovecot_checks.h"

#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <system_error>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/maildir_folder.h>
#include <quillon/platform/store_check.h>

#include "count.h"
#include "doctor/as_user.h"
#include "doctor/command_output.h"
#include "doctor/effective_settings.h"
#include "doctor/host_checks.h"
#include "doctor/ownership.h"
#include "dovecot_settings.h"
#include "input.h"
#include "shell_word.h"
#include "warning_command.h"

namespace {

using quillon::platform::CurrentConfiguration;
using quillon::platform::StoredMailUser;
using quillon::platform::StoredMailUsers;
namespace fs = std::filesystem;

constexpr char kPathUnit[] = "quillon-quota-sync.path";
constexpr std::array kProtocols = {"lmtp", "lda", "imap"};

bool IsPattern(const StoredMailUser& user) {
  return user.name.find_first_of("*?") != std::string::npos;
}

bool HasCapital(const StoredMailUser& user) {
  return std::any_of(user.name.begin(), user.name.end(),
                     [](unsigned char c) { return std::isupper(c) != 0; });
}

// One whose name Dovecot might change, or the first. Not one that doveadm takes for several.
StoredMailUser ChooseUser(std::vector<StoredMailUser> users) {
  std::erase_if(users, IsPattern);
  if (users.empty()) {
    throw Note("there are no mail users");
  }
  const auto user = std::find_if(users.begin(), users.end(), HasCapital);
  return user != users.end() ? *user : users.front();
}

/// A Dovecot by its folder of settings.
class Dovecot {
 public:
  Dovecot(std::string folder, std::string source)
      : folder_(std::move(folder)),
        source_(std::move(source)),
        settings_(folder_ + "/dovecot.conf") {}

  std::string CheckSettings();
  std::string CheckExport();
  std::string CheckPlugins();
  std::string CheckUsageStore();
  std::string CheckNames();
  std::string CheckQuota();
  std::string CheckWarnings();
  std::string CheckMailUsers();
  std::string CheckServer();
  std::string CheckUserdb();
  std::string CheckProcesses();
  std::string CheckMaildirs();
  std::string CheckWatch();

 private:
  void Require(const DovecotValue& expected, const std::string& protocol = "");
  // For each protocol.
  void RequireForAll(const std::vector<DovecotValue>& expected);
  std::string ExportAnew() const {
    return fmt::format("quillonctl export dovecot --output {} && doveadm reload",
                       ShellWord(folder_));
  }
  const std::vector<StoredMailUser>& Users();
  std::vector<gid_t> Groups();

  std::string folder_;
  std::string source_;
  EffectiveSettings settings_;
  std::optional<std::vector<StoredMailUser>> users_;
};

void Dovecot::Require(const DovecotValue& expected, const std::string& protocol) {
  const std::string value = settings_.Get(expected.key, protocol);
  if (value != expected.value) {
    const std::string key = expected.key.substr(expected.key.rfind('/') + 1);
    throw Problem(fmt::format("{}{} is \"{}\", and has to be \"{}\"", expected.key,
                              protocol.empty() ? "" : " for " + protocol, value, expected.value),
                  fmt::format("take it out where it is set so (grep -rn {} {}), or {}", key,
                              ShellWord(folder_), ExportAnew()));
  }
}

void Dovecot::RequireForAll(const std::vector<DovecotValue>& expected) {
  for (const char* protocol : kProtocols) {
    for (const DovecotValue& value : expected) {
      Require(value, protocol);
    }
  }
}

const std::vector<StoredMailUser>& Dovecot::Users() {
  if (!users_) {
    users_ = StoredMailUsers();
  }
  return *users_;
}

std::vector<gid_t> Dovecot::Groups() {
  std::vector<gid_t> groups;
  std::string names = settings_.Get("mail_access_groups");
  std::replace(names.begin(), names.end(), ',', ' ');
  std::istringstream words(names);
  for (std::string name; words >> name;) {
    if (const ::group* group = ::getgrnam(name.c_str()); group != nullptr) {
      groups.push_back(group->gr_gid);
    }
  }
  return groups;
}

std::string Dovecot::CheckSettings() {
  if (RunCommand({"doveconf", "-a", "-c", settings_.file()}).status == 127) {
    throw Problem("there is no doveconf", "apt-get install dovecot-lmtpd dovecot-imapd");
  }
  const std::string dictionary = settings_.Get("plugin/quota_clone_dict");
  if (dictionary.empty() && settings_.Get("service/quota-warning/executable").empty()) {
    throw Problem(
        fmt::format("{} does not include {}", settings_.file(), DovecotSettingsFile(folder_)),
        "put the line \"!include conf.d/*.conf\" into it");
  }
  return settings_.file();
}

std::string Dovecot::CheckExport() {
  const auto files = DovecotSettings(*CurrentConfiguration(), source_, folder_);
  for (const std::string& path : {folder_, folder_ + "/conf.d", settings_.file()}) {
    RequireRootsOwn(path);
  }
  for (const SettingsFile& file : files) {
    RequireRootsOwn(file.path);
    const mode_t mode = StatusOf(file.path).st_mode & 0777U;
    const mode_t least = file.mode & 0700U;
    if ((mode & ~file.mode) != 0 || (mode & least) != least) {
      throw Problem(fmt::format("{} has mode {:04o}", file.path, mode),
                    fmt::format("chmod {:04o} {}", file.mode, ShellWord(file.path)));
    }
  }
  for (const SettingsFile& file : files) {
    if (ReadInput(file.path) != file.content) {
      throw Note(
          fmt::format("{} is not as it would be exported now: unless you have changed it by "
                      "hand, {}",
                      file.path, ExportAnew()));
    }
  }
  return "as it would be exported now";
}

std::string Dovecot::CheckPlugins() {
  for (const char* protocol : kProtocols) {
    const std::string plugins = " " + settings_.Get("mail_plugins", protocol) + " ";
    for (const char* plugin : {"quota", "quota_clone"}) {
      if (plugins.find(fmt::format(" {} ", plugin)) == std::string::npos) {
        throw Problem(
            fmt::format("the plugin {} is not loaded for {}", plugin, protocol),
            fmt::format(
                "where mail_plugins is set for {} (grep -rn mail_plugins {}), add quota and "
                "quota_clone: $mail_plugins stands only for what is read before that line",
                protocol, ShellWord(folder_)));
      }
    }
  }
  return "quota and quota_clone are loaded for lmtp, lda and imap";
}

std::string Dovecot::CheckUsageStore() {
  RequireForAll({DovecotUsageValue(CurrentConfiguration()->usage)});
  return "server and key are the same on both sides";
}

std::string Dovecot::CheckNames() {
  RequireForAll(DovecotNameValues());
  return "are taken as they are";
}

std::string Dovecot::CheckQuota() {
  RequireForAll(DovecotQuotaValues());
  return "limits are held to the byte";
}

std::string Dovecot::CheckWarnings() {
  const auto configuration = CurrentConfiguration();
  for (const DovecotValue& value : DovecotWarningValues(folder_)) {
    Require(value);
  }
  const std::string listener = "service/quota-warning/unix_listener/quota-warning/";
  Require({listener + "group", GroupOfMailFolder()});
  Require({listener + "mode", "0660"});
  if (!configuration->quota.warning_message.empty()) {
    ReadWarningMessage(configuration->quota.warning_message);
  }
  return "are left in the mailboxes";
}

std::string Dovecot::CheckMailUsers() {
  const auto& changes = ChangesOfMailUsers();
  if (!changes.IsNone()) {
    throw Problem(fmt::format("of the mail users {} are not as the accounts are now",
                              changes.added + changes.changed + changes.removed),
                  "quillonctl quota sync");
  }
  return "as the accounts are now";
}

// How long a process has been running.
std::chrono::duration<double> AgeOf(const std::string& pid) {
  constexpr int kFieldsBeforeStart = 19;  // behind the name, which is in brackets
  const std::string status = ReadInput("/proc/" + pid + "/stat");
  std::istringstream fields(status.substr(status.rfind(')') + 1));
  std::string field;
  for (int i = 0; i < kFieldsBeforeStart; ++i) {
    fields >> field;
  }
  double ticks = 0;
  fields >> ticks;
  double uptime = 0;
  std::istringstream(ReadInput("/proc/uptime")) >> uptime;
  return std::chrono::duration<double>(uptime -
                                       ticks / static_cast<double>(::sysconf(_SC_CLK_TCK)));
}

// The one that was changed last, of the settings in a folder and those below it.
fs::path NewestSettings(const std::string& folder) {
  fs::path newest;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    const bool is_settings = entry.is_regular_file() && (entry.path().extension() == ".conf" ||
                                                         entry.path().extension() == ".ext");
    if (is_settings &&
        (newest.empty() || fs::last_write_time(entry) > fs::last_write_time(newest))) {
      newest = entry.path();
    }
  }
  return newest;
}

// Its process for the log ends with a reload, and at no other time.
std::string Dovecot::CheckServer() {
  const std::vector<std::string> command = {"doveadm", "-c", settings_.file(), "process", "status"};
  const CommandOutput output = RunCommand(command);
  if (!output.IsSuccess()) {
    throw Problem(ComplaintOf(command),
                  "start Dovecot (systemctl start dovecot); if it does not start, its log says why "
                  "(journalctl -u dovecot)");
  }
  std::istringstream lines(output.text);
  std::string pid;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("log ")) {
      std::istringstream(line.substr(line.find(' '))) >> pid;
    }
  }
  const fs::path newest = NewestSettings(folder_);
  const auto age = fs::file_time_type::clock::now() - fs::last_write_time(newest);
  if (!pid.empty() && AgeOf(pid) > age + std::chrono::seconds(1)) {
    throw Problem(newest.string() + " has changed since Dovecot has read it", "doveadm reload");
  }
  return "Dovecot runs with these settings";
}

// What Dovecot knows of a user, by its name there.
std::map<std::string, std::string> Fields(const std::string& text) {
  std::map<std::string, std::string> fields;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (const auto tab = line.find('\t'); tab != std::string::npos) {
      fields[line.substr(0, tab)] = line.substr(tab + 1);
    }
  }
  return fields;
}

std::string Dovecot::CheckUserdb() {
  const StoredMailUser user = ChooseUser(Users());
  const std::vector<std::string> command = {"doveadm", "-c", settings_.file(),
                                            "user",    "--", user.name};
  const CommandOutput output = RunCommand(command);
  if (!output.IsSuccess()) {
    throw Problem(ComplaintOf(command),
                  "Dovecot's log (doveadm log find) says why the quota store was not read: "
                  "dovecot-sqlite or dovecot-pgsql may be missing, or the store not be "
                  "auth-worker's to read");
  }
  const auto fields = Fields(output.text);
  for (const auto& [key, value] :
       std::map<std::string, std::string>{{"uid", std::to_string(user.uid)},
                                          {"gid", std::to_string(user.gid)},
                                          {"home", user.home},
                                          {"mail", "maildir:" + user.home},
                                          {"quota_rule", DovecotQuotaRule(user.limit)}}) {
    const auto field = fields.find(key);
    const std::string found = field != fields.end() ? field->second : "";
    if (found != value) {
      throw Problem(
          fmt::format("for Dovecot, {} of {} is \"{}\", and has to be \"{}\"", key, user.name,
                      found, value),
          "let no other userdb know the mail users: with "
          "Debian's settings, put \"passdb { driver = pam }\", in three lines, in the place of "
          "\"!include auth-system.conf.ext\" in conf.d/10-auth.conf");
    }
  }
  return fmt::format("{} is found, with the limit", user.name);
}

// The first folder on the way that this process may not enter.
void RequireWay(const fs::path& folder) {
  fs::path way;
  for (const fs::path& part : folder) {
    way /= part;
    if (::access(way.c_str(), X_OK) != 0) {
      throw std::system_error(errno, std::generic_category(), way.string());
    }
  }
}

std::string Dovecot::CheckProcesses() {
  const StoredMailUser user = ChooseUser(Users());
  const std::string folder = quillon::platform::MaildirFolder();
  const std::string group = GroupOfMailFolder();
  if (group.empty()) {
    throw Problem(fmt::format("no group may make mail directories in {}", folder),
                  fmt::format("chgrp quillon-mail {0} && chmod 1771 {0} && {1}", ShellWord(folder),
                              ExportAnew()));
  }
  const std::vector<gid_t> groups = Groups();
  if (std::find(groups.begin(), groups.end(), StatusOf(folder).st_gid) == groups.end()) {
    throw Problem(
        fmt::format("{} is not in mail_access_groups, and is the group of {}", group, folder),
        ExportAnew());
  }
  RunAs({user.uid, user.gid, groups}, [&] {
    RequireWay(folder);
    quillon::platform::CheckUsageStore();
  });
  return fmt::format("{} may make a mail directory and write to the usage store", user.name);
}

// What is wrong with a mail directory or something in it; empty when nothing is.
std::string Fault(const std::string& path, const StoredMailUser& user) {
  if (!fs::exists(fs::symlink_status(path))) {
    return "";
  }
  const struct stat status = StatusOf(path);
  if (S_ISLNK(status.st_mode)) {
    return path + " is a link, which is followed nowhere";
  }
  if (status.st_uid != user.uid) {
    return fmt::format("{} belongs to uid {}, and {} has uid {}", path, status.st_uid, user.name,
                       user.uid);
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return fmt::format("{} may be changed by others than {}", path, user.name);
  }
  const mode_t wanted = S_ISDIR(status.st_mode) ? S_IRWXU : S_IRUSR | S_IWUSR;
  return (status.st_mode & wanted) == wanted
             ? ""
             : fmt::format("{} has mode {:04o}", path, status.st_mode & 07777U);
}

std::string FaultOfMaildir(const StoredMailUser& user) {
  for (const char* part : {"", "/cur", "/new", "/tmp", "/maildirsize"}) {
    if (std::string fault = Fault(user.home + part, user); !fault.empty()) {
      return fault;
    }
  }
  return "";
}

std::string Dovecot::CheckMaildirs() {
  std::string first;
  const StoredMailUser* whose = nullptr;
  std::size_t faults = 0;
  for (const StoredMailUser& user : Users()) {
    if (std::string fault = FaultOfMaildir(user); !fault.empty()) {
      if (++faults == 1) {
        first = std::move(fault);
        whose = &user;
      }
    }
  }
  if (whose != nullptr) {
    const std::string home = ShellWord(whose->home);
    throw Problem(
        fmt::format("{}{}", first,
                    faults > 1 ? fmt::format("; and {} more like it", faults - 1) : ""),
        fmt::format("if it is this user's mail: chown -R {}:{} {} && chmod -R u+rwX,go-w {}",
                    whose->uid, whose->gid, home, home));
  }
  return Count(Users().size(), "user", "users") + " can have mail in it";
}

std::string Dovecot::CheckWatch() {
  if (!fs::exists("/run/systemd/system")) {
    throw Note("systemd does not run here");
  }
  if (!RunCommand({"systemctl", "is-active", "--quiet", kPathUnit}).IsSuccess()) {
    throw Note(
        fmt::format("accounts that change are mail users after the next quillonctl quota sync "
                    "only (systemctl enable --now {} quillon-quota-sync.timer)",
                    kPathUnit));
  }
  return kPathUnit;
}

}  // namespace

std::vector<Check> DovecotChecks(const std::string& folder, const std::string& source) {
  const auto dovecot = std::make_shared<Dovecot>(folder, source);
  const auto check = [&](const char* name, std::string (Dovecot::*run)(), const std::string& remedy,
                         const std::vector<std::string>& needs) {
    return Check{name, [dovecot, run] { return (*dovecot.*run)(); }, remedy, needs};
  };
  const std::string correct =
      "correct mailserver.toml, then quillonctl export dovecot --output " + ShellWord(folder);
  const std::vector<std::string> settings = {"dovecot settings"};
  return {
      check("dovecot settings", &Dovecot::CheckSettings,
            fmt::format("mend the line, and look again: doveconf -n -c {}/dovecot.conf",
                        ShellWord(folder)),
            {}),
      check("dovecot export", &Dovecot::CheckExport, correct, {"mail folders"}),
      check("dovecot plugins", &Dovecot::CheckPlugins, "", settings),
      check("dovecot usage store", &Dovecot::CheckUsageStore, correct, settings),
      check("dovecot names", &Dovecot::CheckNames, "", settings),
      check("dovecot quota", &Dovecot::CheckQuota, "", settings),
      check("dovecot warnings", &Dovecot::CheckWarnings, "correct quota.warning_message",
            {"dovecot settings", "mail folders"}),
      check("mail users", &Dovecot::CheckMailUsers, "", {"accounts"}),
      check("dovecot server", &Dovecot::CheckServer, "", settings),
      check("dovecot userdb", &Dovecot::CheckUserdb, "", {"dovecot server", "quota store"}),
      check("mail processes", &Dovecot::CheckProcesses,
            "let the group of mail_access_groups use this folder, or the usage store's socket; "
            "docs/dovecot.md, \"What is needed\"",
            {"dovecot settings", "quota store", "usage store", "mail folders"}),
      check("mail directories", &Dovecot::CheckMaildirs, "", {"quota store"}),
      check("changes of accounts", &Dovecot::CheckWatch, "", {}),
  };
}
