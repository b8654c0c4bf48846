#include "doctor/dovecot_checks.h"

#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <map>
#include <sstream>
#include <system_error>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/mail_users.h>
#include <quillon/platform/store_check.h>

#include "count.h"
#include "doctor/as_user.h"
#include "doctor/command_output.h"
#include "doctor/ownership.h"
#include "dovecot_settings.h"
#include "input.h"

namespace {

using quillon::platform::CurrentConfiguration;
using quillon::platform::StoredMailUser;
using quillon::platform::StoredMailUsers;
namespace fs = std::filesystem;

constexpr char kPathUnit[] = "quillon-quota-sync.path";

/// A Dovecot by its folder of settings.
class Dovecot {
 public:
  Dovecot(std::string folder, std::string source)
      : folder_(std::move(folder)), source_(std::move(source)) {}

  std::string CheckSettings() const;
  std::string CheckExport() const;
  std::string CheckPlugins() const;
  std::string CheckUsageStore() const;
  std::string CheckNames() const;
  std::string CheckQuota() const;
  std::string CheckMailUsers() const;
  std::string CheckUserdb() const;
  std::string CheckProcesses() const;
  std::string CheckMaildirs() const;
  std::string CheckWatch() const;

 private:
  std::string File() const { return folder_ + "/dovecot.conf"; }
  std::string Get(const std::string& key, const std::string& protocol = "") const;
  void Require(const DovecotValue& expected) const;
  std::vector<gid_t> Groups() const;

  std::string folder_;
  std::string source_;
};

bool IsPattern(const StoredMailUser& user) {
  return user.name.find_first_of("*?") != std::string::npos;
}

bool HasCapital(const StoredMailUser& user) {
  return std::any_of(user.name.begin(), user.name.end(),
                     [](unsigned char c) { return std::isupper(c) != 0; });
}

// One whose name Dovecot might change, or the first. Not one that doveadm takes for several.
StoredMailUser ChooseUser() {
  std::vector<StoredMailUser> users = StoredMailUsers();
  std::erase_if(users, IsPattern);
  if (users.empty()) {
    throw Note("there are no mail users");
  }
  const auto user = std::find_if(users.begin(), users.end(), HasCapital);
  return user != users.end() ? *user : users.front();
}

// An empty answer is that of a setting that nothing sets, too.
std::string Dovecot::Get(const std::string& key, const std::string& protocol) const {
  std::vector<std::string> command = {"doveconf", "-c", File()};
  if (!protocol.empty()) {
    command.insert(command.end(), {"-f", "protocol=" + protocol});
  }
  command.insert(command.end(), {"-h", key});
  const CommandOutput output = RunCommand(command);
  if (!output.is_success) {
    throw Note("Dovecot's settings cannot be read");
  }
  return output.text;
}

void Dovecot::Require(const DovecotValue& expected) const {
  const std::string value = Get(expected.key);
  if (value != expected.value) {
    const std::string key = expected.key.substr(expected.key.find('/') + 1);
    throw Problem(
        fmt::format("{} is \"{}\", and has to be \"{}\"", key, value, expected.value),
        fmt::format("take it out where else it is set (grep -rn {} {}), or export anew: quillonctl "
                    "export dovecot --output {}",
                    key, folder_, folder_));
  }
}

std::vector<gid_t> Dovecot::Groups() const {
  std::vector<gid_t> groups;
  std::string names = Get("mail_access_groups");
  std::replace(names.begin(), names.end(), ',', ' ');
  std::istringstream words(names);
  for (std::string name; words >> name;) {
    if (const ::group* group = ::getgrnam(name.c_str()); group != nullptr) {
      groups.push_back(group->gr_gid);
    }
  }
  return groups;
}

std::string Dovecot::CheckSettings() const {
  const CommandOutput output = RunCommand({"doveconf", "-c", File(), "-h", "mail_plugins"});
  if (!output.is_success) {
    throw Problem(output.text,
                  fmt::format("mend the line, and look again: doveconf -c {} -n", File()));
  }
  return File();
}

std::string Dovecot::CheckExport() const {
  const auto files = DovecotSettings(*CurrentConfiguration(), source_, folder_);
  for (const SettingsFile& file : files) {
    RequireRootsOwn(file.path);
    if (const mode_t mode = StatusOf(file.path).st_mode & 0777U; (mode & ~file.mode) != 0) {
      throw Problem(fmt::format("{} has mode {:04o}", file.path, mode),
                    fmt::format("chmod {:04o} {}", file.mode, file.path));
    }
  }
  for (const SettingsFile& file : files) {
    if (ReadInput(file.path) != file.content) {
      throw Note(file.path +
                 " is not as it would be exported now: unless you have changed it by hand, export "
                 "anew (quillonctl export dovecot --output " +
                 folder_ + ")");
    }
  }
  return "as it would be exported now";
}

std::string Dovecot::CheckPlugins() const {
  for (const char* protocol : {"lmtp", "lda", "imap"}) {
    const std::string plugins = " " + Get("mail_plugins", protocol) + " ";
    for (const char* plugin : {"quota", "quota_clone"}) {
      if (plugins.find(fmt::format(" {} ", plugin)) == std::string::npos) {
        throw Problem(
            fmt::format("the plugin {} is not loaded for {}", plugin, protocol),
            fmt::format("where mail_plugins is set for the protocol (grep -rn mail_plugins {}), "
                        "begin it with $mail_plugins, or name quota and quota_clone",
                        folder_));
      }
    }
  }
  return "quota and quota_clone are loaded for lmtp, lda and imap";
}

std::string Dovecot::CheckUsageStore() const {
  Require(DovecotUsageValue(CurrentConfiguration()->usage));
  return "server and key are the same on both sides";
}

std::string Dovecot::CheckNames() const {
  for (const DovecotValue& value : DovecotNameValues()) {
    Require(value);
  }
  return "are taken as they are";
}

std::string Dovecot::CheckQuota() const {
  for (const DovecotValue& value : DovecotQuotaValues()) {
    Require(value);
  }
  return "limits are held to the byte";
}

std::string Dovecot::CheckMailUsers() const {
  const auto changes = quillon::platform::SyncMailUsers(true);
  if (!changes.IsNone()) {
    throw Problem(fmt::format("of the mail users {} are not as the accounts are now",
                              changes.added + changes.changed + changes.removed),
                  "quillonctl quota sync");
  }
  return "as the accounts are now";
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

std::string Dovecot::CheckUserdb() const {
  const StoredMailUser user = ChooseUser();
  const CommandOutput output = RunCommand({"doveadm", "-c", File(), "user", "--", user.name});
  if (!output.is_success) {
    const bool is_asked = output.text.find("connect(") == std::string::npos;
    throw Problem(output.text.substr(0, output.text.find('\n')),
                  is_asked
                      ? "quillonctl quota sync; if that does not do, Dovecot's own log (doveadm "
                        "log find) tells why the quota store was not read: the package "
                        "dovecot-sqlite or dovecot-pgsql may be missing"
                      : "start Dovecot (systemctl start dovecot)");
  }
  const auto fields = Fields(output.text);
  for (const auto& [key, value] :
       std::map<std::string, std::string>{{"uid", std::to_string(user.uid)},
                                          {"gid", std::to_string(user.gid)},
                                          {"home", user.home},
                                          {"quota_rule", DovecotQuotaRule(user.limit)}}) {
    const auto field = fields.find(key);
    const std::string found = field != fields.end() ? field->second : "";
    if (found != value) {
      throw Problem(
          fmt::format("for Dovecot, {} of {} is \"{}\", and has to be \"{}\"", key, user.name,
                      found, value),
          "let no other userdb know the mail users: with Debian's settings, comment out \"!include "
          "auth-system.conf.ext\" in conf.d/10-auth.conf, and keep its passdb");
    }
  }
  return fmt::format("{} is found, with the limit", user.name);
}

std::string Dovecot::CheckProcesses() const {
  const StoredMailUser user = ChooseUser();
  const Identity identity{user.uid, user.gid, Groups()};
  const auto configuration = CurrentConfiguration();
  const std::string folder = configuration->maildir.root + "/" + configuration->maildir.domain;
  RunAs(identity, [&] {
    if (::access(folder.c_str(), W_OK | X_OK) != 0) {
      throw std::runtime_error(
          fmt::format("{}, with the groups of mail_access_groups, may make no "
                      "mail directory in {}",
                      user.name, folder));
    }
    quillon::platform::CheckUsageStore();
  });
  return fmt::format("{} may make a mail directory and write to the usage store", user.name);
}

std::string Dovecot::CheckMaildirs() const {
  std::size_t count = 0;
  for (const StoredMailUser& user : StoredMailUsers()) {
    if (!fs::exists(fs::symlink_status(user.home))) {
      continue;
    }
    const struct stat status = StatusOf(user.home);
    if (!S_ISDIR(status.st_mode)) {
      throw Problem(user.home + " is no folder", "put the mail directory in its place");
    }
    if (status.st_uid != user.uid) {
      throw Problem(fmt::format("{} belongs to uid {}, and {} has uid {}", user.home, status.st_uid,
                                user.name, user.uid),
                    fmt::format("if it is the mail of {}: chown -R {}:{} {}", user.name, user.uid,
                                user.gid, user.home));
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      throw Problem(user.home + " may be changed by others than " + user.name,
                    "chmod go-w " + user.home);
    }
    ++count;
  }
  return Count(count, "mail directory", "mail directories") + ", of the right owner";
}

std::string Dovecot::CheckWatch() const {
  if (!fs::exists("/run/systemd/system")) {
    throw Note("systemd does not run here");
  }
  if (!RunCommand({"systemctl", "is-active", "--quiet", kPathUnit}).is_success) {
    throw Note(
        fmt::format("accounts that change are mail users after the next quillonctl quota sync "
                    "only (systemctl enable --now {})",
                    kPathUnit));
  }
  return kPathUnit;
}

}  // namespace

std::vector<Check> DovecotChecks(const std::string& folder, const std::string& source) {
  const Dovecot dovecot(folder, source);
  const auto check = [&](const char* name, std::string (Dovecot::*run)() const,
                         const std::string& remedy) {
    return Check{name, [dovecot, run] { return (dovecot.*run)(); }, remedy};
  };
  const std::string export_anew = "quillonctl export dovecot --output " + folder;
  return {
      check("dovecot settings", &Dovecot::CheckSettings, ""),
      check("dovecot export", &Dovecot::CheckExport, export_anew),
      check("dovecot plugins", &Dovecot::CheckPlugins, ""),
      check("dovecot usage store", &Dovecot::CheckUsageStore, "correct the table usage"),
      check("dovecot names", &Dovecot::CheckNames, ""),
      check("dovecot quota", &Dovecot::CheckQuota, ""),
      check("mail users", &Dovecot::CheckMailUsers, "mend the accounts first"),
      check("dovecot userdb", &Dovecot::CheckUserdb, "mend the quota store first"),
      check("mail processes", &Dovecot::CheckProcesses,
            "give the folder of the mail directories and the usage store's socket the group of "
            "mail_access_groups; docs/dovecot.md, \"What is needed\""),
      check("mail directories", &Dovecot::CheckMaildirs, "mend the quota store first"),
      check("changes of accounts", &Dovecot::CheckWatch, ""),
  };
}
