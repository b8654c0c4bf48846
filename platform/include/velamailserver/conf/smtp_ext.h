#pragma once

#include <string>
#include <vector>

#include <velamailserver/velasdk/vela_user.h>

namespace velamailserver::conf {

/// The mail server's SMTP settings, as they were when the object was built. Throws on construction
/// when they cannot be read.
class SmtpConf {
 public:
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

  /// All users that have mail service, each once, in ascending order of uid. Throws `LogException`
  /// with `ERR_SDK_USER_ENUM` when the account database cannot be read.
  std::vector<velasdk::VelaUser> EnumUsers() const;
};

}  // namespace velamailserver::conf
