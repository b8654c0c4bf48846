#include <quillon/platform/usage_count.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "backend/usage_writer.h"
#include "maildir/maildir.h"
#include "maildir/message_usage.h"

namespace quillon::platform {

namespace {

using velamailserver::velasdk::VelaUser;

CountedUsage CountUser(const VelaUser& user) {
  const std::string account = user.Name();
  const FileDescriptor maildir = OpenMaildir(account);
  return {user.RealName(), maildir.IsOpen() ? CountMessageBytes(maildir, MaildirPath(account)) : 0};
}

}  // namespace

std::vector<CountedUsage> CountUsage(const std::vector<VelaUser>& users) {
  const velamailserver::velasdk::FileLockGuard lock(kUsageCountLockFile);
  std::vector<CountedUsage> figures;
  figures.reserve(users.size());
  for (const VelaUser& user : users) {
    figures.push_back(CountUser(user));
  }
  backend::StoreUsage(figures);
  return figures;
}

}  // namespace quillon::platform
