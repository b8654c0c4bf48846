#include <cstdint>
#include <vector>

#include <quillon/platform/configuration.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>

#include "accounts/account_database.h"
#include "accounts/resolve_account.h"
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
  const std::vector<std::uint32_t> uids = quillon::platform::AskAccounts(
      ERR_SDK_USER_ENUM, "list the mail users", kSourceFile, kEnumUsersFailedLine, [&] {
        return quillon::platform::ListUids(configuration->accounts.min_uid,
                                           configuration->accounts.max_uid);
      });
  return {uids.begin(), uids.end()};
}

}  // namespace velamailserver::conf
