#pragma once

#include <sys/types.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <quillon/platform/configuration.h>

/// Where Dovecot has its settings as a rule.
inline constexpr char kDovecotFolder[] = "/etc/dovecot";

/// The file that Dovecot reads ours from, in its folder of settings.
std::string DovecotSettingsFile(const std::string& folder);

/// A file of settings for another program.
struct SettingsFile {
  std::string path;
  std::string content;
  mode_t mode;
};

/// The other program has no setting for what ours say. `what()` names the key and the remedy.
class CannotBeExported : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A setting as Dovecot itself shows it.
struct DovecotValue {
  std::string key;
  std::string value;
};

/// How Dovecot takes the names of users, for each protocol.
std::vector<DovecotValue> DovecotNameValues();
/// How it holds limits and where the mail is, for each protocol. An empty value is one that is set
/// nowhere.
std::vector<DovecotValue> DovecotQuotaValues();
/// How it has users warned, by settings in `folder`.
std::vector<DovecotValue> DovecotWarningValues(const std::string& folder);
/// Where it keeps the figures. Throws `CannotBeExported`.
DovecotValue DovecotUsageValue(const quillon::platform::Configuration::Usage& usage);
/// What it holds a user to, by the limit in bytes in decimal digits, empty for none.
std::string DovecotQuotaRule(const std::string& limit);

/// Settings that have Dovecot 2.3 find the mail users and their limits in the quota store, refuse
/// mail beyond the limits, and keep the figures in the usage store. `source` is the file of our
/// settings, for the reader, and `folder` that of Dovecot's. Throws `CannotBeExported`, and
/// `std::system_error` when the folder of the mail directories cannot be looked at.
std::vector<SettingsFile> DovecotSettings(const quillon::platform::Configuration& configuration,
                                          const std::string& source, const std::string& folder);

/// The group that may make mail directories, by its name; empty when none may, or none that has a
/// name, or none that every user's mail may be read with. Throws `std::system_error` when the
/// folder of the mail directories cannot be looked at.
std::string GroupOfMailFolder();
