#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace quillon::platform {

/// Gives a file new content, or makes it: as a whole or not at all, even if the power fails. It
/// writes to `path` + ".new" first, so only one process may do it at a time, and nobody else may
/// write to the folder. A link in the file's place is replaced. Throws `FileError`.
void ReplaceFile(const std::string& path, std::string_view content, mode_t mode);

}  // namespace quillon::platform
