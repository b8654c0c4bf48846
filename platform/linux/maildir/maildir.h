#pragma once

#include <string>

#include "utils/file_descriptor.h"

namespace quillon::platform {

/// Absolute path of an account's mail directory; empty when the account's name cannot be that of a
/// folder.
std::string MaildirPath(const std::string& account);

/// Opens an account's mail directory for looking things up in it (O_PATH), without following a link
/// below the maildir root. The answer holds nothing when there is no mail directory: nothing of the
/// name, not a folder, or no folders "cur", "new" and "tmp" in it; nor when the domain has no
/// folder yet. Throws `LogException` with `ERR_LSTAT_FILE`, naming the path, when that cannot be
/// found out, and when the maildir root is missing or the domain's folder is a link or no folder.
FileDescriptor OpenMaildir(const std::string& account);

}  // namespace quillon::platform
