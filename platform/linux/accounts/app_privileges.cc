#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>

#include <quillon/platform/app_privileges.h>
#include <quillon/platform/configuration.h>
#include <quillon/platform/replace_file.h>
#include <vela/app_privilege.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/maillog.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "accounts/account_lines.h"
#include "accounts/account_table.h"
#include "utils/change_lock.h"
#include "utils/file_text.h"
#include "utils/indexed_file.h"
#include "utils/once_a_minute.h"

namespace quillon::platform {

namespace {

using velamailserver::ERR_INTERNAL;
using velamailserver::ERR_OPEN_FILE;
using velamailserver::LogException;

constexpr char kSourceFile[] = "platform/linux/accounts/app_privileges";
constexpr int kCannotTellLine = 29;
constexpr int kUnusableFileLine = 42;
constexpr int kImpossibleNameLine = 57;

constexpr std::size_t kLongestApp = 255;
constexpr std::size_t kLargestFile = 16U << 20U;  // bytes
constexpr mode_t kModeOfNewFile = 0644;

// Account names in any letter case.
using Users = std::unordered_set<std::string, NameHash, NameEqual>;
// Who may not use what, by the names of applications.
using Notes = std::map<std::string, Users, std::less<>>;

bool IsApp(std::string_view name) {
  return !name.empty() && name.size() <= kLongestApp &&
         std::all_of(name.begin(), name.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '_' || c == '-';
         });
}

// A blank at an end or a character that nobody sees would be part of the name, and so of nobody's.
bool IsUser(std::string_view name) {
  return !name.empty() && name.front() != ' ' && name.back() != ' ' &&
         std::none_of(name.begin(), name.end(),
                      [](char c) { return c == ':' || c == '\x7f' || (c >= '\0' && c < ' '); });
}

// A line of the file; a comment or a blank one when it has no note.
struct Line {
  std::string text;
  std::optional<RevokedPrivilege> note;
};

std::vector<Line> Parse(std::string_view rest, const std::string& path) {
  std::vector<Line> lines;
  while (!rest.empty()) {
    const std::string_view text = CutField(rest, '\n');
    lines.push_back({std::string(text), std::nullopt});
    if (text.find_first_not_of(" \t\r") == std::string_view::npos || text.front() == '#') {
      continue;
    }
    std::string_view user = text;
    const std::string_view app = CutField(user, ':');
    if (!IsApp(app) || !IsUser(user)) {
      throw FileError(EINVAL, path, fmt::format("line {} is not \"APP:USER\"", lines.size()));
    }
    lines.back().note = RevokedPrivilege{std::string(user), std::string(app)};
  }
  return lines;
}

using NotesFile = IndexedFile<Notes>;

NotesFile::Reading ReadNotes(const std::string& path) {
  auto notes = std::make_shared<Notes>();
  const auto file = ReadRootFile(path, kLargestFile, Others::kMayRead);
  if (!file) {
    return {FileState({}), std::move(notes)};
  }
  for (const Line& line : Parse(file->text, path)) {
    if (line.note) {
      (*notes)[line.note->app].insert(line.note->user);
    }
  }
  return {FileState(file->status), std::move(notes)};
}

NotesFile& File() {
  using Settings = Configuration::Accounts;
  static NotesFile file([](const Settings& s) -> const std::string& { return s.privileges_file; },
                        ReadNotes);
  return file;
}

// What `work` answers. Throws `LogException` for its errors.
template <typename Work>
auto UseFile(const Work& work) {
  try {
    return work();
  } catch (const LogException&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw LogException(ERR_OPEN_FILE, error.what(), 3, kSourceFile, kUnusableFileLine);
  }
}

void RequireNames(const std::vector<std::string>& users, const std::string& app) {
  std::string problem;
  if (!IsApp(app)) {
    problem = fmt::format("[{}] cannot be the name of an application", app);
  }
  for (const std::string& user : users) {
    if (!IsUser(user)) {
      problem = fmt::format("[{}] cannot be the name of a user", user);
    }
  }
  if (!problem.empty()) {
    throw LogException(ERR_INTERNAL, problem, 3, kSourceFile, kImpossibleNameLine);
  }
}

// Has `edit` change the file's lines, under its lock.
template <typename Edit>
void Change(const Edit& edit) {
  UseFile([&] {
    const std::string path = CurrentConfiguration()->accounts.privileges_file;
    const velamailserver::velasdk::FileLockGuard lock = LockForChange(path);
    const auto file = ReadRootFile(path, kLargestFile, Others::kMayRead);
    std::vector<Line> lines = Parse(file ? file->text : "", path);
    edit(lines);
    std::string text;
    for (const Line& line : lines) {
      text.append(line.text).append("\n");
    }
    if (text.size() > kLargestFile) {
      throw FileError(EFBIG, path, "would be too large");
    }
    if (text != (file ? file->text : "")) {
      ReplaceFile(path, text, file ? file->status.st_mode & ACCESSPERMS : kModeOfNewFile);
      File().Expire();
    }
  });
}

// Whether nothing forbids the user the application.
bool IsAllowed(const char* user, const char* app) {
  static OnceAMinute log;
  try {
    const auto notes = File().Get(NotesFile::kRecent);
    const auto users = notes->find(std::string_view(app));
    return users == notes->end() || !users->second.contains(std::string_view(user));
  } catch (const LogException&) {
    return false;  // it has logged itself
  } catch (const std::exception& error) {
    if (log.IsDue(error.what())) {
      maillog(3, "%s:%d cannot find out who may use which application, nobody may: %s", kSourceFile,
              kCannotTellLine, error.what());
    }
    return false;
  }
}

}  // namespace

std::vector<RevokedPrivilege> ListRevokedPrivileges() {
  const auto notes = UseFile([] { return File().Get(NotesFile::kNow); });
  std::vector<RevokedPrivilege> list;
  for (const auto& [app, users] : *notes) {
    const std::size_t begin = list.size();
    for (const std::string& user : users) {
      list.push_back({user, app});
    }
    std::sort(list.begin() + static_cast<std::ptrdiff_t>(begin), list.end(),
              [](const auto& left, const auto& right) { return left.user < right.user; });
  }
  return list;
}

void GrantPrivilege(const std::vector<std::string>& users, const std::string& app) {
  RequireNames(users, app);
  const Users granted(users.begin(), users.end());
  Change([&](std::vector<Line>& lines) {
    std::erase_if(lines, [&](const Line& line) {
      return line.note && line.note->app == app && granted.contains(line.note->user);
    });
  });
}

void RevokePrivilege(const std::vector<std::string>& users, const std::string& app) {
  RequireNames(users, app);
  Change([&](std::vector<Line>& lines) {
    Users revoked;
    for (const Line& line : lines) {
      if (line.note && line.note->app == app) {
        revoked.insert(line.note->user);
      }
    }
    for (const std::string& user : users) {
      if (revoked.insert(user).second) {
        lines.push_back({fmt::format("{}:{}", app, user), std::nullopt});
      }
    }
  });
}

}  // namespace quillon::platform

extern "C" int VLIBAppPrivUserHas(const char* user, const char* app, const char* /*reserved*/) {
  try {
    const bool is_allowed =
        user != nullptr && app != nullptr && quillon::platform::IsAllowed(user, app);
    return is_allowed ? 1 : 0;
  } catch (...) {
    return 0;  // out of memory while it was about to log
  }
}
