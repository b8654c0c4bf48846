#include "dovecot_settings.h"

#include <arpa/inet.h>
#include <grp.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include <quillon/platform/maildir_folder.h>

#include "shell_word.h"

namespace {

using quillon::platform::Configuration;

constexpr std::string_view kKeyOfDovecot = "{name}/quota/storage";

// By the sizes of the messages, which is what a count of ours makes, too.
constexpr char kQuota[] = "maildir:User quota";

// Limits from here on are none: Dovecot's numbers end at 2^63, and no disk has as much.
constexpr std::size_t kMostDigits = 18;

// In Dovecot's configuration, a percent sign begins a variable.
std::string WithoutVariables(std::string_view text) {
  std::string plain;
  for (const char c : text) {
    plain += c == '%' ? "%%" : std::string(1, c);
  }
  return plain;
}

// A value in Dovecot's configuration.
std::string Value(std::string_view text) {
  std::string value = "\"";
  for (const char c : WithoutVariables(text)) {
    if (c == '"' || c == '\\') {
      value += '\\';
    }
    value += c;
  }
  return value + "\"";
}

std::string ScriptIn(const std::string& folder) { return folder + "/quillon-quota-warning"; }

// A part of the address of a Dovecot dictionary, whose parts are separated by colons.
std::string Part(const char* name, const std::string& text, const char* key) {
  if (text.find(':') != std::string::npos) {
    throw CannotBeExported(fmt::format(
        "{} holds a colon, which Dovecot takes for the end of it: choose another", key));
  }
  return fmt::format(":{}={}", name, text);
}

std::string UsageStore(const Configuration::Usage& usage) {
  if (!usage.sentinels.empty()) {
    throw CannotBeExported(
        "usage.sentinels: Dovecot cannot ask Redis Sentinels; give it a server by usage.host and "
        "usage.port that always leads to the master");
  }
  if (!usage.password.empty()) {
    throw CannotBeExported(
        "usage.password: Dovecot cannot give Redis a password; let it be reached by a unix socket "
        "(usage.socket) that only root and the group quillon-mail may use");
  }
  if (!usage.key_template.ends_with(kKeyOfDovecot)) {
    throw CannotBeExported(
        fmt::format("usage.key_template is {}, and Dovecot's keys end with {}: set it to that",
                    usage.key_template, kKeyOfDovecot));
  }
  const std::string prefix =
      usage.key_template.substr(0, usage.key_template.size() - kKeyOfDovecot.size());
  std::string address = "redis";
  if (usage.socket.empty()) {
    if (in_addr ip{}; ::inet_pton(AF_INET, usage.host.c_str(), &ip) != 1) {
      throw CannotBeExported(fmt::format(
          "usage.host is {}, and Dovecot's Redis client takes nothing but an IPv4 address: give it "
          "that, or a unix socket (usage.socket)",
          usage.host));
    }
    address += fmt::format(":host={}:port={}", usage.host, usage.port);
  } else {
    address += Part("path", usage.socket, "usage.socket");
  }
  if (!prefix.empty()) {
    address += Part("prefix", prefix, "usage.key_template");
  }
  if (usage.database != 0) {
    address += fmt::format(":db={}", usage.database);
  }
  return address;
}

// Percent signs begin variables, in what the query answers, too. Words behind "quota-warning" are
// parted by blanks. An address is that of the account before the @, where none has all of it.
constexpr char kUserQuery[] = R"(SELECT name AS user, home, uid, gid, 'maildir:' || home AS mail, \
  '*:bytes=' || CASE WHEN length(quota_limit) <= {digits} THEN quota_limit ELSE '0' END AS quota_rule, \
  CASE WHEN length(quota_warning) <= {digits} AND replace(name, '  ', '') = trim(name) THEN \
    'bytes=' || quota_warning || ' quota-warning ' || quota_warning || ' ' || \
    CASE WHEN length(quota_limit) <= {digits} THEN quota_limit ELSE '0' END || ' ' || \
    replace(name, '%%', '%%%%') END AS quota_warning \
  FROM mail_user_quota WHERE name IN ('%u', '%n') \
  ORDER BY CASE name WHEN '%u' THEN 0 ELSE 1 END LIMIT 1)";

std::string Heading(const std::string& source) {
  return fmt::format(
      "# Made by quillonctl export dovecot, for Dovecot 2.3 and the settings in\n"
      "# {}. Make it anew when those change.\n",
      source);
}

std::string SqlSettings(const Configuration::Quota& quota, const std::string& source) {
  const std::string file = quota.SqliteFile();
  return fmt::format(
      "{}\n"
      "driver = {}\n"
      "connect = {}\n"
      "\n"
      "# A limit of 0 is none; so is one that is not there, or larger than Dovecot can count.\n"
      "user_query = {}\n"
      "iterate_query = SELECT name AS user FROM mail_user\n",
      Heading(source), file.empty() ? "pgsql" : "sqlite", file.empty() ? quota.store : file,
      fmt::format(kUserQuery, fmt::arg("digits", kMostDigits)));
}

std::string MailAccess(const std::string& group) {
  return !group.empty()
             ? fmt::format("mail_access_groups = {}\n", group)
             : fmt::format(
                   "# {} has no group of its own that may write to it, with the sticky bit "
                   "set:\n"
                   "# mail for a user without a mail directory fails, and nobody is warned. Give "
                   "it one\n"
                   "# (chgrp GROUP, chmod 1771), and make this file anew.\n",
                   quillon::platform::MaildirFolder());
}

// Who may have a user warned: the mail processes, and nobody else.
std::string WarningListener(const std::string& group) {
  return group.empty() ? "mode = 0600" : fmt::format("group = {}\n    mode = 0660", group);
}

std::string MailSettings(const Configuration& configuration, const std::string& source,
                         const std::string& sql_file, const std::string& warning_script) {
  const std::string group = GroupOfMailFolder();
  return fmt::format(
      R"({heading}
# Names are those of the accounts as they are, with capitals, signs and a plus.
auth_username_format = %u
auth_username_chars =
recipient_delimiter =

# Who there is, where the mail is, and the limits. No other userdb may know these users.
userdb {{
  driver = sql
  args = {sql}
}}
first_valid_uid = {min_uid}
last_valid_uid = {max_uid}

# Whoever gets mail for the first time needs a mail directory, which this group may make.
{access}
# Limits are held to the byte. The figures go to the usage store.
mail_plugins = $mail_plugins quota quota_clone
protocol imap {{
  mail_plugins = $mail_plugins imap_quota
}}
plugin {{
  quota = {quota}
  quota_grace = 0
  quota_clone_dict = {usage}
}}

# Leaves a message in the mailbox of a user who gets beyond the warning level.
service quota-warning {{
  executable = script {script}
  unix_listener quota-warning {{
    {listener}
  }}
}}
)",
      fmt::arg("heading", Heading(source)), fmt::arg("sql", Value(sql_file)),
      fmt::arg("min_uid", configuration.accounts.min_uid),
      fmt::arg("max_uid", configuration.accounts.max_uid), fmt::arg("quota", kQuota),
      fmt::arg("usage", Value(UsageStore(configuration.usage))), fmt::arg("script", warning_script),
      fmt::arg("access", MailAccess(group)), fmt::arg("listener", WarningListener(group)));
}

std::string WarningScript(const std::string& source, const std::string& folder) {
  return fmt::format(
      R"(#!/bin/sh
{heading}
# Dovecot runs this as root when the mail of a user has grown beyond the warning level:
#   quillon-quota-warning LEVEL LIMIT USER
# with sizes in bytes, and a limit of 0 where there is none. The message may exceed the limit.
set -e
export PATH=/usr/local/bin:/usr/bin:/bin # there is none
level=$1 limit=$2
shift 2
message=$({quillonctl} --config {source} quota warning --level "$level" --limit "$limit" -- "$*")
case $* in
*[*?]*)
  echo "no message for $*: doveadm would take the name for a pattern" >&2
  exit 1
  ;;
esac
printf '%s\n' "$message" |
  doveadm -c {dovecot} -o 'plugin/quota={quota}:noenforcing' save -u "$*"
)",
      fmt::arg("heading", Heading(source)),
      fmt::arg("quillonctl", ShellWord(std::filesystem::read_symlink("/proc/self/exe"))),
      fmt::arg("source", ShellWord(source)),
      fmt::arg("dovecot", ShellWord(folder + "/dovecot.conf")), fmt::arg("quota", kQuota));
}

}  // namespace

std::string DovecotSettingsFile(const std::string& folder) {
  return folder + "/conf.d/99-quillon.conf";
}

std::vector<DovecotValue> DovecotNameValues() {
  return {{"auth_username_format", "%u"}, {"auth_username_chars", ""}, {"recipient_delimiter", ""}};
}

std::vector<DovecotValue> DovecotQuotaValues() {
  return {
      {"plugin/quota", kQuota},      {"plugin/quota_grace", "0"},      {"plugin/quota2", ""},
      {"plugin/quota_rule2", ""},    {"plugin/quota_vsizes", ""},      {"plugin/quota_warning", ""},
      {"plugin/quota_warning2", ""}, {"namespace/inbox/location", ""}, {"auth_cache_size", "0"}};
}

std::vector<DovecotValue> DovecotWarningValues(const std::string& folder) {
  return {{"service/quota-warning/executable", "script " + ScriptIn(folder)},
          {"service/quota-warning/user", ""}};
}

DovecotValue DovecotUsageValue(const Configuration::Usage& usage) {
  return {"plugin/quota_clone_dict", WithoutVariables(UsageStore(usage))};
}

std::string DovecotQuotaRule(const std::string& limit) {
  return "*:bytes=" + (limit.empty() || limit.size() > kMostDigits ? "0" : limit);
}

// Every user's mail is read with it, so it must not be root's, nor let one user's processes take
// another one's directory away.
std::string GroupOfMailFolder() {
  const std::string folder = quillon::platform::MaildirFolder();
  struct stat status {};
  if (::stat(folder.c_str(), &status) != 0) {
    throw std::system_error(errno, std::generic_category(), folder);
  }
  const bool may_make = (status.st_mode & S_IWGRP) != 0 && (status.st_mode & S_ISVTX) != 0;
  const ::group* group = may_make && status.st_gid != 0 ? ::getgrgid(status.st_gid) : nullptr;
  return group != nullptr ? group->gr_name : "";
}

std::vector<SettingsFile> DovecotSettings(const Configuration& configuration,
                                          const std::string& source, const std::string& folder) {
  if (folder.find_first_of(" \t\n") != std::string::npos) {
    throw CannotBeExported(folder +
                           ": Dovecot runs no script in a folder with a space in its name");
  }
  const std::string sql_file = folder + "/quillon-sql.conf.ext";
  const std::string script = ScriptIn(folder);
  // The store's password is in the second one.
  return {
      {DovecotSettingsFile(folder), MailSettings(configuration, source, sql_file, script), 0644},
      {sql_file, SqlSettings(configuration.quota, source), 0600},
      {script, WarningScript(source, folder), 0755}};
}
