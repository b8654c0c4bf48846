#include "maildir/no_owner_maildir.h"

#include <exception>
#include <new>
#include <utility>

#include <quillon/platform/configuration.h>
#include <quillon/platform/no_owner_usage.h>
#include <velamailserver/account/no_owner_maildir.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/maillog.h>

#include "accounts/nobody.h"
#include "maildir/maildir_tree.h"
#include "maildir/usage_cache.h"

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/maildir/no_owner_maildir";
constexpr int kNotLookedAtLine = 38;

CacheKey KeyOf(const std::string& path, const MaildirAt& maildir) {
  return {path, maildir.inode, maildir.uid};
}

std::string DisplayName(const MaildirAt& maildir) {
  const bool is_default_domain = maildir.domain_name == CurrentConfiguration()->maildir.domain;
  return is_default_domain ? maildir.account : maildir.account + "@" + maildir.domain_name;
}

}  // namespace

std::optional<MaildirAt> OpenOwnerlessMaildir(const std::string& path) {
  MaildirAt maildir = OpenMaildirAt(path);
  if (maildir.state != MaildirAt::kMaildir || !IsNobody(maildir.uid)) {
    return std::nullopt;
  }
  return maildir;
}

std::optional<MaildirContents> MeasureMaildir(const std::string& path) {
  const MaildirAt maildir = OpenMaildirAt(path);
  if (maildir.state != MaildirAt::kMaildir) {
    return std::nullopt;
  }
  return MeasureTree(maildir.folder, path);
}

}  // namespace quillon::platform

namespace velamailserver::account {

NoOwnerMaildir::NoOwnerMaildir(const std::string& directory) {
  path = directory;
  try {
    if (const auto maildir = quillon::platform::OpenOwnerlessMaildir(path)) {
      auto display_name = quillon::platform::DisplayName(*maildir);
      usage = quillon::platform::FindCachedUsage(quillon::platform::KeyOf(path, *maildir));
      name = std::move(display_name);
      uid = maildir->uid;
      flag = true;
    }
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const LogException&) {
    // It has logged itself.
  } catch (const std::exception& error) {
    maillog(4, "%s:%d cannot look at %s: %s", quillon::platform::kSourceFile,
            quillon::platform::kNotLookedAtLine, path.c_str(), error.what());
  }
}

void NoOwnerMaildir::RefreshCache() {
  const auto maildir = quillon::platform::OpenOwnerlessMaildir(path);
  if (!maildir || maildir->uid != uid) {
    quillon::platform::DropCachedUsage(path);
    return;
  }
  const auto contents = quillon::platform::MeasureTree(maildir->folder, path);
  quillon::platform::StoreCachedUsage(quillon::platform::KeyOf(path, *maildir), contents.bytes);
}

}  // namespace velamailserver::account
