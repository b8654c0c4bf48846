#pragma once

#include <string>

#include <quillon/platform/no_owner_usage.h>

#include "utils/file_descriptor.h"

namespace quillon::platform {

// Both walk a whole tree from an open folder on: to any depth with a few descriptors, without
// following a link, without entering what is mounted inside, and in spite of somebody who moves
// things about meanwhile. What vanishes meanwhile is not there. `path` is the folder's name in
// messages. The descriptor may be one that was opened for looking up only (O_PATH).

/// Counts what is in a mail directory. Throws `LogException` with `ERR_SDK_FILE_ENUM_DIR` or
/// `ERR_LSTAT_FILE`, naming the path, for what cannot be read.
MaildirContents MeasureTree(const FileDescriptor& maildir, const std::string& path);

/// Removes a mail directory, which is the entry `name` of `parent`, with everything in it. What
/// cannot be removed does not keep the rest from going, but then "cur", "new" and "tmp" stay: they
/// are the last to go, once nothing else is left. Answers whether all is gone, else the reason is
/// in the mail log.
bool RemoveTree(const FileDescriptor& parent, const std::string& name,
                const FileDescriptor& maildir, const std::string& path);

}  // namespace quillon::platform
