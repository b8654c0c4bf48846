#pragma once

#include <string>
#include <vector>

#include <velamailserver/velasdk/vela_user.h>

namespace velamailserver::conf {

/// The mail server's SMTP settings, as they were when the object was built. Safe for use from
/// several threads.
class SmtpConf {
 public:
  /// Throws `LogException` with `ERR_LOAD_SMTP_SETTINGS` when the settings cannot be read.
  SmtpConf();

  /// Absolute path of the folder that holds all mail directories, as its grandchildren.
  const std::string& MaildirPath() const { return maildir_path_; }

 private:
  std::string maildir_path_;
};

/// The settings with what the account database adds to them.
class SmtpExt : public SmtpConf {
 public:
  SmtpExt();

  /// All users that have mail service, as the account database has them now, in ascending order of
  /// uid; of several names of one uid, the first. Throws `LogException` with `ERR_SDK_USER_ENUM`
  /// when the account database cannot be read.
  std::vector<velasdk::VelaUser> EnumUsers() const;
};

}  // namespace velamailserver::conf
