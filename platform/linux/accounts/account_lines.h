#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "accounts/account_entry.h"
#include "utils/file_text.h"

namespace quillon::platform {

/// Reads a text in passwd or group format line by line. A byte order mark, blank lines, comments
/// and the entries of compatibility mode ("+…", "-…") are left out.
class AccountLines {
 public:
  using AccountEntry = velamailserver::velasdk::AccountEntry;

  /// Which format: the two share name and id, in their first and third field; the fourth is a
  /// user's primary gid and a group's list of members.
  enum Format { kPasswd, kGroup };

  /// The text must outlive the reader and the entries.
  AccountLines(std::string_view text, Format format);

  /// Goes to the next line. False at the end.
  bool Next();

  /// The number of the line, from 1, and its entry; nothing when it does not parse.
  std::size_t number() const { return number_; }
  const std::optional<AccountEntry>& entry() const { return entry_; }

 private:
  std::string_view rest_;
  const Format format_;
  std::size_t number_ = 0;
  std::optional<AccountEntry> entry_;
};

/// Cuts the text up to the next `separator` off the front of `rest`.
std::string_view CutField(std::string_view& rest, char separator);

/// Reads a file of accounts. Throws `FileError`, for an empty file too: a program that rewrites it
/// in place leaves it so for a moment, and everybody would be gone.
FileText ReadAccountFile(const std::string& path);

}  // namespace quillon::platform
