#include <cstdint>
#include <system_error>

#include <quillon/platform/configuration.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>

#include "accounts/account_database.h"
#include "maildir/maildir.h"

namespace velamailserver::conf {

namespace {

constexpr char kSourceFile[] = "platform/linux/conf/smtp_ext";
constexpr int kEnumUsersFailedLine = 36;

}  // namespace

SmtpConf::SmtpConf() : maildir_path_(quillon::platform::MaildirRoot()) {}

SmtpExt::SmtpExt() = default;

std::vector<velasdk::VelaUser> SmtpExt::EnumUsers() const {
  const auto configuration = quillon::platform::CurrentConfiguration();
  std::vector<std::uint32_t> uids;
  try {
    uids = quillon::platform::ListUids(configuration->accounts.min_uid,
                                       configuration->accounts.max_uid);
  } catch (const std::system_error& error) {
    throw LogException(ERR_SDK_USER_ENUM,
                       std::string("cannot list the mail users: ") + error.what(), 3, kSourceFile,
                       kEnumUsersFailedLine);
  }
  return {uids.begin(), uids.end()};
}

}  // namespace velamailserver::conf
