#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "utils/file_descriptor.h"

namespace quillon::platform {

/// Absolute path of the folder that holds all mail directories, without a link, a "." or a slash
/// too many in it, so that what begins with it lies in it. As it was configured while it is
/// missing.
std::string MaildirRoot();

/// Opens the maildir root for looking things up in it (O_PATH). Throws `LogException` with
/// `ERR_LSTAT_FILE`, naming the path and the key, when that cannot be done: a missing root is an
/// error, because with a disk that is not mounted, or a slip in the configuration, all users would
/// seem to have no mail.
FileDescriptor OpenMaildirRoot();

/// Whether an account of this name can have a mail directory.
bool IsFolderName(std::string_view name);

/// Absolute path of an account's mail directory; empty when the account's name cannot be that of a
/// folder.
std::string MaildirPath(const std::string& account);

/// Opens an account's mail directory for looking things up in it (O_PATH), without following a link
/// below the maildir root. The answer holds nothing when there is no mail directory: nothing of the
/// name, not a folder, or neither the folders "cur", "new" and "tmp" in it nor nothing but folders
/// of these names, as a removal that was cut short leaves it; nor when the domain has no folder
/// yet. Throws `LogException` with `ERR_LSTAT_FILE` or `ERR_SDK_FILE_ENUM_DIR`, naming the path,
/// when that cannot be found out, and when the maildir root is missing or the domain's folder is a
/// link or no folder.
FileDescriptor OpenMaildir(const std::string& account);

/// What is at a path that may be that of a mail directory.
struct MaildirAt {
  enum State {
    kNone,     ///< no mail directory, and no place of one
    kAbsent,   ///< the place of a mail directory, where nothing is
    kMaildir,  ///< a mail directory, or what a removal that was cut short has left of one
  };

  State state = kNone;
  // Set when it is a mail directory.
  std::string domain_name;
  std::string account;
  FileDescriptor domain;  ///< open for looking things up in it (O_PATH), as is the next
  FileDescriptor folder;
  std::uint32_t uid = 0;
  std::uint64_t inode = 0;
};

/// Looks at a path from anywhere. A mail directory is a real folder exactly two levels below the
/// maildir root without a link in between, by an absolute path that begins with the root as
/// `MaildirRoot` has it. It has the folders "cur", "new" and "tmp", or nothing but folders of these
/// names. Throws `LogException` with `ERR_LSTAT_FILE` or `ERR_SDK_FILE_ENUM_DIR` when that cannot
/// be found out, and when the maildir root is missing.
MaildirAt OpenMaildirAt(const std::string& path);

}  // namespace quillon::platform
