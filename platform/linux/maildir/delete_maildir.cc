#include <fcntl.h>
#include <sys/stat.h>

#include <exception>
#include <new>
#include <string>

#include <fmt/format.h>

#include <velamailserver/account/maildir.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/maillog.h>

#include "accounts/nobody.h"
#include "maildir/maildir.h"
#include "maildir/maildir_tree.h"
#include "maildir/usage_cache.h"

namespace velamailserver::account {

namespace {

using quillon::platform::MaildirAt;

constexpr char kSourceFile[] = "platform/linux/maildir/delete_maildir";
constexpr int kRefusedLine = 42;
constexpr int kRemovedLine = 71;

void LogRefusal(const std::string& path, const std::string& reason) {
  maillog(4, "%s:%d not removed: %s: %s", kSourceFile, kRefusedLine, path.c_str(), reason.c_str());
}

// What is mounted in the place of a mail directory lies somewhere else, too, as a rule.
bool IsMounted(const quillon::platform::FileDescriptor& folder) {
  struct statx status {};
  return ::statx(folder.Get(), "", AT_EMPTY_PATH, 0, &status) != 0 ||
         (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

// Why the directory is not to be removed; empty when nothing speaks against it.
std::string ObjectionTo(const MaildirAt& found, const BaseMaildir& record) {
  if (found.state != MaildirAt::kMaildir) {
    return "it is no mail directory below the maildir root";
  }
  if (found.uid != record.uid) {
    return fmt::format("it belongs to uid {}, not {}", found.uid, record.uid);
  }
  if (IsMounted(found.folder)) {
    return "something is mounted there";
  }
  if (record.account.empty()) {
    return quillon::platform::IsNobodyAskedAfresh(record.uid)
               ? ""
               : fmt::format("uid {} has an owner, or that cannot be found out", record.uid);
  }
  return quillon::platform::IsAccountAskedAfresh(record.uid, record.account)
             ? ""
             : fmt::format("uid {} is not that of account [{}], or that cannot be found out",
                           record.uid, record.account);
}

// The directory is not what was counted, whether or not all of it goes.
void DropFigure(const std::string& path) {
  try {
    quillon::platform::DropCachedUsage(path);
  } catch (const LogException&) {
    // It has logged itself, and a figure of a directory that is gone is never found again.
  }
}

bool Remove(const BaseMaildir& record) {
  const MaildirAt found = quillon::platform::OpenMaildirAt(record.path);
  bool is_gone = found.state == MaildirAt::kAbsent;
  if (!is_gone) {
    const std::string objection = ObjectionTo(found, record);
    if (!objection.empty()) {
      LogRefusal(record.path, objection);
      return false;
    }
    // Before, for the case that the removal is killed; and again, because it may be counted
    // meanwhile.
    DropFigure(record.path);
    is_gone = quillon::platform::RemoveTree(found.domain, found.account, found.folder, record.path);
    if (is_gone) {
      maillog(6, "%s:%d removed: %s of uid %u", kSourceFile, kRemovedLine, record.path.c_str(),
              record.uid);
    }
  }
  DropFigure(record.path);
  return is_gone;
}

}  // namespace

bool BaseMaildir::Delete() const {
  if (!flag) {
    LogRefusal(path, "it was not found to be a mail directory");
    return false;
  }
  try {
    return Remove(*this);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    LogRefusal(path, error.what());
    return false;
  }
}

}  // namespace velamailserver::account
