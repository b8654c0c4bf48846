#include "accounts/nobody.h"

#include <cerrno>
#include <exception>
#include <new>
#include <optional>
#include <string>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/no_owner_usage.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/maillog.h>

#include "accounts/account_database.h"
#include "accounts/account_lines.h"
#include "accounts/name_services.h"
#include "utils/once_a_minute.h"

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/accounts/nobody";
constexpr int kCannotTellLine = 34;
constexpr int kOwnersUnknownLine = 51;

// The reason is as a rule the same for every directory of a scan.
void LogReason(const std::string& reason) {
  static OnceAMinute log;
  if (log.IsDue(reason)) {
    maillog(4, "%s:%d cannot find out whose a uid is, it counts as somebody's: %s", kSourceFile,
            kCannotTellLine, reason.c_str());
  }
}

// The answer to a question, or false when it cannot be answered.
template <typename Ask>
bool AnswerOf(const Ask& ask) {
  try {
    return ask();
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const velamailserver::LogException&) {
    return false;  // it has logged itself
  } catch (const std::exception& error) {
    LogReason(error.what());
    return false;
  }
}

// The name of the uid in a users file, which is read anew.
std::optional<std::string> NameInFile(const std::string& path, std::uint32_t uid) {
  const FileText file = ReadAccountFile(path);
  AccountLines lines(file.text, AccountLines::kPasswd);
  while (lines.Next()) {
    if (!lines.entry()) {
      throw FileError(EINVAL, path, fmt::format("line {} is not an account entry", lines.number()));
    }
    if (lines.entry()->id == uid) {
      return std::string(lines.entry()->name);
    }
  }
  return std::nullopt;
}

bool IsInFilesReadAnew(std::uint32_t uid) {
  const std::string users_file = CurrentConfiguration()->accounts.passwd_file;
  return NameInFile(users_file, uid) ||
         (users_file != kHostPasswdFile && NameInFile(kHostPasswdFile, uid));
}

}  // namespace

bool IsNobody(std::uint32_t uid) {
  return AnswerOf([uid] { return !IsInUsersFiles(uid) && IsUnknownToNameServices(uid); });
}

bool IsNobodyAskedAfresh(std::uint32_t uid) {
  return AnswerOf([uid] {
    return !IsInFilesReadAnew(uid) && IsUnknownToNameServices(uid) && FindHostUser(uid) == nullptr;
  });
}

void RequireKnownOwners() {
  constexpr std::uint32_t kUnlikelyUid = 4'294'967'294;
  try {
    IsInUsersFiles(kUnlikelyUid);
    IsUnknownToNameServices(kUnlikelyUid);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const velamailserver::LogException&) {
    throw;
  } catch (const std::exception& error) {
    throw velamailserver::LogException(
        velamailserver::ERR_SDK_USER_ENUM,
        fmt::format("cannot find out whose the mail directories are: {}", error.what()), 3,
        kSourceFile, kOwnersUnknownLine);
  }
}

bool IsAccountAskedAfresh(std::uint32_t uid, const std::string& account) {
  return AnswerOf([&] {
    if (const auto name = NameInFile(CurrentConfiguration()->accounts.passwd_file, uid)) {
      return *name == account;
    }
    const auto user = FindHostUser(uid);
    return user != nullptr && user->name == account;
  });
}

}  // namespace quillon::platform
